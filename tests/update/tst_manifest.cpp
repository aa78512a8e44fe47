// The manifest format and the path rule, case by case. Whole runs with hostile manifests (paths
// out of the installation, impossible sizes) are rows of tests/hostile.
#include "update/manifest.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

const QByteArray kA = QByteArray(64, 'a');
const QByteArray kB = QByteArray(64, 'b');
const QByteArray kC = QByteArray(64, 'c');

QByteArray files(const QByteArray& entries, const QByteArray& more = "")
{
    return R"({"fullVersion": "v", "files": [)" + entries + "]" + more + "}";
}

QByteArray entry(const QByteArray& path, const QByteArray& more = "")
{
    return R"({"path": ")" + path + R"(", "sha256": "11")" + more + "}";
}

// A file of 1000 bytes with hash A and these artifact keys.
QByteArray withArtifacts(const QByteArray& keys)
{
    return files(R"({"path": "x", "size": 1000, "sha256": ")" + kA + "\", " + keys + "}");
}

QByteArray patch(const QByteArray& from, const QByteArray& size, const QByteArray& sha)
{
    return R"({"from": ")" + from + R"(", "size": )" + size + R"(, "sha256": ")" + sha + R"("})";
}

// "buildNumber fullVersion product arch: path|size|sha256[|zstd:size:sha256][|patch:from:size:sha256] ..."
QString describe(const Manifest& m)
{
    QString out = QStringLiteral("%1 %2 %3 %4:").arg(m.buildNumber).arg(m.fullVersion, m.product, m.arch);
    for (const ManifestFile& file : m.files) {
        out += QStringLiteral(" %1|%2|%3").arg(file.path).arg(file.size).arg(file.sha256);
        for (const ManifestArtifact& a : file.artifacts)
            out += a.isPatch() ? QStringLiteral("|patch:%1:%2:%3").arg(a.sourceSha256).arg(a.size).arg(a.sha256)
                               : QStringLiteral("|zstd:%1:%2").arg(a.size).arg(a.sha256);
    }
    return out;
}

} // namespace

class TestManifest : public QObject {
    Q_OBJECT
private slots:
    void parse_data();
    void parse();
};

void TestManifest::parse_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("installed");  // read as the installed manifest.json instead of parsed from memory
    QTest::addColumn<QString>("parsed");  // describe() of the result, or "rejected"; for "path:" the safe path
    const QString a = QString(kA), b = QString(kB), c = QString(kC);
    const auto row = [](const char* name, const QByteArray& json, const QString& parsed, bool installed = false) {
        QTest::newRow(name) << json << installed << parsed;
    };

    row("minimal", files(R"({"path": "a.dll", "sha256": "ABCDEF0123"})"), "-1 v  : a.dll|-1|abcdef0123");
    row("every field", R"({"buildNumber": 153, "fullVersion": "5.0.153", "product": "Corvanta", "arch": "x64",
                           "files": [{"path": "bin/app.exe", "size": 1048576, "sha256": "F0"}, )" + entry("d") + "]}",
        "153 5.0.153 Corvanta x64: bin/app.exe|1048576|f0 d|-1|11");
    row("buildNumber truncated", files(entry("a"), R"(, "buildNumber": 12.9)"), "12 v  : a|-1|11");
    row("buildNumber as a string is unknown", files(entry("a"), R"(, "buildNumber": "12")"), "-1 v  : a|-1|11");
    row("buildNumber beyond 64 bits saturates", files(entry("a"), R"(, "buildNumber": -1e300)"),
        "-9223372036854775808 v  : a|-1|11");
    row("sizes truncated, missing, 0 and 2^53",
        files(entry("a", R"(, "size": 2.5)") + "," + entry("b") + "," + entry("c", R"(, "size": 0)") + ","
              + entry("d", R"(, "size": 9007199254740992)")),
        "-1 v  : a|2|11 b|-1|11 c|0|11 d|9007199254740992|11");
    row("entries without path or hash skipped, order kept",
        files(entry("z") + R"(, {"path": "", "sha256": "22"}, {"sha256": "33"}, {"path": "n"}, {"path": "y", "sha256": ""},
              {"path": "x", "sha256": 5}, {"path": 5, "sha256": "44"}, 1, "s", null, [], )" + entry("a")),
        "-1 v  : z|-1|11 a|-1|11");
    row("a skipped entry is never path-checked", files(R"({"path": "../s", "sha256": ""}, )" + entry("ok")),
        "-1 v  : ok|-1|11");
    row("paths normalised", files(entry("bin\\\\x.dll") + "," + entry("a//b/") + "," + entry("..a/b")),
        "-1 v  : bin/x.dll|-1|11 a/b|-1|11 ..a/b|-1|11");
    row("names that only resemble reserved ones", files(entry("bin/manifest.json") + "," + entry("x.bak2") + ","
        + entry("a.tmp/b") + "," + entry("lib/.zstd/b") + "," + entry("com10")),
        "-1 v  : bin/manifest.json|-1|11 x.bak2|-1|11 a.tmp/b|-1|11 lib/.zstd/b|-1|11 com10|-1|11");
    row("UTF-8 path, full-width colon", files(entry("tài liệu/C：x")), QString::fromUtf8("-1 v  : tài liệu/C：x|-1|11"));
    row("artifacts, hashes lower-cased",
        withArtifacts(R"("zstd": {"size": 400, "sha256": ")" + kB.toUpper() + R"("}, "zstdPatches": [)"
                      + patch(kC, "30", kB) + "," + patch(kB.toUpper(), "50.7", kC) + "]"),
        "-1 v  : x|1000|" + a + "|zstd:400:" + b + "|patch:" + c + ":30:" + b + "|patch:" + b + ":50:" + c);
    row("artifacts not smaller than the file left out",
        withArtifacts(R"("zstd": {"size": 1000, "sha256": ")" + kB + R"("}, "zstdPatches": [)" + patch(kC, "999", kB)
                      + "," + patch(kB, "1001", kC) + "]"),
        "-1 v  : x|1000|" + a + "|patch:" + c + ":999:" + b);
    row("artifacts without a usable size left out",
        withArtifacts(R"("zstd": {"sha256": ")" + kB + R"("}, "zstdPatches": [)" + patch(kC, "0", kB) + ","
                      + patch(kB, "\"30\"", kC) + "," + patch(kB, "1", kC) + "]"),
        "-1 v  : x|1000|" + a + "|patch:" + b + ":1:" + c);
    row("artifacts with hashes other than 64 hex digits left out",
        withArtifacts(R"("zstd": {"size": 400, "sha256": "ab"}, "zstdPatches": [)" + patch("../../x", "30", kB) + ","
                      + patch(kC, "30", kB.left(63) + "g") + "]"),
        "-1 v  : x|1000|" + a);
    row("patch from the file itself, second patch from one source left out",
        withArtifacts(R"("zstdPatches": [)" + patch(kA, "30", kB) + "," + patch(kC, "30", kB) + ","
                      + patch(kC, "20", kB) + "]"),
        "-1 v  : x|1000|" + a + "|patch:" + c + ":30:" + b);
    row("10 MB path", files(entry(QByteArray(10 << 20, 'p'))), "-1 v  : " + QString(10 << 20, 'p') + "|-1|11");

    for (const char* bad : {"fullVersion=5", "[{\"fullVersion\": \"v\", \"files\": []}]"})
        row(qPrintable(QStringLiteral("not a manifest: %1").arg(bad)), bad, "rejected");
    row("no fullVersion", R"({"files": [)" + entry("a") + "]}", "rejected");
    row("empty fullVersion", R"({"fullVersion": "", "files": [)" + entry("a") + "]}", "rejected");
    row("numeric fullVersion", R"({"fullVersion": 5, "files": [)" + entry("a") + "]}", "rejected");
    row("control character in fullVersion", R"({"fullVersion": "2.0\n", "files": [)" + entry("a") + "]}", "rejected");
    row("no files", R"({"fullVersion": "v"})", "rejected");
    row("no usable entry", files(R"({"path": "a.dll", "size": 3}, {"sha256": "aa"})"), "rejected");
    row("size as a string", files(entry("a") + "," + entry("c", R"(, "size": "10")")), "rejected");
    row("one path twice after normalising", files(entry("lib/a") + "," + entry("lib\\\\a")), "rejected");
    row("a file that is another entry's directory, letter case aside", files(entry("p/x.so") + "," + entry("P")), "rejected");
    for (const char* path : {"old.bak/x", "updater.exe.new", "a.part", "state.tmp", "Manifest.JSON", "manifest.json.sig",
                             ".update-cache", ".Staging", "tab\\there", "a/\\u007f", "lib/com1.txt", "a|b", ".Zstd/x/y"})
        row(qPrintable(QStringLiteral("reserved path %1").arg(path)), files(entry("ok") + "," + entry(path)), "rejected");
    // Checking every entry's directories must not take the path's length times its depth (hours
    // for this path). The sanitizers make even the linear check take minutes, and find nothing
    // in it that the shorter paths above do not reach.
    if (!CORV_SANITIZED)
        row("a clash after a path 2,097,152 directories deep",
            files(entry(QByteArray("d/").repeated(2097152) + "x") + "," + entry("z") + "," + entry("z/y")), "rejected");

    const QByteArray good = files(R"({"path": "bin/a.dll", "size": 9, "sha256": "AA"})");
    const QStringList paths = {
        "a\\b/c\\d", "a/b/c/d", "a\\\\b\\", "a/b", "a/../b", "", "...", "...", "..a/b../.c/c.", "..a/b../.c/c.", " a /b ", " a /b ",
        "CON/nul.txt", "CON/nul.txt", "", "", QString(10 << 20, '/'), ""};
    for (int i = 0; i < paths.size(); i += 2)
        row(qPrintable("path " + paths[i].left(40)), "path:" + paths[i].toUtf8(), paths[i + 1]);
    row("installed", good, "-1 v  : bin/a.dll|9|aa", true);
    row("installed, 16 MiB", good + QByteArray(16777216 - good.size(), ' '), "-1 v  : bin/a.dll|9|aa", true);
    row("installed, beyond 16 MiB", good + QByteArray(16777217 - good.size(), ' '), "rejected", true);
    row("installed, empty", "", "rejected", true);
}

void TestManifest::parse()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, installed);
    QFETCH(QString, parsed);
    if (json.startsWith("path:")) {
        QCOMPARE(safeRelativePath(QString::fromUtf8(json.mid(5))), parsed);
        return;
    }
    Manifest manifest;
    manifest.fullVersion = "untouched";
    bool ok = false;
    if (installed) {
        QTemporaryDir dir;
        QFile file(installedManifestPath(dir.path()));
        QCOMPARE(file.fileName(), dir.path() + "/manifest.json");
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(json) == json.size());
        file.close();
        ok = loadInstalledManifest(dir.path(), &manifest);
    } else {
        ok = parseManifest(json, &manifest);
    }
    // A rejected manifest leaves the record as it was.
    QCOMPARE(ok ? describe(manifest) : "rejected " + describe(manifest), parsed == "rejected" ? "rejected -1 untouched  :" : parsed);
    QVERIFY(!parseManifest(json, nullptr));
}

QTEST_GUILESS_MAIN(TestManifest)
#include "tst_manifest.moc"
