#pragma once
// Shared pieces of the prefetcher suites: a capture of every log message, deterministic file
// contents, and a bench made of a temporary installation plus a fault-injecting server that
// publishes builds under "b/".
#include "base/installation_dir.h"
#include "base/instance_locks.h"
#include "prefetch/update_prefetcher.h"
#include "support/test_files.h"
#include "support/test_install.h"
#include "support/test_server.h"
#include "support/test_signing.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QSignalSpy>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>

Q_DECLARE_METATYPE(TestServer::Rule)

// Collects every message the process writes, exactly as the message handler receives it,
// and passes it on to the previous handler so that it still shows in the test output.
// Installed from initTestCase(): QtTest puts its own handler in place when the run starts.
class LogCapture {
public:
    static void install() { previous() = qInstallMessageHandler(&LogCapture::handler); }
    static void uninstall() { qInstallMessageHandler(previous()); }

    // The prefetcher's lines ("[UpdatePrefetch] ..."), in order.
    static QStringList prefetchLines()
    {
        QMutexLocker lock(&mutex());
        QStringList result;
        for (const QString& line : lines()) {
            if (line.startsWith(QLatin1String("[UpdatePrefetch]")))
                result.append(line);
        }
        return result;
    }
    static QStringList warnings()
    {
        QMutexLocker lock(&mutex());
        return warningLines();
    }
    static bool contains(const QString& line) { return prefetchLines().contains(line); }
    static void clear()
    {
        QMutexLocker lock(&mutex());
        lines().clear();
        warningLines().clear();
    }

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        {
            QMutexLocker lock(&mutex());
            lines().append(text);
            if (type == QtWarningMsg && text.startsWith(QLatin1String("[UpdatePrefetch]")))
                warningLines().append(text);
        }
        if (previous())
            previous()(type, context, text);
    }
    static QtMessageHandler& previous()
    {
        static QtMessageHandler handler = nullptr;
        return handler;
    }
    static QStringList& lines()
    {
        static QStringList all;
        return all;
    }
    static QStringList& warningLines()
    {
        static QStringList all;
        return all;
    }
    static QMutex& mutex()
    {
        static QMutex m;
        return m;
    }
};

// Reproducible bytes that differ between seeds and between positions, so that a resume from
// the wrong offset or a mixed-up file shows up in the hash.
inline QByteArray patternBytes(qint64 size, quint32 seed)
{
    QByteArray bytes(int(size), Qt::Uninitialized);
    quint32 x = seed * 2654435761u + 12345u;
    for (int i = 0; i < bytes.size(); ++i) {
        x = x * 1664525u + 1013904223u;
        bytes[i] = char(x >> 24);
    }
    return bytes;
}

// Gives each suite its own lock namespace (the prefetch lock lives in $XDG_RUNTIME_DIR).
inline void isolateLockNamespace()
{
    static QTemporaryDir runtimeDir;
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
}

// A manifest entry with any declared size: for runs that are judged by their plan, not by
// their download.
inline QJsonObject manifestEntry(const QString& path, qint64 size, const QString& sha256)
{
    return QJsonObject{{QStringLiteral("path"), path},
                       {QStringLiteral("size"), double(size)},
                       {QStringLiteral("sha256"), sha256}};
}

inline QByteArray manifestWithEntries(const QString& fullVersion, qint64 buildNumber,
                                      const QJsonArray& files)
{
    QJsonObject root{{QStringLiteral("fullVersion"), fullVersion},
                     {QStringLiteral("product"), QStringLiteral("Corvanta")},
                     {QStringLiteral("arch"), QStringLiteral("x64")},
                     {QStringLiteral("files"), files}};
    if (buildNumber >= 0)
        root.insert(QStringLiteral("buildNumber"), double(buildNumber));
    return QJsonDocument(root).toJson();
}

// A temporary installation directory for library runs of the prefetcher, with updater.conf
// pointing at a fault-injecting server that publishes under "b/".
class PrefetchBench {
public:
    QTemporaryDir install;
    QTemporaryDir published;
    TestServer server{published.path()};

    // Starts the server, points installationDir() at the installation (the temporary one, or
    // `installDir` when given) and writes updater.conf.
    bool setUp(const QString& installDir = QString())
    {
        if (!install.isValid() || !published.isValid() || !server.start())
            return false;
        root = installDir.isEmpty() ? install.path() : installDir;
        setInstallationDirForTesting(root);
        LogCapture::clear();
        return writeFile(dir() + QStringLiteral("/updater.conf"),
                         QJsonDocument(QJsonObject{
                             {QStringLiteral("manifestUrl"), server.url(QStringLiteral("b/manifest.json"))},
                         }).toJson());
    }
    QString dir() const { return root; }

    bool publish(const QString& version, qint64 buildNumber, const BuildFiles& files)
    {
        return publishBuild(published.path(), QStringLiteral("b"), files,
                            makeManifestJson(version, buildNumber, files));
    }
    // Publishes manifest bytes (signed with the development key) without touching the files.
    bool publishManifest(const QByteArray& manifestJson)
    {
        return publishBuild(published.path(), QStringLiteral("b"), {}, manifestJson);
    }
    bool installManifest(const QString& version, qint64 buildNumber, const BuildFiles& files)
    {
        return writeFile(dir() + QStringLiteral("/manifest.json"),
                         makeManifestJson(version, buildNumber, files));
    }

    QString cacheDir(const QString& versionKey) const
    {
        return dir() + QStringLiteral("/.update-cache/") + versionKey;
    }
    QString cacheFile(const QString& versionKey, const QString& relPath) const
    {
        return cacheDir(versionKey) + QStringLiteral("/files/") + relPath;
    }
    QString partFile(const QString& versionKey, const QString& relPath) const
    {
        return cacheFile(versionKey, relPath) + QStringLiteral(".part");
    }
    QJsonObject readState(const QString& versionKey) const
    {
        return QJsonDocument::fromJson(readFile(cacheDir(versionKey) + QStringLiteral("/state.json")))
            .object();
    }
    // The state.json entry of one file.
    QJsonObject stateEntry(const QString& versionKey, const QString& relPath) const
    {
        const QJsonArray files = readState(versionKey).value(QStringLiteral("files")).toArray();
        for (const QJsonValue& value : files) {
            if (value.toObject().value(QStringLiteral("path")).toString() == relPath)
                return value.toObject();
        }
        return QJsonObject();
    }
    // Files requested below "b/" other than the manifest and its signature.
    QStringList fileRequests() const
    {
        QStringList paths;
        for (const TestServer::Request& request : server.requests()) {
            if (!request.path.startsWith(QLatin1String("b/manifest.json")))
                paths.append(request.path);
        }
        return paths;
    }

private:
    QString root;
};

// Runs a fresh prefetcher to its end; false when it did not start or did not finish in time.
inline bool runPrefetchToEnd(int timeoutMs = 60000)
{
    corv::UpdatePrefetcher prefetcher;
    QSignalSpy finished(&prefetcher, &corv::UpdatePrefetcher::finished);
    if (!prefetcher.start())
        return false;
    return QTest::qWaitFor([&] { return finished.count() > 0; }, timeoutMs) && finished.count() == 1;
}
