#include "update/manifest.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QByteArray kHashA = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
const QByteArray kHashB = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

// One file entry as "path|size|sha256", followed by "|zstd:size:sha256" or
// "|patch:from:size:sha256" for each artifact, for whole-list comparisons.
QStringList describe(const QList<ManifestFile>& files)
{
    QStringList out;
    for (const ManifestFile& file : files) {
        QString line = QStringLiteral("%1|%2|%3").arg(file.path).arg(file.size).arg(file.sha256);
        for (const ManifestArtifact& artifact : file.artifacts) {
            line += artifact.isPatch() ? QStringLiteral("|patch:%1:%2:%3").arg(artifact.sourceSha256).arg(artifact.size).arg(artifact.sha256)
                                       : QStringLiteral("|zstd:%1:%2").arg(artifact.size).arg(artifact.sha256);
        }
        out << line;
    }
    return out;
}


QByteArray withFiles(const QByteArray& filesJson)
{
    return R"({"fullVersion": "5.0.153", "files": )" + filesJson + "}";
}

// A file entry of 1000 bytes with hash A, and the JSON of its artifacts.
QByteArray withArtifactEntry(const QByteArray& artifactsJson)
{
    return withFiles(R"([{"path": "lib/x.dll", "size": 1000, "sha256": ")" + kHashA + "\"" + artifactsJson + "}]");
}

QByteArray goodEntries(int count)
{
    QByteArray out;
    for (int i = 0; i < count; ++i)
        out += "{\"path\": \"bin/f" + QByteArray::number(i) + ".dll\", \"sha256\": \"" + kHashA + "\"},";
    return out;
}

Manifest sentinel()
{
    Manifest m;
    m.buildNumber = 77;
    m.fullVersion = QStringLiteral("untouched");
    m.product = QStringLiteral("P");
    m.arch = QStringLiteral("A");
    m.files.append(ManifestFile{QStringLiteral("keep.txt"), 5, QStringLiteral("ff")});
    return m;
}

bool isSentinel(const Manifest& m)
{
    return m.buildNumber == 77 && m.fullVersion == QLatin1String("untouched") && m.product == QLatin1String("P")
           && m.arch == QLatin1String("A") && describe(m.files) == QStringList{QStringLiteral("keep.txt|5|ff")};
}

} // namespace

class TestManifest : public QObject {
    Q_OBJECT

private slots:
    void parseAccepts_data();
    void parseAccepts();
    void parseRejects_data();
    void parseRejects();
    void nullOutputIsRejected();
    void safeRelativePath_data();
    void safeRelativePath();
    void hostileInputsNeverCrash_data();
    void hostileInputsNeverCrash();
    void installedManifest_data();
    void installedManifest();
};

void TestManifest::parseAccepts_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<qint64>("buildNumber");
    QTest::addColumn<QString>("fullVersion");
    QTest::addColumn<QString>("product");
    QTest::addColumn<QString>("arch");
    QTest::addColumn<QStringList>("files");

    QTest::newRow("minimal: version and one file, upper-case hash")
        << QByteArray(R"({"fullVersion": "5.0.153", "files": [{"path": "a.dll", "sha256": "ABCDEF0123"}]})")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{"a.dll|-1|abcdef0123"};
    QTest::newRow("every field")
        << QByteArray(R"({"buildNumber": 153, "fullVersion": "5.0.153", "product": "Corvanta", "arch": "x64",
                         "files": [{"path": "bin/app.exe", "size": 1048576, "sha256": ")" + kHashB + R"("},
                                   {"path": "data/x.pak", "size": 3, "sha256": ")" + kHashA + R"("}]})")
        << qint64(153) << "5.0.153" << "Corvanta" << "x64"
        << QStringList{"bin/app.exe|1048576|" + kHashB, "data/x.pak|3|" + kHashA};
    QTest::newRow("buildNumber 12.9 truncates to 12")
        << withFiles(R"([{"path": "a", "sha256": "aa"}], "buildNumber": 12.9)") << qint64(12) << "5.0.153"
        << "" << "" << QStringList{"a|-1|aa"};
    QTest::newRow("buildNumber -3.7 truncates toward zero")
        << withFiles(R"([{"path": "a", "sha256": "aa"}], "buildNumber": -3.7)") << qint64(-3) << "5.0.153"
        << "" << "" << QStringList{"a|-1|aa"};
    QTest::newRow("buildNumber as string is unknown")
        << withFiles(R"([{"path": "a", "sha256": "aa"}], "buildNumber": "12")") << qint64(-1) << "5.0.153"
        << "" << "" << QStringList{"a|-1|aa"};
    QTest::newRow("buildNumber null is unknown")
        << withFiles(R"([{"path": "a", "sha256": "aa"}], "buildNumber": null)") << qint64(-1) << "5.0.153"
        << "" << "" << QStringList{"a|-1|aa"};
    QTest::newRow("buildNumber beyond 64 bits saturates")
        << withFiles(R"([{"path": "a", "sha256": "aa"}], "buildNumber": 1e300)")
        << std::numeric_limits<qint64>::max() << "5.0.153" << "" << "" << QStringList{"a|-1|aa"};
    QTest::newRow("large buildNumber within range")
        << withFiles(R"([{"path": "a", "sha256": "aa"}], "buildNumber": 4294967296)") << qint64(4294967296LL)
        << "5.0.153" << "" << "" << QStringList{"a|-1|aa"};
    QTest::newRow("size 2.5 truncates, a missing size reads -1, 0 and 2^53 are sizes")
        << withFiles(R"([{"path": "a", "size": 2.5, "sha256": "aa"}, {"path": "b", "sha256": "bb"},
                        {"path": "c", "size": 0, "sha256": "cc"}, {"path": "d", "size": 9007199254740992, "sha256": "dd"}])")
        << qint64(-1) << "5.0.153" << "" << ""
        << QStringList{"a|2|aa", "b|-1|bb", "c|0|cc", "d|9007199254740992|dd"};
    QTest::newRow("size above 4 GiB")
        << withFiles(R"([{"path": "big.bin", "size": 6442450944, "sha256": "aa"}])") << qint64(-1)
        << "5.0.153" << "" << "" << QStringList{"big.bin|6442450944|aa"};
    QTest::newRow("non-string product and arch read as empty")
        << withFiles(R"([{"path": "a", "sha256": "aa"}], "product": 1, "arch": {"x": 64})") << qint64(-1)
        << "5.0.153" << "" << "" << QStringList{"a|-1|aa"};
    QTest::newRow("entries without path or hash are skipped, order kept")
        << withFiles(R"([{"path": "z", "sha256": "11"}, {"path": "", "sha256": "22"}, {"sha256": "33"},
                        {"path": "no-hash"}, {"path": "y", "sha256": ""}, {"path": "x", "sha256": 5},
                        {"path": 5, "sha256": "44"}, {"path": "a", "sha256": "55"}])")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{"z|-1|11", "a|-1|55"};
    QTest::newRow("non-object elements are skipped")
        << withFiles(R"([1, "bin/a.dll", null, true, [], {"path": "ok.dll", "sha256": "AB"}])") << qint64(-1)
        << "5.0.153" << "" << "" << QStringList{"ok.dll|-1|ab"};
    QTest::newRow("paths are normalised")
        << withFiles(R"([{"path": "bin\\x.dll", "sha256": "aa"}, {"path": "a//b/", "sha256": "bb"},
                        {"path": "..a/b", "sha256": "dd"}])")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{"bin/x.dll|-1|aa", "a/b|-1|bb", "..a/b|-1|dd"};
    QTest::newRow("names that only resemble reserved ones")
        << withFiles(R"([{"path": "bin/manifest.json", "sha256": "aa"}, {"path": "x.bak2", "sha256": "bb"},
                        {"path": "staging/a", "sha256": "cc"}, {"path": "a.tmp/b", "sha256": "dd"}])")
        << qint64(-1) << "5.0.153" << "" << ""
        << QStringList{"bin/manifest.json|-1|aa", "x.bak2|-1|bb", "staging/a|-1|cc", "a.tmp/b|-1|dd"};
    QTest::newRow("an entry skipped for its empty hash is never path-checked")
        << withFiles(R"([{"path": "../skip", "sha256": ""}, {"path": "C:/skip"}, {"path": "ok", "sha256": "aa"}])")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{"ok|-1|aa"};
    QTest::newRow("unknown keys are ignored")
        << QByteArray(R"({"fullVersion": "v", "signature": "x", "files": [{"path": "a", "sha256": "aa", "mode": 7}]})")
        << qint64(-1) << "v" << "" << "" << QStringList{"a|-1|aa"};
    const QByteArray hashC = "cccccccccccccccccccccccccccccccccccccccccccccccccccccccccccccccc";
    const QByteArray hashD = "dddddddddddddddddddddddddddddddddddddddddddddddddddddddddddddddd";
    const QString entry = "lib/x.dll|1000|" + kHashA;
    QTest::newRow("compressed copy and patches, hashes lower-cased")
        << withArtifactEntry(R"(, "zstd": {"size": 400, "sha256": ")" + kHashB.toUpper() + R"("},
                               "zstdPatches": [{"from": ")" + hashC + R"(", "size": 30, "sha256": ")" + hashD + R"("},
                                               {"from": ")" + hashD.toUpper() + R"(", "size": 50.7, "sha256": ")" + hashC + R"("}])")
        << qint64(-1) << "5.0.153" << "" << ""
        << QStringList{entry + "|zstd:400:" + kHashB + "|patch:" + hashC + ":30:" + hashD + "|patch:" + hashD + ":50:" + hashC};
    // An artifact that cannot serve is left out; the file itself always can.
    QTest::newRow("artifacts not smaller than the file are left out")
        << withArtifactEntry(R"(, "zstd": {"size": 1000, "sha256": ")" + kHashB + R"("},
                               "zstdPatches": [{"from": ")" + hashC + R"(", "size": 1001, "sha256": ")" + hashD + R"("}])")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{entry};
    QTest::newRow("artifacts without a usable size are left out")
        << withArtifactEntry(R"(, "zstd": {"sha256": ")" + kHashB + R"("},
                               "zstdPatches": [{"from": ")" + hashC + R"(", "size": 0, "sha256": ")" + hashD + R"("},
                                               {"from": ")" + hashD + R"(", "size": "30", "sha256": ")" + hashC + R"("}])")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{entry};
    QTest::newRow("artifacts whose hashes are not 64 hex digits are left out")
        << withArtifactEntry(R"(, "zstd": {"size": 400, "sha256": "ab"},
                               "zstdPatches": [{"from": "../../x", "size": 30, "sha256": ")" + hashD + R"("},
                                               {"from": ")" + hashC + R"(", "size": 30, "sha256": ")" + hashD.left(63) + R"(g"},
                                               {"size": 30, "sha256": ")" + hashD + R"("}])")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{entry};
    QTest::newRow("a patch from the file itself, and a second patch from one source, are left out")
        << withArtifactEntry(R"(, "zstdPatches": [{"from": ")" + kHashA + R"(", "size": 30, "sha256": ")" + hashD + R"("},
                                                  {"from": ")" + hashC + R"(", "size": 30, "sha256": ")" + hashD + R"("},
                                                  {"from": ")" + hashC + R"(", "size": 20, "sha256": ")" + kHashB + R"("}])")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{entry + "|patch:" + hashC + ":30:" + hashD};
    QTest::newRow("artifact keys of other types are ignored")
        << withArtifactEntry(R"(, "zstd": [400], "zstdPatches": {"from": ")" + hashC + R"(", "size": 30, "sha256": ")" + hashD + R"("})")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{entry};
    QTest::newRow("no artifacts for a file without size or with a short hash")
        << withFiles(R"([{"path": "a", "sha256": ")" + kHashA + R"(", "zstd": {"size": 4, "sha256": ")" + kHashB + R"("}},
                        {"path": "b", "size": 100, "sha256": "ab", "zstd": {"size": 4, "sha256": ")" + kHashB + R"("}}])")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{"a|-1|" + kHashA, "b|100|ab"};
    QTest::newRow("names that only resemble the artifact directory")
        << withFiles(R"([{"path": "zstd/a", "sha256": "aa"}, {"path": "lib/.zstd/b", "sha256": "bb"},
                        {"path": ".zstd2", "sha256": "cc"}, {"path": "a.zst", "sha256": "dd"}])")
        << qint64(-1) << "5.0.153" << "" << "" << QStringList{"zstd/a|-1|aa", "lib/.zstd/b|-1|bb", ".zstd2|-1|cc", "a.zst|-1|dd"};
    QTest::newRow("UTF-8 path")
        << withFiles("[{\"path\": \"t\xc3\xa0i li\xe1\xbb\x87u/\xc4\x91\xe1\xbb\x8d\x63.txt\", \"sha256\": \"aa\"}]")
        << qint64(-1) << "5.0.153" << "" << ""
        << QStringList{QString::fromUtf8("t\xc3\xa0i li\xe1\xbb\x87u/\xc4\x91\xe1\xbb\x8d\x63.txt|-1|aa")};
}

void TestManifest::parseAccepts()
{
    QFETCH(QByteArray, json);
    QFETCH(qint64, buildNumber);
    QFETCH(QString, fullVersion);
    QFETCH(QString, product);
    QFETCH(QString, arch);
    QFETCH(QStringList, files);

    Manifest manifest = sentinel();
    QVERIFY(parseManifest(json, &manifest));
    QCOMPARE(manifest.buildNumber, buildNumber);
    QCOMPARE(manifest.fullVersion, fullVersion);
    QCOMPARE(manifest.product, product);
    QCOMPARE(manifest.arch, arch);
    QCOMPARE(describe(manifest.files), files);
}

void TestManifest::parseRejects_data()
{
    QTest::addColumn<QByteArray>("json");

    QTest::newRow("empty bytes") << QByteArray();
    QTest::newRow("not JSON") << QByteArray("fullVersion=5");
    QTest::newRow("truncated JSON") << withFiles(R"([{"path": "a", "sha256": "aa"}])").chopped(1);
    QTest::newRow("array at top level") << QByteArray(R"([{"fullVersion": "v", "files": []}])");
    QTest::newRow("no fullVersion") << QByteArray(R"({"files": [{"path": "a", "sha256": "aa"}]})");
    QTest::newRow("empty fullVersion although every file is fine")
        << QByteArray(R"({"fullVersion": "", "files": [{"path": "a", "sha256": "aa"}]})");
    QTest::newRow("numeric fullVersion") << QByteArray(R"({"fullVersion": 5, "files": [{"path": "a", "sha256": "aa"}]})");
    QTest::newRow("no files key") << QByteArray(R"({"fullVersion": "v"})");
    QTest::newRow("files is an object") << QByteArray(R"({"fullVersion": "v", "files": {"path": "a", "sha256": "aa"}})");
    QTest::newRow("empty files array") << withFiles("[]");
    QTest::newRow("only entry lacks sha256") << withFiles(R"([{"path": "a.dll", "size": 3}])");
    QTest::newRow("only entry lacks path") << withFiles(R"([{"sha256": "aa"}])");
    QTest::newRow("one ../x.dll among a hundred good entries")
        << withFiles("[" + goodEntries(60) + R"({"path": "../x.dll", "sha256": "aa"},)" + goodEntries(40).chopped(1) + "]");
    QTest::newRow("unsafe path as the last entry") << withFiles("[" + goodEntries(3) + R"({"path": "/etc/passwd", "sha256": "aa"}])");
    QTest::newRow("drive letter") << withFiles(R"([{"path": "C:/x", "sha256": "aa"}])");
    QTest::newRow("backslash absolute") << withFiles(R"([{"path": "\\x", "sha256": "aa"}])");
    QTest::newRow("dot segment") << withFiles(R"([{"path": "a/./b", "sha256": "aa"}])");
    QTest::newRow("only slashes") << withFiles(R"([{"path": "///", "sha256": "aa"}])");
    QTest::newRow("alternate data stream") << withFiles(R"([{"path": "x:stream", "sha256": "aa"}])");
    // A size no file can have bounds no download: the manifest is rejected as a whole.
    QTest::newRow("negative size") << withFiles("[" + goodEntries(3) + R"({"path": "c", "size": -4, "sha256": "cc"}])");
    QTest::newRow("size beyond 2^53") << withFiles(R"([{"path": "c", "size": 9007199254740994, "sha256": "cc"}])");
    QTest::newRow("size 1e300") << withFiles(R"([{"path": "c", "size": 1e300, "sha256": "cc"}])");
    QTest::newRow("size as a string") << withFiles(R"([{"path": "c", "size": "10", "sha256": "cc"}])");
    QTest::newRow("size null") << withFiles(R"([{"path": "c", "size": null, "sha256": "cc"}])");
    QTest::newRow("unsafe path after a skipped and a good entry")
        << withFiles(R"([{"path": "../skip", "sha256": ""}, {"path": "ok", "sha256": "aa"}, {"path": "..", "sha256": "bb"}])");
    // Builds that cannot be applied as one transaction, or that would overwrite the updater's own files.
    QTest::newRow("one path twice") << withFiles(R"([{"path": "a", "sha256": "11"}, {"path": "b", "sha256": "22"}, {"path": "a", "sha256": "33"}])");
    QTest::newRow("one path twice but for letter case") << withFiles(R"([{"path": "lib/A.dll", "sha256": "11"}, {"path": "LIB/a.DLL", "sha256": "22"}])");
    QTest::newRow("one path twice after normalising") << withFiles(R"([{"path": "lib/a", "sha256": "11"}, {"path": "lib\\a", "sha256": "22"}])");
    QTest::newRow("a file that is another entry's directory") << withFiles(R"([{"path": "plugins/x.so", "sha256": "11"}, {"path": "Plugins", "sha256": "22"}])");
    QTest::newRow("a file that is a deeper entry's directory") << withFiles(R"([{"path": "a/b", "sha256": "11"}, {"path": "a/b/c/d", "sha256": "22"}])");
    for (const char* path : {"x.bak", "lib/X.BAK", "old.bak/x", "updater.exe.new", "a.part", "state.tmp", "manifest.json",
                             "Manifest.JSON", "manifest.json.sig", "updater.log", ".staging/a", ".update-cache/v/a", ".Staging",
                             "tab\there", "a/\u007f", "manifest.json.", ".staging./a", "...", "..a/b..", "lib/a.dll.", "lib/a.dll ",
                             "x.bak ", "nul", "lib/com1.txt", "a|b", ".zstd/a.zst", ".ZSTD", ".Zstd/x/y"})
        QTest::addRow("reserved path %s", path) << withFiles(QByteArray(R"([{"path": "ok", "sha256": "11"}, {"path": ")") + path + R"(", "sha256": "22"}])");
    // Checking every entry's directories against the files must not take time of the path's
    // length times its depth: 4 MiB of "d/" took about twenty minutes, the clash after it waited.
    QTest::newRow("a clash after a path 2,097,152 directories deep")
        << withFiles("[{\"path\": \"" + QByteArray("d/").repeated(2097152) + "x\", \"sha256\": \"11\"}, "
                     R"({"path": "z", "sha256": "22"}, {"path": "z/y", "sha256": "33"}])");
    QTest::newRow("control character in the version") << QByteArray("{\"fullVersion\": \"2.0\\n\", \"files\": [{\"path\": \"a\", \"sha256\": \"aa\"}]}");
}

void TestManifest::parseRejects()
{
    QFETCH(QByteArray, json);
    Manifest manifest = sentinel();
    QVERIFY(!parseManifest(json, &manifest));
    QVERIFY2(isSentinel(manifest), "a rejected manifest must leave the output as it was");
}

void TestManifest::nullOutputIsRejected()
{
    QVERIFY(!parseManifest(withFiles(R"([{"path": "a", "sha256": "aa"}])"), nullptr));
}

void TestManifest::safeRelativePath_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("expected");

    QTest::newRow("plain file") << "a.dll" << "a.dll";
    QTest::newRow("nested") << "bin/plugins/x.dll" << "bin/plugins/x.dll";
    QTest::newRow("backslash separators") << "bin\\x.dll" << "bin/x.dll";
    QTest::newRow("mixed separators") << "a\\b/c\\d" << "a/b/c/d";
    QTest::newRow("empty parts dropped") << "a//b/" << "a/b";
    QTest::newRow("empty parts from backslashes") << "a\\\\b\\" << "a/b";
    QTest::newRow("three dots allowed") << "..." << "...";
    QTest::newRow("dots inside names allowed") << "..a/b../.c/c." << "..a/b../.c/c.";
    QTest::newRow("blanks are kept") << " a /b " << " a /b ";
    QTest::newRow("device-like names are not checked") << "CON/nul.txt" << "CON/nul.txt";

    QTest::newRow("empty") << "" << "";
    QTest::newRow("absolute") << "/x" << "";
    QTest::newRow("absolute via backslash") << "\\x" << "";
    QTest::newRow("UNC share") << "//server/share/x" << "";
    QTest::newRow("UNC share via backslashes") << "\\\\server\\share\\x" << "";
    QTest::newRow("drive letter") << "C:/x" << "";
    QTest::newRow("drive-relative") << "C:x" << "";
    QTest::newRow("alternate data stream") << "x:stream" << "";
    QTest::newRow("alternate data stream on a nested file") << "bin/a.dll::$DATA" << "";
    QTest::newRow("URL") << "http://evil/x" << "";
    QTest::newRow("parent") << ".." << "";
    QTest::newRow("parent first") << "../x.dll" << "";
    QTest::newRow("parent inside") << "a/../b" << "";
    QTest::newRow("parent last") << "a/.." << "";
    QTest::newRow("parent via backslash") << "a\\..\\..\\b" << "";
    QTest::newRow("dot") << "." << "";
    QTest::newRow("dot inside") << "a/./b" << "";
    QTest::newRow("dot after empty parts") << "a//./b" << "";
    QTest::newRow("only separators") << "/\\/" << "";
    QTest::newRow("only a backslash") << "\\" << "";
}

void TestManifest::safeRelativePath()
{
    QFETCH(QString, path);
    QFETCH(QString, expected);
    QCOMPARE(::safeRelativePath(path), expected);
}

void TestManifest::hostileInputsNeverCrash_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("parses");
    QTest::addColumn<QString>("safePath");

    const int tenMiB = 10 * 1024 * 1024;
    const QByteArray longName(tenMiB, 'a');
    const QByteArray deepArrays = QByteArray(100000, '[') + QByteArray(100000, ']');
    QByteArray deepObjects;
    for (int i = 0; i < 20000; ++i)
        deepObjects += "{\"files\":";
    deepObjects += "1" + QByteArray(20000, '}');
    QByteArray manyDots;
    for (int i = 0; i < 200000; ++i)
        manyDots += "../";

    QTest::newRow("10 MB path, accepted")
        << withFiles(R"([{"path": ")" + longName + R"(", "sha256": "aa"}])") << QString::fromLatin1(longName)
        << true << QString::fromLatin1(longName);
    QTest::newRow("10 MB of slashes")
        << withFiles(R"([{"path": ")" + QByteArray(tenMiB, '/') + R"(", "sha256": "aa"}])")
        << QString(tenMiB, QLatin1Char('/')) << false << QString();
    QTest::newRow("10 MB of backslashes")
        << withFiles(R"([{"path": ")" + QByteArray(tenMiB, '\\').replace("\\", "\\\\") + R"(", "sha256": "aa"}])")
        << QString(tenMiB, QLatin1Char('\\')) << false << QString();
    QTest::newRow("200000 parent segments")
        << withFiles(R"([{"path": ")" + manyDots + R"(x", "sha256": "aa"}])") << QString::fromLatin1(manyDots + "x")
        << false << QString();
    QTest::newRow("10 MB fullVersion")
        << QByteArray(R"({"fullVersion": ")" + longName + R"(", "files": [{"path": "a", "sha256": "aa"}]})")
        << "a" << true << "a";
    QTest::newRow("10 MB hash") << withFiles(R"([{"path": "a", "sha256": ")" + longName + R"("}])") << "a" << true
                                << "a";
    QTest::newRow("10 MB of an open string") << QByteArray("{\"fullVersion\": \"" + longName) << QString()
                                             << false << QString();
    QTest::newRow("deeply nested arrays") << deepArrays << QString() << false << QString();
    QTest::newRow("deeply nested objects") << deepObjects << QString() << false << QString();
    QTest::newRow("deep nesting inside files")
        << withFiles("[" + deepArrays + R"(, {"path": "a", "sha256": "aa"}])") << QString() << false << QString();
    QTest::newRow("files of every wrong type")
        << withFiles(R"([0, -1, 1e308, "", "x", null, false, [[]], {"path": [], "sha256": {}},
                        {"path": {"p": 1}, "sha256": ["aa"]}, {"path": null, "sha256": null}])")
        << QString() << false << QString();
    QTest::newRow("top-level scalars") << QByteArray("12345") << QString() << false << QString();
    const char nulBetweenTokens[] = "{\"fullVersion\": \"v\",\0 \"files\": [{\"path\": \"a\", \"sha256\": \"aa\"}]}";
    QTest::newRow("NUL byte between tokens") << QByteArray(nulBetweenTokens, int(sizeof nulBetweenTokens) - 1)
                                             << QString() << false << QString();
    QTest::newRow("escaped NUL in a path")
        << withFiles(R"([{"path": "a\u0000b", "sha256": "aa"}])") << QStringLiteral("a") + QChar(0) + QStringLiteral("b")
        << false << QStringLiteral("a") + QChar(0) + QStringLiteral("b");
    QTest::newRow("invalid UTF-8") << withFiles("[{\"path\": \"\xff\xfe\xc0\xaf\", \"sha256\": \"aa\"}]") << QString()
                                   << false << QString();
    QTest::newRow("lone surrogate escape")
        << withFiles(R"([{"path": "\ud800x", "sha256": "aa"}])") << QString(QChar(0xd800)) << true
        << QString(QChar(0xd800));
    QTest::newRow("colon hidden as full-width is only a name")
        << withFiles(R"([{"path": "C\uff1a/x", "sha256": "aa"}])") << QString::fromUtf8("C\xef\xbc\x9a/x") << true
        << QString::fromUtf8("C\xef\xbc\x9a/x");
}

void TestManifest::hostileInputsNeverCrash()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, path);
    QFETCH(bool, parses);
    QFETCH(QString, safePath);

    Manifest manifest = sentinel();
    const bool parsed = parseManifest(json, &manifest);
    if (parses) {
        QVERIFY(parsed);
        QCOMPARE(manifest.files.size(), 1);
    } else {
        QVERIFY(!parsed);
        QVERIFY(isSentinel(manifest));
    }
    QCOMPARE(::safeRelativePath(path), safePath);
}

void TestManifest::installedManifest_data()
{
    QTest::addColumn<int>("kind");  // 0 none, 1 file, 2 directory, 3 FIFO, 4 link to /dev/zero
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("expected");

    QTest::newRow("valid manifest") << 1 << withFiles(R"([{"path": "bin/a.dll", "size": 9, "sha256": "AA"}])") << true;
    QTest::newRow("missing") << 0 << QByteArray() << false;
    QTest::newRow("empty file") << 1 << QByteArray() << false;
    QTest::newRow("malformed") << 1 << QByteArray("{\"fullVersion\":") << false;
    QTest::newRow("unsafe path") << 1 << withFiles(R"([{"path": "../a.dll", "sha256": "aa"}])") << false;
    QTest::newRow("a directory in its place") << 2 << QByteArray() << false;
    // No open that waits for a writer, no read without end, nothing larger than a download may be.
    QTest::newRow("a FIFO in its place") << 3 << QByteArray() << false;
    QTest::newRow("a link to /dev/zero in its place") << 4 << QByteArray() << false;
    QTest::newRow("valid but padded beyond 16 MiB")
        << 1 << withFiles(R"([{"path": "bin/a.dll", "size": 9, "sha256": "AA"}])") + QByteArray(16777216, ' ') << false;
}

void TestManifest::installedManifest()
{
    QFETCH(int, kind);
    QFETCH(QByteArray, content);
    QFETCH(bool, expected);

    QTemporaryDir appDir;
    QVERIFY(appDir.isValid());
    const QString path = installedManifestPath(appDir.path());
    QCOMPARE(path, appDir.path() + QStringLiteral("/manifest.json"));
    if (kind == 1) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    } else if (kind == 2) {
        QVERIFY(QDir().mkpath(path));
    } else if (kind == 3) {
        QCOMPARE(QProcess::execute(QStringLiteral("mkfifo"), {path}), 0);
    } else if (kind == 4) {
        QVERIFY(QFile::link(QStringLiteral("/dev/zero"), path));
    }

    Manifest manifest = sentinel();
    QCOMPARE(loadInstalledManifest(appDir.path(), &manifest), expected);
    if (expected) {
        QCOMPARE(manifest.fullVersion, QStringLiteral("5.0.153"));
        QCOMPARE(describe(manifest.files), QStringList{"bin/a.dll|9|aa"});
    } else {
        QVERIFY(isSentinel(manifest));
    }
}

QTEST_GUILESS_MAIN(TestManifest)
#include "tst_manifest.moc"
