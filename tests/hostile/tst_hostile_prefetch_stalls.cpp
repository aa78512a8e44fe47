// Servers that stop sending, or send too little, against the updater in prefetch mode: 20 s
// without data end the run before the plan, and only the current attempt during a file, and so
// do 30 s below 1024 bytes a second. Real waits, own suite.
#include "hostile/hostile_bench.h"

#include <QtTest>

class TestHostilePrefetchStalls : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(bench.start()); }
    void stall_data();
    void stall();

private:
    HostileBench bench;
};

void TestHostilePrefetchStalls::stall_data()
{
    QTest::addColumn<HostileRow>("row");

    HostileRow manifest;
    manifest.mode = RunMode::Prefetch;
    manifest.rulePath = QStringLiteral("manifest.json");
    manifest.rule.stallBeforeSeconds = 21;
    manifest.expected = QStringList{QStringLiteral("[UpdatePrefetch] dung im qua 20 giay"),
                                    QStringLiteral("[UpdatePrefetch] mang dung im -> bo luot nay")};
    QTest::newRow("manifest silent for 21 s") << manifest;

    // The attempt fails, the bytes stay, the retry resumes and completes.
    HostileRow file;
    file.mode = RunMode::Prefetch;
    file.rulePath = QStringLiteral("lib/c.bin");
    file.rule.stallAfterBytes = 1000;
    file.rule.stallSeconds = 21;
    file.rule.times = 1;
    file.expected = HostileBench::prefetchStart()
        + QStringList{HostileBench::prefetchFresh(), QStringLiteral("[UpdatePrefetch] dung im qua 20 giay"),
                      QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu 1000 byte")}
        + HostileBench::prefetchDone();
    QTest::newRow("file silent for 21 s after 1000 bytes, once") << file;

    // One byte every 3 s never leaves the stall timer 20 s without data. (The documents need
    // no such row: their 20 s run from the request, data or not.)
    TestServer::Rule drip;
    drip.chunkBytes = 1;
    drip.chunkPauseSeconds = 3;
    const QString slow = QStringLiteral("[UpdatePrefetch] tai qua cham (duoi 1024 byte/giay)");
    HostileRow dripFile;
    dripFile.mode = RunMode::Prefetch;
    dripFile.rulePath = file.rulePath;
    dripFile.rule = drip;
    dripFile.rule.times = 1;
    dripFile.expected = HostileBench::prefetchStart()
        + QStringList{HostileBench::prefetchFresh(), slow, QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu * byte")}
        + HostileBench::prefetchDone();
    QTest::newRow("file dripping a byte every 3 s, once") << dripFile;
}

void TestHostilePrefetchStalls::stall()
{
    QFETCH(HostileRow, row);
    const HostileResult result = bench.run(row);
    QVERIFY2(result.violations.isEmpty(), qPrintable(result.violations.join(QLatin1Char('\n'))));
    QVERIFY2(outcomeMatches(row, result.lines), qPrintable(describeLines(row.expected, result.lines)));
}

QTEST_GUILESS_MAIN(TestHostilePrefetchStalls)
#include "tst_hostile_prefetch_stalls.moc"
