// The updater executable with "--prefetch-only" racing an apply run, and an apply run taking
// over what a stopped prefetch left in the cache.
#include "prefetch_fixture.h"
#include "support/helper_process.h"

#include <QProcess>
#include <QRegularExpression>
#include <QThread>
#include <memory>

namespace {

const QString kVersion = QStringLiteral("2.4.1");

QStringList requestedPaths(const TestServer& server)
{
    QStringList paths;
    for (const TestServer::Request& request : server.requests())
        paths.append(request.path);
    return paths;
}

} // namespace

class TestPrefetchMode : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void startedTogetherWithAnApplyRun();
    void applicationEndingLeavesAPartForTheApply();

private:
    QTemporaryDir runtimeDir;
    QTemporaryDir published;
    std::unique_ptr<TestServer> server;
    std::unique_ptr<TestInstall> install;

    const BuildFiles installedBuild{{"a.bin", "old a"}, {"b.bin", patternBytes(20000, 2)}, {"c.bin", "old c"}};
    const BuildFiles newBuild{{"a.bin", patternBytes(30000, 1)},
                              {"b.bin", patternBytes(20000, 2)},
                              {"c.bin", patternBytes(40000, 3)},
                              {"d/e.bin", patternBytes(50000, 4)}};
};

void TestPrefetchMode::initTestCase()
{
    QVERIFY(runtimeDir.isValid() && published.isValid());
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    server = std::make_unique<TestServer>(published.path());
    QVERIFY(server->start());
    QVERIFY(publishBuild(published.path(), QStringLiteral("b"), newBuild, makeManifestJson(kVersion, 7, newBuild)));
}

void TestPrefetchMode::init()
{
    server->clearRules();
    server->clearRequests();
    install = std::make_unique<TestInstall>();
    QVERIFY(install->isValid());
    QVERIFY(install->installBuild(installedBuild, makeManifestJson(QStringLiteral("2.4.0"), 6, installedBuild)));
    QVERIFY(install->writeConfig(server->url(QStringLiteral("b/manifest.json"))));
}

// A prefetch and an apply run started together, a hundred times (twenty in the much slower
// sanitizer build), the apply up to 9 ms later,
// each in an installation of its own (the locks are the user's, not the installation's) that
// fetches from its own copy of the build: the prefetch from p/, the apply from b/. The prefetch
// gives way at once, or the apply waits for it, or one is over before the other begins; no
// request of the prefetch ever comes between the apply's first and last one.
void TestPrefetchMode::startedTogetherWithAnApplyRun()
{
    QVERIFY(publishBuild(published.path(), QStringLiteral("p"), newBuild, makeManifestJson(kVersion, 7, newBuild)));
    const QString waited = QStringLiteral("[Update] dang co luot tai san chay -> cho no dung, toi da 15 giay");
    int gaveWay = 0;
    int applyWaited = 0;
    const int trials = CORV_SANITIZED ? 20 : 100;
    for (int trial = 0; trial < trials; ++trial) {
        TestInstall prefetching;
        TestInstall applying;
        for (TestInstall* side : {&prefetching, &applying}) {
            QVERIFY(side->installBuild(installedBuild, makeManifestJson(QStringLiteral("2.4.0"), 6, installedBuild)));
            const QString publication = side == &prefetching ? QStringLiteral("p") : QStringLiteral("b");
            QVERIFY(side->writeConfig(server->url(publication + QStringLiteral("/manifest.json"))));
        }
        server->clearRequests();
        HelperProcess prefetch(prefetching.start({"--prefetch-only"}));
        QThread::usleep(1000 * (trial % 10));
        HelperProcess apply(applying.start());
        QVERIFY(prefetch->waitForFinished(30000) && apply->waitForFinished(30000));
        QCOMPARE(prefetch->exitCode() + apply->exitCode(), 0);

        QStringList paths = requestedPaths(*server);
        const int applyFirst = paths.indexOf(QRegularExpression(QStringLiteral("^b/.*")));
        const int applyLast = paths.lastIndexOf(QRegularExpression(QStringLiteral("^b/.*")));
        const QStringList during = paths.mid(applyFirst, applyLast - applyFirst + 1);
        QVERIFY2(applyFirst < 0 || during.filter(QRegularExpression(QStringLiteral("^p/"))).isEmpty(),
                 qPrintable(QStringLiteral("trial %1: ").arg(trial) + paths.join(QStringLiteral(", "))));
        gaveWay += paths.filter(QRegularExpression(QStringLiteral("^p/"))).isEmpty() ? 1 : 0;
        applyWaited += applying.logTexts().contains(waited) ? 1 : 0;
    }
    qInfo("the prefetch gave way %d times, the apply waited %d times", gaveWay, applyWaited);
}

// The application closes in the middle of a file: the prefetch stops and keeps the ".part";
// the apply run resumes from it and takes the finished file from the cache.
void TestPrefetchMode::applicationEndingLeavesAPartForTheApply()
{
    TestServer::Rule pause;
    pause.stallAfterBytes = 25000;
    pause.stallSeconds = 20;
    pause.times = 1;
    server->setRule(QStringLiteral("b/c.bin"), pause);
    auto application = holdLocks({});
    QVERIFY(application);

    std::unique_ptr<QProcess> prefetch(
        install->start({"--prefetch-only", "--wait-pid", QString::number(application->processId())}));
    const QString part = install->path(QStringLiteral(".update-cache/2.4.1/files/c.bin.part"));
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(part).size() > 0, 15000);
    QVERIFY(killHelper(*application));
    QVERIFY(prefetch->waitForFinished(5000));
    QCOMPARE(prefetch->exitStatus(), QProcess::NormalExit);
    QCOMPARE(prefetch->exitCode(), 0);

    const QStringList prefetchLog = install->logTexts();
    QCOMPARE(prefetchLog.mid(prefetchLog.size() - 2),
             QStringList({"[UpdatePrefetch] app da dong -> dung tai", "[UpdatePrefetch] dung - xong 1 file, con 2"}));
    const qint64 kept = QFileInfo(part).size();
    QVERIFY(kept > 0 && kept <= 25000);

    QFile::remove(install->logPath());
    server->clearRequests();
    QCOMPARE(install->run({}, 60000), 0);

    const QStringList log = install->logTexts();
    QVERIFY2(log.contains(QStringLiteral("[Update] \"c.bin\" noi tiep tu kho tam: %1 byte").arg(kept)),
             qPrintable(log.join('\n')));
    QVERIFY(log.contains("[Update] dung 1 / 3 file tu kho tam"));
    QStringList fileRequests;
    for (const TestServer::Request& request : server->requests()) {
        if (!request.path.startsWith(QLatin1String("b/manifest.json")))
            fileRequests.append(request.path + QLatin1Char(' ') + QString::fromLatin1(request.headers.value("range")));
    }
    QCOMPARE(fileRequests, QStringList({QStringLiteral("b/c.bin bytes=%1-").arg(kept), "b/d/e.bin "}));
    for (auto it = newBuild.cbegin(); it != newBuild.cend(); ++it)
        QCOMPARE(install->readFile(it.key()), it.value());
}

QTEST_GUILESS_MAIN(TestPrefetchMode)
#include "tst_prefetch_mode.moc"
