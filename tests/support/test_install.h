#pragma once
#include <QByteArray>
#include <QMap>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

class QProcess;

// One line of updater.log, split into its parts ("2025-03-04 10:11:12.345 [I] [apply] text").
struct LogEntry {
    QString level;  // "I", "W", ...
    QString tag;    // "apply" or "prefetch"
    QString text;   // the message exactly as written
};
QList<LogEntry> readLogEntries(const QString& logPath);
// Only the texts, for exact comparisons.
QStringList logTexts(const QString& logPath);

// Lower-case hex SHA-256 of bytes (computed with OpenSSL, independently of the updater's code).
QString sha256Hex(const QByteArray& bytes);

// A published build: relative path -> content.
using BuildFiles = QMap<QString, QByteArray>;

// manifest.json text for a build, files listed in map order with size and sha256.
// buildNumber < 0 leaves the key out; empty product/arch leave their keys out.
QByteArray makeManifestJson(const QString& fullVersion, qint64 buildNumber, const BuildFiles& files,
                            const QString& product = QStringLiteral("Corvanta"),
                            const QString& arch = QStringLiteral("x64"));

// Where a publisher puts the compressed copy of `content` below the published tree
// (".zstd/<sha256>.zst"), and a patch from `source` to it (".zstd/<source sha256>-<sha256>.zst").
QString compressedRelPath(const QByteArray& content);
QString patchRelPath(const QByteArray& source, const QByteArray& content);
// manifestJson with artifacts listed in the entry of `path`: "zstd" (size and SHA-256 of
// `compressed`) unless it is empty, and one "zstdPatches" element per (source content, patch).
QByteArray withArtifacts(const QByteArray& manifestJson, const QString& path, const QByteArray& compressed,
                         const QList<QPair<QByteArray, QByteArray>>& patches = {});

// Writes the build's files below serverRoot/subdir, then manifestJson as manifest.json and
// its signature (development key) as manifest.json.sig. Returns false on any write failure.
bool publishBuild(const QString& serverRoot, const QString& subdir, const BuildFiles& files,
                  const QByteArray& manifestJson);

// A temporary installation directory holding a copy of the real updater executable.
class TestInstall {
public:
    TestInstall();
    ~TestInstall();
    bool isValid() const;

    QString dir() const;
    QString path(const QString& relPath) const;  // dir() + "/" + relPath
    QString exePath() const;                      // dir() + "/updater"
    QString logPath() const;                      // dir() + "/updater.log"

    bool writeFile(const QString& relPath, const QByteArray& bytes);  // creates parent dirs
    QByteArray readFile(const QString& relPath) const;
    bool exists(const QString& relPath) const;
    // Installs a build: its files plus manifest.json holding manifestJson.
    bool installBuild(const BuildFiles& files, const QByteArray& manifestJson);
    // Writes updater.conf with "manifestUrl" and, when not empty, "baseUrl".
    bool writeConfig(const QString& manifestUrl, const QString& baseUrl = QString());
    // Every regular file below dir(), relative paths, sorted (updater.log and the updater
    // executable included).
    QStringList allFiles() const;

    // Runs the updater with args and waits for it; the environment is the test's own plus
    // QT_QPA_PLATFORM=offscreen unless env says otherwise. Returns the exit code, or -1 when
    // it did not finish within timeoutMs (it is then killed).
    int run(const QStringList& args = {}, int timeoutMs = 60000,
            const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment());
    // Starts the updater without waiting; the caller owns the process.
    QProcess* start(const QStringList& args = {},
                    const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment());

    QStringList logTexts() const { return ::logTexts(logPath()); }

private:
    QTemporaryDir temp;
};
