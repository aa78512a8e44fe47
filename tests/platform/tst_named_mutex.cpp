// Named mutexes on POSIX (where the lock files live, which places are trusted) and how long the
// waits on a mutex or a process last when it does not end. Runs of the updater beside
// lock_holder processes (held, released, ended) are rows of tests/blackbox.
#include "platform/named_mutex.h"
#include "platform/process_handle.h"

#include <QDirIterator>
#include <QElapsedTimer>
#include <QProcess>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace corv::platform;

namespace {

// Every entry below dir without following links: "name/" a directory, "name@" a link.
QString listing(const QString& dir)
{
    QStringList entries;
    QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        const QString name = QDir(dir).relativeFilePath(info.filePath());
        entries << name + (info.isSymLink() ? "@" : info.isDir() ? "/" : "");
    }
    entries.sort();
    return entries.join(' ');
}

} // namespace

class TestNamedMutex : public QObject {
    Q_OBJECT
private slots:
    void create_data();
    void create();
    void wait_data();
    void wait();
};

void TestNamedMutex::create_data()
{
    QTest::addColumn<QString>("runtime");  // XDG_RUNTIME_DIR ("-": unset); "<tmp>" the row's directory
    QTest::addColumn<QString>("setup");    // planted first: "dir link", "file link" (to elsewhere/)
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("result");   // "owned" or "none" ("held elsewhere" when another owns it)
    QTest::addColumn<int>("fault");        // MutexFault::Kind of both calls
    QTest::addColumn<QString>("lockFile"); // where the lock file of an owned mutex lies
    QTest::addColumn<QString>("tree");     // the row's directory afterwards

    const QString own = "corvanta/ corvanta/L.lock";
    const QString fallback = "/tmp/corvanta-<uid>/L<pid>.lock";
    QTest::newRow("free") << "<tmp>" << "" << "L" << "owned" << 0 << "<tmp>/corvanta/L.lock" << own;
    QTest::newRow("runtime directory unset") << "-" << "" << "L<pid>" << "owned" << 0 << fallback << "";
    QTest::newRow("runtime directory relative") << "rel" << "" << "L<pid>" << "owned" << 0 << fallback << "";
    QTest::newRow("runtime directory missing") << "<tmp>/gone" << "" << "L" << "none" << 1 << "" << "";
    QTest::newRow("lock directory a link") << "<tmp>" << "dir link" << "L" << "none" << 1 << ""
                                           << "corvanta@ elsewhere/";
    QTest::newRow("lock file a link") << "<tmp>" << "file link" << "L" << "none" << 2 << ""
                                      << "corvanta/ corvanta/L.lock@ elsewhere/";
    QTest::newRow("name with a parent step") << "<tmp>" << "" << "../L" << "none" << 0 << "" << "";
    QTest::newRow("empty name") << "<tmp>" << "" << "" << "none" << 0 << "" << "";
}

void TestNamedMutex::create()
{
    QFETCH(QString, runtime);
    QFETCH(QString, setup);
    QFETCH(QString, name);
    QFETCH(QString, result);
    QFETCH(int, fault);
    QFETCH(QString, lockFile);
    QFETCH(QString, tree);
    QTemporaryDir tmp;
    QVERIFY(tmp.isValid());
    const auto expand = [&](QString text) {
        return text.replace("<tmp>", tmp.path()).replace("<uid>", QString::number(geteuid()))
            .replace("<pid>", QString::number(QCoreApplication::applicationPid()));
    };
    const QString previousDir = QDir::currentPath();
    QDir::setCurrent(tmp.path());  // a relative runtime directory would land here
    if (runtime == "-")
        qunsetenv("XDG_RUNTIME_DIR");
    else
        qputenv("XDG_RUNTIME_DIR", expand(runtime).toUtf8());
    if (!setup.isEmpty()) {
        QVERIFY(QDir(tmp.path()).mkdir("elsewhere"));
        const QString lockDir = tmp.filePath("corvanta");
        if (setup == "dir link")
            QVERIFY(QFile::link(tmp.filePath("elsewhere"), lockDir));
        else
            QVERIFY(QDir().mkdir(lockDir) && chmod(QFile::encodeName(lockDir), 0700) == 0
                    && QFile::link(tmp.filePath("elsewhere/target"), lockDir + "/L.lock"));
    }
    const std::string mutexName = expand(name).toStdString();

    bool existed = false;
    MutexFault created;
    NamedMutex mutex = createNamedMutex(mutexName, &existed, &created);
    QCOMPARE(QString(mutex.isNull() ? "none" : existed ? "held elsewhere" : "owned"), result);
    QCOMPARE(int(created.kind), fault);
    MutexFault opened;
    QCOMPARE(openNamedMutex(mutexName, &opened).isNull(), result == "none");
    QCOMPARE(int(opened.kind), fault);
    if (result == "owned") {
        // Moved to another handle (as a prefetch keeps its lock), the mutex stays held until
        // that handle closes.
        NamedMutex kept;
        kept = std::move(mutex);
        bool held = false;
        QVERIFY(!createNamedMutex(mutexName, &held).isNull() && held);
        kept.close();
        QVERIFY(openNamedMutex(mutexName).isNull());
        const QString path = expand(lockFile);
        QVERIFY2(QFileInfo(path).isFile(), qPrintable(path));
        if (!path.startsWith(tmp.path()))
            QFile::remove(path);
    }
    QDir::setCurrent(previousDir);
    QCOMPARE(listing(tmp.path()), tree);
}

void TestNamedMutex::wait_data()
{
    QTest::addColumn<QString>("on");  // "mutex" that lock_holder holds, or lock_holder's "process"
    QTest::addColumn<int>("timeoutMs");
    QTest::addColumn<int>("leastMs");
    QTest::addColumn<int>("mostMs");
    for (const char* on : {"mutex", "process"}) {
        QTest::addRow("%s, polled", on) << on << 0 << 0 << 500;
        QTest::addRow("%s, outlives the wait", on) << on << 300 << 300 << 3000;
    }
}

void TestNamedMutex::wait()
{
    QFETCH(QString, on);
    QFETCH(int, timeoutMs);
    QFETCH(int, leastMs);
    QFETCH(int, mostMs);
    QTemporaryDir tmp;
    qputenv("XDG_RUNTIME_DIR", tmp.path().toUtf8());
    QProcess holder;  // killed when it goes
    holder.start(QCoreApplication::applicationDirPath() + "/lock_holder", {"W"});
    while (!holder.canReadLine() && holder.waitForReadyRead(10000)) {
    }
    QCOMPARE(holder.readLine(), QByteArray("held\n"));
    NamedMutex mutex = openNamedMutex("W");
    ProcessHandle process = openProcess(holder.processId());
    QVERIFY(!mutex.isNull() && !process.isNull());
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(on == "mutex" ? waitForNamedMutex(mutex, timeoutMs) : waitForProcessEnd(process, timeoutMs), false);
    QVERIFY2(clock.elapsed() >= leastMs && clock.elapsed() <= mostMs, qPrintable(QString::number(clock.elapsed())));
}

QTEST_GUILESS_MAIN(TestNamedMutex)
#include "tst_named_mutex.moc"
