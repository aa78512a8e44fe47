// Servers that stop sending, against the updater in apply mode: 10 s without progress ends a
// request. These rows wait for real and run as a suite of their own.
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
