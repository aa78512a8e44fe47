// The updater in prefetch mode against servers and manifests that misbehave: each row names
// the fault and the log lines it must produce. A prefetch never touches the installed files;
// what it leaves in the cache must be the published bytes or a prefix of them.
#include "hostile/hostile_bench.h"

#include <QtTest>

using namespace faults;

namespace {

// The same lines once per attempt: a file is tried four times before it is left.
QStringList fourTimes(const QStringList& attempt)
{
    return attempt + attempt + attempt + attempt;
}

} // namespace

class TestHostilePrefetch : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(bench.start()); }
    void fault_data();
    void fault();

private:
    HostileBench bench;
};

void TestHostilePrefetch::fault_data()
{
    QTest::addColumn<HostileRow>("row");
    const QString manifest = QStringLiteral("manifest.json");
    const QString sig = QStringLiteral("manifest.json.sig");
    const QString file = QStringLiteral("lib/c.bin");
    auto row = [](Publication publication, const QString& rulePath, const TestServer::Rule& rule, const QStringList& expected) {
        return makeRow(RunMode::Prefetch, publication, rulePath, rule, expected);
    };
    const QStringList documentFailed{QStringLiteral("[UpdatePrefetch] tai manifest/sig hong -> thoi (updater se tu tai): *")};
    const QStringList rejectedSignature{QStringLiteral("[UpdatePrefetch] CHU KY MANIFEST SAI -> khong tai san gi ca")};
    const QStringList start = HostileBench::prefetchStart();
    const QString fresh = HostileBench::prefetchFresh();

    // The two documents: one attempt each; any failure ends the run.
    QTest::newRow("manifest 404") << row(Publication::Normal, manifest, status(404), documentFailed);
    QTest::newRow("manifest 500") << row(Publication::Normal, manifest, status(500), documentFailed);
    // A cut that Qt reports as a short but complete body fails the signature check instead.
    HostileRow cutManifest = row(Publication::Normal, manifest, cutAfter(200), documentFailed);
    cutManifest.alternatives = {rejectedSignature};
    QTest::newRow("manifest cut mid-body") << cutManifest;
    QTest::newRow("manifest redirect loop")
        << row(Publication::Normal, manifest, redirect(QStringLiteral("b/manifest.json")), documentFailed);
    QTest::newRow("signature 403") << row(Publication::Normal, sig, status(403), documentFailed);
    HostileRow cutSignature = row(Publication::Normal, sig, cutAfter(20), documentFailed);
    cutSignature.alternatives = {rejectedSignature};
    QTest::newRow("signature cut mid-body") << cutSignature;
    QTest::newRow("manifest wrong bytes") << row(Publication::Normal, manifest, corrupt(-1), rejectedSignature);
    QTest::newRow("signature of another manifest") << row(Publication::SignatureOfOtherManifest, QString(), {}, rejectedSignature);
    QTest::newRow("signed with an untrusted key") << row(Publication::OtherKey, QString(), {}, rejectedSignature);
    QTest::newRow("other product")
        << row(Publication::OtherProduct, QString(), {},
               {QStringLiteral("[UpdatePrefetch] manifest khong danh cho ban nay: product=Other (can Corvanta)")});
    QTest::newRow("other architecture")
        << row(Publication::OtherArch, QString(), {},
               {QStringLiteral("[UpdatePrefetch] manifest khong danh cho ban nay: arch=arm64 (can x64)")});
    QTest::newRow("older build replayed")
        << row(Publication::OlderBuild, QString(), {}, {QStringLiteral("[UpdatePrefetch] da moi nhat -> khong co gi de tai san")});
    QTest::newRow("installed build number replayed with other files")
        << row(Publication::SameBuildOtherContent, QString(), {},
               {QStringLiteral("[UpdatePrefetch] da moi nhat -> khong co gi de tai san")});
    for (const char* path : {"../escape.txt", "lib/../../escape.txt", "/tmp/escape.txt", "C:/escape.txt", "LIB/C.BIN",
                             ".update-cache/x"}) {
        HostileRow hostile = row(Publication::HostilePath, QString(), {}, {QStringLiteral("[UpdatePrefetch] manifest hong")});
        hostile.hostilePath = QString::fromLatin1(path);
        QTest::newRow(qPrintable(QStringLiteral("one hostile path among 36: ") + hostile.hostilePath)) << hostile;
    }

    // Sizes: one no file can have rejects the manifest; sizes that add up beyond 64 bits, or an
    // entry without a size (counted at the 1 GiB limit of such files), exceed the download cap.
    for (double size : {-1.0, 1e19, 9007199254740994.0}) {
        HostileRow sized = row(Publication::ExtraSizes, QString(), {}, {QStringLiteral("[UpdatePrefetch] manifest hong")});
        sized.extraSizes = {size};
        QTest::newRow(qPrintable(QStringLiteral("file size %1").arg(size, 0, 'g', 17))) << sized;
    }
    HostileRow huge = row(Publication::ExtraSizes, QString(), {},
                          {QStringLiteral("[UpdatePrefetch] can tai 8796093022207 MB > tran 500 MB -> de updater lo")});
    for (int i = 0; i < 1024; ++i)
        huge.extraSizes.append(9007199254740992.0);
    QTest::newRow("1024 files of 2^53 bytes") << huge;
    HostileRow unsized = row(Publication::ExtraSizes, QString(), {},
                             {QStringLiteral("[UpdatePrefetch] can tai 1024 MB > tran 500 MB -> de updater lo")});
    unsized.extraSizes = {qQNaN()};
    QTest::newRow("a file without size") << unsized;

    // The files: a failed attempt is retried three times, then the file is left for the updater.
    QTest::newRow("file 404")
        << row(Publication::Normal, file, status(404),
               start + fourTimes({fresh, QStringLiteral("[UpdatePrefetch] \"lib/c.bin\" HTTP 404 -> bo file nay")})
                   + QStringList{HostileBench::prefetchLeft()});
    QTest::newRow("file 503")
        << row(Publication::Normal, file, status(503),
               start + fourTimes({fresh, QStringLiteral("[UpdatePrefetch] \"lib/c.bin\" HTTP 503 -> bo file nay")})
                   + QStringList{HostileBench::prefetchLeft()});
    // Every cut keeps its bytes: the next attempt resumes where the last one ended. A cut that
    // Qt reports as a short but complete body fails the length check instead.
    const QString shortBody = QStringLiteral(" ||| [UpdatePrefetch] \"lib/c.bin\" thieu byte sau khi tai xong -> bo");
    QTest::newRow("file cut mid-body")
        << row(Publication::Normal, file, cutAfter(5000),
               start
                   + QStringList{fresh,
                                 QStringLiteral("[UpdatePrefetch] lib/c.bin dut o 5000 byte: *") + shortBody,
                                 QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu 5000 byte"),
                                 QStringLiteral("[UpdatePrefetch] lib/c.bin dut o 10000 byte: *") + shortBody,
                                 QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu 10000 byte"),
                                 QStringLiteral("[UpdatePrefetch] lib/c.bin dut o 15000 byte: *") + shortBody,
                                 QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu 15000 byte"),
                                 QStringLiteral("[UpdatePrefetch] lib/c.bin dut o 20000 byte: *") + shortBody,
                                 HostileBench::prefetchLeft()});
    // The last answer of the loop is a 302 like the others: a status other than 200 or 206.
    QTest::newRow("file redirect loop")
        << row(Publication::Normal, file, redirect(QStringLiteral("b/lib/c.bin")),
               start + fourTimes({fresh, QStringLiteral("[UpdatePrefetch] \"lib/c.bin\" HTTP 302 -> bo file nay")})
                   + QStringList{HostileBench::prefetchLeft()});
    QTest::newRow("file wrong bytes")
        << row(Publication::Normal, file, corrupt(-1),
               start + fourTimes({fresh, QStringLiteral("[UpdatePrefetch] lib/c.bin hash lech -> xoa, tai lai")})
                   + QStringList{HostileBench::prefetchLeft()});
    QTest::newRow("file wrong bytes once")
        << row(Publication::Normal, file, corrupt(1),
               start + QStringList{fresh, QStringLiteral("[UpdatePrefetch] lib/c.bin hash lech -> xoa, tai lai"), fresh}
                   + HostileBench::prefetchDone());
    // 30000 of 60000 bytes: too short; the resumes then ask beyond the end and get 416.
    QTest::newRow("file shorter than its manifest entry")
        << row(Publication::ShortFile, QString(), {},
               start
                   + QStringList{fresh, QStringLiteral("[UpdatePrefetch] \"lib/c.bin\" thieu byte sau khi tai xong -> bo")}
                   + QStringList{QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu 30000 byte"),
                                 QStringLiteral("[UpdatePrefetch] \"lib/c.bin\" HTTP 416 -> bo file nay")}
                   + QStringList{QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu 30000 byte"),
                                 QStringLiteral("[UpdatePrefetch] \"lib/c.bin\" HTTP 416 -> bo file nay")}
                   + QStringList{QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu 30000 byte"),
                                 QStringLiteral("[UpdatePrefetch] \"lib/c.bin\" HTTP 416 -> bo file nay")}
                   + QStringList{HostileBench::prefetchLeft()});
    TestServer::Rule noRange;
    noRange.partialWithoutRange = true;
    QTest::newRow("file 206 without a range")
        << row(Publication::Normal, file, noRange, start + QStringList{fresh} + HostileBench::prefetchDone());
    QTest::newRow("file redirected once to a mirror")
        << row(Publication::Normal, file, redirect(QStringLiteral("b/mirror/c.bin")),
               start + QStringList{fresh} + HostileBench::prefetchDone());

    // Smaller downloads: lib/c.bin comes as its patch from the installed build; an artifact that
    // fails its four attempts falls back to the whole file.
    const QString patchPath = bench.patchPath();
    const QString choosePatch =
        QStringLiteral("[UpdatePrefetch] lib/c.bin tai patch %1 byte thay vi 60000 byte").arg(bench.patchSize());
    const QString patchFresh = QStringLiteral("[UpdatePrefetch] %1 tai tu dau %2 KB").arg(patchPath).arg(bench.patchSize() / 1024);
    const QString toWhole = QStringLiteral("[UpdatePrefetch] patch cho lib/c.bin hong -> tai ca file");
    QTest::newRow("smaller: the patch")
        << row(Publication::Artifacts, QString(), {},
               start + QStringList{choosePatch, patchFresh, QStringLiteral("[UpdatePrefetch] %1 xong ( 3 / 3 )").arg(patchPath),
                                   QStringLiteral("[UpdatePrefetch] xong toan bo - 3 file ok, 0 bo lai cho updater")});
    QTest::newRow("smaller: patch missing (404), then the whole file")
        << row(Publication::PatchOnly, patchPath, status(404),
               start + QStringList{choosePatch}
                   + fourTimes({patchFresh, QStringLiteral("[UpdatePrefetch] \"%1\" HTTP 404 -> bo file nay").arg(patchPath)})
                   + QStringList{toWhole, fresh} + HostileBench::prefetchDone());
    QTest::newRow("smaller: patch with wrong bytes, then the whole file")
        << row(Publication::PatchOnly, patchPath, corrupt(-1),
               start + QStringList{choosePatch}
                   + fourTimes({patchFresh, QStringLiteral("[UpdatePrefetch] %1 hash lech -> xoa, tai lai").arg(patchPath)})
                   + QStringList{toWhole, fresh} + HostileBench::prefetchDone());

    TestServer::Rule ignoreRange;
    ignoreRange.ignoreRange = true;
    HostileRow resumed =
        row(Publication::Normal, file, ignoreRange,
            start
                + QStringList{QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu 1000 byte"),
                              QStringLiteral("[UpdatePrefetch] server tra 200 cho request Range -> BO 1000 byte da tai, ghi de tu dau")}
                + HostileBench::prefetchDone());
    resumed.seedPartBytes = 1000;
    QTest::newRow("file 200 for a range") << resumed;

    // Links in the cache, to a directory or a file outside the installation: removed as links,
    // never followed or written through, and the run goes on.
    const QString part = QStringLiteral(".update-cache/2.0/files/lib/c.bin.part");
    for (const auto& planted : {std::make_pair(Link::ToDirectory, QStringLiteral(".update-cache")),
                                std::make_pair(Link::ToDirectory, QStringLiteral(".update-cache/2.0/files/lib")),
                                std::make_pair(Link::ToFile, part),
                                std::make_pair(Link::ToFile, QStringLiteral(".update-cache/2.0/state.json.tmp")),
                                std::make_pair(Link::ToFile, QStringLiteral(".update-cache/2.0/manifest.json")),
                                std::make_pair(Link::ToFile, QStringLiteral(".update-cache/2.0/manifest.json.sig"))}) {
        HostileRow linked = row(Publication::Normal, QString(), {}, start + QStringList{fresh} + HostileBench::prefetchDone());
        linked.link = planted.first;
        linked.linkPath = planted.second;
        QTest::newRow(qPrintable(QStringLiteral("link at ") + linked.linkPath)) << linked;
    }
    // A ".part" with a second name elsewhere is resumed in a copy of its own.
    HostileRow hardLinked = row(Publication::Normal, QString(), {},
                                start + QStringList{QStringLiteral("[UpdatePrefetch] lib/c.bin resume tu 1000 byte")}
                                    + HostileBench::prefetchDone());
    hardLinked.link = Link::Hard;
    hardLinked.linkPath = part;
    QTest::newRow("hard link at .update-cache/2.0/files/lib/c.bin.part") << hardLinked;
}

void TestHostilePrefetch::fault()
{
    QFETCH(HostileRow, row);
    const HostileResult result = bench.run(row);
    QVERIFY2(result.violations.isEmpty(), qPrintable(result.violations.join(QLatin1Char('\n'))));
    QVERIFY2(outcomeMatches(row, result.lines), qPrintable(describeLines(row.expected, result.lines)));
}

QTEST_GUILESS_MAIN(TestHostilePrefetch)
#include "tst_hostile_prefetch.moc"
