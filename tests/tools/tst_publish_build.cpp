#include "publish_tool.h"

#include "support/test_files.h"
#include "support/test_install.h"
#include "support/test_signing.h"
#include "update/manifest.h"
#include "update/manifest_signature.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// A build with nested, hidden, empty, non-ASCII and multi-chunk files. Listed in the order the
// manifest must use (code-unit order: "." and capitals before lower case).
BuildFiles sampleBuild()
{
    BuildFiles files;
    files.insert(QStringLiteral(".config/settings.ini"), "[ui]\nlang=vi\n");
    files.insert(QStringLiteral("Zeta.txt"), "upper case sorts first");
    files.insert(QStringLiteral("b.txt"), "beta");
    files.insert(QStringLiteral("bin/core.dll"), patternBytes(5 * 512 * 1024 + 1, 7));  // 2.5 MiB + 1
    files.insert(QStringLiteral("bin/plugins/p.dll"), patternBytes(4096, 8));
    files.insert(QStringLiteral("empty.dat"), QByteArray());
    files.insert(QString::fromUtf8("tài liệu/ghi chú.txt"), "xin chào");
    return files;
}

bool writeBuild(const QString& dir, const BuildFiles& files)
{
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        if (!writeFile(dir + QLatin1Char('/') + it.key(), it.value()))
            return false;
    }
    return true;
}

QJsonObject manifestObject(const QString& outDir)
{
    return QJsonDocument::fromJson(readFile(outDir + QStringLiteral("/manifest.json"))).object();
}

QStringList manifestPaths(const QString& outDir)
{
    QStringList paths;
    for (const QJsonValue& file : manifestObject(outDir).value(QStringLiteral("files")).toArray())
        paths.append(file.toObject().value(QStringLiteral("path")).toString());
    return paths;
}

// A path as strace prints it: bytes outside ASCII as octal escapes.
QString straceString(const QString& text)
{
    QByteArray bytes;
    for (int i = 0; i < text.size(); ++i) {
        if (text.at(i) == QLatin1Char('\\') && i + 3 < text.size() && text.at(i + 1).isDigit()) {
            bytes.append(char(text.mid(i + 1, 3).toInt(nullptr, 8)));
            i += 3;
        } else if (text.at(i) == QLatin1Char('\\') && i + 1 < text.size()) {
            bytes.append(text.at(++i).toLatin1());
        } else {
            bytes.append(text.at(i).toLatin1());
        }
    }
    return QString::fromUtf8(bytes);
}

// Contents the artifact rows publish, by name: related texts (a patch between two is small),
// random bytes (nothing is smaller than them), a tiny and an empty file, and zeros just beyond
// the patch size limit.
QByteArray content(const QString& name)
{
    const auto text = [](int edition) {
        QByteArray text;
        for (int i = 0; i < 12000; ++i)
            text += "entry " + QByteArray::number(i) + " = " + QByteArray::number((i * 7919 + (i % 503 == 0 ? edition : 0)) % 100003) + '\n';
        return text;
    };
    if (name.startsWith(QLatin1String("text")))
        return text(name.mid(4).toInt());
    if (name.startsWith(QLatin1String("random")))
        return patternBytes(100000, name.mid(6).toUInt() + 100);
    if (name == QLatin1String("tiny"))
        return "beta";
    if (name.startsWith(QLatin1String("zeros"))) {
        QByteArray zeros(83886081, '\0');  // one byte beyond the patch size limit
        zeros[1000] = char(name.mid(5).toInt());
        return zeros;
    }
    return QByteArray();
}

QStringList withManifest(QStringList files)
{
    files << QStringLiteral("manifest.json") << QStringLiteral("manifest.json.sig");
    files.sort();
    return files;
}

} // namespace

class TestPublishBuild : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void publishesEveryFileWithSortedManifestAndSignature();
    void manifestHeader_data();
    void manifestHeader();
    void developmentKeySignatureIsTrustedByTheUpdater();
    void republishingReplacesTheOlderBuild();
    void publishedTreeIsReadableByEveryoneUnderAStrictUmask();
    void manifestAndSignatureAreRenamedLastAndBackToBack();

    void smallerDownloads_data();
    void smallerDownloads();

    void refusesUnpublishableEntries_data();
    void refusesUnpublishableEntries();
    void excludePatterns_data();
    void excludePatterns();
    void excludedSpecialEntriesAreNotRefused();

    void failures_data();
    void failures();
    void commandLineErrors_data();
    void commandLineErrors();
    void helpForEveryCommand_data();
    void helpForEveryCommand();

private:
    QStringList buildArgs(const QStringList& extra = {}) const;

    QTemporaryDir keys;
    QString privateKey;
    QString publicKey;
    QScopedPointer<QTemporaryDir> work;
    QString input;
    QString out;
};

void TestPublishBuild::initTestCase()
{
    privateKey = keys.filePath(QStringLiteral("private.pem"));
    publicKey = keys.filePath(QStringLiteral("public.pem"));
    QVERIFY(generateKeyPair(privateKey, publicKey));
    const auto openssl = [this](const QString& name, const QStringList& options) {
        return runProgram(QStringLiteral("openssl"),
                          QStringList{QStringLiteral("genpkey")} + options
                              + QStringList{QStringLiteral("-out"), keys.filePath(name)});
    };
    QCOMPARE(openssl(QStringLiteral("p384.pem"), {QStringLiteral("-algorithm"), QStringLiteral("EC"),
                                                  QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:P-384")}),
             0);
    QCOMPARE(openssl(QStringLiteral("encrypted.pem"),
                     {QStringLiteral("-algorithm"), QStringLiteral("EC"), QStringLiteral("-pkeyopt"),
                      QStringLiteral("ec_paramgen_curve:P-256"), QStringLiteral("-aes-256-cbc"),
                      QStringLiteral("-pass"), QStringLiteral("pass:secret")}),
             0);
    QVERIFY(writeFile(keys.filePath(QStringLiteral("garbage.pem")), "not a key\n"));
}

void TestPublishBuild::init()
{
    work.reset(new QTemporaryDir);
    input = work->filePath(QStringLiteral("input"));
    out = work->filePath(QStringLiteral("out"));
    QVERIFY(QDir().mkpath(input));
}

QStringList TestPublishBuild::buildArgs(const QStringList& extra) const
{
    return QStringList{QStringLiteral("build"), QStringLiteral("--input"), input, QStringLiteral("--out"), out,
                       QStringLiteral("--version"), QStringLiteral("2.4.1"), QStringLiteral("--key"), privateKey,
                       QStringLiteral("--build-number"), QStringLiteral("41")}
           + extra;
}

void TestPublishBuild::publishesEveryFileWithSortedManifestAndSignature()
{
    const BuildFiles build = sampleBuild();
    QVERIFY(writeBuild(input, build));
    const ToolRun run = runPublishTool(buildArgs());
    QCOMPARE(run.exitCode, 0);
    // Only progress, when compressing took a while.
    for (const QString& line : run.errLines())
        QVERIFY2(line.startsWith(QLatin1String("corvanta-publish: copied ")), qPrintable(line));
    QCOMPARE(QString::fromUtf8(run.out),
             QStringLiteral("published 2.4.1 (build 41): 7 files, 2.5 MiB in %1\n").arg(out));

    // The tree holds the build byte for byte, plus the two documents.
    QCOMPARE(filesBelow(out), withManifest(build.keys()));
    for (auto it = build.cbegin(); it != build.cend(); ++it)
        QCOMPARE(readFile(out + QLatin1Char('/') + it.key()), it.value());

    // The manifest, read as plain JSON: every file in order, with its size and lower-case hash.
    const QJsonObject manifest = manifestObject(out);
    QCOMPARE(manifest.keys(), (QStringList{QStringLiteral("arch"), QStringLiteral("buildNumber"),
                                           QStringLiteral("files"), QStringLiteral("fullVersion"),
                                           QStringLiteral("product")}));
    QCOMPARE(manifest.value(QStringLiteral("fullVersion")).toString(), QStringLiteral("2.4.1"));
    QCOMPARE(manifest.value(QStringLiteral("buildNumber")).toDouble(), 41.0);
    const QJsonArray files = manifest.value(QStringLiteral("files")).toArray();
    QCOMPARE(files.size(), build.size());
    int i = 0;
    for (auto it = build.cbegin(); it != build.cend(); ++it, ++i) {
        const QJsonObject entry = files.at(i).toObject();
        QCOMPARE(entry.value(QStringLiteral("path")).toString(), it.key());
        QCOMPARE(entry.value(QStringLiteral("size")).toDouble(), double(it.value().size()));
        QCOMPARE(entry.value(QStringLiteral("sha256")).toString(), sha256Hex(it.value()));
    }

    // The signature file is one line of base64 DER, and OpenSSL verifies it over the exact bytes.
    const QByteArray signatureText = readFile(out + QStringLiteral("/manifest.json.sig"));
    QVERIFY(signatureText.endsWith('\n'));
    QCOMPARE(signatureText.count('\n'), 1);
    const QString der = work->filePath(QStringLiteral("signature.der"));
    QVERIFY(writeFile(der, QByteArray::fromBase64(signatureText.trimmed())));
    QByteArray output;
    QCOMPARE(runProgram(QStringLiteral("openssl"),
                        {QStringLiteral("dgst"), QStringLiteral("-sha256"), QStringLiteral("-verify"), publicKey,
                         QStringLiteral("-signature"), der, out + QStringLiteral("/manifest.json")},
                        &output),
             0);
    QCOMPARE(output.trimmed(), QByteArray("Verified OK"));

    // The updater's own parser reads it back unchanged.
    Manifest parsed;
    QVERIFY(parseManifest(readFile(out + QStringLiteral("/manifest.json")), &parsed));
    QCOMPARE(parsed.files.size(), build.size());
    QCOMPARE(parsed.files.at(3).path, QStringLiteral("bin/core.dll"));
    QCOMPARE(parsed.files.at(3).size, qint64(5 * 512 * 1024 + 1));

    // The tool's own verify agrees.
    const ToolRun verify = runPublishTool({QStringLiteral("verify"), QStringLiteral("--dir"), out,
                                           QStringLiteral("--public-key"), publicKey});
    QCOMPARE(verify.exitCode, 0);
    QCOMPARE(QString::fromUtf8(verify.out),
             QStringLiteral("OK: Corvanta x64 2.4.1 (build 41), 7 files, signature valid\n"));
}

void TestPublishBuild::manifestHeader_data()
{
    QTest::addColumn<QStringList>("extra");
    QTest::addColumn<QVariantMap>("expected");  // every key but "files"
    const QVariantMap defaults{{QStringLiteral("fullVersion"), QStringLiteral("2.4.1")},
                               {QStringLiteral("product"), QStringLiteral("Corvanta")},
                               {QStringLiteral("arch"), QStringLiteral("x64")},
                               {QStringLiteral("buildNumber"), 41.0}};
    QTest::newRow("defaults") << QStringList{} << defaults;
    QVariantMap zero = defaults;
    zero.insert(QStringLiteral("buildNumber"), 0.0);
    QTest::newRow("build number 0") << QStringList{QStringLiteral("--build-number"), QStringLiteral("0")} << zero;
    QVariantMap large = defaults;
    large.insert(QStringLiteral("buildNumber"), 9007199254740991.0);
    QTest::newRow("largest exact build number")
        << QStringList{QStringLiteral("--build-number"), QStringLiteral("9007199254740991")} << large;
    QTest::newRow("empty product and arch are left out")
        << QStringList{QStringLiteral("--product"), QString(), QStringLiteral("--arch"), QString()}
        << QVariantMap{{QStringLiteral("fullVersion"), QStringLiteral("2.4.1")}, {QStringLiteral("buildNumber"), 41.0}};
    QTest::newRow("other product and arch")
        << QStringList{QStringLiteral("--product"), QStringLiteral("Pendrovia"), QStringLiteral("--arch"),
                       QStringLiteral("arm64")}
        << QVariantMap{{QStringLiteral("fullVersion"), QStringLiteral("2.4.1")},
                       {QStringLiteral("product"), QStringLiteral("Pendrovia")},
                       {QStringLiteral("arch"), QStringLiteral("arm64")}, {QStringLiteral("buildNumber"), 41.0}};
}

void TestPublishBuild::manifestHeader()
{
    QFETCH(QStringList, extra);
    QFETCH(QVariantMap, expected);
    QVERIFY(writeFile(input + QStringLiteral("/app.exe"), "app"));
    QCOMPARE(runPublishTool(buildArgs(extra)).exitCode, 0);
    QVariantMap header = manifestObject(out).toVariantMap();
    QVERIFY(header.remove(QStringLiteral("files")) == 1);
    QCOMPARE(header, expected);
}

void TestPublishBuild::developmentKeySignatureIsTrustedByTheUpdater()
{
    if (QByteArray(kEmbeddedPublicKeyPem) != readFile(QStringLiteral(CORV_SOURCE_DIR "/keys/dev_public.pem")))
        QSKIP("this build of the updater embeds another key than the development key");
    QVERIFY(writeFile(input + QStringLiteral("/app.exe"), "app"));
    QCOMPARE(runPublishTool(buildArgs({QStringLiteral("--key"), devPrivateKeyPath()})).exitCode, 0);
    const QByteArray manifest = readFile(out + QStringLiteral("/manifest.json"));
    QVERIFY(verifyManifestSignature(manifest, readFile(out + QStringLiteral("/manifest.json.sig"))));

    // A build signed with any other key is not trusted.
    QCOMPARE(runPublishTool(buildArgs()).exitCode, 0);
    QVERIFY(!verifyManifestSignature(readFile(out + QStringLiteral("/manifest.json")),
                                     readFile(out + QStringLiteral("/manifest.json.sig"))));
}

void TestPublishBuild::republishingReplacesTheOlderBuild()
{
    QVERIFY(writeFile(input + QStringLiteral("/app.exe"), "app 1"));
    QVERIFY(writeFile(input + QStringLiteral("/old.dll"), "only in build 1"));
    QVERIFY(writeFile(input + QStringLiteral("/same.dat"), "unchanged"));
    QCOMPARE(runPublishTool(buildArgs({QStringLiteral("--version"), QStringLiteral("1.0")})).exitCode, 0);

    QVERIFY(QFile::remove(input + QStringLiteral("/old.dll")));
    QVERIFY(writeFile(input + QStringLiteral("/app.exe"), "app 2, longer"));
    QVERIFY(writeFile(input + QStringLiteral("/lib/new.dll"), "new in build 2"));
    QCOMPARE(runPublishTool(buildArgs({QStringLiteral("--version"), QStringLiteral("2.0")})).exitCode, 0);

    QCOMPARE(manifestObject(out).value(QStringLiteral("fullVersion")).toString(), QStringLiteral("2.0"));
    QCOMPARE(manifestPaths(out), (QStringList{QStringLiteral("app.exe"), QStringLiteral("lib/new.dll"),
                                              QStringLiteral("same.dat")}));
    QCOMPARE(readFile(out + QStringLiteral("/app.exe")), QByteArray("app 2, longer"));
    // A file the new build dropped stays on the server (a client of the old build may still
    // be fetching it); no temporary file is left behind.
    QCOMPARE(filesBelow(out), withManifest({QStringLiteral("app.exe"), QStringLiteral("lib/new.dll"),
                                            QStringLiteral("old.dll"), QStringLiteral("same.dat")}));
    QCOMPARE(runPublishTool({QStringLiteral("verify"), QStringLiteral("--dir"), out, QStringLiteral("--public-key"),
                             publicKey})
                 .exitCode,
             0);
}

void TestPublishBuild::publishedTreeIsReadableByEveryoneUnderAStrictUmask()
{
    QVERIFY(writeFile(input + QStringLiteral("/bin/deep/app.dll"), "x"));
    const ToolRun run = runPublishTool(buildArgs(), QStringLiteral("077"));
    QCOMPARE(run.exitCode, 0);
    for (const QString& path : {QStringLiteral("bin/deep/app.dll"), QStringLiteral("manifest.json"),
                                QStringLiteral("manifest.json.sig")})
        QVERIFY2(QFile::permissions(out + QLatin1Char('/') + path) & QFile::ReadOther, qPrintable(path));
    for (const QString& dir : {QString(), QStringLiteral("/bin"), QStringLiteral("/bin/deep")})
        QVERIFY2(QFile::permissions(out + dir) & QFile::ExeOther, qPrintable(dir));
}

void TestPublishBuild::manifestAndSignatureAreRenamedLastAndBackToBack()
{
    const QString strace = QStandardPaths::findExecutable(QStringLiteral("strace"));
    if (strace.isEmpty())
        QSKIP("strace is not installed");
    QVERIFY(writeBuild(input, sampleBuild()));
    const QString trace = work->filePath(QStringLiteral("trace.log"));
    const int exitCode = runProgram(strace, QStringList{QStringLiteral("-f"), QStringLiteral("-qq"), QStringLiteral("-s"),
                                                        QStringLiteral("4096"), QStringLiteral("-e"),
                                                        QStringLiteral("trace=rename,renameat,renameat2,write,pwrite64"),
                                                        QStringLiteral("-o"), trace, QStringLiteral(CORV_PUBLISH_EXE)}
                                                + buildArgs());
    if (exitCode != 0 && !QFile::exists(out + QStringLiteral("/manifest.json")))
        QSKIP("strace cannot trace processes here");
    QCOMPARE(exitCode, 0);

    // Every traced call in order: a rename as its target path, any data written as "write".
    const QRegularExpression renameCall(QStringLiteral("rename(?:at2?)?\\((?:\\w+, )?\"[^\"]*\", (?:\\w+, )?\"([^\"]*)\""));
    QStringList events;
    for (const QByteArray& line : readFile(trace).split('\n')) {
        const QRegularExpressionMatch match = renameCall.match(QString::fromLatin1(line));
        if (match.hasMatch())
            events.append(QDir(out).relativeFilePath(straceString(match.captured(1))));
        else if (line.contains(" write(") || line.contains(" pwrite64("))
            events.append(QStringLiteral("write"));
    }
    const int manifestAt = events.indexOf(QStringLiteral("manifest.json"));
    QVERIFY2(manifestAt > 0, qPrintable(events.join(QLatin1Char(' '))));
    // Both documents were complete before the first of them took its name: nothing is written
    // between the two renames.
    QCOMPARE(events.value(manifestAt + 1), QStringLiteral("manifest.json.sig"));
    // Every file of the build took its name before them, and nothing after them.
    QStringList renames = events;
    renames.removeAll(QStringLiteral("write"));
    QCOMPARE(renames, sampleBuild().keys() << QStringLiteral("manifest.json") << QStringLiteral("manifest.json.sig"));
}

void TestPublishBuild::smallerDownloads_data()
{
    QTest::addColumn<QVariantMap>("build");        // relative path -> content name; "@level": --zstd-level (else 3)
    QTest::addColumn<QVariantList>("earlier");     // trees given with --delta-from, each a map like build;
                                                   // one with the key "@out" is published into --out first
    QTest::addColumn<QString>("planted");          // an artifact already at its path: "damaged", "level 1"
    QTest::addColumn<QStringList>("artifacts");    // per file: path, "zstd" and "patch:<content>" in manifest order
    QTest::addColumn<QString>("summary");          // the second line of the output, "" for none

    QTest::newRow("compressible files only get a compressed copy")
        << QVariantMap{{"a.txt", "text1"}, {"r.bin", "random1"}, {"s.txt", "tiny"}, {"e.dat", "empty"}} << QVariantList{}
        << "" << QStringList{"a.txt zstd", "e.dat", "r.bin", "s.txt"}
        << "smaller downloads in .zstd: 1 compressed copy (0.1 MiB), 0 patches (0.0 MiB)";
    QTest::newRow("a patch from an earlier input tree")
        << QVariantMap{{"a.txt", "text2"}} << QVariantList{QVariantMap{{"a.txt", "text1"}}} << ""
        << QStringList{"a.txt zstd patch:text1"} << "smaller downloads in .zstd: 1 compressed copy (0.1 MiB), 1 patch (0.0 MiB)";
    QTest::newRow("a patch from the published tree it replaces")
        << QVariantMap{{"a.txt", "text2"}} << QVariantList{QVariantMap{{"a.txt", "text1"}, {"@out", true}}} << ""
        << QStringList{"a.txt zstd patch:text1"} << "smaller downloads in .zstd: 1 compressed copy (0.1 MiB), 1 patch (0.0 MiB)";
    QTest::newRow("no patch from the same content, nor for a file the earlier build lacks")
        << QVariantMap{{"a.txt", "text2"}, {"new.txt", "text1"}} << QVariantList{QVariantMap{{"a.txt", "text2"}}} << ""
        << QStringList{"a.txt zstd", "new.txt zstd"} << "smaller downloads in .zstd: 2 compressed copies (0.1 MiB), 0 patches (0.0 MiB)";
    QTest::newRow("one patch per distinct earlier content")
        << QVariantMap{{"a.txt", "text3"}}
        << QVariantList{QVariantMap{{"a.txt", "text1"}}, QVariantMap{{"a.txt", "text2"}}, QVariantMap{{"a.txt", "text1"}}} << ""
        << QStringList{"a.txt zstd patch:text1 patch:text2"}
        << "smaller downloads in .zstd: 1 compressed copy (0.1 MiB), 2 patches (0.0 MiB)";
    QTest::newRow("nothing that is not smaller than the file")
        << QVariantMap{{"r.bin", "random2"}} << QVariantList{QVariantMap{{"r.bin", "random1"}}} << ""
        << QStringList{"r.bin"} << "";
    QTest::newRow("no patch for a file beyond the patch size limit")
        << QVariantMap{{"z.bin", "zeros1"}} << QVariantList{QVariantMap{{"z.bin", "zeros2"}}} << ""
        << QStringList{"z.bin zstd"} << "smaller downloads in .zstd: 1 compressed copy (0.0 MiB), 0 patches (0.0 MiB)";
    QTest::newRow("level 0: neither compressed copies nor patches")
        << QVariantMap{{"a.txt", "text2"}, {"@level", 0}} << QVariantList{QVariantMap{{"a.txt", "text1"}}} << ""
        << QStringList{"a.txt"} << "";
    QTest::newRow("a damaged artifact at its path is made again")
        << QVariantMap{{"a.txt", "text1"}} << QVariantList{} << "damaged" << QStringList{"a.txt zstd"}
        << "smaller downloads in .zstd: 1 compressed copy (0.1 MiB), 0 patches (0.0 MiB)";
    QTest::newRow("an intact artifact from an earlier run is kept")
        << QVariantMap{{"a.txt", "text1"}} << QVariantList{} << "level 1" << QStringList{"a.txt zstd"}
        << "smaller downloads in .zstd: 1 compressed copy (0.1 MiB), 0 patches (0.0 MiB)";
}

void TestPublishBuild::smallerDownloads()
{
    QFETCH(QVariantMap, build);
    QFETCH(QVariantList, earlier);
    QFETCH(QString, planted);
    QFETCH(QStringList, artifacts);
    QFETCH(QString, summary);
    const auto writeTree = [](const QString& dir, const QVariantMap& tree) {
        for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
            if (!it.key().startsWith(QLatin1Char('@')) && !writeFile(dir + QLatin1Char('/') + it.key(), content(it.value().toString())))
                return false;
        }
        return true;
    };
    QVERIFY(writeTree(input, build));
    QStringList args{QStringLiteral("--zstd-level"), build.value(QStringLiteral("@level"), 3).toString()};
    build.remove(QStringLiteral("@level"));
    QHash<QString, QString> named;  // SHA-256 -> content name
    for (auto it = build.cbegin(); it != build.cend(); ++it)
        named.insert(sha256Hex(content(it.value().toString())), it.value().toString());
    for (int i = 0; i < earlier.size(); ++i) {
        const QVariantMap tree = earlier.at(i).toMap();
        for (auto it = tree.cbegin(); it != tree.cend(); ++it)
            named.insert(sha256Hex(content(it.value().toString())), it.value().toString());
        if (tree.contains(QStringLiteral("@out"))) {
            const QString earlierInput = work->filePath(QStringLiteral("earlier-input"));
            QVERIFY(writeTree(earlierInput, tree));
            QCOMPARE(runPublishTool(buildArgs({QStringLiteral("--input"), earlierInput, QStringLiteral("--zstd-level"),
                                               QStringLiteral("3")}))
                         .exitCode,
                     0);
            args << QStringLiteral("--delta-from") << out;
        } else {
            const QString dir = work->filePath(QStringLiteral("earlier%1").arg(i));
            QVERIFY(writeTree(dir, tree));
            args << QStringLiteral("--delta-from") << dir;
        }
    }
    const QByteArray text1 = content(QStringLiteral("text1"));
    const QString plantedPath = out + QLatin1Char('/') + compressedRelPath(text1);
    const QByteArray levelOne = runZstd({QStringLiteral("-1")}, text1);
    if (planted == QLatin1String("damaged"))
        QVERIFY(writeFile(plantedPath, "not zstd"));
    else if (planted == QLatin1String("level 1"))
        QVERIFY(writeFile(plantedPath, levelOne));

    const ToolRun run = runPublishTool(buildArgs(args));
    QCOMPARE(run.exitCode, 0);
    const QStringList lines = QString::fromUtf8(run.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(lines.value(1), summary);

    // The manifest as plain JSON: each artifact where its name says, decoding to the file with
    // the zstd tool (patches against the earlier content they name).
    QStringList described;
    for (const QJsonValue& value : manifestObject(out).value(QStringLiteral("files")).toArray()) {
        const QJsonObject entry = value.toObject();
        const QString path = entry.value(QStringLiteral("path")).toString();
        const QByteArray file = readFile(out + QLatin1Char('/') + path);
        QString line = path;
        if (entry.contains(QStringLiteral("zstd"))) {
            const QJsonObject zstd = entry.value(QStringLiteral("zstd")).toObject();
            const QByteArray bytes = readFile(out + QLatin1Char('/') + compressedRelPath(file));
            QCOMPARE(double(bytes.size()), zstd.value(QStringLiteral("size")).toDouble());
            QCOMPARE(sha256Hex(bytes), zstd.value(QStringLiteral("sha256")).toString());
            QVERIFY(bytes.size() < file.size());
            QCOMPARE(runZstd({QStringLiteral("-d")}, bytes), file);
            if (planted == QLatin1String("level 1"))
                QCOMPARE(bytes, levelOne);
            line += QStringLiteral(" zstd");
        }
        for (const QJsonValue& patchValue : entry.value(QStringLiteral("zstdPatches")).toArray()) {
            const QJsonObject patch = patchValue.toObject();
            const QString from = patch.value(QStringLiteral("from")).toString();
            const QByteArray source = content(named.value(from));
            const QByteArray bytes = readFile(out + QLatin1Char('/') + patchRelPath(source, file));
            QCOMPARE(double(bytes.size()), patch.value(QStringLiteral("size")).toDouble());
            QCOMPARE(sha256Hex(bytes), patch.value(QStringLiteral("sha256")).toString());
            QVERIFY(bytes.size() < entry.value(QStringLiteral("zstd")).toObject().value(QStringLiteral("size")).toDouble(file.size()));
            QCOMPARE(runZstd({QStringLiteral("-d"), QStringLiteral("--long=31"), QStringLiteral("--patch-from=%source")}, bytes, source),
                     file);
            line += QStringLiteral(" patch:") + named.value(from);
        }
        described.append(line);
    }
    QCOMPARE(described, artifacts);

    // The updater reads the same artifacts, and verify checks them.
    Manifest parsed;
    QVERIFY(parseManifest(readFile(out + QStringLiteral("/manifest.json")), &parsed));
    int listed = 0;
    for (const ManifestFile& file : parsed.files)
        listed += file.artifacts.size();
    QCOMPARE(listed, artifacts.join(QLatin1Char(' ')).count(QLatin1String(" zstd")) + artifacts.join(QLatin1Char(' ')).count(QLatin1String(" patch:")));
    const ToolRun verify = runPublishTool({QStringLiteral("verify"), QStringLiteral("--dir"), out,
                                           QStringLiteral("--public-key"), publicKey});
    QCOMPARE(verify.exitCode, 0);
}

void TestPublishBuild::refusesUnpublishableEntries_data()
{
    QTest::addColumn<QStringList>("files");  // regular files to create besides a good one
    QTest::addColumn<QString>("special");     // a non-regular entry to create: kind
    QTest::addColumn<QString>("specialPath");
    QTest::addColumn<QString>("named");       // the relative path the error names
    QTest::addColumn<QString>("reason");      // the end of the error line

    const QString noSpecial;
    const QString updaterRejects = QStringLiteral("the updater rejects names containing \":\"");
    QTest::newRow("backslash") << QStringList{QStringLiteral("bin/a\\b.dll")} << noSpecial << QString()
                               << QStringLiteral("bin/a\\b.dll")
                               << QStringLiteral("the updater reads \"\\\" as a directory separator");
    QTest::newRow("colon in a file name") << QStringList{QStringLiteral("x:stream")} << noSpecial << QString()
                                          << QStringLiteral("x:stream") << updaterRejects;
    QTest::newRow("colon in a directory name") << QStringList{QStringLiteral("C:/x.dll")} << noSpecial << QString()
                                               << QStringLiteral("C:") << updaterRejects;
    QTest::newRow("reserved device name") << QStringList{QStringLiteral("lib/aux.dll")} << noSpecial << QString()
                                          << QStringLiteral("lib/aux.dll")
                                          << QStringLiteral("\"AUX\" is a reserved device name on Windows");
    QTest::newRow("reserved directory name") << QStringList{QStringLiteral("com1/x")} << noSpecial << QString()
                                             << QStringLiteral("com1")
                                             << QStringLiteral("\"COM1\" is a reserved device name on Windows");
    QTest::newRow("pipe character") << QStringList{QStringLiteral("a|b")} << noSpecial << QString()
                                    << QStringLiteral("a|b") << QStringLiteral("Windows does not allow \"|\" in file names");
    QTest::newRow("question mark") << QStringList{QStringLiteral("what?.txt")} << noSpecial << QString()
                                   << QStringLiteral("what?.txt")
                                   << QStringLiteral("Windows does not allow \"?\" in file names");
    QTest::newRow("control character") << QStringList{QStringLiteral("tab\there")} << noSpecial << QString()
                                       << QStringLiteral("tab\there")
                                       << QStringLiteral("Windows does not allow control characters in file names");
    QTest::newRow("trailing dot") << QStringList{QStringLiteral("notes.")} << noSpecial << QString()
                                  << QStringLiteral("notes.")
                                  << QStringLiteral("Windows drops a trailing dot or blank from file names");
    QTest::newRow("trailing blank") << QStringList{QStringLiteral("dir /x")} << noSpecial << QString()
                                    << QStringLiteral("dir ")
                                    << QStringLiteral("Windows drops a trailing dot or blank from file names");
    const QString documents = QStringLiteral("the updater keeps its own files under this name");
    QTest::newRow("manifest.json") << QStringList{QStringLiteral("manifest.json")} << noSpecial << QString()
                                   << QStringLiteral("manifest.json") << documents;
    QTest::newRow("signature in other case") << QStringList{QStringLiteral("Manifest.JSON.sig")} << noSpecial
                                             << QString() << QStringLiteral("Manifest.JSON.sig") << documents;
    const QString working = documents;
    QTest::newRow("backup suffix") << QStringList{QStringLiteral("data/x.BAK")} << noSpecial << QString()
                                   << QStringLiteral("data/x.BAK")
                                   << QStringLiteral("the updater gives names ending in \".bak\" to files of its own");
    QTest::newRow("partial download suffix") << QStringList{QStringLiteral("a.part")} << noSpecial << QString()
                                             << QStringLiteral("a.part")
                                             << QStringLiteral("the updater gives names ending in \".part\" to files of its own");
    QTest::newRow("staging directory") << QStringList{QStringLiteral(".staging/a.dll")} << noSpecial << QString()
                                       << QStringLiteral(".staging") << working;
    QTest::newRow("update cache") << QStringList{QStringLiteral(".update-cache/x")} << noSpecial << QString()
                                  << QStringLiteral(".update-cache") << working;
    QTest::newRow("log file") << QStringList{QStringLiteral("updater.log")} << noSpecial << QString()
                              << QStringLiteral("updater.log") << working;
    const QString artifacts = QStringLiteral("the publisher keeps compressed files and patches under this name");
    QTest::newRow("artifact directory") << QStringList{QStringLiteral(".zstd/x.zst")} << noSpecial << QString()
                                        << QStringLiteral(".zstd") << artifacts;
    QTest::newRow("artifact directory in other case") << QStringList{QStringLiteral(".Zstd")} << noSpecial << QString()
                                                      << QStringLiteral(".Zstd") << artifacts;
    QTest::newRow("names differing in case")
        << QStringList{QStringLiteral("data/Readme.txt"), QStringLiteral("data/README.txt")} << noSpecial << QString()
        << QStringLiteral("data/Readme.txt")
        << QStringLiteral("it differs from \"data/README.txt\" only in letter case, and Windows cannot hold both");

    const QString link = QStringLiteral("it is a symbolic link (publish the file itself, or leave it out with --exclude)");
    const QString notRegular =
        QStringLiteral("it is not a regular file or directory (a socket, pipe or device cannot be published)");
    QTest::newRow("symbolic link to a file") << QStringList{} << QStringLiteral("link") << QStringLiteral("bin/libx.so")
                                             << QStringLiteral("bin/libx.so") << link;
    QTest::newRow("symbolic link to a directory") << QStringList{} << QStringLiteral("dirlink")
                                                  << QStringLiteral("shared") << QStringLiteral("shared") << link;
    QTest::newRow("dangling symbolic link") << QStringList{} << QStringLiteral("dangling") << QStringLiteral("gone")
                                            << QStringLiteral("gone") << link;
    QTest::newRow("named pipe") << QStringList{} << QStringLiteral("fifo") << QStringLiteral("run/pipe")
                                << QStringLiteral("run/pipe") << notRegular;
    QTest::newRow("socket") << QStringList{} << QStringLiteral("socket") << QStringLiteral("sock")
                            << QStringLiteral("sock") << notRegular;
}

void TestPublishBuild::refusesUnpublishableEntries()
{
    QFETCH(QStringList, files);
    QFETCH(QString, special);
    QFETCH(QString, specialPath);
    QFETCH(QString, named);
    QFETCH(QString, reason);

    QVERIFY(writeFile(input + QStringLiteral("/bin/good.dll"), "good"));
    for (const QString& file : files)
        QVERIFY(writeFile(input + QLatin1Char('/') + file, file.toUtf8()));
    const QString specialFile = input + QLatin1Char('/') + specialPath;
    QLocalServer server;
    if (!special.isEmpty())
        QVERIFY(QDir().mkpath(QFileInfo(specialFile).path()));
    if (special == QLatin1String("link"))
        QVERIFY(QFile::link(input + QStringLiteral("/bin/good.dll"), specialFile));
    else if (special == QLatin1String("dirlink"))
        QVERIFY(QFile::link(input + QStringLiteral("/bin"), specialFile));
    else if (special == QLatin1String("dangling"))
        QVERIFY(QFile::link(input + QStringLiteral("/nowhere"), specialFile));
    else if (special == QLatin1String("fifo"))
        QCOMPARE(runProgram(QStringLiteral("mkfifo"), {specialFile}), 0);
    else if (special == QLatin1String("socket"))
        QVERIFY(server.listen(specialFile));

    const ToolRun run = runPublishTool(buildArgs());
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.errLines(),
             QStringList{QStringLiteral("corvanta-publish: refusing \"%1\": %2").arg(named, reason)});
    QVERIFY2(!QFileInfo::exists(out), "nothing may be written before the whole tree was checked");
}

void TestPublishBuild::excludePatterns_data()
{
    QTest::addColumn<QStringList>("patterns");
    QTest::addColumn<QStringList>("published");
    const QStringList all{QStringLiteral("a.pdb"), QStringLiteral("app.exe"), QStringLiteral("bin/b.pdb"),
                          QStringLiteral("bin/c.dll"), QStringLiteral("deep/sub/z.log"), QStringLiteral("logs/sub/y.txt"),
                          QStringLiteral("logs/x.txt"), QStringLiteral("sub/z.log")};
    const auto without = [&all](const QStringList& left) {
        QStringList files = all;
        for (const QString& file : left)
            files.removeAll(file);
        return files;
    };
    QTest::newRow("no pattern") << QStringList{} << all;
    QTest::newRow("name glob at any depth") << QStringList{QStringLiteral("*.pdb")}
                                            << without({QStringLiteral("a.pdb"), QStringLiteral("bin/b.pdb")});
    QTest::newRow("directory with everything below")
        << QStringList{QStringLiteral("logs")} << without({QStringLiteral("logs/x.txt"), QStringLiteral("logs/sub/y.txt")});
    QTest::newRow("directory named at any depth")
        << QStringList{QStringLiteral("sub")}
        << without({QStringLiteral("deep/sub/z.log"), QStringLiteral("logs/sub/y.txt"), QStringLiteral("sub/z.log")});
    QTest::newRow("path glob from the root only") << QStringList{QStringLiteral("sub/*.log")}
                                                  << without({QStringLiteral("sub/z.log")});
    QTest::newRow("star does not cross directories") << QStringList{QStringLiteral("*/z.log")}
                                                     << without({QStringLiteral("sub/z.log")});
    QTest::newRow("leading slash anchors a name") << QStringList{QStringLiteral("/a.pdb")}
                                                  << without({QStringLiteral("a.pdb")});
    QTest::newRow("question mark") << QStringList{QStringLiteral("?.pdb")}
                                   << without({QStringLiteral("a.pdb"), QStringLiteral("bin/b.pdb")});
    QTest::newRow("several patterns") << QStringList{QStringLiteral("*.pdb"), QStringLiteral("logs/")}
                                      << without({QStringLiteral("a.pdb"), QStringLiteral("bin/b.pdb"),
                                                  QStringLiteral("logs/x.txt"), QStringLiteral("logs/sub/y.txt")});
    QTest::newRow("no match") << QStringList{QStringLiteral("*.PDB")} << all;
}

void TestPublishBuild::excludePatterns()
{
    QFETCH(QStringList, patterns);
    QFETCH(QStringList, published);
    for (const QString& file : {QStringLiteral("a.pdb"), QStringLiteral("app.exe"), QStringLiteral("bin/b.pdb"),
                                QStringLiteral("bin/c.dll"), QStringLiteral("deep/sub/z.log"),
                                QStringLiteral("logs/sub/y.txt"), QStringLiteral("logs/x.txt"), QStringLiteral("sub/z.log")})
        QVERIFY(writeFile(input + QLatin1Char('/') + file, file.toUtf8()));
    QStringList args;
    for (const QString& pattern : patterns)
        args << QStringLiteral("--exclude") << pattern;
    const ToolRun run = runPublishTool(buildArgs(args));
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(manifestPaths(out), published);
    QCOMPARE(filesBelow(out), withManifest(published));
}

void TestPublishBuild::excludedSpecialEntriesAreNotRefused()
{
    QVERIFY(writeFile(input + QStringLiteral("/app.exe"), "app"));
    QVERIFY(QFile::link(input + QStringLiteral("/app.exe"), input + QStringLiteral("/app-link.exe")));
    QVERIFY(QDir().mkpath(input + QStringLiteral("/run")));
    QCOMPARE(runProgram(QStringLiteral("mkfifo"), {input + QStringLiteral("/run/pipe")}), 0);
    QVERIFY(writeFile(input + QStringLiteral("/bad:name"), "x"));
    const ToolRun run = runPublishTool(buildArgs({QStringLiteral("--exclude"), QStringLiteral("*-link.exe"),
                                                  QStringLiteral("--exclude"), QStringLiteral("run"),
                                                  QStringLiteral("--exclude"), QStringLiteral("bad:name")}));
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(manifestPaths(out), QStringList{QStringLiteral("app.exe")});
}

void TestPublishBuild::failures_data()
{
    QTest::addColumn<QString>("setup");
    QTest::addColumn<QStringList>("args");  // replaces the matching defaults
    QTest::addColumn<QString>("message");   // %1: work dir, %2: key dir

    QTest::newRow("input missing") << QString() << QStringList{QStringLiteral("--input"), QStringLiteral("%1/none")}
                                   << QStringLiteral("input directory \"%1/none\" does not exist");
    QTest::newRow("input is a file") << QStringLiteral("file") << QStringList{QStringLiteral("--input"), QStringLiteral("%1/file")}
                                     << QStringLiteral("input directory \"%1/file\" does not exist");
    QTest::newRow("empty input") << QStringLiteral("empty") << QStringList{}
                                 << QStringLiteral("no files to publish in \"%1/input\"");
    QTest::newRow("everything excluded") << QString() << QStringList{QStringLiteral("--exclude"), QStringLiteral("*")}
                                         << QStringLiteral("no files to publish in \"%1/input\"");
    QTest::newRow("output inside input") << QString() << QStringList{QStringLiteral("--out"), QStringLiteral("%1/input/pub")}
                                         << QStringLiteral("the input \"%1/input\" and the output \"%1/input/pub\" must not contain each other");
    QTest::newRow("input inside output") << QString() << QStringList{QStringLiteral("--out"), QStringLiteral("%1")}
                                         << QStringLiteral("the input \"%1/input\" and the output \"%1\" must not contain each other");
    QTest::newRow("output is input") << QString() << QStringList{QStringLiteral("--out"), QStringLiteral("%1/input/")}
                                     << QStringLiteral("the input \"%1/input\" and the output \"%1/input/\" must not contain each other");
    QTest::newRow("earlier build missing")
        << QString() << QStringList{QStringLiteral("--delta-from"), QStringLiteral("%1/none")}
        << QStringLiteral("--delta-from directory \"%1/none\" does not exist");
    QTest::newRow("key missing") << QString() << QStringList{QStringLiteral("--key"), QStringLiteral("%2/none.pem")}
                                 << QStringLiteral("cannot read key \"%2/none.pem\": No such file or directory");
    QTest::newRow("key is a directory") << QString() << QStringList{QStringLiteral("--key"), QStringLiteral("%2")}
                                        << QStringLiteral("cannot read key \"%2\": file to open is a directory");
    QTest::newRow("key is not PEM") << QString() << QStringList{QStringLiteral("--key"), QStringLiteral("%2/garbage.pem")}
                                    << QStringLiteral("key \"%2/garbage.pem\" is not a PEM private key");
    QTest::newRow("public key given") << QString() << QStringList{QStringLiteral("--key"), QStringLiteral("%2/public.pem")}
                                      << QStringLiteral("key \"%2/public.pem\" is a public key; signing needs the private key");
    QTest::newRow("key on another curve") << QString() << QStringList{QStringLiteral("--key"), QStringLiteral("%2/p384.pem")}
                                          << QStringLiteral("key \"%2/p384.pem\" is not an EC P-256 (prime256v1) key");
    QTest::newRow("key with passphrase")
        << QString() << QStringList{QStringLiteral("--key"), QStringLiteral("%2/encrypted.pem")}
        << QStringLiteral("key \"%2/encrypted.pem\" is protected by a passphrase; decrypt a copy first "
                          "(openssl pkey -in KEY -out PLAIN.pem)");
}

void TestPublishBuild::failures()
{
    QFETCH(QString, setup);
    QFETCH(QStringList, args);
    QFETCH(QString, message);
    if (setup == QLatin1String("file"))
        QVERIFY(writeFile(work->filePath(QStringLiteral("file")), "x"));
    if (setup != QLatin1String("empty"))
        QVERIFY(writeFile(input + QStringLiteral("/app.exe"), "app"));

    QStringList full = buildArgs();
    for (int i = 0; i + 1 < args.size(); i += 2) {
        const QString value = QString(args.at(i + 1)).replace(QLatin1String("%1"), work->path())
                                  .replace(QLatin1String("%2"), keys.path());
        const int at = full.indexOf(args.at(i));
        if (at >= 0 && args.at(i) != QLatin1String("--exclude") && args.at(i) != QLatin1String("--delta-from"))
            full[at + 1] = value;
        else
            full << args.at(i) << value;
    }
    const QStringList before = filesBelow(work->path());
    const ToolRun run = runPublishTool(full);
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.errLines(), QStringList{QStringLiteral("corvanta-publish: ")
                                         + QString(message).replace(QLatin1String("%1"), work->path())
                                               .replace(QLatin1String("%2"), keys.path())});
    QCOMPARE(filesBelow(work->path()), before);
}

void TestPublishBuild::commandLineErrors_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("message");
    const QString in = QStringLiteral("--input");
    QTest::newRow("no options") << QStringList{} << QStringLiteral("build needs --input");
    QTest::newRow("no --out") << QStringList{in, QStringLiteral("x")} << QStringLiteral("build needs --out");
    QTest::newRow("no --version") << QStringList{in, QStringLiteral("x"), QStringLiteral("--out"), QStringLiteral("y")}
                                  << QStringLiteral("build needs --version");
    QTest::newRow("no --key") << QStringList{in, QStringLiteral("x"), QStringLiteral("--out"), QStringLiteral("y"),
                                             QStringLiteral("--version"), QStringLiteral("1")}
                              << QStringLiteral("build needs --key");
    QTest::newRow("no --build-number") << QStringList{in, QStringLiteral("x"), QStringLiteral("--out"), QStringLiteral("y"),
                                                      QStringLiteral("--version"), QStringLiteral("1"),
                                                      QStringLiteral("--key"), QStringLiteral("k.pem")}
                                       << QStringLiteral("build needs --build-number");
    const QStringList complete{in, QStringLiteral("x"), QStringLiteral("--out"), QStringLiteral("y"),
                               QStringLiteral("--key"), QStringLiteral("k.pem"), QStringLiteral("--build-number"),
                               QStringLiteral("3")};
    QTest::newRow("control character in version") << complete + QStringList{QStringLiteral("--version"), QStringLiteral("2\n1")}
                                                  << QStringLiteral("--version must not contain control characters");
    QTest::newRow("empty version") << complete + QStringList{QStringLiteral("--version"), QString()}
                                   << QStringLiteral("--version is empty");
    QTest::newRow("empty out") << QStringList{in, QStringLiteral("x"), QStringLiteral("--out"), QString(),
                                              QStringLiteral("--key"), QStringLiteral("k.pem"), QStringLiteral("--build-number"), QStringLiteral("1"),
                                              QStringLiteral("--version"), QStringLiteral("1")}
                               << QStringLiteral("--out is empty");
    for (const char* bad : {"-1", "1.5", "12x", "", "99999999999999999999"}) {
        QTest::addRow("build number \"%s\"", bad)
            << complete + QStringList{QStringLiteral("--version"), QStringLiteral("1"), QStringLiteral("--build-number"),
                                      QString::fromLatin1(bad)}
            << QStringLiteral("--build-number must be a whole number >= 0, not \"%1\"").arg(QString::fromLatin1(bad));
    }
    for (const char* bad : {"-1", "20", "x", ""}) {
        QTest::addRow("zstd level \"%s\"", bad)
            << complete + QStringList{QStringLiteral("--version"), QStringLiteral("1"), QStringLiteral("--zstd-level"),
                                      QString::fromLatin1(bad)}
            << QStringLiteral("--zstd-level must be a whole number from 0 to 19, not \"%1\"").arg(QString::fromLatin1(bad));
    }
    QTest::newRow("invalid exclude") << complete + QStringList{QStringLiteral("--version"), QStringLiteral("1"),
                                                               QStringLiteral("--exclude"), QStringLiteral("[")}
                                     << QStringLiteral("invalid --exclude pattern \"[\"");
    QTest::newRow("unknown option") << QStringList{QStringLiteral("--sign")} << QStringLiteral("Unknown option 'sign'.");
    QTest::newRow("missing value") << QStringList{QStringLiteral("--key")} << QStringLiteral("Missing value after '--key'.");
    QTest::newRow("stray argument") << complete + QStringList{QStringLiteral("v2")}
                                    << QStringLiteral("unexpected argument \"v2\"");
}

void TestPublishBuild::commandLineErrors()
{
    QFETCH(QStringList, args);
    QFETCH(QString, message);
    const ToolRun run = runPublishTool(QStringList{QStringLiteral("build")} + args);
    QCOMPARE(run.exitCode, 2);
    QCOMPARE(run.errLines(), QStringList{QStringLiteral("corvanta-publish: %1 (see corvanta-publish build --help)")
                                             .arg(message)});
    QVERIFY(run.out.isEmpty());
}

void TestPublishBuild::helpForEveryCommand_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("usage");
    QTest::newRow("--help") << QStringList{QStringLiteral("--help")} << QStringLiteral("Usage: corvanta-publish <command>");
    QTest::newRow("help") << QStringList{QStringLiteral("help")} << QStringLiteral("Usage: corvanta-publish <command>");
    for (const char* command : {"keygen", "build", "verify"}) {
        QTest::addRow("%s --help", command) << QStringList{QString::fromLatin1(command), QStringLiteral("--help")}
                                            << QStringLiteral("Usage: corvanta-publish %1 --").arg(QString::fromLatin1(command));
    }
    QTest::newRow("help wins over missing options")
        << QStringList{QStringLiteral("build"), QStringLiteral("--version"), QStringLiteral("1"), QStringLiteral("--help")}
        << QStringLiteral("Usage: corvanta-publish build --");
}

void TestPublishBuild::helpForEveryCommand()
{
    QFETCH(QStringList, args);
    QFETCH(QString, usage);
    const ToolRun run = runPublishTool(args);
    QCOMPARE(run.exitCode, 0);
    QVERIFY(run.err.isEmpty());
    QVERIFY2(QString::fromUtf8(run.out).startsWith(usage), run.out.constData());
}

QTEST_GUILESS_MAIN(TestPublishBuild)
#include "tst_publish_build.moc"
