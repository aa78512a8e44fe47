// The 20-second network stall watchdog, in real time: a stalled file attempt is retried, a
// stalled manifest request ends the run.
#include "prefetch_fixture.h"

#include <QElapsedTimer>

using corv::UpdatePrefetcher;

namespace {

const QString kVersion = QStringLiteral("2.4.1");

QString line(const QString& text)
{
    return QStringLiteral("[UpdatePrefetch] ") + text;
}

} // namespace

class TestPrefetchStall : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        isolateLockNamespace();
        LogCapture::install();
    }
    void cleanupTestCase() { LogCapture::uninstall(); }

    void stallDuringDownloadFailsOnlyTheAttempt();
    void stallDuringManifestEndsTheRun();
};

void TestPrefetchStall::stallDuringDownloadFailsOnlyTheAttempt()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const QByteArray content = patternBytes(600000, 21);
    QVERIFY(bench.publish(kVersion, 7, {{"big.bin", content}}));
    TestServer::Rule stall;
    stall.stallAfterBytes = 300000;
    stall.stallSeconds = 40;
    stall.times = 1;
    bench.server.setRule(QStringLiteral("b/big.bin"), stall);

    QElapsedTimer clock;
    clock.start();
    QVERIFY(runPrefetchToEnd(60000));

    QVERIFY2(clock.elapsed() >= 20000, "the attempt may only be given up after 20 s without data");
    QCOMPARE(LogCapture::prefetchLines(),
             QStringList({line("bat dau 2.4.1 - 1 file, 0 MB"), line("big.bin tai tu dau 585 KB"),
                          line("dung im qua 20 giay"), line("big.bin resume tu 300000 byte"),
                          line("big.bin xong ( 1 / 1 )"), line("xong toan bo - 1 file ok, 0 bo lai cho updater")}));
    QCOMPARE(LogCapture::warnings(), QStringList({line("dung im qua 20 giay")}));
    QStringList ranges;
    for (const TestServer::Request& request : bench.server.requestsFor(QStringLiteral("b/big.bin")))
        ranges.append(QString::fromLatin1(request.headers.value("range")));
    QCOMPARE(ranges, QStringList({"", "bytes=300000-"}));
    QCOMPARE(readFile(bench.cacheFile(kVersion, "big.bin")), content);
}

void TestPrefetchStall::stallDuringManifestEndsTheRun()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    QVERIFY(bench.publish(kVersion, 7, {{"a.bin", "a"}}));
    TestServer::Rule stall;
    stall.stallBeforeSeconds = 40;
    bench.server.setRule(QStringLiteral("b/manifest.json"), stall);

    QElapsedTimer clock;
    clock.start();
    QVERIFY(runPrefetchToEnd(40000));

    QVERIFY(clock.elapsed() >= 20000);
    QCOMPARE(LogCapture::prefetchLines(),
             QStringList({line("dung im qua 20 giay"), line("mang dung im -> bo luot nay")}));
    QCOMPARE(bench.server.requests().size(), 1);
    QVERIFY(!QFileInfo::exists(bench.cacheDir(kVersion)));
    corv::platform::NamedMutex lock;
    QVERIFY(tryAcquirePrefetchLock(lock));
}

QTEST_GUILESS_MAIN(TestPrefetchStall)
#include "tst_prefetch_stall.moc"
