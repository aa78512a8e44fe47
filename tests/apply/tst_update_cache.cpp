// Where the update cache keeps a build's files: the version key and the safe file paths, a rule
// with many cases; and the exact bytes of its progress record.
#include "apply/update_cache.h"
#include "base/installation_dir.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

class UpdateCacheTest : public QObject {
    Q_OBJECT

private slots:
    void init() { setInstallationDirForTesting(install.path()); }
    void cleanup() { setInstallationDirForTesting(QString()); }
    void paths_data();
    void paths();
    void stateFile();

private:
    QTemporaryDir install;
};

void UpdateCacheTest::paths_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("relPath");
    QTest::addColumn<QString>("expected");  // below the cache root; empty: no path at all
    QTest::newRow("plain") << "5.0.153" << "bin/core.dll" << "5.0.153/files/bin/core.dll";
    QTest::newRow("every allowed character kept") << "aZ09._+-" << "a" << "aZ09._+-/files/a";
    QTest::newRow("slash and blank") << "2.0/rc 1" << "a" << "2.0_rc_1/files/a";
    QTest::newRow("no trimming, case kept") << " RC (b) " << "a" << "_RC__b__/files/a";
    QTest::newRow("backslash and colon") << "C:\\v1" << "a" << "C__v1/files/a";
    QTest::newRow("traversal neutralised") << "../../etc" << "a" << ".._.._etc/files/a";
    QTest::newRow("one character outside the BMP")
        << QString::fromUtf8("a\xF0\x9F\x98\x80" "b") << "a" << "a_b/files/a";
    QTest::newRow("empty version") << "" << "a" << "";
    QTest::newRow("version of one dot") << "." << "a" << "";
    QTest::newRow("version of two dots") << ".." << "a" << "";
    QTest::newRow("double and trailing slash") << "1.0" << "a//b/" << "1.0/files/a/b";
    QTest::newRow("backslash") << "1.0" << "a\\b" << "1.0/files/a/b";
    QTest::newRow("three dots are a name") << "1.0" << ".../x" << "1.0/files/.../x";
    QTest::newRow("parent segment") << "1.0" << "a/../../x" << "";
    QTest::newRow("dot segment") << "1.0" << "a/./b" << "";
    QTest::newRow("absolute") << "1.0" << "/abs" << "";
    QTest::newRow("drive") << "1.0" << "C:x" << "";
    QTest::newRow("only slashes") << "1.0" << "//" << "";
}

void UpdateCacheTest::paths()
{
    QFETCH(QString, version);
    QFETCH(QString, relPath);
    QFETCH(QString, expected);
    const QString root = install.path() + QStringLiteral("/.update-cache");
    QCOMPARE(updateCacheRoot(), root);
    QCOMPARE(cacheFilePath(version, relPath), expected.isEmpty() ? QString() : root + '/' + expected);
    QCOMPARE(cachePartPath(version, relPath), expected.isEmpty() ? QString() : root + '/' + expected + ".part");
}

void UpdateCacheTest::stateFile()
{
    CacheState state;
    state.fullVersion = QStringLiteral("5.1.0 (rc)");
    state.buildNumber = 4000000000000LL;
    state.baseUrl = QStringLiteral("http://127.0.0.1/b/");
    state.files.append({QStringLiteral("bin/a.dll"), 7000000000LL, QStringLiteral("ab12"), 1024, false});
    state.files.append({QStringLiteral("c.dll"), 0, QString(), 0, true});
    QVERIFY(writeCacheState(state));
    // Compact, the writer's own key order, whole numbers without a fraction, no temporary file left.
    QFile file(install.path() + QStringLiteral("/.update-cache/5.1.0__rc_/state.json"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(),
             QByteArray("{\"baseUrl\":\"http://127.0.0.1/b/\",\"buildNumber\":4000000000000,\"files\":[{\"done\":false,"
                        "\"got\":1024,\"path\":\"bin/a.dll\",\"sha256\":\"ab12\",\"size\":7000000000},{\"done\":true,"
                        "\"got\":0,\"path\":\"c.dll\",\"sha256\":\"\",\"size\":0}],\"fullVersion\":\"5.1.0 (rc)\"}"));
    QVERIFY(!QFile::exists(file.fileName() + QStringLiteral(".tmp")));
}

QTEST_GUILESS_MAIN(UpdateCacheTest)
#include "tst_update_cache.moc"
