// Where the update cache keeps a build's files: a directory named after the version, with only
// safe characters, and the build's safe file paths below it.
#include "apply/update_cache.h"
#include "base/installation_dir.h"

#include <QTemporaryDir>
#include <QtTest>

class UpdateCacheTest : public QObject {
    Q_OBJECT

private slots:
    void paths_data();
    void paths();
};

void UpdateCacheTest::paths_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("relPath");
    QTest::addColumn<QString>("expected");  // below the cache root; empty: no path at all
    QTest::newRow("plain") << "5.0.153" << "bin/core.dll" << "5.0.153/files/bin/core.dll";
    QTest::newRow("every allowed character kept") << "aZ09._+-" << "a" << "aZ09._+-/files/a";
    QTest::newRow("others replaced, none trimmed") << " C:\\RC/(b)../" << "a" << "_C__RC__b_.._/files/a";
    QTest::newRow("one character outside the BMP") << QString::fromUtf8("a\xF0\x9F\x98\x80" "b") << "a" << "a_b/files/a";
    QTest::newRow("empty version") << "" << "a" << "";
    QTest::newRow("version of one dot") << "." << "a" << "";
    QTest::newRow("version of two dots") << ".." << "a" << "";
    QTest::newRow("path normalised") << "1.0" << "a//b\\c/" << "1.0/files/a/b/c";
    QTest::newRow("path leaving its directory") << "1.0" << "a/../../x" << "";
}

void UpdateCacheTest::paths()
{
    QFETCH(QString, version);
    QFETCH(QString, relPath);
    QFETCH(QString, expected);
    QTemporaryDir install;
    setInstallationDirForTesting(install.path());
    const QString root = install.path() + QStringLiteral("/.update-cache");
    QCOMPARE(updateCacheRoot(), root);
    QCOMPARE(cacheFilePath(version, relPath), expected.isEmpty() ? QString() : root + '/' + expected);
    QCOMPARE(cachePartPath(version, relPath), expected.isEmpty() ? QString() : root + '/' + expected + ".part");
    setInstallationDirForTesting(QString());
}

QTEST_GUILESS_MAIN(UpdateCacheTest)
#include "tst_update_cache.moc"
