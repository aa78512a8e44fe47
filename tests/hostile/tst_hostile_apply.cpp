// The updater in apply mode against servers and manifests that misbehave: each row names the
// fault, the log lines it must produce, and whether the update may complete.
#include "hostile/hostile_bench.h"

#include <QtTest>

using namespace faults;

class TestHostileApply : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(bench.start()); }
    void fault_data();
    void fault();

private:
    HostileBench bench;
};

void TestHostileApply::fault_data()
{
    QTest::addColumn<HostileRow>("row");
    const QString manifest = QStringLiteral("manifest.json");
    const QString sig = QStringLiteral("manifest.json.sig");
    const QString file = QStringLiteral("lib/c.bin");
    auto row = [](Publication publication, const QString& rulePath, const TestServer::Rule& rule, const QStringList& expected,
                  bool updates = false) { return makeRow(RunMode::Apply, publication, rulePath, rule, expected, updates); };

    // HTTP errors and broken transfers of the two documents: two attempts, then no update.
    QTest::newRow("manifest 404") << row(Publication::Normal, manifest, status(404), bench.applyManifestFails(manifest));
    QTest::newRow("manifest 500") << row(Publication::Normal, manifest, status(500), bench.applyManifestFails(manifest));
    // A cut that Qt reports as a short but complete body fails the signature check instead.
    const QString rejectedSignature = QStringLiteral("[Update] CHU KY MANIFEST SAI -> KHONG ap, chay ban hien tai");
    auto cutDocument = [&](const QString& path, qint64 after) {
        HostileRow r = row(Publication::Normal, path, cutAfter(after), bench.applyManifestFails(path));
        r.alternatives = {{rejectedSignature}, bench.applyManifestFails(path).mid(0, 2) + QStringList{rejectedSignature}};
        return r;
    };
    QTest::newRow("manifest cut mid-body") << cutDocument(manifest, 200);
    QTest::newRow("manifest redirect loop")
        << row(Publication::Normal, manifest, redirect(QStringLiteral("b/manifest.json")), bench.applyManifestFails(manifest));
    QTest::newRow("signature 403") << row(Publication::Normal, sig, status(403), bench.applyManifestFails(sig));
    QTest::newRow("signature 503") << row(Publication::Normal, sig, status(503), bench.applyManifestFails(sig));
    QTest::newRow("signature cut mid-body") << cutDocument(sig, 20);
    // A failed first attempt is retried once.
    TestServer::Rule once = status(500);
    once.times = 1;
    QTest::newRow("manifest 500 once")
        << row(Publication::Normal, manifest, once,
               QStringList{bench.applyManifestFails(manifest).at(0), bench.applyManifestFails(manifest).at(1)} + HostileBench::applyUpdated(),
               true);

    // Wrong bytes where the signature protects them.
    QTest::newRow("manifest wrong bytes") << row(Publication::Normal, manifest, corrupt(-1), QStringList{rejectedSignature});
    QTest::newRow("signature wrong bytes") << row(Publication::Normal, sig, corrupt(-1), QStringList{rejectedSignature});
    QTest::newRow("signature of another manifest")
        << row(Publication::SignatureOfOtherManifest, QString(), {}, QStringList{rejectedSignature});
    QTest::newRow("signed with an untrusted key") << row(Publication::OtherKey, QString(), {}, QStringList{rejectedSignature});

    // Signed manifests that must still not be acted on.
    QTest::newRow("other product")
        << row(Publication::OtherProduct, QString(), {},
               {QStringLiteral("[Update] MANIFEST KHONG DANH CHO BAN NAY: product=Other (can Corvanta) -> KHONG ap, chay ban hien tai")});
    QTest::newRow("other architecture")
        << row(Publication::OtherArch, QString(), {},
               {QStringLiteral("[Update] MANIFEST KHONG DANH CHO BAN NAY: arch=arm64 (can x64) -> KHONG ap, chay ban hien tai")});
    QTest::newRow("older build replayed")
        << row(Publication::OlderBuild, QString(), {}, {QStringLiteral("[Update] da moi nhat: \"0.9\"")});
    QTest::newRow("installed build number replayed with other files")
        << row(Publication::SameBuildOtherContent, QString(), {}, {QStringLiteral("[Update] da moi nhat: \"1.0-replay\"")});
    for (const char* path : {"../escape.txt", "lib/../../escape.txt", "..\\escape.txt", "/tmp/escape.txt", "C:/escape.txt",
                             "lib/./c.bin", "x:stream", "LIB/C.BIN", "lib/c.bin/x", "lib/c.bin.bak", "manifest.json",
                             ".staging/x", "updater.log", "manifest.json.", "lib/c.bin.", "lib/c.bin ", "lib/nul"}) {
        HostileRow hostile = row(Publication::HostilePath, QString(), {}, {QStringLiteral("[Update] manifest hong")});
        hostile.hostilePath = QString::fromLatin1(path);
        QTest::newRow(qPrintable(QStringLiteral("one hostile path among 36: ") + hostile.hostilePath)) << hostile;
    }

    // A size no file can have: the manifest is rejected, not read as "no size".
    for (double size : {-1.0, 1e19, 9007199254740994.0}) {
        HostileRow sized = row(Publication::ExtraSizes, QString(), {}, {QStringLiteral("[Update] manifest hong")});
        sized.extraSizes = {size};
        QTest::newRow(qPrintable(QStringLiteral("file size %1").arg(size, 0, 'g', 17))) << sized;
    }

    // The files: any failed transfer gives the update up before anything is replaced.
    QTest::newRow("file 404") << row(Publication::Normal, file, status(404), bench.applyFileFails(file));
    QTest::newRow("file 500") << row(Publication::Normal, file, status(500), bench.applyFileFails(file));
    // A cut reported as a short body fails the hash check, and the second download with it.
    HostileRow cutFile = row(Publication::Normal, file, cutAfter(5000), bench.applyFileFails(file));
    const QString hashWrong = QStringLiteral("[Update] hash lech \"lib/c.bin\" -> bo phan da co, tai lai tu dau");
    const QString hashStillWrong = QStringLiteral("[Update] hash van lech \"lib/c.bin\" -> huy");
    cutFile.alternatives = {{hashWrong, hashStillWrong}, {hashWrong, bench.applyFileFails(file).at(0), hashStillWrong}};
    QTest::newRow("file cut mid-body") << cutFile;
    QTest::newRow("file redirect loop")
        << row(Publication::Normal, file, redirect(QStringLiteral("b/lib/c.bin")), bench.applyFileFails(file));
    QTest::newRow("file wrong bytes")
        << row(Publication::Normal, file, corrupt(-1),
               {QStringLiteral("[Update] hash lech \"lib/c.bin\" -> bo phan da co, tai lai tu dau"),
                QStringLiteral("[Update] hash van lech \"lib/c.bin\" -> huy")});
    QTest::newRow("file wrong bytes once")
        << row(Publication::Normal, file, corrupt(1),
               QStringList{QStringLiteral("[Update] hash lech \"lib/c.bin\" -> bo phan da co, tai lai tu dau")}
                   + HostileBench::applyUpdated(80004 + 60000),
               true);
    QTest::newRow("file shorter than its manifest entry")
        << row(Publication::ShortFile, QString(), {},
               {QStringLiteral("[Update] hash lech \"lib/c.bin\" -> bo phan da co, tai lai tu dau"),
                QStringLiteral("[Update] hash van lech \"lib/c.bin\" -> huy")});
    TestServer::Rule noRange;
    noRange.partialWithoutRange = true;
    QTest::newRow("file 206 without a range") << row(Publication::Normal, file, noRange, HostileBench::applyUpdated(), true);
    // A redirect out of HTTP must not read a local file as the download.
    QTest::newRow("file redirected to file:///etc/hostname")
        << row(Publication::Normal, file, redirect(QStringLiteral("file:///etc/hostname")), bench.applyFileFails(file));
    QTest::newRow("file redirected once to a mirror")
        << row(Publication::Normal, file, redirect(QStringLiteral("b/mirror/c.bin")), HostileBench::applyUpdated(), true);

    // Smaller downloads of lib/c.bin: the smallest usable one, and on any failure the next, the
    // whole file last; every row ends verified as build 2.0.
    const qint64 others = 20000 + 4;  // a.bin and e.txt, whole
    const QString patchPath = bench.patchPath();
    const QString compressedPath = bench.compressedPath();
    const auto choice = [](const QString& kind, qint64 size) {
        return QStringLiteral("[Update] \"lib/c.bin\" tai %1 %2 byte thay vi 60000 byte").arg(kind).arg(size);
    };
    const auto fellBack = [](const QString& kind, const QString& reason, const QString& next) {
        return QStringLiteral("[Update] %1 cho \"lib/c.bin\" hong (%2) -> %3").arg(kind, reason, next);
    };
    const QString getFailed = QStringLiteral("[Update] GET(file) loi \"%1\" \"*\"");
    const QString patch = QStringLiteral("patch");
    const QString packed = QStringLiteral("ban nen");
    const QString whole = QStringLiteral("tai ca file");
    const qint64 patchSize = bench.patchSize();
    const qint64 compressedSize = bench.compressedSize();
    QTest::newRow("smaller: the patch for the installed file")
        << row(Publication::Artifacts, QString(), {}, QStringList{choice(patch, patchSize)} + HostileBench::applyUpdated(others + patchSize),
               true);
    QTest::newRow("smaller: patch missing (404), then the whole file")
        << row(Publication::PatchOnly, patchPath, status(404),
               QStringList{choice(patch, patchSize), getFailed.arg(bench.url(patchPath)), fellBack(patch, QStringLiteral("tai that bai"), whole)}
                   + HostileBench::applyUpdated(others + 60000),
               true);
    QTest::newRow("smaller: patch answers 500, then the whole file")
        << row(Publication::PatchOnly, patchPath, status(500),
               QStringList{choice(patch, patchSize), getFailed.arg(bench.url(patchPath)), fellBack(patch, QStringLiteral("tai that bai"), whole)}
                   + HostileBench::applyUpdated(others + 60000),
               true);
    QTest::newRow("smaller: patch with wrong bytes, then the whole file")
        << row(Publication::PatchOnly, patchPath, corrupt(-1),
               QStringList{choice(patch, patchSize), fellBack(patch, QStringLiteral("hash lech"), whole)}
                   + HostileBench::applyUpdated(others + patchSize + 60000),
               true);
    QTest::newRow("smaller: a corrupt patch as published, then the whole file")
        << row(Publication::CorruptPatch, QString(), {},
               QStringList{choice(patch, patchSize), fellBack(patch, QStringLiteral("zstd: Data corruption detected"), whole)}
                   + HostileBench::applyUpdated(others + patchSize + 60000),
               true);
    QTest::newRow("smaller: a patch made from another file, then the whole file")
        << row(Publication::PatchOfOtherSource, QString(), {},
               QStringList{choice(patch, bench.otherPatchSize()),
                           fellBack(patch, QStringLiteral("zstd: Restored data doesn't match checksum"), whole)}
                   + HostileBench::applyUpdated(others + bench.otherPatchSize() + 60000),
               true);
    QTest::newRow("smaller: compressed copy cut off mid-body, then the whole file")
        << row(Publication::CompressedOnly, compressedPath, cutAfter(compressedSize / 2),
               QStringList{choice(packed, compressedSize), getFailed.arg(bench.url(compressedPath)),
                           fellBack(packed, QStringLiteral("tai that bai"), whole)}
                   + HostileBench::applyUpdated(others + compressedSize / 2 + 60000),
               true);
    QTest::newRow("smaller: a truncated compressed copy as published, then the whole file")
        << row(Publication::TruncatedCompressed, QString(), {},
               QStringList{choice(packed, compressedSize / 2), fellBack(packed, QStringLiteral("zstd: frame bi cat ngang"), whole)}
                   + HostileBench::applyUpdated(others + compressedSize / 2 + 60000),
               true);
    QTest::newRow("smaller: compressed copy answers 503, then the whole file")
        << row(Publication::CompressedOnly, compressedPath, status(503),
               QStringList{choice(packed, compressedSize), getFailed.arg(bench.url(compressedPath)),
                           fellBack(packed, QStringLiteral("tai that bai"), whole)}
                   + HostileBench::applyUpdated(others + 60000),
               true);
    HostileRow chain = row(Publication::Artifacts, patchPath, status(404),
                           QStringList{choice(patch, patchSize), getFailed.arg(bench.url(patchPath)),
                                       fellBack(patch, QStringLiteral("tai that bai"), QStringLiteral("tai ban nen")),
                                       choice(packed, compressedSize), fellBack(packed, QStringLiteral("hash lech"), whole)}
                               + HostileBench::applyUpdated(others + compressedSize + 60000),
                           true);
    chain.moreRules.insert(compressedPath, corrupt(-1));
    QTest::newRow("smaller: patch missing, compressed copy with wrong bytes, then the whole file") << chain;
    QStringList endlessPatch = QStringList{choice(patch, patchSize),
                                           QStringLiteral("[Update] GET(file) loi \"%1\" \"file larger than %2 bytes\"")
                                               .arg(bench.url(patchPath)).arg(patchSize),
                                           fellBack(patch, QStringLiteral("tai that bai"), whole)}
                               + HostileBench::applyUpdated();
    endlessPatch[4] = QStringLiteral("[Update] da tai qua mang * byte (ca file: 80004 byte)");
    QTest::newRow("smaller: patch without end, then the whole file")
        << row(Publication::PatchOnly, patchPath, endless(), endlessPatch, true);

    // A resume from the cache that the server answers with the whole file: rewritten from 0.
    TestServer::Rule ignoreRange;
    ignoreRange.ignoreRange = true;
    HostileRow resumed = row(Publication::Normal, file, ignoreRange,
                             QStringList{QStringLiteral("[Update] \"lib/c.bin\" noi tiep tu kho tam: 1000 byte")}
                                 + HostileBench::applyUpdated(),
                             true);
    resumed.seedPartBytes = 1000;
    QTest::newRow("file 200 for a range") << resumed;

    // Links among the updater's own files, to a directory or a file outside the installation:
    // removed as links, never followed, and the run goes on.
    for (const auto& planted : {std::make_pair(Link::ToDirectory, ".staging"), std::make_pair(Link::ToFile, "updater.log"),
                                std::make_pair(Link::ToFile, "manifest.json")}) {
        HostileRow linked = row(Publication::Normal, QString(), {}, HostileBench::applyUpdated(), true);
        linked.link = planted.first;
        linked.linkPath = QString::fromLatin1(planted.second);
        QTest::newRow(qPrintable(QStringLiteral("link at ") + linked.linkPath)) << linked;
    }
    // A FIFO or a link to /dev/zero at the record, at an installed file or at the configuration:
    // never opened, the first two replaced by the update, the last one no configuration.
    for (const auto& planted : {std::make_pair(Link::Fifo, "manifest.json"), std::make_pair(Link::ToZeroDevice, "manifest.json"),
                                std::make_pair(Link::Fifo, "lib/c.bin"), std::make_pair(Link::ToZeroDevice, "lib/c.bin"),
                                std::make_pair(Link::Fifo, "updater.conf"), std::make_pair(Link::ToZeroDevice, "updater.conf")}) {
        const bool configuration = QLatin1String(planted.second) == QLatin1String("updater.conf");
        HostileRow special = row(Publication::Normal, QString(), {},
                                 configuration ? QStringList{QStringLiteral("[Update] khong co updater.conf -> bo qua update")}
                                               : HostileBench::applyUpdated(),
                                 !configuration);
        special.link = planted.first;
        special.linkPath = QString::fromLatin1(planted.second);
        QTest::newRow(qPrintable((planted.first == Link::Fifo ? QStringLiteral("FIFO at ") : QStringLiteral("link to /dev/zero at "))
                                 + special.linkPath)) << special;
    }
}

void TestHostileApply::fault()
{
    QFETCH(HostileRow, row);
    const HostileResult result = bench.run(row);
    QVERIFY2(result.violations.isEmpty(), qPrintable(result.violations.join(QLatin1Char('\n'))));
    QVERIFY2(outcomeMatches(row, result.lines), qPrintable(describeLines(row.expected, result.lines)));
}

QTEST_GUILESS_MAIN(TestHostileApply)
#include "tst_hostile_apply.moc"
