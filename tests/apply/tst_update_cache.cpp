#include "base/installation_dir.h"
#include "apply/update_cache.h"
#include "platform/file_replace.h"
#include "support/test_files.h"
#include "support/test_install.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QStringList entries(const QString& dir)
{
    QStringList names = QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    names.sort();
    return names;
}

} // namespace

class UpdateCacheTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void versionDirectory_data();
    void versionDirectory();
    void filePaths_data();
    void filePaths();
    void ensureVersionDir();
    void partSize_data();
    void partSize();
    void completeCachedFile_data();
    void completeCachedFile();
    void prune_data();
    void prune();
    void pruneWithoutRootCreatesNothing();
    void clearRemovesEverythingButFollowsNoLink();
    void stateFileContent();
    void stateFileRoundTrip();
    void stateFileRefusesEmptyVersion();
    void failedStateRenameKeepsOldState();
    void storeManifest_data();
    void storeManifest();

private:
    QString root() const { return install->path() + QStringLiteral("/.update-cache"); }
    std::unique_ptr<QTemporaryDir> install;
};

void UpdateCacheTest::init()
{
    install = std::make_unique<QTemporaryDir>();
    QVERIFY(install->isValid());
    setInstallationDirForTesting(install->path());
}

void UpdateCacheTest::cleanup()
{
    corv::platform::clearInjectedFileFailures();
    setInstallationDirForTesting(QString());
    install.reset();
}

void UpdateCacheTest::versionDirectory_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("key");  // empty: no directory
    QTest::newRow("plain") << "5.0.153" << "5.0.153";
    QTest::newRow("build metadata kept") << "1.0+build.7" << "1.0+build.7";
    QTest::newRow("all allowed characters") << "aZ09._+-" << "aZ09._+-";
    QTest::newRow("slash and blank") << "2.0/rc 1" << "2.0_rc_1";
    QTest::newRow("parentheses, no trimming") << "1.4.0 (beta)" << "1.4.0__beta_";
    QTest::newRow("leading and trailing blanks") << " 1 " << "_1_";
    QTest::newRow("backslash and colon") << "C:\\v1" << "C__v1";
    QTest::newRow("dots kept in the middle") << "..x.." << "..x..";
    QTest::newRow("traversal neutralised") << "../../etc" << ".._.._etc";
    QTest::newRow("non-ASCII letter") << QString::fromUtf8("phiên bản") << "phi_n_b_n";
    QTest::newRow("one character outside the BMP") << QString::fromUtf8("a\xF0\x9F\x98\x80" "b") << "a_b";
    QTest::newRow("case kept") << "RC-Final" << "RC-Final";
    QTest::newRow("empty") << "" << "";
    QTest::newRow("only a dot") << "." << "";
    QTest::newRow("only two dots") << ".." << "";
}

void UpdateCacheTest::versionDirectory()
{
    QFETCH(QString, version);
    QFETCH(QString, key);
    QCOMPARE(updateCacheRoot(), root());
    QCOMPARE(cacheVersionDir(version), key.isEmpty() ? QString() : root() + QLatin1Char('/') + key);
}

void UpdateCacheTest::filePaths_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("relPath");
    QTest::addColumn<QString>("expected");  // below <root>/<key>/files/, empty: rejected
    QTest::newRow("nested") << "1.0" << "bin/core.dll" << "bin/core.dll";
    QTest::newRow("double slash") << "1.0" << "a//b" << "a/b";
    QTest::newRow("backslash") << "1.0" << "a\\b" << "a/b";
    QTest::newRow("trailing slash") << "1.0" << "a/b/" << "a/b";
    QTest::newRow("three dots are a name") << "1.0" << ".../x" << ".../x";
    QTest::newRow("parent segment") << "1.0" << "../x" << "";
    QTest::newRow("inner parent segment") << "1.0" << "a/../../x" << "";
    QTest::newRow("dot segment") << "1.0" << "a/./b" << "";
    QTest::newRow("absolute") << "1.0" << "/abs" << "";
    QTest::newRow("drive") << "1.0" << "C:x" << "";
    QTest::newRow("stream") << "1.0" << "x:stream" << "";
    QTest::newRow("empty path") << "1.0" << "" << "";
    QTest::newRow("only slashes") << "1.0" << "//" << "";
    QTest::newRow("empty version") << "" << "bin/core.dll" << "";
    QTest::newRow("version two dots") << ".." << "bin/core.dll" << "";
}

void UpdateCacheTest::filePaths()
{
    QFETCH(QString, version);
    QFETCH(QString, relPath);
    QFETCH(QString, expected);
    const QString file = expected.isEmpty() ? QString() : cacheVersionDir(version) + QStringLiteral("/files/") + expected;
    QCOMPARE(cacheFilePath(version, relPath), file);
    QCOMPARE(cachePartPath(version, relPath), expected.isEmpty() ? QString() : file + QStringLiteral(".part"));
    if (!expected.isEmpty())
        QVERIFY(cacheFilePath(version, relPath).startsWith(root() + QLatin1Char('/')));
}

void UpdateCacheTest::ensureVersionDir()
{
    QVERIFY(!ensureCacheVersionDir(QString()));
    QVERIFY(!ensureCacheVersionDir(QStringLiteral("..")));
    QCOMPARE(entries(install->path()), QStringList());
    QVERIFY(ensureCacheVersionDir(QStringLiteral("2.0/rc 1")));
    QVERIFY(QFileInfo(root() + QStringLiteral("/2.0_rc_1/files")).isDir());
    QVERIFY(ensureCacheVersionDir(QStringLiteral("2.0/rc 1")));
    // A file where the directory belongs makes it fail.
    QVERIFY(writeFile(root() + QStringLiteral("/3.0"), "not a directory"));
    QVERIFY(!ensureCacheVersionDir(QStringLiteral("3.0")));
}

void UpdateCacheTest::partSize_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<int>("bytes");  // -1: no .part file, -2: a directory named like it
    QTest::addColumn<qint64>("expected");
    QTest::newRow("missing") << "1.0" << -1 << qint64(0);
    QTest::newRow("empty") << "1.0" << 0 << qint64(0);
    QTest::newRow("partial") << "1.0" << 1234 << qint64(1234);
    QTest::newRow("directory") << "1.0" << -2 << qint64(0);
    QTest::newRow("empty version") << "" << 1234 << qint64(0);
}

void UpdateCacheTest::partSize()
{
    QFETCH(QString, version);
    QFETCH(int, bytes);
    QFETCH(qint64, expected);
    const QString part = cacheVersionDir(QStringLiteral("1.0")) + QStringLiteral("/files/lib/a.dll.part");
    if (bytes >= 0)
        QVERIFY(writeFile(part, QByteArray(bytes, 'x')));
    if (bytes == -2)
        QVERIFY(QDir().mkpath(part));
    QCOMPARE(cachePartSize(version, QStringLiteral("lib/a.dll")), expected);
}

void UpdateCacheTest::completeCachedFile_data()
{
    QTest::addColumn<QString>("onDisk");      // "file", "part" (only a .part), "none", "dir"
    QTest::addColumn<QString>("relPath");
    QTest::addColumn<qint64>("size");         // manifest size
    QTest::addColumn<QString>("sha256");      // manifest hash; "good" = the content's hash
    QTest::addColumn<bool>("found");
    const QString content = QStringLiteral("cached content");  // 14 bytes
    QTest::newRow("size and hash match") << "file" << "bin/a.dll" << qint64(14) << "good" << true;
    QTest::newRow("size zero is a size: only an empty file") << "file" << "bin/a.dll" << qint64(0) << "good" << false;
    QTest::newRow("no size (-1) skips the size check") << "file" << "bin/a.dll" << qint64(-1) << "good" << true;
    QTest::newRow("size one short") << "file" << "bin/a.dll" << qint64(13) << "good" << false;
    QTest::newRow("size one over") << "file" << "bin/a.dll" << qint64(15) << "good" << false;
    QTest::newRow("other content, same size") << "file" << "bin/a.dll" << qint64(14) << sha256Hex("other content!") << false;
    QTest::newRow("other content, size zero") << "file" << "bin/a.dll" << qint64(0) << sha256Hex("x") << false;
    QTest::newRow("upper-case manifest hash") << "file" << "bin/a.dll" << qint64(14) << "GOOD" << false;
    QTest::newRow("empty manifest hash") << "file" << "bin/a.dll" << qint64(14) << "" << false;
    QTest::newRow("only a partial file") << "part" << "bin/a.dll" << qint64(14) << "good" << false;
    QTest::newRow("nothing cached") << "none" << "bin/a.dll" << qint64(14) << "good" << false;
    QTest::newRow("directory in its place") << "dir" << "bin/a.dll" << qint64(0) << sha256Hex(QByteArray()) << false;
    QTest::newRow("backslash path finds the file") << "file" << "bin\\a.dll" << qint64(14) << "good" << true;
    QTest::newRow("unsafe path") << "file" << "bin/../bin/a.dll" << qint64(14) << "good" << false;
}

void UpdateCacheTest::completeCachedFile()
{
    QFETCH(QString, onDisk);
    QFETCH(QString, relPath);
    QFETCH(qint64, size);
    QFETCH(QString, sha256);
    QFETCH(bool, found);
    const QByteArray content("cached content");
    const QString version = QStringLiteral("7.1 beta");
    const QString file = cacheVersionDir(version) + QStringLiteral("/files/bin/a.dll");
    if (onDisk == QLatin1String("file"))
        QVERIFY(writeFile(file, content));
    if (onDisk == QLatin1String("part"))
        QVERIFY(writeFile(file + QStringLiteral(".part"), content));
    if (onDisk == QLatin1String("dir"))
        QVERIFY(QDir().mkpath(file));
    if (sha256 == QLatin1String("good"))
        sha256 = sha256Hex(content);
    if (sha256 == QLatin1String("GOOD"))
        sha256 = sha256Hex(content).toUpper();

    const ManifestFile entry{relPath, size, sha256};
    QCOMPARE(findCompleteCachedFile(version, entry), found ? file : QString());
}

void UpdateCacheTest::prune_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QStringList>("remaining");
    // Before: build directories 1.0, 2.0, 2.0_rc_1 and 2.0_rc_10, a plain file, a hidden directory.
    const QStringList untouched{QStringLiteral(".hidden"), QStringLiteral("notes.txt")};
    QTest::newRow("keeps its own build") << "2.0/rc 1" << (untouched + QStringList{"2.0_rc_1"});
    QTest::newRow("exact name only") << "2.0" << (untouched + QStringList{"2.0"});
    QTest::newRow("unknown build") << "3.0" << untouched;
    QTest::newRow("empty version") << "" << untouched;
}

void UpdateCacheTest::prune()
{
    QFETCH(QString, version);
    QFETCH(QStringList, remaining);
    for (const char* name : {"1.0", "2.0", "2.0_rc_1", "2.0_rc_10"})
        QVERIFY(writeFile(root() + QLatin1Char('/') + QLatin1String(name) + QStringLiteral("/files/a/b.dll"), "x"));
    QVERIFY(writeFile(root() + QStringLiteral("/notes.txt"), "x"));
    QVERIFY(writeFile(root() + QStringLiteral("/.hidden/keep.txt"), "x"));

    pruneCacheExcept(version);
    std::sort(remaining.begin(), remaining.end());
    QCOMPARE(entries(root()), remaining);
    QVERIFY(QFileInfo::exists(root() + QStringLiteral("/.hidden/keep.txt")));
    for (const QString& name : remaining)
        if (name != QLatin1String(".hidden") && name != QLatin1String("notes.txt"))
            QVERIFY(QFileInfo::exists(root() + QLatin1Char('/') + name + QStringLiteral("/files/a/b.dll")));
}

void UpdateCacheTest::pruneWithoutRootCreatesNothing()
{
    pruneCacheExcept(QStringLiteral("1.0"));
    pruneCacheExcept(QString());
    QVERIFY(!QFileInfo::exists(root()));
}

void UpdateCacheTest::clearRemovesEverythingButFollowsNoLink()
{
    QTemporaryDir outside;
    QVERIFY(writeFile(outside.filePath(QStringLiteral("precious.txt")), "keep me"));
    QVERIFY(writeFile(root() + QStringLiteral("/1.0/files/a.dll"), "x"));
    QVERIFY(writeFile(root() + QStringLiteral("/.hidden/b"), "x"));
    QVERIFY(QFile::link(outside.path(), root() + QStringLiteral("/2.0")));
    QVERIFY(QFile::link(outside.path(), root() + QStringLiteral("/1.0/files/linked")));

    // Pruning removes a linked build directory as a link, not what it points at.
    pruneCacheExcept(QStringLiteral("1.0"));
    QVERIFY(!QFileInfo(root() + QStringLiteral("/2.0")).isSymLink());
    QCOMPARE(readFile(outside.filePath(QStringLiteral("precious.txt"))), QByteArray("keep me"));

    clearUpdateCache();
    QVERIFY(!QFileInfo::exists(root()));
    QCOMPARE(readFile(outside.filePath(QStringLiteral("precious.txt"))), QByteArray("keep me"));

    // A cache root that is itself a link loses only the link.
    QVERIFY(QFile::link(outside.path(), root()));
    pruneCacheExcept(QString());
    clearUpdateCache();
    QVERIFY(!QFileInfo(root()).isSymLink());
    QCOMPARE(readFile(outside.filePath(QStringLiteral("precious.txt"))), QByteArray("keep me"));
    clearUpdateCache();
}

void UpdateCacheTest::stateFileContent()
{
    CacheState state;
    state.fullVersion = QStringLiteral("5.1.0 (rc)");
    state.buildNumber = 160;
    state.baseUrl = QStringLiteral("http://127.0.0.1/b/");
    state.files.append({QStringLiteral("bin/a.dll"), 2048, QStringLiteral("ab12"), 1024, false});
    QVERIFY(writeCacheState(state));
    // The writer's own key order, compact, whole numbers without a fraction.
    QCOMPARE(readFile(root() + QStringLiteral("/5.1.0__rc_/state.json")),
             QByteArray("{\"baseUrl\":\"http://127.0.0.1/b/\",\"buildNumber\":160,\"files\":[{\"done\":false,"
                        "\"got\":1024,\"path\":\"bin/a.dll\",\"sha256\":\"ab12\",\"size\":2048}],"
                        "\"fullVersion\":\"5.1.0 (rc)\"}"));
}

void UpdateCacheTest::stateFileRoundTrip()
{
    CacheState state;
    state.fullVersion = QString::fromUtf8("6.0 \"bản\"");
    state.buildNumber = 4000000000000LL;
    state.baseUrl = QStringLiteral("https://cdn.example/6.0/");
    state.files.append({QStringLiteral("a.exe"), 0, sha256Hex("a"), 0, true});
    state.files.append({QString::fromUtf8("dữ liệu/b.pak"), 7000000000LL, sha256Hex("b"), 6999999999LL, false});
    state.files.append({QStringLiteral("c.dll"), -1, QString(), 12, true});

    const QString path = cacheVersionDir(state.fullVersion) + QStringLiteral("/state.json");
    // A stale, longer temporary file from an interrupted write is truncated, not appended to.
    QVERIFY(writeFile(path + QStringLiteral(".tmp"), QByteArray(10000, ' ')));
    QVERIFY(writeCacheState(state));
    QVERIFY(!QFileInfo::exists(path + QStringLiteral(".tmp")));

    const QByteArray bytes = readFile(path);
    QVERIFY(!bytes.contains('\n'));
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
    QCOMPARE(error.error, QJsonParseError::NoError);
    QVERIFY(doc.isObject());
    const QJsonObject object = doc.object();
    QCOMPARE(object.keys(), (QStringList{"baseUrl", "buildNumber", "files", "fullVersion"}));
    QCOMPARE(object.value("fullVersion").toString(), state.fullVersion);
    QVERIFY(object.value("buildNumber").isDouble());
    QCOMPARE(qint64(object.value("buildNumber").toDouble()), state.buildNumber);
    QCOMPARE(object.value("baseUrl").toString(), state.baseUrl);
    const QJsonArray files = object.value("files").toArray();
    QCOMPARE(files.size(), state.files.size());
    for (int i = 0; i < files.size(); ++i) {
        const QJsonObject entry = files.at(i).toObject();
        QCOMPARE(entry.keys(), (QStringList{"done", "got", "path", "sha256", "size"}));
        QCOMPARE(entry.value("path").toString(), state.files.at(i).path);
        QVERIFY(entry.value("size").isDouble());
        QCOMPARE(qint64(entry.value("size").toDouble()), state.files.at(i).size);
        QCOMPARE(entry.value("sha256").toString(), state.files.at(i).sha256);
        QCOMPARE(qint64(entry.value("got").toDouble()), state.files.at(i).got);
        QVERIFY(entry.value("done").isBool());
        QCOMPARE(entry.value("done").toBool(), state.files.at(i).done);
    }
    QVERIFY(bytes.contains("\"size\":7000000000}"));
}

void UpdateCacheTest::stateFileRefusesEmptyVersion()
{
    CacheState state;
    state.baseUrl = QStringLiteral("http://x/");
    QVERIFY(!writeCacheState(state));
    QVERIFY(!storeCachedManifest(QString(), "{}", "sig"));
    QVERIFY(!QFileInfo::exists(root()));
}

void UpdateCacheTest::failedStateRenameKeepsOldState()
{
    CacheState state;
    state.fullVersion = QStringLiteral("1.0");
    state.buildNumber = 1;
    QVERIFY(writeCacheState(state));
    const QString path = root() + QStringLiteral("/1.0/state.json");
    const QByteArray before = readFile(path);

    corv::platform::injectFileFailure(corv::platform::FileCall::MoveFile,
                                      QDir::toNativeSeparators(path + QStringLiteral(".tmp")).toStdString(), 5);
    state.buildNumber = 2;
    QVERIFY(!writeCacheState(state));
    QCOMPARE(readFile(path), before);
    QVERIFY(readFile(path + QStringLiteral(".tmp")).contains("\"buildNumber\":2"));

    corv::platform::clearInjectedFileFailures();
    QVERIFY(writeCacheState(state));
    QVERIFY(readFile(path).contains("\"buildNumber\":2"));
    QVERIFY(!QFileInfo::exists(path + QStringLiteral(".tmp")));
}

void UpdateCacheTest::storeManifest_data()
{
    QTest::addColumn<QString>("blocked");  // a directory standing where this file goes
    QTest::addColumn<bool>("result");
    QTest::addColumn<QByteArray>("manifestAfter");
    QTest::addColumn<QByteArray>("signatureAfter");
    QTest::newRow("both written") << "" << true << QByteArray("{\"m\":1}") << QByteArray("c2ln\n");
    QTest::newRow("signature cannot be opened") << "manifest.json.sig" << true << QByteArray("{\"m\":1}") << QByteArray();
    QTest::newRow("manifest cannot be opened") << "manifest.json" << false << QByteArray() << QByteArray("old sig");
}

void UpdateCacheTest::storeManifest()
{
    QFETCH(QString, blocked);
    QFETCH(bool, result);
    QFETCH(QByteArray, manifestAfter);
    QFETCH(QByteArray, signatureAfter);
    const QString dir = root() + QStringLiteral("/9.9");
    if (!blocked.isEmpty())
        QVERIFY(QDir().mkpath(dir + QLatin1Char('/') + blocked));
    if (blocked == QLatin1String("manifest.json"))
        QVERIFY(writeFile(dir + QStringLiteral("/manifest.json.sig"), "old sig"));

    QCOMPARE(storeCachedManifest(QStringLiteral("9.9"), "{\"m\":1}", "c2ln\n"), result);
    QCOMPARE(readFile(dir + QStringLiteral("/manifest.json")), manifestAfter);
    QCOMPARE(readFile(dir + QStringLiteral("/manifest.json.sig")), signatureAfter);
    QVERIFY(QFileInfo(dir + QStringLiteral("/files")).isDir());
}

QTEST_GUILESS_MAIN(UpdateCacheTest)
#include "tst_update_cache.moc"
