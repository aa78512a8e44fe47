#include "publish_tool.h"

#include "support/test_files.h"
#include "support/test_install.h"
#include "support/test_signing.h"
#include "update/manifest_signature.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString kDevPublicKey = QStringLiteral(CORV_SOURCE_DIR "/keys/dev_public.pem");

// Notes of two editions: compressible, and the patch between them is small.
QByteArray notes(int edition)
{
    QByteArray text;
    for (int i = 0; i < 5000; ++i)
        text += "note " + QByteArray::number(i) + ": " + QByteArray::number((i * 31 + (i % 301 == 0 ? edition : 0)) % 9973) + '\n';
    return text;
}

BuildFiles publishedBuild()
{
    BuildFiles files;
    files.insert(QStringLiteral("app.exe"), patternBytes(300000, 1));
    files.insert(QStringLiteral("bin/b.dll"), "bee");
    files.insert(QStringLiteral("data/c.dat"), "sea");
    files.insert(QStringLiteral("data/notes.txt"), notes(2));
    return files;
}

const QString kNotes = QStringLiteral("data/notes.txt");

} // namespace

class TestPublishVerify : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void acceptsAnIntactTree_data();
    void acceptsAnIntactTree();
    void reportsEveryProblem_data();
    void reportsEveryProblem();
    void unusableDocumentsAndKeys_data();
    void unusableDocumentsAndKeys();
    void builtInKeyIsTheUpdatersKey();
    void commandLineErrors_data();
    void commandLineErrors();

private:
    QString tree(const QString& relPath = QString()) const;

    QTemporaryDir keys;
    QScopedPointer<QTemporaryDir> work;
};

void TestPublishVerify::initTestCase()
{
    QVERIFY(generateKeyPair(keys.filePath(QStringLiteral("other.pem")), keys.filePath(QStringLiteral("other.pub"))));
    QCOMPARE(runProgram(QStringLiteral("openssl"),
                        {QStringLiteral("genpkey"), QStringLiteral("-algorithm"), QStringLiteral("EC"),
                         QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:P-384"), QStringLiteral("-out"),
                         keys.filePath(QStringLiteral("p384.pem"))}),
             0);
    QCOMPARE(runProgram(QStringLiteral("openssl"), {QStringLiteral("pkey"), QStringLiteral("-in"),
                                                    keys.filePath(QStringLiteral("p384.pem")), QStringLiteral("-pubout"),
                                                    QStringLiteral("-out"), keys.filePath(QStringLiteral("p384.pub"))}),
             0);
    QVERIFY(writeFile(keys.filePath(QStringLiteral("garbage.pub")), "-----BEGIN PUBLIC KEY-----\nAAAA\n"));
}

void TestPublishVerify::init()
{
    // Published by the test harness's own code, independent of corvanta-publish.
    work.reset(new QTemporaryDir);
    const BuildFiles build = publishedBuild();
    // The notes also as a compressed copy and as a patch from their first edition, made with the
    // zstd tool.
    static const QByteArray compressed = zstdCompressed(notes(2));
    static const QByteArray patch = zstdPatch(notes(1), notes(2));
    QVERIFY(!compressed.isEmpty() && !patch.isEmpty());
    QVERIFY(publishBuild(work->path(), QStringLiteral("tree"), build,
                         withArtifacts(makeManifestJson(QStringLiteral("2.0.0"), 7, build), kNotes, compressed,
                                       {{notes(1), patch}})));
    QVERIFY(writeFile(tree(compressedRelPath(notes(2))), compressed));
    QVERIFY(writeFile(tree(patchRelPath(notes(1), notes(2))), patch));
}

QString TestPublishVerify::tree(const QString& relPath) const
{
    return relPath.isEmpty() ? work->filePath(QStringLiteral("tree"))
                             : work->filePath(QStringLiteral("tree/") + relPath);
}

void TestPublishVerify::acceptsAnIntactTree_data()
{
    QTest::addColumn<QString>("change");
    QTest::newRow("as published") << QString();
    QTest::newRow("signature with CR LF") << QStringLiteral("crlf");
    QTest::newRow("unlisted extra file") << QStringLiteral("extra");
}

void TestPublishVerify::acceptsAnIntactTree()
{
    QFETCH(QString, change);
    if (change == QLatin1String("crlf"))
        QVERIFY(writeFile(tree(QStringLiteral("manifest.json.sig")),
                          readFile(tree(QStringLiteral("manifest.json.sig"))).trimmed() + "\r\n"));
    if (change == QLatin1String("extra"))
        QVERIFY(writeFile(tree(QStringLiteral("old/left-over.dll")), "from an older build"));

    const ToolRun run = runPublishTool({QStringLiteral("verify"), QStringLiteral("--dir"), tree(),
                                        QStringLiteral("--public-key"), kDevPublicKey});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.err, QByteArray());
    QCOMPARE(run.out, QByteArray("OK: Corvanta x64 2.0.0 (build 7), 4 files, signature valid\n"
                                 "OK: 1 compressed copy and 1 patch in .zstd\n"));
}

void TestPublishVerify::reportsEveryProblem_data()
{
    QTest::addColumn<QStringList>("changes");
    QTest::addColumn<QStringList>("problems");

    const QString badSignature =
        QStringLiteral("signature: manifest.json.sig does not verify manifest.json with this key");
    QTest::newRow("manifest changed by one byte") << QStringList{QStringLiteral("manifest-byte")} << QStringList{badSignature};
    QTest::newRow("signed by another key") << QStringList{QStringLiteral("other-key")} << QStringList{badSignature};
    QTest::newRow("file missing") << QStringList{QStringLiteral("remove:bin/b.dll")}
                                  << QStringList{QStringLiteral("missing: \"bin/b.dll\"")};
    QTest::newRow("file longer") << QStringList{QStringLiteral("append:data/c.dat")}
                                 << QStringList{QStringLiteral("size differs: \"data/c.dat\" is listed with 3 bytes but has 4")};
    QTest::newRow("same size, other content")
        << QStringList{QStringLiteral("flip:app.exe")}
        << QStringList{QStringLiteral("content differs: \"app.exe\" has SHA-256 %1, the manifest lists %2")};
    QTest::newRow("directory where a file belongs")
        << QStringList{QStringLiteral("dir:bin/b.dll")} << QStringList{QStringLiteral("not a regular file: \"bin/b.dll\"")};
    const QString compressedOf = QStringLiteral(" (compressed copy of \"data/notes.txt\")");
    const QString patchOf = QStringLiteral(" (patch of \"data/notes.txt\")");
    QTest::newRow("compressed copy missing") << QStringList{QStringLiteral("remove:@compressed")}
                                             << QStringList{QStringLiteral("missing: \"@compressed\"") + compressedOf};
    QTest::newRow("patch longer") << QStringList{QStringLiteral("append:@patch")}
                                  << QStringList{QStringLiteral("size differs: \"@patch\"") + patchOf
                                                 + QStringLiteral(" is listed with @patchsize bytes but has @patchsize+1")};
    QTest::newRow("patch with other content, same size")
        << QStringList{QStringLiteral("flip:@patch")}
        << QStringList{QStringLiteral("content differs: \"@patch\"") + patchOf + QStringLiteral(" has SHA-256 %1, the manifest lists @patchhash")};
    QTest::newRow("compressed copy of other content, listed with its own hash")
        << QStringList{QStringLiteral("recompress:@compressed")}
        << QStringList{QStringLiteral("does not decode to its file: \"@compressed\"") + compressedOf + QStringLiteral(": other content")};
    QTest::newRow("compressed copy that is not zstd, listed with its own hash")
        << QStringList{QStringLiteral("garbage:@compressed")}
        << QStringList{QStringLiteral("does not decode to its file: \"@compressed\"") + compressedOf
                       + QStringLiteral(": zstd: Unknown frame descriptor")};
    QTest::newRow("several problems at once")
        << QStringList{QStringLiteral("other-key"), QStringLiteral("remove:app.exe"), QStringLiteral("append:data/c.dat")}
        << QStringList{badSignature, QStringLiteral("missing: \"app.exe\""),
                       QStringLiteral("size differs: \"data/c.dat\" is listed with 3 bytes but has 4")};
}

void TestPublishVerify::reportsEveryProblem()
{
    QFETCH(QStringList, changes);
    QFETCH(QStringList, problems);
    const QString compressedPath = compressedRelPath(notes(2));
    const QString patchPath = patchRelPath(notes(1), notes(2));
    const QByteArray patch = readFile(tree(patchPath));
    const auto named = [&](QString text) {
        return text.replace(QLatin1String("@compressed"), compressedPath)
            .replace(QLatin1String("@patchsize+1"), QString::number(patch.size() + 1))
            .replace(QLatin1String("@patchsize"), QString::number(patch.size()))
            .replace(QLatin1String("@patchhash"), sha256Hex(patch))
            .replace(QLatin1String("@patch"), patchPath);
    };
    // Lists other bytes as the compressed copy of the notes, in a manifest signed again.
    const auto relistCompressed = [&](const QByteArray& bytes) {
        const QByteArray manifest = withArtifacts(makeManifestJson(QStringLiteral("2.0.0"), 7, publishedBuild()), kNotes,
                                                  bytes, {{notes(1), patch}});
        return writeFile(tree(compressedPath), bytes) && writeFile(tree(QStringLiteral("manifest.json")), manifest)
            && writeFile(tree(QStringLiteral("manifest.json.sig")), signWithKey(manifest));
    };
    QString flippedHash;
    for (const QString& rawChange : changes) {
        const QString change = named(rawChange);
        const QString path = tree(change.section(QLatin1Char(':'), 1));
        if (change == QLatin1String("manifest-byte")) {
            QByteArray manifest = readFile(tree(QStringLiteral("manifest.json")));
            manifest.replace("2.0.0", "2.0.1");
            QVERIFY(writeFile(tree(QStringLiteral("manifest.json")), manifest));
        } else if (change == QLatin1String("other-key")) {
            QVERIFY(writeFile(tree(QStringLiteral("manifest.json.sig")),
                              signWithKey(readFile(tree(QStringLiteral("manifest.json"))),
                                          keys.filePath(QStringLiteral("other.pem")))));
        } else if (change.startsWith(QLatin1String("remove:"))) {
            QVERIFY(QFile::remove(path));
        } else if (change.startsWith(QLatin1String("append:"))) {
            QVERIFY(writeFile(path, readFile(path) + "!"));
        } else if (change.startsWith(QLatin1String("flip:"))) {
            QByteArray bytes = readFile(path);
            bytes[bytes.size() / 2] = char(bytes.at(bytes.size() / 2) ^ 0x01);
            QVERIFY(writeFile(path, bytes));
            flippedHash = sha256Hex(bytes);
        } else if (change.startsWith(QLatin1String("dir:"))) {
            QVERIFY(QFile::remove(path));
            QVERIFY(QDir().mkpath(path));
        } else if (change.startsWith(QLatin1String("recompress:"))) {
            QVERIFY(relistCompressed(zstdCompressed(notes(3))));
        } else if (change.startsWith(QLatin1String("garbage:"))) {
            QVERIFY(relistCompressed("not zstd at all"));
        }
    }
    QStringList expected;
    for (const QString& rawProblem : problems) {
        const QString problem = named(rawProblem);
        expected << QStringLiteral("corvanta-publish: ")
                        + (problem.contains(QLatin1String("%2"))
                               ? problem.arg(flippedHash, sha256Hex(publishedBuild().value(QStringLiteral("app.exe"))))
                               : problem.contains(QLatin1String("%1")) ? problem.arg(flippedHash) : problem);
    }
    expected << QStringLiteral("corvanta-publish: verify failed: %1 problem(s) in \"%2\"").arg(problems.size()).arg(tree());

    const ToolRun run = runPublishTool({QStringLiteral("verify"), QStringLiteral("--dir"), tree(),
                                        QStringLiteral("--public-key"), kDevPublicKey});
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.errLines(), expected);
    QVERIFY(run.out.isEmpty());
}

void TestPublishVerify::unusableDocumentsAndKeys_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("message");  // %1: tree, %2: key dir
    const QString devKey = kDevPublicKey;
    QTest::newRow("no manifest") << QStringLiteral("remove:manifest.json") << devKey
                                 << QStringLiteral("cannot read \"%1/manifest.json\": No such file or directory");
    QTest::newRow("no signature") << QStringLiteral("remove:manifest.json.sig") << devKey
                                  << QStringLiteral("cannot read \"%1/manifest.json.sig\": No such file or directory");
    const QString unusable = QStringLiteral("manifest.json is not a usable manifest (not JSON, no fullVersion, "
                                            "no file entry, or a path the updater rejects)");
    QTest::newRow("signed text that is not JSON") << QStringLiteral("manifest:not json") << devKey << unusable;
    QTest::newRow("signed manifest with a hostile path")
        << QStringLiteral("manifest:{\"fullVersion\":\"2\",\"files\":[{\"path\":\"../x.dll\",\"sha256\":\"ab\"}]}")
        << devKey << unusable;
    QTest::newRow("signed manifest without files") << QStringLiteral("manifest:{\"fullVersion\":\"2\",\"files\":[]}")
                                                   << devKey << unusable;
    QTest::newRow("key file missing") << QString() << QStringLiteral("%2/none.pub")
                                      << QStringLiteral("cannot read \"%2/none.pub\": No such file or directory");
    QTest::newRow("key not PEM") << QString() << QStringLiteral("%2/garbage.pub")
                                 << QStringLiteral("key \"%2/garbage.pub\" is not a PEM public key");
    QTest::newRow("private key instead of public") << QString() << QStringLiteral("%2/other.pem")
                                                   << QStringLiteral("key \"%2/other.pem\" is not a PEM public key");
    QTest::newRow("key on another curve") << QString() << QStringLiteral("%2/p384.pub")
                                          << QStringLiteral("key \"%2/p384.pub\" is not an EC P-256 (prime256v1) public key");
}

void TestPublishVerify::unusableDocumentsAndKeys()
{
    QFETCH(QString, change);
    QFETCH(QString, key);
    QFETCH(QString, message);
    if (change.startsWith(QLatin1String("remove:"))) {
        QVERIFY(QFile::remove(tree(change.mid(7))));
    } else if (change.startsWith(QLatin1String("manifest:"))) {
        const QByteArray manifest = change.mid(9).toUtf8();
        QVERIFY(writeFile(tree(QStringLiteral("manifest.json")), manifest));
        QVERIFY(writeFile(tree(QStringLiteral("manifest.json.sig")), signWithKey(manifest)));
    }
    const ToolRun run = runPublishTool({QStringLiteral("verify"), QStringLiteral("--dir"), tree(),
                                        QStringLiteral("--public-key"), QString(key).replace(QLatin1String("%2"), keys.path())});
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.errLines(), QStringList{QStringLiteral("corvanta-publish: ")
                                         + QString(message).replace(QLatin1String("%1"), tree())
                                               .replace(QLatin1String("%2"), keys.path())});
}

void TestPublishVerify::builtInKeyIsTheUpdatersKey()
{
    // Without --public-key the tool checks with the key the updater was built with.
    const ToolRun run = runPublishTool({QStringLiteral("verify"), QStringLiteral("--dir"), tree()});
    const bool devKeyBuiltIn = QByteArray(kEmbeddedPublicKeyPem) == readFile(kDevPublicKey);
    QCOMPARE(run.exitCode, devKeyBuiltIn ? 0 : 1);

    QVERIFY(writeFile(tree(QStringLiteral("manifest.json.sig")),
                      signWithKey(readFile(tree(QStringLiteral("manifest.json"))),
                                  keys.filePath(QStringLiteral("other.pem")))));
    const ToolRun other = runPublishTool({QStringLiteral("verify"), QStringLiteral("--dir"), tree()});
    QCOMPARE(other.exitCode, 1);
    QCOMPARE(other.errLines().constFirst(),
             QStringLiteral("corvanta-publish: signature: manifest.json.sig does not verify manifest.json with the built-in key"));
}

void TestPublishVerify::commandLineErrors_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("line");
    QTest::newRow("no command") << QStringList{}
                                << QStringLiteral("no command given (see corvanta-publish --help)");
    QTest::newRow("unknown command") << QStringList{QStringLiteral("sign")}
                                     << QStringLiteral("unknown command \"sign\" (see corvanta-publish --help)");
    QTest::newRow("verify without --dir") << QStringList{QStringLiteral("verify")}
                                          << QStringLiteral("verify needs --dir (see corvanta-publish verify --help)");
    QTest::newRow("verify with stray argument")
        << QStringList{QStringLiteral("verify"), QStringLiteral("--dir"), QStringLiteral("x"), QStringLiteral("y")}
        << QStringLiteral("unexpected argument \"y\" (see corvanta-publish verify --help)");
}

void TestPublishVerify::commandLineErrors()
{
    QFETCH(QStringList, args);
    QFETCH(QString, line);
    const ToolRun run = runPublishTool(args);
    QCOMPARE(run.exitCode, 2);
    QCOMPARE(run.errLines(), QStringList{QStringLiteral("corvanta-publish: ") + line});
}

QTEST_GUILESS_MAIN(TestPublishVerify)
#include "tst_publish_verify.moc"
