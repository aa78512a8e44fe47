// The file transfer of a prefetch run against a misbehaving server: what reaches the cache,
// what the log says, and which requests the server saw.
#include "prefetch_fixture.h"

#include <QElapsedTimer>
#include <QRegularExpression>

using corv::UpdatePrefetcher;

namespace {

const QString kVersion = QStringLiteral("2.4.1");

QString line(const QString& text)
{
    return QStringLiteral("[UpdatePrefetch] ") + text;
}

// The Range header of every request for one path ("" where none was sent).
QStringList rangesFor(const TestServer& server, const QString& path)
{
    QStringList ranges;
    for (const TestServer::Request& request : server.requestsFor(path))
        ranges.append(QString::fromLatin1(request.headers.value("range")));
    return ranges;
}

} // namespace

class TestPrefetchTransfer : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        isolateLockNamespace();
        LogCapture::install();
    }
    void cleanupTestCase() { LogCapture::uninstall(); }

    void cleanRunFillsCache();
    void existingPart_data();
    void existingPart();
    void refusedStatusLeavesFileForUpdater_data();
    void refusedStatusLeavesFileForUpdater();
    void cutConnectionResumesInTheSameRun();
    void stoppedRunResumesInTheNextRun();
};

void TestPrefetchTransfer::cleanRunFillsCache()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const BuildFiles files{{QStringLiteral("a.bin"), patternBytes(300000, 1)},
                           {QStringLiteral("empty.txt"), QByteArray()},
                           {QStringLiteral("sub/dir/core.dll"), patternBytes(150000, 2)}};
    QVERIFY(bench.publish(kVersion, 12, files));

    QVERIFY(runPrefetchToEnd());

    QCOMPARE(LogCapture::prefetchLines(),
             QStringList({line("bat dau 2.4.1 - 3 file, 0 MB"),
                          line("a.bin tai tu dau 292 KB"),
                          line("a.bin xong ( 1 / 3 )"),
                          line("empty.txt tai tu dau 0 KB"),
                          line("empty.txt xong ( 2 / 3 )"),
                          line("sub/dir/core.dll tai tu dau 146 KB"),
                          line("sub/dir/core.dll xong ( 3 / 3 )"),
                          line("xong toan bo - 3 file ok, 0 bo lai cho updater")}));

    // Every file under its final name with its content, no ".part" left behind.
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        QCOMPARE(readFile(bench.cacheFile(kVersion, it.key())), it.value());
        QVERIFY(QFileInfo::exists(bench.cacheFile(kVersion, it.key())));
        QVERIFY(!QFileInfo::exists(bench.partFile(kVersion, it.key())));
    }
    // The documents are kept byte for byte.
    const QString publishedDir = bench.published.path() + QStringLiteral("/b/");
    QCOMPARE(readFile(bench.cacheDir(kVersion) + QStringLiteral("/manifest.json")),
             readFile(publishedDir + QStringLiteral("manifest.json")));
    QCOMPARE(readFile(bench.cacheDir(kVersion) + QStringLiteral("/manifest.json.sig")),
             readFile(publishedDir + QStringLiteral("manifest.json.sig")));

    const QJsonObject state = bench.readState(kVersion);
    QCOMPARE(state.value(QStringLiteral("fullVersion")).toString(), kVersion);
    QCOMPARE(state.value(QStringLiteral("buildNumber")).toDouble(), 12.0);
    QCOMPARE(state.value(QStringLiteral("baseUrl")).toString(), bench.server.url(QStringLiteral("b/")));
    const QJsonArray entries = state.value(QStringLiteral("files")).toArray();
    QCOMPARE(entries.size(), 3);
    int index = 0;
    for (auto it = files.cbegin(); it != files.cend(); ++it, ++index) {
        const QJsonObject entry = entries.at(index).toObject();
        QCOMPARE(entry.value(QStringLiteral("path")).toString(), it.key());
        QCOMPARE(entry.value(QStringLiteral("size")).toDouble(), double(it.value().size()));
        QCOMPARE(entry.value(QStringLiteral("got")).toDouble(), double(it.value().size()));
        QCOMPARE(entry.value(QStringLiteral("sha256")).toString(), sha256Hex(it.value()));
        QVERIFY(entry.value(QStringLiteral("done")).toBool());
    }

    // One request per document and per file, in order, none of them ranged.
    QStringList paths;
    for (const TestServer::Request& request : bench.server.requests()) {
        paths.append(request.path);
        QVERIFY(!request.headers.contains("range"));
    }
    QCOMPARE(paths, QStringList({"b/manifest.json", "b/manifest.json.sig", "b/a.bin", "b/empty.txt",
                                 "b/sub/dir/core.dll"}));

    // The prefetch lock was given back.
    corv::platform::NamedMutex lock;
    QVERIFY(tryAcquirePrefetchLock(lock));
    lock.releaseAndClose();
}

// What a ".part" left by an earlier run turns into, depending on its content and on how the
// server answers the ranged request.
void TestPrefetchTransfer::existingPart_data()
{
    QTest::addColumn<QByteArray>("part");  // null: no ".part" file
    QTest::addColumn<TestServer::Rule>("rule");
    QTest::addColumn<QStringList>("fileLines");
    QTest::addColumn<QStringList>("ranges");

    const QByteArray content = patternBytes(200000, 7);
    TestServer::Rule plain;
    TestServer::Rule ignoreRange;
    ignoreRange.ignoreRange = true;
    TestServer::Rule partialAlways;
    partialAlways.partialWithoutRange = true;
    TestServer::Rule corruptOnce;
    corruptOnce.corruptBody = true;
    corruptOnce.times = 1;

    QTest::newRow("complete part is only verified")
        << content << plain
        << QStringList({line("c.bin da du byte tu luot truoc -> chi verify"), line("c.bin xong ( 1 / 1 )")})
        << QStringList();
    QTest::newRow("part longer than the file is dropped")
        << content + QByteArray(100, 'x') << plain
        << QStringList({line("c.bin tai tu dau 195 KB"), line("c.bin xong ( 1 / 1 )")}) << QStringList({""});
    QTest::newRow("partial part resumes with a range")
        << content.left(80000) << plain
        << QStringList({line("c.bin resume tu 80000 byte"), line("c.bin xong ( 1 / 1 )")})
        << QStringList({"bytes=80000-"});
    QTest::newRow("server ignoring the range rewrites from zero")
        << content.left(80000) << ignoreRange
        << QStringList({line("c.bin resume tu 80000 byte"),
                        line("server tra 200 cho request Range -> BO 80000 byte da tai, ghi de tu dau"),
                        line("c.bin xong ( 1 / 1 )")})
        << QStringList({"bytes=80000-"});
    QTest::newRow("206 without a range is written from zero")
        << QByteArray() << partialAlways
        << QStringList({line("c.bin tai tu dau 195 KB"), line("c.bin xong ( 1 / 1 )")}) << QStringList({""});
    QTest::newRow("wrong bytes in the part are deleted and fetched again")
        << patternBytes(80000, 99) << plain
        << QStringList({line("c.bin resume tu 80000 byte"), line("c.bin hash lech -> xoa, tai lai"),
                        line("c.bin tai tu dau 195 KB"), line("c.bin xong ( 1 / 1 )")})
        << QStringList({"bytes=80000-", ""});
    QTest::newRow("corrupted body is fetched again from zero")
        << QByteArray() << corruptOnce
        << QStringList({line("c.bin tai tu dau 195 KB"), line("c.bin hash lech -> xoa, tai lai"),
                        line("c.bin tai tu dau 195 KB"), line("c.bin xong ( 1 / 1 )")})
        << QStringList({"", ""});
}

void TestPrefetchTransfer::existingPart()
{
    QFETCH(QByteArray, part);
    QFETCH(TestServer::Rule, rule);
    QFETCH(QStringList, fileLines);
    QFETCH(QStringList, ranges);

    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const QByteArray content = patternBytes(200000, 7);
    QVERIFY(bench.publish(kVersion, 12, {{QStringLiteral("c.bin"), content}}));
    bench.server.setRule(QStringLiteral("b/c.bin"), rule);
    if (!part.isNull())
        QVERIFY(writeFile(bench.partFile(kVersion, QStringLiteral("c.bin")), part));

    QVERIFY(runPrefetchToEnd());

    const QStringList expected = QStringList({line("bat dau 2.4.1 - 1 file, 0 MB")}) + fileLines
        + QStringList({line("xong toan bo - 1 file ok, 0 bo lai cho updater")});
    QCOMPARE(LogCapture::prefetchLines(), expected);
    QCOMPARE(rangesFor(bench.server, QStringLiteral("b/c.bin")), ranges);
    QCOMPARE(readFile(bench.cacheFile(kVersion, QStringLiteral("c.bin"))), content);
    QVERIFY(!QFileInfo::exists(bench.partFile(kVersion, QStringLiteral("c.bin"))));
}

// A status the transfer cannot use fails the attempt; after four attempts, one second apart,
// the file is left for the updater and the next file still comes.
void TestPrefetchTransfer::refusedStatusLeavesFileForUpdater_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("oneRequestPerAttempt");
    // The test server sends a short body even with 304, which HTTP forbids; Qt then finds the
    // stray bytes on the kept-alive connection and re-sends the next request by itself.
    QTest::newRow("304") << 304 << false;
    QTest::newRow("404") << 404 << true;
    QTest::newRow("416") << 416 << true;
}

void TestPrefetchTransfer::refusedStatusLeavesFileForUpdater()
{
    QFETCH(int, status);
    QFETCH(bool, oneRequestPerAttempt);
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const BuildFiles files{{QStringLiteral("x.bin"), patternBytes(10240, 3)},
                           {QStringLiteral("y.bin"), patternBytes(20480, 4)}};
    QVERIFY(bench.publish(kVersion, 12, files));
    TestServer::Rule rule;
    rule.status = status;
    bench.server.setRule(QStringLiteral("b/x.bin"), rule);

    QElapsedTimer clock;
    clock.start();
    QVERIFY(runPrefetchToEnd());

    const QString attempt = line("x.bin tai tu dau 10 KB");
    const QString refusal = QStringLiteral("[UpdatePrefetch] \"x.bin\" HTTP %1 -> bo file nay").arg(status);
    QCOMPARE(LogCapture::prefetchLines(),
             QStringList({line("bat dau 2.4.1 - 2 file, 0 MB"), attempt, refusal, attempt, refusal, attempt,
                          refusal, attempt, refusal, line("y.bin tai tu dau 20 KB"), line("y.bin xong ( 2 / 2 )"),
                          line("xong toan bo - 1 file ok, 1 bo lai cho updater")}));
    QCOMPARE(LogCapture::warnings(), QStringList({refusal, refusal, refusal, refusal}));
    if (oneRequestPerAttempt)
        QCOMPARE(bench.server.requestsFor(QStringLiteral("b/x.bin")).size(), 4);
    QVERIFY2(clock.elapsed() >= 3000, "the three retries wait one second each");
    QVERIFY(!QFileInfo::exists(bench.cacheFile(kVersion, QStringLiteral("x.bin"))));
    QVERIFY(!QFileInfo::exists(bench.partFile(kVersion, QStringLiteral("x.bin"))));
    QCOMPARE(readFile(bench.cacheFile(kVersion, QStringLiteral("y.bin"))), files.value("y.bin"));
    const QJsonObject left = bench.stateEntry(kVersion, QStringLiteral("x.bin"));
    QCOMPARE(left.value(QStringLiteral("done")).toBool(true), false);
    QCOMPARE(left.value(QStringLiteral("got")).toDouble(-1), 0.0);
}

// A connection cut after 64 KiB fails the attempt (Qt reports the cut, or ends the reply short
// after a transparent re-send, which the length check catches); the bytes stay, and the retry
// asks for the rest.
void TestPrefetchTransfer::cutConnectionResumesInTheSameRun()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const QByteArray content = patternBytes(5 * 65536, 11);
    QVERIFY(bench.publish(kVersion, 12, {{QStringLiteral("big.bin"), content}}));
    TestServer::Rule cut;
    cut.closeAfterBytes = 65536;
    cut.times = 1;
    bench.server.setRule(QStringLiteral("b/big.bin"), cut);

    QVERIFY(runPrefetchToEnd());

    const QStringList lines = LogCapture::prefetchLines();
    QCOMPARE(lines.size(), 6);
    QCOMPARE(lines.at(1), line("big.bin tai tu dau 320 KB"));
    static const QRegularExpression cutLine(QStringLiteral("^\\[UpdatePrefetch\\] big\\.bin dut o 65536 byte: \\S.*$"));
    QVERIFY2(cutLine.match(lines.at(2)).hasMatch()
                 || lines.at(2) == QLatin1String("[UpdatePrefetch] \"big.bin\" thieu byte sau khi tai xong -> bo"),
             qPrintable(lines.at(2)));
    QCOMPARE(lines.mid(3), QStringList({line("big.bin resume tu 65536 byte"), line("big.bin xong ( 1 / 1 )"),
                                        line("xong toan bo - 1 file ok, 0 bo lai cho updater")}));
    QCOMPARE(rangesFor(bench.server, QStringLiteral("b/big.bin")).last(), QStringLiteral("bytes=65536-"));
    QCOMPARE(readFile(bench.cacheFile(kVersion, QStringLiteral("big.bin"))), content);
}

// A run stopped in the middle of a file leaves its ".part" and the matching state.json; the
// next run asks only for the missing bytes.
void TestPrefetchTransfer::stoppedRunResumesInTheNextRun()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const QByteArray content = patternBytes(400000, 12);
    QVERIFY(bench.publish(kVersion, 12, {{QStringLiteral("big.bin"), content}}));
    TestServer::Rule pause;
    pause.stallAfterBytes = 100000;
    pause.stallSeconds = 15;
    pause.times = 1;
    bench.server.setRule(QStringLiteral("b/big.bin"), pause);
    const QString part = bench.partFile(kVersion, QStringLiteral("big.bin"));

    {
        UpdatePrefetcher prefetcher;
        QSignalSpy finished(&prefetcher, &UpdatePrefetcher::finished);
        QVERIFY(prefetcher.start());
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(part).size() >= 50000, 10000);
        prefetcher.stop();
        QCOMPARE(finished.count(), 1);
    }
    const qint64 kept = QFileInfo(part).size();
    QVERIFY(kept >= 50000 && kept <= 100000);
    QCOMPARE(readFile(part), content.left(int(kept)));
    QCOMPARE(LogCapture::prefetchLines(),
             QStringList({line("bat dau 2.4.1 - 1 file, 0 MB"), line("big.bin tai tu dau 390 KB"),
                          line("dung - xong 0 file, con 1")}));
    const QJsonObject saved = bench.stateEntry(kVersion, QStringLiteral("big.bin"));
    QCOMPARE(saved.value(QStringLiteral("got")).toDouble(), double(kept));
    QCOMPARE(saved.value(QStringLiteral("done")).toBool(true), false);

    LogCapture::clear();
    bench.server.clearRequests();
    QVERIFY(runPrefetchToEnd());

    QCOMPARE(LogCapture::prefetchLines(),
             QStringList({line("bat dau 2.4.1 - 1 file, 0 MB"), line(QStringLiteral("big.bin resume tu %1 byte").arg(kept)),
                          line("big.bin xong ( 1 / 1 )"), line("xong toan bo - 1 file ok, 0 bo lai cho updater")}));
    QCOMPARE(rangesFor(bench.server, QStringLiteral("b/big.bin")), QStringList({QStringLiteral("bytes=%1-").arg(kept)}));
    QCOMPARE(readFile(bench.cacheFile(kVersion, QStringLiteral("big.bin"))), content);
    QVERIFY(!QFileInfo::exists(part));
}

QTEST_GUILESS_MAIN(TestPrefetchTransfer)
#include "tst_prefetch_transfer.moc"
