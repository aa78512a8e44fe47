// Servers that send more than they should, or without end: the manifest is cut off beyond
// 16 MiB, the signature beyond 64 KiB, a file beyond its manifest size. Every run ends, no file
// grows beyond its bound, and the memory stays low (the bench kills a run above 256 MiB).
#include "hostile/hostile_bench.h"

#include <QtTest>

using namespace faults;

namespace {

const QString kTooLongFile = QStringLiteral("[UpdatePrefetch] \"lib/c.bin\" vuot qua 60000 byte cua manifest -> bo file nay");

} // namespace

class TestEndlessData : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(bench.start()); }
    void exactOutcome_data();
    void exactOutcome();
    void prefetchedFileLeftForTheUpdater_data();
    void prefetchedFileLeftForTheUpdater();

private:
    HostileBench bench;
};

void TestEndlessData::exactOutcome_data()
{
    QTest::addColumn<HostileRow>("row");
    const QString manifest = QStringLiteral("manifest.json");
    const QString sig = QStringLiteral("manifest.json.sig");
    const QString file = QStringLiteral("lib/c.bin");

    QStringList manifestLines = bench.applyManifestFails(manifest);
    manifestLines[0].replace(QLatin1String("\"*\""), QLatin1String("\"body larger than 16777216 bytes\""));
    manifestLines[2].replace(QLatin1String("\"*\""), QLatin1String("\"body larger than 16777216 bytes\""));
    QTest::newRow("apply, endless manifest") << makeRow(RunMode::Apply, Publication::Normal, manifest, endless(), manifestLines);

    QStringList sigLines = bench.applyManifestFails(sig);
    sigLines[0].replace(QLatin1String("\"*\""), QLatin1String("\"body larger than 65536 bytes\""));
    sigLines[2].replace(QLatin1String("\"*\""), QLatin1String("\"body larger than 65536 bytes\""));
    QTest::newRow("apply, endless signature") << makeRow(RunMode::Apply, Publication::Normal, sig, endless(), sigLines);

    QStringList fileLines = bench.applyFileFails(file);
    fileLines[0].replace(QLatin1String("\"*\""), QLatin1String("\"file larger than 60000 bytes\""));
    QTest::newRow("apply, endless file") << makeRow(RunMode::Apply, Publication::Normal, file, endless(), fileLines);
    QTest::newRow("apply, file longer than its manifest entry")
        << makeRow(RunMode::Apply, Publication::LongFile, QString(), {}, fileLines);

    // The resume from the cache is answered with the endless body from byte 0, and so is the
    // fresh download after it.
    HostileRow resumed = makeRow(RunMode::Apply, Publication::Normal, file, endless(),
                                 QStringList{QStringLiteral("[Update] \"lib/c.bin\" noi tiep tu kho tam: 1000 byte"), fileLines.at(0),
                                             QStringLiteral("[Update] tai tiep \"lib/c.bin\" that bai -> thu lai tu dau")}
                                     + fileLines);
    resumed.seedPartBytes = 1000;
    QTest::newRow("apply, endless file while resuming") << resumed;

    QTest::newRow("prefetch, endless manifest")
        << makeRow(RunMode::Prefetch, Publication::Normal, manifest, endless(),
                   {QStringLiteral("[UpdatePrefetch] tai manifest/sig hong -> thoi (updater se tu tai): body larger than 16777216 bytes")});
    QTest::newRow("prefetch, endless signature")
        << makeRow(RunMode::Prefetch, Publication::Normal, sig, endless(),
                   {QStringLiteral("[UpdatePrefetch] tai manifest/sig hong -> thoi (updater se tu tai): body larger than 65536 bytes")});
}

void TestEndlessData::exactOutcome()
{
    QFETCH(HostileRow, row);
    const HostileResult result = bench.run(row);
    qInfo("peak resident memory of the updater: %lld KiB", result.peakRssKiB);
    QVERIFY2(result.violations.isEmpty(), qPrintable(result.violations.join(QLatin1Char('\n'))));
    QVERIFY2(outcomeMatches(row, result.lines), qPrintable(describeLines(row.expected, result.lines)));
}

// How much of the body each attempt writes before the bound cuts it depends on how the bytes
// arrive; what must hold is four refused attempts, each named, and the file left over.
void TestEndlessData::prefetchedFileLeftForTheUpdater_data()
{
    QTest::addColumn<HostileRow>("row");
    QTest::newRow("endless file") << makeRow(RunMode::Prefetch, Publication::Normal, QStringLiteral("lib/c.bin"), endless(), {});
    QTest::newRow("file longer than its manifest entry") << makeRow(RunMode::Prefetch, Publication::LongFile, QString(), {}, {});
}

void TestEndlessData::prefetchedFileLeftForTheUpdater()
{
    QFETCH(HostileRow, row);
    const HostileResult result = bench.run(row);
    qInfo("peak resident memory of the updater: %lld KiB", result.peakRssKiB);
    QVERIFY2(result.violations.isEmpty(), qPrintable(result.violations.join(QLatin1Char('\n'))));
    const QStringList start = HostileBench::prefetchStart();
    QVERIFY2(result.lines.mid(0, start.size()) == start && result.lines.last() == HostileBench::prefetchLeft()
                 && result.lines.count(kTooLongFile) == 4,
             qPrintable(result.lines.join(QLatin1Char('\n'))));
    for (const QString& line : result.lines.mid(start.size(), result.lines.size() - start.size() - 1)) {
        const bool attemptLine = line == HostileBench::prefetchFresh() || line.startsWith(QLatin1String("[UpdatePrefetch] lib/c.bin resume tu "))
            || line.startsWith(QLatin1String("[UpdatePrefetch] server tra 200 cho request Range -> BO ")) || line == kTooLongFile;
        QVERIFY2(attemptLine, qPrintable(line));
    }
}

QTEST_GUILESS_MAIN(TestEndlessData)
#include "tst_endless_data.moc"
