#pragma once
#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <memory>

class QProcess;
class QTemporaryDir;

// A fault-injecting HTTP/1.1 server (support/fault_server.py) run as its own process on
// 127.0.0.1 with an OS-chosen port. It serves the files below rootDir with correct Range
// handling (206 + Content-Range, 416 when unsatisfiable), records every request, and can be
// told per path to misbehave. The process is stopped by the destructor.
class TestServer {
public:
    // How to misbehave for one URL path (without the leading "/"). Defaults: behave.
    struct Rule {
        int status = 0;                   // answer this status with a short body instead of the file
        bool ignoreRange = false;         // answer 200 with the whole file even when Range is asked
        bool partialWithoutRange = false; // answer 206 (whole file as the range) when no Range was sent
        double stallBeforeSeconds = 0;    // wait before sending the status line
        qint64 stallAfterBytes = -1;      // send this many body bytes, then ...
        double stallSeconds = 0;          // ... pause this long, then send the rest
        qint64 closeAfterBytes = -1;      // send this many body bytes, then close the connection
        bool corruptBody = false;         // send a body of the right length with different bytes
        QString redirectTo;               // answer 302 with this Location (a path or a full URL)
        qint64 chunkBytes = 0;            // send the body in chunks of this size ...
        double chunkPauseSeconds = 0;     // ... pausing this long between chunks
        bool endless = false;             // send bytes without end (no Content-Length) ...
        bool chunked = false;             // ... in "Transfer-Encoding: chunked" instead of until close
        qint64 gzipBytes = 0;             // answer 200 with "Content-Encoding: gzip" and a gzip body
                                          // that inflates to this many zero bytes
        int times = -1;                   // apply to the first N matching requests only; -1: always
    };

    struct Request {
        QString method;
        QString path;                        // URL path without the leading "/", query kept
                                             // (percent-decoded)
        QString target;                      // request target exactly as sent ("/a%20b?x")
        QMap<QByteArray, QByteArray> headers; // names in lower case
    };

    explicit TestServer(const QString& rootDir);
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    // Starts the process and waits until it listens; false when it could not start.
    bool start();
    quint16 port() const { return serverPort; }
    // "http://127.0.0.1:<port>/" + path
    QString url(const QString& path = QString()) const;
    QString rootDir() const { return root; }

    void setRule(const QString& path, const Rule& rule);
    void clearRules();

    // Every request received so far, in arrival order.
    QList<Request> requests() const;
    // Only the requests for one path.
    QList<Request> requestsFor(const QString& path) const;
    void clearRequests();

private:
    void writeRules() const;

    QString root;
    QString controlDir;
    QProcess* process = nullptr;
    quint16 serverPort = 0;
    std::unique_ptr<QTemporaryDir> controlTemp;
    QMap<QString, Rule> rules;
    QMap<QString, int> ruleGenerations;  // a rule set again starts counting `times` afresh
    int nextGeneration = 0;
    qint64 requestLogStart = 0;           // clearRequests() forgets what lies before this offset
};

// The rules the fault tables use most, by what they do.
namespace faults {
inline TestServer::Rule status(int code)
{
    TestServer::Rule rule;
    rule.status = code;
    return rule;
}
inline TestServer::Rule cutAfter(qint64 bytes)
{
    TestServer::Rule rule;
    rule.closeAfterBytes = bytes;
    return rule;
}
inline TestServer::Rule corrupt(int times)
{
    TestServer::Rule rule;
    rule.corruptBody = true;
    rule.times = times;
    return rule;
}
inline TestServer::Rule redirect(const QString& to)
{
    TestServer::Rule rule;
    rule.redirectTo = to;
    return rule;
}
inline TestServer::Rule endless()
{
    TestServer::Rule rule;
    rule.endless = true;
    return rule;
}
inline TestServer::Rule gzipBomb()
{
    TestServer::Rule rule;
    rule.gzipBytes = 1073741824;  // 1 GiB of zeros in about 1 MB of gzip
    return rule;
}
} // namespace faults
