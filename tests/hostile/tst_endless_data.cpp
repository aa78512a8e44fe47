// Servers that send more than they should, or without end: the manifest is cut off beyond
// 16 MiB, the signature beyond 64 KiB, a file beyond its manifest size (0 included), and a
// gzip body is refused before anything inflates it. Every run ends, no file grows beyond its
// bound, and the memory stays low (the bench kills a run above 256 MiB).
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

    // Qt reads a body only once the reply's read-buffer size is in force, whatever the thread
    // that started the request is doing: ten runs, none of which may pass the memory bound.
    TestServer::Rule chunked = endless();
    chunked.chunked = true;
    for (int trial = 1; trial <= 10; ++trial) {
        QTest::newRow(qPrintable(QStringLiteral("apply, endless chunked file, trial %1").arg(trial)))
            << makeRow(RunMode::Apply, Publication::Normal, file, chunked, fileLines);
    }
    // After a redirect Qt starts a new request, which gets the same read-buffer size (Qt itself
    // never hands it on: without it, 6 of 10 such runs took 0.5 to 1.3 GB).
    HostileRow redirected = makeRow(RunMode::Apply, Publication::Normal, file, redirect(QStringLiteral("b/mirror/c.bin")), fileLines);
    redirected.moreRules.insert(QStringLiteral("mirror/c.bin"), chunked);
    for (int trial = 1; trial <= 10; ++trial)
        QTest::newRow(qPrintable(QStringLiteral("apply, file redirected to an endless body, trial %1").arg(trial))) << redirected;

    // A file of size 0 accepts an empty body only.
    QStringList emptyLines = bench.applyFileFails(QStringLiteral("e.txt"));
    emptyLines[0].replace(QLatin1String("\"*\""), QLatin1String("\"file larger than 0 bytes\""));
    QTest::newRow("apply, file of size 0 sent without end")
        << makeRow(RunMode::Apply, Publication::EmptyFile, QStringLiteral("e.txt"), endless(), emptyLines);
    const QString emptyAttempt = QStringLiteral("[UpdatePrefetch] e.txt tai tu dau 0 KB");
    const QString emptyRefused = QStringLiteral("[UpdatePrefetch] \"e.txt\" vuot qua 0 byte cua manifest -> bo file nay");
    QStringList emptyPrefetch = HostileBench::prefetchStart().mid(0, 3);
    for (int attempt = 0; attempt < 4; ++attempt)
        emptyPrefetch << emptyAttempt << emptyRefused;
    QTest::newRow("prefetch, file of size 0 sent without end")
        << makeRow(RunMode::Prefetch, Publication::EmptyFile, QStringLiteral("e.txt"), endless(),
                   emptyPrefetch + QStringList{HostileBench::prefetchFresh(), HostileBench::prefetchDone().at(0), HostileBench::prefetchLeft()});

    // 1 MB of gzip that inflates to 1 GiB: refused as it comes, never inflated.
    const QString gzipRefused = QStringLiteral("\"Content-Encoding gzip not accepted\"");
    QStringList gzipManifest = bench.applyManifestFails(manifest);
    gzipManifest[0].replace(QLatin1String("\"*\""), gzipRefused);
    gzipManifest[2].replace(QLatin1String("\"*\""), gzipRefused);
    QTest::newRow("apply, gzip manifest") << makeRow(RunMode::Apply, Publication::Normal, manifest, gzipBomb(), gzipManifest);
    QStringList gzipSig = bench.applyManifestFails(sig);
    gzipSig[0].replace(QLatin1String("\"*\""), gzipRefused);
    gzipSig[2].replace(QLatin1String("\"*\""), gzipRefused);
    QTest::newRow("apply, gzip signature") << makeRow(RunMode::Apply, Publication::Normal, sig, gzipBomb(), gzipSig);
    QStringList gzipFile = bench.applyFileFails(file);
    gzipFile[0].replace(QLatin1String("\"*\""), gzipRefused);
    QTest::newRow("apply, gzip file") << makeRow(RunMode::Apply, Publication::Normal, file, gzipBomb(), gzipFile);
    const QString gzipDocument = QStringLiteral("[UpdatePrefetch] tai manifest/sig hong -> thoi (updater se tu tai): Content-Encoding gzip not accepted");
    QTest::newRow("prefetch, gzip manifest") << makeRow(RunMode::Prefetch, Publication::Normal, manifest, gzipBomb(), {gzipDocument});
    QTest::newRow("prefetch, gzip signature") << makeRow(RunMode::Prefetch, Publication::Normal, sig, gzipBomb(), {gzipDocument});
    QStringList gzipPrefetch = HostileBench::prefetchStart();
    for (int attempt = 0; attempt < 4; ++attempt)
        gzipPrefetch << HostileBench::prefetchFresh() << QStringLiteral("[UpdatePrefetch] \"lib/c.bin\" Content-Encoding gzip -> bo file nay");
    QTest::newRow("prefetch, gzip file")
        << makeRow(RunMode::Prefetch, Publication::Normal, file, gzipBomb(), gzipPrefetch + QStringList{HostileBench::prefetchLeft()});

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
