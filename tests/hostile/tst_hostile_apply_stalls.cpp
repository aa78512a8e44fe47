// Servers that stop sending, or send too little, against the updater in apply mode: 10 s
// without progress ends a request, and so do 30 s below 1024 bytes a second. These rows wait
// for real and run as a suite of their own.
#include "hostile/hostile_bench.h"

#include <QtTest>

class TestHostileApplyStalls : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(bench.start()); }
    void stall_data();
    void stall();

private:
    HostileBench bench;
};

void TestHostileApplyStalls::stall_data()
{
    QTest::addColumn<HostileRow>("row");

    // Both attempts wait 10 s for a status line that comes after 11 s.
    HostileRow manifest;
    manifest.rulePath = QStringLiteral("manifest.json");
    manifest.rule.stallBeforeSeconds = 11;
    manifest.expected = bench.applyManifestFails(manifest.rulePath);
    manifest.expected[0].replace(QLatin1String("\"*\""), QLatin1String("\"Operation canceled\""));
    manifest.expected[2].replace(QLatin1String("\"*\""), QLatin1String("\"Operation canceled\""));
    QTest::newRow("manifest silent for 11 s") << manifest;

    HostileRow file;
    file.rulePath = QStringLiteral("lib/c.bin");
    file.rule.stallAfterBytes = 1000;
    file.rule.stallSeconds = 11;
    file.expected = bench.applyFileFails(file.rulePath);
    file.expected[0].replace(QLatin1String("\"*\""), QLatin1String("\"Operation canceled\""));
    QTest::newRow("file silent for 11 s after 1000 bytes") << file;

    // One byte every 3 s never leaves the inactivity timer 10 s of silence.
    TestServer::Rule drip;
    drip.chunkBytes = 1;
    drip.chunkPauseSeconds = 3;
    const QString slow = QStringLiteral("[Update] tai qua cham (duoi 1024 byte/giay) \"%1\"");
    HostileRow dripManifest;
    dripManifest.rulePath = manifest.rulePath;
    dripManifest.rule = drip;
    dripManifest.rule.times = 1;
    const QStringList retried = bench.applyManifestFails(manifest.rulePath).mid(0, 2);
    dripManifest.expected = QStringList{slow.arg(bench.url(manifest.rulePath)),
                                        QString(retried.at(0)).replace(QLatin1String("\"*\""), QLatin1String("\"Operation canceled\"")),
                                        retried.at(1)}
        + HostileBench::applyUpdated();
    dripManifest.updates = true;
    QTest::newRow("manifest dripping a byte every 3 s, once") << dripManifest;

    HostileRow dripFile;
    dripFile.rulePath = file.rulePath;
    dripFile.rule = drip;
    dripFile.expected = QStringList{slow.arg(bench.url(file.rulePath))} + file.expected;
    QTest::newRow("file dripping a byte every 3 s") << dripFile;
}

void TestHostileApplyStalls::stall()
{
    QFETCH(HostileRow, row);
    const HostileResult result = bench.run(row);
    QVERIFY2(result.violations.isEmpty(), qPrintable(result.violations.join(QLatin1Char('\n'))));
    QVERIFY2(outcomeMatches(row, result.lines), qPrintable(describeLines(row.expected, result.lines)));
}

QTEST_GUILESS_MAIN(TestHostileApplyStalls)
#include "tst_hostile_apply_stalls.moc"
