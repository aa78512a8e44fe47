// Where named mutexes live on POSIX systems and which lock files are trusted.
#include "platform/named_mutex.h"
#include "support/helper_process.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using corv::platform::createNamedMutex;
using corv::platform::MutexFault;
using corv::platform::NamedMutex;
using corv::platform::openNamedMutex;
using corv::platform::waitForNamedMutex;

class TestNamedMutexPosix : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();

    void lockFileInPrivateDirectory();
    void existenceTestCreatesNothing();
    void fallbackDirectory_data();
    void fallbackDirectory();
    void untrustedLocation_data();
    void untrustedLocation();
    void classicLocksCount();
    void namesThatCouldEscape_data();
    void namesThatCouldEscape();

private:
    QString lockDir() const { return runtimeDir.path() + QStringLiteral("/corvanta"); }
    QTemporaryDir runtimeDir;
};

void TestNamedMutexPosix::initTestCase() { QVERIFY(runtimeDir.isValid()); }

void TestNamedMutexPosix::init() { qputenv("XDG_RUNTIME_DIR", runtimeDir.path().toUtf8()); }

void TestNamedMutexPosix::lockFileInPrivateDirectory()
{
    bool existed = true;
    NamedMutex mutex = createNamedMutex("Corvanta_Test_Where", &existed);
    QVERIFY(!mutex.isNull());
    QVERIFY(QFileInfo(lockDir() + QStringLiteral("/Corvanta_Test_Where.lock")).isFile());

    struct stat info {};
    QCOMPARE(lstat(QFile::encodeName(lockDir()).constData(), &info), 0);
    QCOMPARE(info.st_mode & 0777, mode_t(0700));
    QCOMPARE(info.st_uid, geteuid());

    // Released locks leave their file behind: deleting it could split two lockers.
    mutex.releaseAndClose();
    QVERIFY(QFileInfo::exists(lockDir() + QStringLiteral("/Corvanta_Test_Where.lock")));
}

void TestNamedMutexPosix::existenceTestCreatesNothing()
{
    QVERIFY(openNamedMutex("Corvanta_Test_Ghost").isNull());
    QVERIFY(!QFileInfo::exists(lockDir() + QStringLiteral("/Corvanta_Test_Ghost.lock")));
}

void TestNamedMutexPosix::fallbackDirectory_data()
{
    QTest::addColumn<bool>("set");
    QTest::addColumn<QByteArray>("value");
    QTest::newRow("unset") << false << QByteArray();
    QTest::newRow("empty") << true << QByteArray();
    QTest::newRow("relative path") << true << QByteArray("relative-runtime");
}

void TestNamedMutexPosix::fallbackDirectory()
{
    QFETCH(bool, set);
    QFETCH(QByteArray, value);
    if (set)
        qputenv("XDG_RUNTIME_DIR", value);
    else
        qunsetenv("XDG_RUNTIME_DIR");

    const QString name = QStringLiteral("Corvanta_Test_Fallback_%1").arg(QCoreApplication::applicationPid());
    const QString expected = QStringLiteral("/tmp/corvanta-%1/%2.lock").arg(geteuid()).arg(name);
    bool existed = true;
    NamedMutex mutex = createNamedMutex(name.toStdString(), &existed);
    QVERIFY(!mutex.isNull());
    QVERIFY(!existed);
    const bool inFallback = QFileInfo(expected).isFile();
    mutex.releaseAndClose();
    QFile::remove(expected);
    QVERIFY(inFallback);
    QVERIFY(!QFileInfo::exists(QStringLiteral("relative-runtime")));
}

void TestNamedMutexPosix::untrustedLocation_data()
{
    QTest::addColumn<QString>("setup");
    QTest::addColumn<int>("fault");  // MutexFault::Kind
    QTest::newRow("directory is a symlink to our own directory") << "symlink" << int(MutexFault::LockDirectory);
    QTest::newRow("directory is a regular file") << "file" << int(MutexFault::LockDirectory);
    QTest::newRow("directory owned by another user") << "foreign" << int(MutexFault::LockDirectory);
    QTest::newRow("directory others may enter") << "mode0711" << int(MutexFault::LockDirectory);
    QTest::newRow("runtime directory missing") << "missing" << int(MutexFault::LockDirectory);
    QTest::newRow("lock file is a symlink") << "lockSymlink" << int(MutexFault::LockFile);
    // Opened without waiting for a writer, and refused.
    QTest::newRow("lock file is a FIFO") << "lockFifo" << int(MutexFault::LockFile);
}

void TestNamedMutexPosix::untrustedLocation()
{
    QFETCH(QString, setup);
    QFETCH(int, fault);
    QTemporaryDir base;
    QVERIFY(base.isValid());
    const QString dir = base.path() + QStringLiteral("/corvanta");
    const QString realDir = base.path() + QStringLiteral("/real");
    QVERIFY(QDir().mkdir(realDir));
    const std::string name = "Corvanta_Test_Untrusted";

    QByteArray runtime = base.path().toUtf8();
    if (setup == QLatin1String("symlink")) {
        QVERIFY(QFile::link(realDir, dir));
    } else if (setup == QLatin1String("file")) {
        QFile file(dir);
        QVERIFY(file.open(QIODevice::WriteOnly));
    } else if (setup == QLatin1String("foreign")) {
        if (geteuid() != 0)
            QSKIP("giving a directory to another user needs root");
        QVERIFY(QDir().mkdir(dir));
        QCOMPARE(chown(QFile::encodeName(dir).constData(), 65534, 65534), 0);
    } else if (setup == QLatin1String("mode0711")) {
        QVERIFY(QDir().mkdir(dir));
        QCOMPARE(chmod(QFile::encodeName(dir).constData(), 0711), 0);
    } else if (setup == QLatin1String("missing")) {
        runtime = base.path().toUtf8() + "/does-not-exist";
    } else if (setup == QLatin1String("lockSymlink")) {
        QVERIFY(QDir().mkdir(dir));
        QCOMPARE(chmod(QFile::encodeName(dir).constData(), 0700), 0);
        QVERIFY(QFile::link(realDir + QStringLiteral("/target"), dir + QStringLiteral("/Corvanta_Test_Untrusted.lock")));
    } else if (setup == QLatin1String("lockFifo")) {
        QVERIFY(QDir().mkdir(dir));
        QCOMPARE(chmod(QFile::encodeName(dir).constData(), 0700), 0);
        QCOMPARE(mkfifo(QFile::encodeName(dir + QStringLiteral("/Corvanta_Test_Untrusted.lock")).constData(), 0600), 0);
    }
    qputenv("XDG_RUNTIME_DIR", runtime);

    bool existed = false;
    MutexFault created;
    QVERIFY(createNamedMutex(name, &existed, &created).isNull());
    MutexFault opened;
    QVERIFY(openNamedMutex(name, &opened).isNull());
    QCOMPARE(int(created.kind), fault);
    QCOMPARE(int(opened.kind), fault);
    QVERIFY(QDir(realDir).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).isEmpty());
}

void TestNamedMutexPosix::classicLocksCount()
{
    const QString path = lockDir() + QStringLiteral("/Corvanta_Test_Classic.lock");
    const std::string name = "Corvanta_Test_Classic";
    QVERIFY(QDir().mkpath(lockDir()));
    QCOMPARE(chmod(QFile::encodeName(lockDir()).constData(), 0700), 0);

    QByteArray line;
    auto classic = startHelper(QStringLiteral("classic_lock_holder"), {path}, &line);
    QVERIFY(classic);
    QCOMPARE(line, QByteArray("held"));

    NamedMutex opened = openNamedMutex(name);
    QVERIFY(!opened.isNull());
    bool existed = false;
    NamedMutex refused = createNamedMutex(name, &existed);
    QVERIFY(existed);
    refused.close();
    QVERIFY(!waitForNamedMutex(opened, 200));

    QVERIFY(killHelper(*classic));
    QVERIFY(waitForNamedMutex(opened, 5000));

    // And the other way round: a program using classic locks sees our mutex as taken.
    NamedMutex mine = createNamedMutex(name, &existed);
    QVERIFY(!mine.isNull());
    QVERIFY(!existed);
    auto blocked = startHelper(QStringLiteral("classic_lock_holder"), {path}, &line);
    QVERIFY(blocked);
    QCOMPARE(line, QByteArray("busy"));
}

void TestNamedMutexPosix::namesThatCouldEscape_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("parent directory") << QByteArray("../escape");
    QTest::newRow("subdirectory") << QByteArray("sub/name");
}

void TestNamedMutexPosix::namesThatCouldEscape()
{
    QFETCH(QByteArray, name);
    bool existed = false;
    NamedMutex mutex = createNamedMutex(name.toStdString(), &existed);
    QVERIFY(mutex.isNull());
    QVERIFY(openNamedMutex(name.toStdString()).isNull());
    QVERIFY(!QFileInfo::exists(runtimeDir.path() + QStringLiteral("/escape.lock")));
    QVERIFY(!QFileInfo::exists(lockDir() + QStringLiteral("/sub")));
}

QTEST_GUILESS_MAIN(TestNamedMutexPosix)
#include "tst_named_mutex_posix.moc"
