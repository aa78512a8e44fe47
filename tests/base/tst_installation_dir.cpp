#include "base/installation_dir.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

class TestInstallationDir : public QObject {
    Q_OBJECT
private slots:
    void isTheExecutablesDirectoryNotTheCurrentOne();
    void testingOverrideAndReset();
};

void TestInstallationDir::isTheExecutablesDirectoryNotTheCurrentOne()
{
    QTemporaryDir elsewhere;
    QVERIFY(elsewhere.isValid());
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(elsewhere.path()));
    const QString dir = installationDir();
    QDir::setCurrent(previous);

    QCOMPARE(dir, QCoreApplication::applicationDirPath());
    QVERIFY(dir != elsewhere.path());
}

void TestInstallationDir::testingOverrideAndReset()
{
    QTemporaryDir dir;
    setInstallationDirForTesting(dir.path());
    QCOMPARE(installationDir(), dir.path());
    setInstallationDirForTesting(QString());
    QCOMPARE(installationDir(), QCoreApplication::applicationDirPath());
}

QTEST_GUILESS_MAIN(TestInstallationDir)
#include "tst_installation_dir.moc"
