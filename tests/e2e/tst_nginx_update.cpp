#include "support/nginx_server.h"
#include "support/test_files.h"
#include "support/test_install.h"
#include "support/test_signing.h"
#include "tools/publish_tool.h"
#include "update/manifest_signature.h"

#include <QDir>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr int kUpdaterTimeoutMs = 90000;
const QString kVersion1 = QStringLiteral("1.0.0");
const QString kVersion2 = QStringLiteral("2.0.0");

// Build 2 changes four files of build 1 (one with blanks and Vietnamese letters in its path),
// keeps one, and adds one in a new directory.
BuildFiles build1()
{
    BuildFiles files;
    files.insert(QStringLiteral("Corvanta.exe"), patternBytes(200 * 1024, 1));
    files.insert(QStringLiteral("bin/core.dll"), patternBytes(150 * 1024, 2));
    files.insert(QStringLiteral("bin/unchanged.dll"), patternBytes(60 * 1024, 3));
    files.insert(QStringLiteral("data/readme.txt"), "build 1\n");
    files.insert(QString::fromUtf8("docs/hướng dẫn.txt"), "phiên bản 1\n");
    return files;
}

BuildFiles build2()
{
    BuildFiles files = build1();
    files.insert(QStringLiteral("Corvanta.exe"), patternBytes(210 * 1024, 11));
    files.insert(QStringLiteral("bin/core.dll"), patternBytes(120 * 1024 + 7, 12));
    files.insert(QStringLiteral("data/readme.txt"), "build 2\n");
    files.insert(QString::fromUtf8("docs/hướng dẫn.txt"), "phiên bản 2\n");
    files.insert(QStringLiteral("plugins/new.dll"), patternBytes(30 * 1024, 13));
    return files;
}

const QStringList kChangedInBuild2{QStringLiteral("Corvanta.exe"), QStringLiteral("bin/core.dll"),
                                   QStringLiteral("data/readme.txt"), QString::fromUtf8("docs/hướng dẫn.txt"),
                                   QStringLiteral("plugins/new.dll")};

// What an installation holds besides the build's own files.
const QStringList kUpdaterFiles{QStringLiteral("manifest.json"), QStringLiteral("updater"),
                                QStringLiteral("updater.conf"), QStringLiteral("updater.log")};

QStringList paths(const QList<NginxServer::Request>& requests)
{
    QStringList result;
    for (const NginxServer::Request& request : requests)
        result.append(request.path);
    return result;
}

} // namespace

class TestNginxUpdate : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void updatesBuildOneToBuildTwo();
    void secondRunReportsUpToDate();
    void prefetchThenApplyRequestsNoFiles();
    void buildSignedWithAnotherKeyIsRejected();

private:
    bool publish(const BuildFiles& files, const QString& version, int buildNumber, const QString& key);
    void installBuild1();
    void verifyInstalledBuild2();

    QTemporaryDir locks;
    QTemporaryDir keys;
    QScopedPointer<QTemporaryDir> work;
    QScopedPointer<NginxServer> server;
    QScopedPointer<TestInstall> install;
    QString served;
    QByteArray manifest1;
};

void TestNginxUpdate::initTestCase()
{
    qputenv("XDG_RUNTIME_DIR", locks.path().toUtf8());
    QVERIFY2(!NginxServer::executable().isEmpty(), "nginx is not installed (Debian package nginx-light)");
    if (QByteArray(kEmbeddedPublicKeyPem) != readFile(QStringLiteral(CORV_SOURCE_DIR "/keys/dev_public.pem")))
        QSKIP("the updater is built with another key than the development key these builds are signed with");
    QVERIFY(generateKeyPair(keys.filePath(QStringLiteral("other.pem")), keys.filePath(QStringLiteral("other.pub"))));
}

void TestNginxUpdate::init()
{
    work.reset(new QTemporaryDir);
    served = work->filePath(QStringLiteral("www/corvanta"));
    server.reset(new NginxServer(work->filePath(QStringLiteral("www"))));
    QString error;
    QVERIFY2(server->start(&error), qPrintable(error));

    // The vendor's sequence: build 1 was published and installed, build 2 is published over it.
    QVERIFY(publish(build1(), kVersion1, 1, devPrivateKeyPath()));
    manifest1 = readFile(served + QStringLiteral("/manifest.json"));
    installBuild1();
}

void TestNginxUpdate::cleanup()
{
    install.reset();
    server.reset();
    work.reset();
}

bool TestNginxUpdate::publish(const BuildFiles& files, const QString& version, int buildNumber, const QString& key)
{
    const QString input = work->filePath(QStringLiteral("build-") + version);
    QDir(input).removeRecursively();
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        if (!writeFile(input + QLatin1Char('/') + it.key(), it.value()))
            return false;
    }
    const ToolRun run = runPublishTool({QStringLiteral("build"), QStringLiteral("--input"), input, QStringLiteral("--out"),
                                        served, QStringLiteral("--version"), version, QStringLiteral("--build-number"),
                                        QString::number(buildNumber), QStringLiteral("--key"), key});
    if (run.exitCode != 0)
        qWarning() << "corvanta-publish failed:" << run.err;
    return run.exitCode == 0;
}

void TestNginxUpdate::installBuild1()
{
    install.reset(new TestInstall);
    QVERIFY(install->isValid());
    QVERIFY(install->installBuild(build1(), manifest1));
    QVERIFY(install->writeConfig(server->url(QStringLiteral("corvanta/manifest.json"))));
}

void TestNginxUpdate::verifyInstalledBuild2()
{
    const BuildFiles expected = build2();
    QStringList all = expected.keys() + kUpdaterFiles;
    all.sort();
    QCOMPARE(install->allFiles(), all);  // nothing left in .staging, no .bak, no cache
    for (auto it = expected.cbegin(); it != expected.cend(); ++it)
        QVERIFY2(install->readFile(it.key()) == it.value(), qPrintable(it.key()));
    QCOMPARE(install->readFile(QStringLiteral("manifest.json")), readFile(served + QStringLiteral("/manifest.json")));
    QVERIFY(!install->exists(QStringLiteral(".staging")));
}

void TestNginxUpdate::updatesBuildOneToBuildTwo()
{
    QVERIFY(publish(build2(), kVersion2, 2, devPrivateKeyPath()));
    const int before = server->requests().size();

    QCOMPARE(install->run({}, kUpdaterTimeoutMs), 0);

    verifyInstalledBuild2();
    QVERIFY(install->logTexts().contains(QStringLiteral("[Update] CAP NHAT THANH CONG -> \"2.0.0\"")));
    // The manifest, its signature, then each changed file once, all answered 200; the file
    // that build 2 kept is not fetched.
    const QList<NginxServer::Request> requests = server->requests().mid(before);
    QCOMPARE(paths(requests.mid(0, 2)),
             (QStringList{QStringLiteral("corvanta/manifest.json"), QStringLiteral("corvanta/manifest.json.sig")}));
    QStringList files = paths(requests.mid(2));
    files.sort();
    QStringList expected;
    for (const QString& path : kChangedInBuild2)
        expected << QStringLiteral("corvanta/") + path;
    expected.sort();
    QCOMPARE(files, expected);
    for (const NginxServer::Request& request : requests) {
        QCOMPARE(request.method, QStringLiteral("GET"));
        QCOMPARE(request.status, 200);
    }
}

void TestNginxUpdate::secondRunReportsUpToDate()
{
    QVERIFY(publish(build2(), kVersion2, 2, devPrivateKeyPath()));
    QCOMPARE(install->run({}, kUpdaterTimeoutMs), 0);
    const int logLines = install->logTexts().size();
    const int before = server->requests().size();

    QCOMPARE(install->run({}, kUpdaterTimeoutMs), 0);

    QVERIFY(install->logTexts().mid(logLines).contains(QStringLiteral("[Update] da moi nhat: \"2.0.0\"")));
    QCOMPARE(paths(server->requests().mid(before)),
             (QStringList{QStringLiteral("corvanta/manifest.json"), QStringLiteral("corvanta/manifest.json.sig")}));
    verifyInstalledBuild2();
}

void TestNginxUpdate::prefetchThenApplyRequestsNoFiles()
{
    QVERIFY(publish(build2(), kVersion2, 2, devPrivateKeyPath()));

    QCOMPARE(install->run({QStringLiteral("--prefetch-only")}, kUpdaterTimeoutMs), 0);
    QVERIFY2(install->logTexts().contains(
                 QStringLiteral("[UpdatePrefetch] xong toan bo - 5 file ok, 0 bo lai cho updater")),
             qPrintable(install->logTexts().join(QLatin1Char('\n'))));
    // The prefetch changed nothing installed; the new files wait in the cache.
    const BuildFiles installed = build1();
    for (auto it = installed.cbegin(); it != installed.cend(); ++it)
        QCOMPARE(install->readFile(it.key()), it.value());
    for (const QString& path : kChangedInBuild2)
        QCOMPARE(install->readFile(QStringLiteral(".update-cache/2.0.0/files/") + path), build2().value(path));
    const int before = server->requests().size();

    QCOMPARE(install->run({}, kUpdaterTimeoutMs), 0);

    // nginx's access log shows only the two documents after the prefetch: no file request.
    QCOMPARE(paths(server->requests().mid(before)),
             (QStringList{QStringLiteral("corvanta/manifest.json"), QStringLiteral("corvanta/manifest.json.sig")}));
    QVERIFY(install->logTexts().contains(QStringLiteral("[Update] dung 5 / 5 file tu kho tam")));
    QVERIFY(install->logTexts().contains(QStringLiteral("[Update] CAP NHAT THANH CONG -> \"2.0.0\"")));
    verifyInstalledBuild2();
}

void TestNginxUpdate::buildSignedWithAnotherKeyIsRejected()
{
    QVERIFY(publish(build2(), kVersion2, 2, keys.filePath(QStringLiteral("other.pem"))));
    const int before = server->requests().size();

    QCOMPARE(install->run({}, kUpdaterTimeoutMs), 0);

    QVERIFY(install->logTexts().contains(
        QStringLiteral("[Update] CHU KY MANIFEST SAI -> KHONG ap, chay ban hien tai")));
    QCOMPARE(paths(server->requests().mid(before)),
             (QStringList{QStringLiteral("corvanta/manifest.json"), QStringLiteral("corvanta/manifest.json.sig")}));
    const BuildFiles installed = build1();
    for (auto it = installed.cbegin(); it != installed.cend(); ++it)
        QCOMPARE(install->readFile(it.key()), it.value());
    QCOMPARE(install->readFile(QStringLiteral("manifest.json")), manifest1);
}

QTEST_GUILESS_MAIN(TestNginxUpdate)
#include "tst_nginx_update.moc"
