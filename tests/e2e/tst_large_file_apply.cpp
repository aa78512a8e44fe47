// A build with one 300 MiB file goes through the real updater: download, hashing, staging
// and apply all stream the file, so the process's peak memory stays far below its size.
#include "support/test_install.h"
#include "support/test_server.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QtTest>

namespace {

constexpr qint64 kBlockBytes = 1024 * 1024;
constexpr qint64 kBlocks = 300;
constexpr qint64 kFileBytes = kBlockBytes * kBlocks;
// Far below the file size, well above what Qt and OpenSSL need on their own.
constexpr qint64 kPeakRssLimitKiB = 100 * 1024;
const QString kTimeTool = QStringLiteral("/usr/bin/time");

// Writes kBlocks copies of one pseudo-random block, each stamped with its index so that no
// two blocks are equal; returns the lower-case hex SHA-256, empty on failure.
QString writeLargeFile(const QString& path)
{
    QByteArray block(int(kBlockBytes), Qt::Uninitialized);
    QRandomGenerator generator(20250304);
    generator.fillRange(reinterpret_cast<quint32*>(block.data()), int(kBlockBytes / sizeof(quint32)));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return QString();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (qint64 i = 0; i < kBlocks; ++i) {
        memcpy(block.data(), &i, sizeof(i));
        if (file.write(block) != block.size())
            return QString();
        hash.addData(block);
    }
    return QString::fromLatin1(hash.result().toHex());
}

QString hashOfFile(const QString& path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return QString();
    return QString::fromLatin1(hash.result().toHex());
}

QByteArray manifestFor(const QString& version, qint64 buildNumber, const QJsonArray& files)
{
    return QJsonDocument(QJsonObject{{QStringLiteral("buildNumber"), double(buildNumber)},
                                     {QStringLiteral("fullVersion"), version},
                                     {QStringLiteral("files"), files}})
        .toJson();
}

QJsonObject fileEntry(const QString& path, qint64 size, const QString& sha256)
{
    return QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("size"), double(size)},
                       {QStringLiteral("sha256"), sha256}};
}

} // namespace

class TestLargeFileApply : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void largeFileIsStreamed();

private:
    QTemporaryDir runtimeDir;
};

void TestLargeFileApply::initTestCase()
{
    QVERIFY(runtimeDir.isValid());
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    QVERIFY2(QFileInfo(kTimeTool).isExecutable(), "GNU time (Debian package \"time\") measures the peak memory");
}

void TestLargeFileApply::largeFileIsStreamed()
{
    TestInstall install;
    QTemporaryDir serverDir;
    QVERIFY(install.isValid());
    QVERIFY(serverDir.isValid());
    TestServer server(serverDir.path());
    QVERIFY(server.start());

    QVERIFY(QDir().mkpath(serverDir.filePath(QStringLiteral("app"))));
    const QString bigHash = writeLargeFile(serverDir.filePath(QStringLiteral("app/big.bin")));
    QVERIFY(!bigHash.isEmpty());
    const BuildFiles small{{QStringLiteral("small.txt"), "small 2"}};
    const QByteArray published = manifestFor(
        QStringLiteral("2.0"), 2,
        QJsonArray{fileEntry(QStringLiteral("big.bin"), kFileBytes, bigHash),
                   fileEntry(QStringLiteral("small.txt"), 7, sha256Hex("small 2"))});
    QVERIFY(publishBuild(serverDir.path(), QStringLiteral("app"), small, published));
    QVERIFY(install.installBuild({{QStringLiteral("small.txt"), "small 1"}},
                                 manifestFor(QStringLiteral("1.0"), 1,
                                             QJsonArray{fileEntry(QStringLiteral("small.txt"), 7, sha256Hex("small 1"))})));
    QVERIFY(install.writeConfig(server.url(QStringLiteral("app/manifest.json"))));

    const QString rssFile = install.path(QStringLiteral("peak-rss.txt"));
    QProcess updater;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    updater.setProcessEnvironment(env);
    updater.setProcessChannelMode(QProcess::ForwardedChannels);
    QElapsedTimer clock;
    clock.start();
    updater.start(kTimeTool, {QStringLiteral("-f"), QStringLiteral("%M"), QStringLiteral("-o"), rssFile, install.exePath()});
    QVERIFY(updater.waitForFinished(240000));
    const qint64 elapsedMs = clock.elapsed();
    QCOMPARE(updater.exitStatus(), QProcess::NormalExit);
    QCOMPARE(updater.exitCode(), 0);

    QVERIFY(install.logTexts().contains(QStringLiteral("[Update] CAP NHAT THANH CONG -> \"2.0\"")));
    QCOMPARE(QFileInfo(install.path(QStringLiteral("big.bin"))).size(), kFileBytes);
    QCOMPARE(hashOfFile(install.path(QStringLiteral("big.bin"))), bigHash);
    QCOMPARE(install.readFile(QStringLiteral("small.txt")), QByteArray("small 2"));
    QVERIFY(!install.exists(QStringLiteral(".staging")));

    bool ok = false;
    const qint64 peakKiB = install.readFile(QStringLiteral("peak-rss.txt")).trimmed().toLongLong(&ok);
    QVERIFY2(ok, install.readFile(QStringLiteral("peak-rss.txt")).constData());
    qInfo("updater applied %lld MiB in %lld ms with a peak RSS of %lld KiB", kFileBytes / kBlockBytes, elapsedMs,
          peakKiB);
    QVERIFY2(peakKiB < kPeakRssLimitKiB, qPrintable(QStringLiteral("peak RSS %1 KiB").arg(peakKiB)));
}

QTEST_GUILESS_MAIN(TestLargeFileApply)
#include "tst_large_file_apply.moc"
