// The prefetcher's life: how a run starts or is refused, and how it ends when the application
// closes or the object goes away.
#include "prefetch_fixture.h"
#include "support/helper_process.h"

#include <QMetaMethod>

using corv::UpdatePrefetcher;

namespace {

const QString kVersion = QStringLiteral("2.4.1");

QString line(const QString& text)
{
    return QStringLiteral("[UpdatePrefetch] ") + text;
}

bool prefetchLockIsFree()
{
    corv::platform::NamedMutex lock;
    if (!tryAcquirePrefetchLock(lock))
        return false;
    lock.releaseAndClose();
    return true;
}

} // namespace

class TestUpdatePrefetcher : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        isolateLockNamespace();
        LogCapture::install();
    }
    void cleanupTestCase() { LogCapture::uninstall(); }

    void onlyMetaMethodIsFinished();
    void noUsableConfigurationStartsNothing_data();
    void noUsableConfigurationStartsNothing();
    void anotherPrefetchHoldsTheLock();
    void secondStartDuringARunIsRefused();
    void finishedComesOncePerRun();
    void applicationEndingStopsTheDownload();
    void applicationEndingDuringTheManifestRequest();
    void destructionSavesProgressAndFreesTheLock();
};

// Everything but the signal is connected by pointer: no slot, property or invokable may
// appear in the meta-object.
void TestUpdatePrefetcher::onlyMetaMethodIsFinished()
{
    const QMetaObject& meta = UpdatePrefetcher::staticMetaObject;
    QCOMPARE(meta.className(), "corv::UpdatePrefetcher");
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
    const QMetaMethod method = meta.method(meta.methodOffset());
    QCOMPARE(method.methodSignature(), QByteArray("finished()"));
    QCOMPARE(method.methodType(), QMetaMethod::Signal);
    QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 0);
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 0);
}

void TestUpdatePrefetcher::noUsableConfigurationStartsNothing_data()
{
    QTest::addColumn<QByteArray>("config");  // null: no updater.conf at all
    QTest::newRow("no updater.conf") << QByteArray();
    QTest::newRow("empty manifestUrl") << QByteArray("{\"manifestUrl\": \"\", \"baseUrl\": \"http://127.0.0.1:9/\"}");
}

void TestUpdatePrefetcher::noUsableConfigurationStartsNothing()
{
    QFETCH(QByteArray, config);
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    QVERIFY(bench.publish(kVersion, 7, {{"a.bin", "a"}}));
    const QString confPath = bench.dir() + QStringLiteral("/updater.conf");
    QVERIFY(config.isNull() ? QFile::remove(confPath) : writeFile(confPath, config));

    UpdatePrefetcher prefetcher;
    QSignalSpy finished(&prefetcher, &UpdatePrefetcher::finished);
    QVERIFY(!prefetcher.start());
    QVERIFY(!finished.wait(300));
    QCOMPARE(LogCapture::prefetchLines(), QStringList());
    QCOMPARE(bench.server.requests().size(), 0);
    QVERIFY(prefetchLockIsFree());
}

void TestUpdatePrefetcher::anotherPrefetchHoldsTheLock()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    QVERIFY(bench.publish(kVersion, 7, {{"a.bin", "a"}}));
    auto other = holdLocks({prefetchLockName()});
    QVERIFY(other);

    UpdatePrefetcher prefetcher;
    QSignalSpy finished(&prefetcher, &UpdatePrefetcher::finished);
    QVERIFY(!prefetcher.start());
    QVERIFY(!finished.wait(300));
    QCOMPARE(LogCapture::prefetchLines(), QStringList({line("mot luot tai khac dang chay -> bo qua")}));
    QCOMPARE(bench.server.requests().size(), 0);
    QVERIFY(!QFileInfo::exists(bench.dir() + QStringLiteral("/.update-cache")));

    // Once the other prefetch lets go, a run starts.
    QVERIFY(releaseHelper(*other));
    QVERIFY(prefetcher.start());
    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 15000);
    QCOMPARE(LogCapture::prefetchLines().last(), line("xong toan bo - 1 file ok, 0 bo lai cho updater"));
}

void TestUpdatePrefetcher::secondStartDuringARunIsRefused()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    QVERIFY(bench.publish(kVersion, 7, {{"a.bin", "a"}}));
    TestServer::Rule slow;
    slow.stallBeforeSeconds = 10;
    bench.server.setRule(QStringLiteral("b/manifest.json"), slow);

    UpdatePrefetcher prefetcher;
    QSignalSpy finished(&prefetcher, &UpdatePrefetcher::finished);
    QVERIFY(prefetcher.start());
    QVERIFY(!prefetcher.start());
    QTRY_COMPARE_WITH_TIMEOUT(bench.server.requests().size(), 1, 5000);
    prefetcher.stop();
    QCOMPARE(finished.count(), 1);
    // Stopped while the manifest was outstanding: nothing planned, nothing done.
    QCOMPARE(LogCapture::prefetchLines(), QStringList({line("dung - xong 0 file, con 0")}));
    QVERIFY(prefetchLockIsFree());
}

void TestUpdatePrefetcher::finishedComesOncePerRun()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    QVERIFY(bench.publish(kVersion, 7, {{"a.bin", "a"}}));

    auto* prefetcher = new UpdatePrefetcher;
    int emitted = 0;
    QObject::connect(prefetcher, &UpdatePrefetcher::finished, [&emitted] { ++emitted; });
    prefetcher->stop();
    QCOMPARE(emitted, 0);

    QVERIFY(prefetcher->start());
    QTRY_COMPARE_WITH_TIMEOUT(emitted, 1, 15000);
    prefetcher->stop();
    delete prefetcher;
    QCOMPARE(emitted, 1);
    QCOMPARE(LogCapture::prefetchLines().last(), line("xong toan bo - 1 file ok, 0 bo lai cho updater"));
}

// The application's process ends in the middle of the second of three files: the run stops
// within the watch interval, keeps what it has, and schedules nothing more.
void TestUpdatePrefetcher::applicationEndingStopsTheDownload()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const BuildFiles files{{"a.bin", patternBytes(50000, 1)},
                           {"b.bin", patternBytes(3000000, 2)},
                           {"c.bin", patternBytes(10000, 3)}};
    QVERIFY(bench.publish(kVersion, 7, files));
    TestServer::Rule pause;
    pause.stallAfterBytes = 200000;
    pause.stallSeconds = 15;
    bench.server.setRule(QStringLiteral("b/b.bin"), pause);
    auto application = holdLocks({});
    QVERIFY(application);

    UpdatePrefetcher prefetcher;
    QSignalSpy finished(&prefetcher, &UpdatePrefetcher::finished);
    prefetcher.watchProcess(application->processId());
    QVERIFY(prefetcher.start());
    const QString part = bench.partFile(kVersion, "b.bin");
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(part).size() >= 100000, 15000);
    QVERIFY(killHelper(*application));
    QVERIFY(finished.wait(3000));

    QCOMPARE(LogCapture::prefetchLines(),
             QStringList({line("bat dau 2.4.1 - 3 file, 2 MB"), line("a.bin tai tu dau 48 KB"),
                          line("a.bin xong ( 1 / 3 )"), line("b.bin tai tu dau 2929 KB"),
                          line("app da dong -> dung tai"), line("dung - xong 1 file, con 2")}));
    const qint64 kept = QFileInfo(part).size();
    QCOMPARE(readFile(part), files.value("b.bin").left(int(kept)));
    QCOMPARE(bench.stateEntry(kVersion, "a.bin").value("got").toDouble(), 50000.0);
    QVERIFY(bench.stateEntry(kVersion, "a.bin").value("done").toBool());
    QCOMPARE(bench.stateEntry(kVersion, "b.bin").value("got").toDouble(), double(kept));
    QVERIFY(!bench.stateEntry(kVersion, "b.bin").value("done").toBool(true));
    QCOMPARE(bench.stateEntry(kVersion, "c.bin").value("got").toDouble(-1), 0.0);
    QVERIFY(prefetchLockIsFree());

    // Nothing was left scheduled: no retry, no next file.
    const int requestsAtStop = bench.server.requests().size();
    QVERIFY(!finished.wait(1500));
    QCOMPARE(bench.server.requests().size(), requestsAtStop);
    QCOMPARE(LogCapture::prefetchLines().size(), 6);
}

void TestUpdatePrefetcher::applicationEndingDuringTheManifestRequest()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    QVERIFY(bench.publish(kVersion, 7, {{"a.bin", "a"}}));
    TestServer::Rule slow;
    slow.stallBeforeSeconds = 10;
    bench.server.setRule(QStringLiteral("b/manifest.json"), slow);
    auto application = holdLocks({});
    QVERIFY(application);

    UpdatePrefetcher prefetcher;
    QSignalSpy finished(&prefetcher, &UpdatePrefetcher::finished);
    prefetcher.watchProcess(application->processId());
    QVERIFY(prefetcher.start());
    QTRY_COMPARE_WITH_TIMEOUT(bench.server.requests().size(), 1, 5000);
    QVERIFY(killHelper(*application));
    QVERIFY(finished.wait(3000));
    QCOMPARE(LogCapture::prefetchLines(),
             QStringList({line("app da dong -> dung tai"), line("dung - xong 0 file, con 0")}));
    QVERIFY(!finished.wait(500));
    QCOMPARE(finished.count(), 1);
    QCOMPARE(bench.server.requests().size(), 1);
}

void TestUpdatePrefetcher::destructionSavesProgressAndFreesTheLock()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const QByteArray content = patternBytes(1000000, 5);
    QVERIFY(bench.publish(kVersion, 7, {{"big.bin", content}}));
    TestServer::Rule pause;
    pause.stallAfterBytes = 150000;
    pause.stallSeconds = 15;
    bench.server.setRule(QStringLiteral("b/big.bin"), pause);
    const QString part = bench.partFile(kVersion, "big.bin");

    int emitted = 0;
    {
        UpdatePrefetcher prefetcher;
        QObject::connect(&prefetcher, &UpdatePrefetcher::finished, [&emitted] { ++emitted; });
        QVERIFY(prefetcher.start());
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(part).size() >= 100000, 15000);
        QVERIFY(!prefetchLockIsFree());
    }
    QCOMPARE(emitted, 1);
    QCOMPARE(LogCapture::prefetchLines().last(), line("dung - xong 0 file, con 1"));
    const qint64 kept = QFileInfo(part).size();
    QCOMPARE(readFile(part), content.left(int(kept)));
    QCOMPARE(bench.stateEntry(kVersion, "big.bin").value("got").toDouble(), double(kept));
    QVERIFY(prefetchLockIsFree());
}

QTEST_GUILESS_MAIN(TestUpdatePrefetcher)
#include "tst_update_prefetcher.moc"
