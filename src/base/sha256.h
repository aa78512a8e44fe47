#pragma once
#include <QByteArray>
#include <QString>
#include <memory>

class QIODevice;

// Incremental SHA-256, backed by OpenSSL's EVP digest (it uses the CPU's SHA instructions
// and is about ten times faster than QCryptographicHash here).
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void addData(const char* data, qint64 length);
    void addData(const QByteArray& data) { addData(data.constData(), data.size()); }
    // Lower-case hexadecimal digest of everything added so far.
    QString hexResult();

private:
    struct Context;
    std::unique_ptr<Context> context;
};

// Lower-case hexadecimal SHA-256 of a file's whole content, read in fixed-size chunks; the
// empty string when the file cannot be opened or read.
QString sha256OfFile(const QString& path);
// The same over what is left to read of an open device.
QString sha256Of(QIODevice& device);
