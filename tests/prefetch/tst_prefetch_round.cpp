// One prefetch run up to its plan: which manifests it trusts, when it refuses, what it plans
// and what it records before the first download.
#include "prefetch_fixture.h"

#include <QProcess>
#include <QStorageInfo>

using corv::UpdatePrefetcher;

namespace {

const QString kVersion = QStringLiteral("2.4.1");
const QString kAnyHash = QString(64, QLatin1Char('a'));
constexpr qint64 kMiB = 1048576;

QString line(const QString& text)
{
    return QStringLiteral("[UpdatePrefetch] ") + text;
}

BuildFiles remoteFiles()
{
    return {{QStringLiteral("a.bin"), patternBytes(10000, 1)}, {QStringLiteral("b.bin"), patternBytes(20000, 2)}};
}

// Stands in for the compressed copy of a remote file (the prefetch never decodes one).
QByteArray fakeCompressed(const QString& path)
{
    return "compressed " + path.toUtf8();
}

// "path=size" entries: sparse ".part" files, cheap however large. "@compressed": every remote
// file's compressed copy finished in the cache instead.
bool createParts(PrefetchBench& bench, const QStringList& parts)
{
    for (const QString& entry : parts) {
        if (entry == QLatin1String("@compressed")) {
            const BuildFiles files = remoteFiles();
            for (auto it = files.cbegin(); it != files.cend(); ++it) {
                if (!writeFile(bench.cacheFile(kVersion, compressedRelPath(it.value())), fakeCompressed(it.key())))
                    return false;
            }
            continue;
        }
        const QString path = bench.partFile(kVersion, entry.section(QLatin1Char('='), 0, 0));
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || !file.resize(entry.section(QLatin1Char('='), 1).toLongLong()))
            return false;
    }
    return true;
}

// "path=got" for every state.json entry, in order; each entry must also be unfinished.
QStringList stateProgress(const PrefetchBench& bench)
{
    QStringList progress;
    const QJsonArray files = bench.readState(kVersion).value(QStringLiteral("files")).toArray();
    for (const QJsonValue& value : files) {
        const QJsonObject entry = value.toObject();
        progress.append(entry.value(QStringLiteral("path")).toString() + QLatin1Char('=')
                        + QString::number(qint64(entry.value(QStringLiteral("got")).toDouble()))
                        + (entry.value(QStringLiteral("done")).toBool() ? QStringLiteral(" done") : QString()));
    }
    return progress;
}

ManifestFile entry(const QString& text)  // "path:sha256"
{
    ManifestFile file;
    file.path = text.section(QLatin1Char(':'), 0, 0);
    file.sha256 = text.section(QLatin1Char(':'), 1);
    return file;
}

Manifest manifestOf(const QStringList& entries)
{
    Manifest manifest;
    manifest.fullVersion = kVersion;
    for (const QString& text : entries)
        manifest.files.append(entry(text));
    return manifest;
}

} // namespace

class TestPrefetchRound : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        isolateLockNamespace();
        LogCapture::install();
    }
    void cleanupTestCase() { LogCapture::uninstall(); }

    void refusals_data();
    void refusals();
    void acceptedPlans_data();
    void acceptedPlans();
    void planFollowsDeltaAndCache();
    void manifestDelta_data();
    void manifestDelta();
    void diskReserveOnSmallVolume_data();
    void diskReserveOnSmallVolume();
};

// Every way a run ends before its first download: one line, no file request, no state.json,
// the lock given back; builds other than the remote one are pruned once the manifest is trusted.
void TestPrefetchRound::refusals_data()
{
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<QByteArray>("signature");  // null: the publisher's signature of the manifest
    QTest::addColumn<int>("manifestStatus");
    QTest::addColumn<int>("signatureStatus");
    QTest::addColumn<QByteArray>("installed");  // null: no installed manifest
    QTest::addColumn<bool>("cacheHoldsEverything");
    QTest::addColumn<QStringList>("parts");  // see createParts
    QTest::addColumn<QString>("expected");  // a line ending in ": " is followed by Qt's error text
    QTest::addColumn<bool>("prunes");
    QTest::addColumn<int>("requests");

    const BuildFiles files = remoteFiles();
    const QByteArray build7 = makeManifestJson(kVersion, 7, files);
    const QByteArray none;
    const QString fetchFailed = line("tai manifest/sig hong -> thoi (updater se tu tai): ");

    QTest::newRow("manifest missing") << build7 << none << 404 << 0 << none << false << QStringList()
                                      << fetchFailed << false << 1;
    QTest::newRow("signature missing") << build7 << none << 0 << 404 << none << false << QStringList()
                                       << fetchFailed << false << 2;
    QTest::newRow("signature over other bytes")
        << build7 << signWithKey(build7 + ' ') << 0 << 0 << none << false << QStringList()
        << line("CHU KY MANIFEST SAI -> khong tai san gi ca") << false << 2;
    QTest::newRow("signed document without files")
        << QByteArray("{\"fullVersion\": \"2.4.1\", \"files\": []}") << none << 0 << 0 << none << false
        << QStringList() << line("manifest hong") << false << 2;
    QTest::newRow("other architecture")
        << makeManifestJson(kVersion, 7, files, "Corvanta", "x86") << none << 0 << 0 << none << false
        << QStringList() << line("manifest khong danh cho ban nay: arch=x86 (can x64)") << false << 2;
    QTest::newRow("other product reported first")
        << makeManifestJson(kVersion, 7, files, "Other", "x86") << none << 0 << 0 << none << false
        << QStringList() << line("manifest khong danh cho ban nay: product=Other (can Corvanta)") << false << 2;
    QTest::newRow("installed build is the same")
        << build7 << none << 0 << 0 << makeManifestJson("2.4.0", 7, {{"a.bin", "old"}}) << false
        << QStringList() << line("da moi nhat -> khong co gi de tai san") << true << 2;
    QTest::newRow("installed build is newer")
        << build7 << none << 0 << 0 << makeManifestJson("2.5.0", 9, {{"a.bin", "old"}}) << false
        << QStringList() << line("da moi nhat -> khong co gi de tai san") << true << 2;
    QTest::newRow("newer build with the installed hashes")
        << build7 << none << 0 << 0 << makeManifestJson("2.4.0", 6, files) << false << QStringList()
        << line("kho tam da du cho 2.4.1") << true << 2;
    QTest::newRow("unknown remote build number, hashes decide")
        << makeManifestJson(kVersion, -1, files) << none << 0 << 0 << makeManifestJson("2.4.0", 7, files)
        << false << QStringList() << line("kho tam da du cho 2.4.1") << true << 2;
    QTest::newRow("every file finished in the cache")
        << build7 << none << 0 << 0 << none << true << QStringList() << line("kho tam da du cho 2.4.1") << true
        << 2;
    QByteArray compressedToo = build7;
    for (auto it = files.cbegin(); it != files.cend(); ++it)
        compressedToo = withArtifacts(compressedToo, it.key(), fakeCompressed(it.key()));
    QTest::newRow("every file's compressed copy finished in the cache")
        << compressedToo << none << 0 << 0 << none << false << QStringList{"@compressed"}
        << line("kho tam da du cho 2.4.1") << true << 2;
    QTest::newRow("one byte over the cap")
        << manifestWithEntries(kVersion, 7, {manifestEntry("big.bin", 524288001, kAnyHash)}) << none << 0 << 0
        << none << false << QStringList() << line("can tai 500 MB > tran 500 MB -> de updater lo") << true << 2;
    QTest::newRow("600 MiB")
        << manifestWithEntries(kVersion, 7,
                               {manifestEntry("x.bin", 300 * kMiB, kAnyHash), manifestEntry("y.bin", 300 * kMiB, kAnyHash)})
        << none << 0 << 0 << none << false << QStringList() << line("can tai 600 MB > tran 500 MB -> de updater lo")
        << true << 2;
    QTest::newRow("partial files count their missing bytes")
        << manifestWithEntries(kVersion, 7,
                               {manifestEntry("x.bin", 300 * kMiB, kAnyHash), manifestEntry("y.bin", 300 * kMiB, kAnyHash)})
        << none << 0 << 0 << none << false << QStringList({QString("y.bin=%1").arg(50 * kMiB)})
        << line("can tai 550 MB > tran 500 MB -> de updater lo") << true << 2;
}

void TestPrefetchRound::refusals()
{
    QFETCH(QByteArray, manifest);
    QFETCH(QByteArray, signature);
    QFETCH(int, manifestStatus);
    QFETCH(int, signatureStatus);
    QFETCH(QByteArray, installed);
    QFETCH(bool, cacheHoldsEverything);
    QFETCH(QStringList, parts);
    QFETCH(QString, expected);
    QFETCH(bool, prunes);
    QFETCH(int, requests);

    PrefetchBench bench;
    QVERIFY(bench.setUp());
    QVERIFY(bench.publish(kVersion, 7, remoteFiles()));
    QVERIFY(bench.publishManifest(manifest));
    const QString published = bench.published.path() + QStringLiteral("/b/");
    if (!signature.isNull())
        QVERIFY(writeFile(published + QStringLiteral("manifest.json.sig"), signature));
    TestServer::Rule status;
    status.status = manifestStatus;
    if (manifestStatus)
        bench.server.setRule(QStringLiteral("b/manifest.json"), status);
    status.status = signatureStatus;
    if (signatureStatus)
        bench.server.setRule(QStringLiteral("b/manifest.json.sig"), status);
    if (!installed.isNull())
        QVERIFY(writeFile(bench.dir() + QStringLiteral("/manifest.json"), installed));
    if (cacheHoldsEverything) {
        const BuildFiles files = remoteFiles();
        for (auto it = files.cbegin(); it != files.cend(); ++it)
            QVERIFY(writeFile(bench.cacheFile(kVersion, it.key()), it.value()));
    }
    QVERIFY(createParts(bench, parts));
    const QString otherBuild = bench.cacheFile(QStringLiteral("2.3.0"), QStringLiteral("old.bin"));
    QVERIFY(writeFile(otherBuild, "old"));

    QVERIFY(runPrefetchToEnd());

    const QStringList lines = LogCapture::prefetchLines();
    QCOMPARE(lines.size(), 1);
    if (expected.endsWith(QLatin1String(": "))) {
        QVERIFY2(lines.first().startsWith(expected) && lines.first().size() > expected.size(), qPrintable(lines.first()));
    } else {
        QCOMPARE(lines.first(), expected);
    }
    QCOMPARE(bench.server.requests().size(), requests);
    QCOMPARE(bench.fileRequests(), QStringList());
    QVERIFY(!QFileInfo::exists(bench.cacheDir(kVersion) + QStringLiteral("/state.json")));
    QCOMPARE(QFileInfo::exists(otherBuild), !prunes);
    corv::platform::NamedMutex lock;
    QVERIFY(tryAcquirePrefetchLock(lock));
    lock.releaseAndClose();
}

// Runs that pass the cap: judged by the start line, the first transfer and the initial
// state.json, then stopped before any byte arrives (the server holds every file back).
void TestPrefetchRound::acceptedPlans_data()
{
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<QStringList>("parts");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QStringList>("progress");

    QTest::newRow("exactly at the cap")
        << manifestWithEntries(kVersion, 7, {manifestEntry("big.bin", 524288000, kAnyHash)}) << QStringList()
        << QStringList({line("bat dau 2.4.1 - 1 file, 500 MB"), line("big.bin tai tu dau 512000 KB")})
        << QStringList({"big.bin=0"});
    QTest::newRow("partial file counts only its missing bytes")
        << manifestWithEntries(kVersion, 7, {manifestEntry("big.bin", 524288000 + 1048577, kAnyHash)})
        << QStringList({"big.bin=1048577"})
        << QStringList({line("bat dau 2.4.1 - 1 file, 500 MB"), line("big.bin resume tu 1048577 byte")})
        << QStringList({"big.bin=1048577"});
    // The cap counts what goes over the wire: here a 100 MiB compressed copy of a 600 MiB file.
    QJsonObject packed = manifestEntry("big.bin", 600 * kMiB, kAnyHash);
    packed.insert(QStringLiteral("zstd"), QJsonObject{{QStringLiteral("size"), double(100 * kMiB)},
                                                      {QStringLiteral("sha256"), QString(64, QLatin1Char('b'))}});
    const QString packedPath = QStringLiteral(".zstd/") + kAnyHash + QStringLiteral(".zst");
    QTest::newRow("the compressed copy counts, not the file")
        << manifestWithEntries(kVersion, 7, {packed}) << QStringList()
        << QStringList({line("bat dau 2.4.1 - 1 file, 100 MB"),
                        line("big.bin tai ban nen 104857600 byte thay vi 629145600 byte"),
                        line(packedPath + QStringLiteral(" tai tu dau 102400 KB"))})
        << QStringList({packedPath + QStringLiteral("=0")});
    QTest::newRow("part longer than its file counts as nothing")
        << manifestWithEntries(kVersion, 7,
                               {manifestEntry("big.bin", 524288000, kAnyHash), manifestEntry("small.bin", 10, kAnyHash)})
        << QStringList({"small.bin=100"})
        << QStringList({line("bat dau 2.4.1 - 2 file, 500 MB"), line("big.bin tai tu dau 512000 KB")})
        << QStringList({"big.bin=0", "small.bin=100"});
}

void TestPrefetchRound::acceptedPlans()
{
    QFETCH(QByteArray, manifest);
    QFETCH(QStringList, parts);
    QFETCH(QStringList, expected);
    QFETCH(QStringList, progress);

    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const QStorageInfo volume(bench.dir());
    if (volume.bytesAvailable() < 1700 * kMiB)
        QSKIP("needs 1.7 GiB free beside the temporary installation to pass the disk reserve");
    QVERIFY(bench.publishManifest(manifest));
    QVERIFY(createParts(bench, parts));
    TestServer::Rule holdBack;
    holdBack.stallBeforeSeconds = 30;
    bench.server.setRule(QStringLiteral("b/big.bin"), holdBack);
    bench.server.setRule(QStringLiteral("b/.zstd/") + kAnyHash + QStringLiteral(".zst"), holdBack);

    UpdatePrefetcher prefetcher;
    QSignalSpy finished(&prefetcher, &UpdatePrefetcher::finished);
    QVERIFY(prefetcher.start());
    QTRY_COMPARE_WITH_TIMEOUT(LogCapture::prefetchLines().size(), expected.size(), 15000);
    QCOMPARE(LogCapture::prefetchLines(), expected);
    QCOMPARE(stateProgress(bench), progress);
    const QJsonObject state = bench.readState(kVersion);
    QCOMPARE(state.value(QStringLiteral("fullVersion")).toString(), kVersion);
    QCOMPARE(state.value(QStringLiteral("buildNumber")).toDouble(), 7.0);
    QCOMPARE(state.value(QStringLiteral("baseUrl")).toString(), bench.server.url(QStringLiteral("b/")));

    prefetcher.stop();
    QCOMPARE(finished.count(), 1);
    QCOMPARE(LogCapture::prefetchLines().last(), line(QStringLiteral("dung - xong 0 file, con %1").arg(progress.size())));
    QCOMPARE(stateProgress(bench), progress);
}

// The plan holds only what the installed manifest lacks and the cache does not already have;
// finished cache files count as done, partial ones resume.
void TestPrefetchRound::planFollowsDeltaAndCache()
{
    PrefetchBench bench;
    QVERIFY(bench.setUp());
    const BuildFiles remote{{"a.bin", patternBytes(10000, 1)},
                            {"b.bin", patternBytes(20000, 2)},
                            {"c.bin", patternBytes(30000, 3)},
                            {"d.bin", patternBytes(40000, 4)}};
    QVERIFY(bench.publish(kVersion, 7, remote));
    QVERIFY(bench.installManifest("2.4.0", 6,
                                  {{"a.bin", remote.value("a.bin")}, {"b.bin", "old b"}, {"gone.bin", "gone"}}));
    QVERIFY(writeFile(bench.cacheFile(kVersion, "c.bin"), remote.value("c.bin")));
    QVERIFY(writeFile(bench.partFile(kVersion, "d.bin"), remote.value("d.bin").left(15000)));

    QVERIFY(runPrefetchToEnd());

    QCOMPARE(LogCapture::prefetchLines(),
             QStringList({line("bat dau 2.4.1 - 2 file, 0 MB"), line("b.bin tai tu dau 19 KB"),
                          line("b.bin xong ( 1 / 2 )"), line("d.bin resume tu 15000 byte"),
                          line("d.bin xong ( 2 / 2 )"), line("xong toan bo - 3 file ok, 0 bo lai cho updater")}));
    QCOMPARE(bench.fileRequests(), QStringList({"b/b.bin", "b/d.bin"}));
    QCOMPARE(stateProgress(bench), QStringList({"b.bin=20000 done", "d.bin=40000 done"}));
    for (const QString path : {"b.bin", "c.bin", "d.bin"})
        QCOMPARE(readFile(bench.cacheFile(kVersion, path)), remote.value(path));
    QVERIFY(!QFileInfo::exists(bench.cacheFile(kVersion, "a.bin")));
}

void TestPrefetchRound::manifestDelta_data()
{
    QTest::addColumn<QStringList>("remote");     // "path:sha256", in order
    QTest::addColumn<QStringList>("installed");
    QTest::addColumn<QStringList>("expected");   // paths

    QTest::newRow("new and changed files, in remote order")
        << QStringList({"x:1", "y:2", "z:3"}) << QStringList({"z:9", "y:2"}) << QStringList({"x", "z"});
    QTest::newRow("nothing installed") << QStringList({"x:1", "y:2"}) << QStringList() << QStringList({"x", "y"});
    QTest::newRow("later installed entry wins, same hash")
        << QStringList({"x:2"}) << QStringList({"x:1", "x:2"}) << QStringList();
    QTest::newRow("later installed entry wins, other hash")
        << QStringList({"x:1"}) << QStringList({"x:1", "x:2"}) << QStringList({"x"});
    QTest::newRow("hashes compared exactly") << QStringList({"x:ab"}) << QStringList({"x:AB"}) << QStringList({"x"});
    QTest::newRow("paths compared exactly") << QStringList({"Bin/x:1"}) << QStringList({"bin/x:1"})
                                            << QStringList({"Bin/x"});
    QTest::newRow("installed files no longer published are ignored")
        << QStringList({"x:1"}) << QStringList({"x:1", "old:5"}) << QStringList();
    QTest::newRow("a path listed twice remotely comes twice")
        << QStringList({"x:1", "x:1"}) << QStringList() << QStringList({"x", "x"});
}

void TestPrefetchRound::manifestDelta()
{
    QFETCH(QStringList, remote);
    QFETCH(QStringList, installed);
    QFETCH(QStringList, expected);

    QStringList paths;
    for (const ManifestFile& file : ::manifestDelta(manifestOf(remote), manifestOf(installed)))
        paths.append(file.path);
    QCOMPARE(paths, expected);
}

// On a 1280 MiB volume 1 GiB must stay free after the download; the cap is tested first.
void TestPrefetchRound::diskReserveOnSmallVolume_data()
{
    QTest::addColumn<qint64>("need");
    QTest::addColumn<QString>("expected");

    QTest::newRow("300 MiB would leave too little") << 300 * kMiB << line("dia con it cho -> khong tai san");
    QTest::newRow("200 MiB leaves enough") << 200 * kMiB << line("bat dau 2.4.1 - 1 file, 200 MB");
    QTest::newRow("600 MiB is refused by the cap first")
        << 600 * kMiB << line("can tai 600 MB > tran 500 MB -> de updater lo");
}

void TestPrefetchRound::diskReserveOnSmallVolume()
{
    QFETCH(qint64, need);
    QFETCH(QString, expected);

    QTemporaryDir mountPoint;
    QVERIFY(mountPoint.isValid());
    QProcess mount;
    mount.setProcessChannelMode(QProcess::MergedChannels);
    mount.start(QStringLiteral("mount"), {"-t", "tmpfs", "-o", "size=1280M", "tmpfs", mountPoint.path()});
    if (!mount.waitForFinished(10000) || mount.exitStatus() != QProcess::NormalExit || mount.exitCode() != 0)
        QSKIP("creating a small filesystem needs root and a working mount (tmpfs); skipped here");
    struct Unmount {
        QString path;
        ~Unmount() { QProcess::execute(QStringLiteral("umount"), {path}); }
    } unmount{mountPoint.path()};

    PrefetchBench bench;
    QVERIFY(bench.setUp(mountPoint.path()));
    QVERIFY(bench.publishManifest(manifestWithEntries(kVersion, 7, {manifestEntry("big.bin", need, kAnyHash)})));
    TestServer::Rule holdBack;
    holdBack.stallBeforeSeconds = 30;
    bench.server.setRule(QStringLiteral("b/big.bin"), holdBack);

    {
        UpdatePrefetcher prefetcher;
        QSignalSpy finished(&prefetcher, &UpdatePrefetcher::finished);
        QVERIFY(prefetcher.start());
        QTRY_VERIFY_WITH_TIMEOUT(!LogCapture::prefetchLines().isEmpty(), 15000);
        QCOMPARE(LogCapture::prefetchLines().first(), expected);
        prefetcher.stop();
        QCOMPARE(finished.count(), 1);
    }
    setInstallationDirForTesting(QString());
}

QTEST_GUILESS_MAIN(TestPrefetchRound)
#include "tst_prefetch_round.moc"
