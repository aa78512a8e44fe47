// The updater executable as a whole: run modes, refusals, waits and the log it leaves behind.
#include "base/instance_locks.h"
#include "support/helper_process.h"
#include "support/test_install.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

const QString kNoConfig = QStringLiteral("[Update] khong co updater.conf -> bo qua update");
const QString kPrefetchWait = QStringLiteral("[Update] dang co luot tai san chay -> cho no dung, toi da 15 giay");
const QString kPrefetchBusy = QStringLiteral("[UpdatePrefetch] mot luot tai khac dang chay -> bo qua");

const QString kMainApp = QString::fromLatin1(kMainAppMutexName);
const QString kUpdater = QString::fromLatin1(kUpdaterMutexName);
const QString kPrefetch = QStringLiteral("Corvanta_UpdatePrefetch_Pendrovia");

bool isHeld(const QString& name)
{
    return !corv::platform::openNamedMutex(name.toStdString()).isNull();
}

// Updater processes started by a test are killed and reaped if the test ends early.
using UpdaterProcess = HelperProcess;

bool finishedCleanly(QProcess& process, int timeoutMs)
{
    if (process.state() != QProcess::NotRunning && !process.waitForFinished(timeoutMs))
        return false;
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

} // namespace

class TestEntryPoint : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();

    void runsAloneAndLogs_data();
    void runsAloneAndLogs();
    void refusals_data();
    void refusals();
    void twoApplyRunsStartedTogether();
    void applyWaitsForRunningPrefetch_data();
    void applyWaitsForRunningPrefetch();
    void waitPid_data();
    void waitPid();

private:
    QTemporaryDir runtimeDir;
};

void TestEntryPoint::initTestCase()
{
    QVERIFY(runtimeDir.isValid());
    // The updaters started here inherit this lock namespace.
    qputenv("XDG_RUNTIME_DIR", runtimeDir.path().toUtf8());
    QVERIFY(QFile::exists(QStringLiteral(CORV_UPDATER_EXE)));
}

void TestEntryPoint::runsAloneAndLogs_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("tag");
    QTest::addColumn<QString>("text");
    QTest::newRow("no arguments: apply") << QStringList{} << "apply" << kNoConfig;
    QTest::newRow("unknown and miscased options: apply")
        << QStringList{"--Prefetch-Only", "-prefetch-only", "--prefetch"} << "apply" << kNoConfig;
    QTest::newRow("prefetch-only") << QStringList{"--prefetch-only"} << "prefetch" << kPrefetchBusy;
    QTest::newRow("prefetch-only with proactive: still silent")
        << QStringList{"--proactive", "--prefetch-only"} << "prefetch" << kPrefetchBusy;
}

void TestEntryPoint::runsAloneAndLogs()
{
    QFETCH(QStringList, args);
    QFETCH(QString, tag);
    QFETCH(QString, text);

    TestInstall install;
    QVERIFY(install.isValid());
    QStringList expectedFiles{QStringLiteral("updater"), QStringLiteral("updater.log")};
    HelperProcess prefetch;
    if (tag == QLatin1String("prefetch")) {
        // A prefetch only logs once it has a configuration; another prefetch keeps it short.
        QVERIFY(install.writeConfig(QStringLiteral("http://127.0.0.1:9/manifest.json")));
        expectedFiles.append(QStringLiteral("updater.conf"));
        prefetch = holdLocks({kPrefetch});
        QVERIFY(prefetch);
    }

    QCOMPARE(install.run(args, 30000), 0);

    QFile log(install.logPath());
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QByteArray bytes = log.readAll();
    const QRegularExpression line(QStringLiteral("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3} \\[I\\] \\[")
                                  + tag + QStringLiteral("\\] ") + QRegularExpression::escape(text) + QStringLiteral("\n$"));
    QVERIFY2(line.match(QString::fromUtf8(bytes)).hasMatch(), bytes.constData());
    expectedFiles.sort();
    QCOMPARE(install.allFiles(), expectedFiles);
    // Nothing is left held behind.
    QVERIFY(!isHeld(kUpdater));
}

void TestEntryPoint::refusals_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QStringList>("held");
    QTest::addColumn<QString>("lockDir");    // a broken lock directory of the row's own: "", "mode 0755",
                                             // "another owner", or "FIFO <name>" for a FIFO at that lock's name
    QTest::addColumn<QStringList>("logged");  // "<locks>" stands for the row's lock directory
    QTest::newRow("application running") << QStringList{} << QStringList{kMainApp} << QString() << QStringList{};
    QTest::newRow("another updater running") << QStringList{} << QStringList{kUpdater} << QString() << QStringList{};
    // The application is tested first: no 15 s wait for the prefetch.
    QTest::newRow("application and a prefetch running")
        << QStringList{} << QStringList{kMainApp, kPrefetch} << QString() << QStringList{};
    QTest::newRow("another updater and a prefetch running")
        << QStringList{} << QStringList{kUpdater, kPrefetch} << QString() << QStringList{};
    // Were the apply run not noticed, the prefetch would log that another prefetch runs.
    QTest::newRow("prefetch while an apply runs")
        << QStringList{"--prefetch-only"} << QStringList{kUpdater, kPrefetch} << QString() << QStringList{};
    QTest::newRow("proactive prefetch while an apply runs")
        << QStringList{"--prefetch-only", "--proactive"} << QStringList{kUpdater, kPrefetch} << QString() << QStringList{};

    // A lock that cannot tell refuses the run at once, with one line and no box.
    const QString lockFile = QStringLiteral(" file khoa khong dung duoc (can file thuong) -> bo qua: \"<locks>/%1.lock\"");
    const QString lockDir =
        QStringLiteral(" thu muc khoa khong dung duoc (can thu muc rieng cua user nay, quyen 0700) -> bo qua: \"<locks>\"");
    QTest::newRow("FIFO at the application's lock")
        << QStringList{"--proactive"} << QStringList{} << "FIFO " + kMainApp
        << QStringList{"[Update]" + lockFile.arg(kMainApp)};
    QTest::newRow("FIFO at the prefetch lock, apply")
        << QStringList{"--proactive"} << QStringList{} << "FIFO " + kPrefetch
        << QStringList{"[Update]" + lockFile.arg(kPrefetch)};
    QTest::newRow("FIFO at the updater lock, prefetch")
        << QStringList{"--prefetch-only"} << QStringList{} << "FIFO " + kUpdater
        << QStringList{"[UpdatePrefetch]" + lockFile.arg(kUpdater)};
    QTest::newRow("FIFO at the prefetch lock, prefetch")
        << QStringList{"--prefetch-only"} << QStringList{} << "FIFO " + kPrefetch
        << QStringList{"[UpdatePrefetch]" + lockFile.arg(kPrefetch)};
    QTest::newRow("lock directory with mode 0755, apply")
        << QStringList{"--proactive"} << QStringList{} << "mode 0755" << QStringList{"[Update]" + lockDir};
    QTest::newRow("lock directory of another user, prefetch")
        << QStringList{"--prefetch-only"} << QStringList{} << "another owner" << QStringList{"[UpdatePrefetch]" + lockDir};
}

void TestEntryPoint::refusals()
{
    QFETCH(QStringList, args);
    QFETCH(QStringList, held);
    QFETCH(QString, lockDir);
    QFETCH(QStringList, logged);
    TestInstall install;
    QVERIFY(install.isValid());
    // A configuration, so that nothing but the refusal can keep a run quiet.
    QVERIFY(install.writeConfig(QStringLiteral("http://127.0.0.1:9/manifest.json")));

    QTemporaryDir brokenRuntime;
    const QString locks = brokenRuntime.path() + QStringLiteral("/corvanta");
    if (!lockDir.isEmpty()) {
        if (QSysInfo::kernelType() == QLatin1String("winnt"))
            QSKIP("Windows keeps the mutexes in the kernel, not in a lock directory");
        const QFile::Permissions owner = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
        const QFile::Permissions others = QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther;
        QVERIFY(QDir().mkdir(locks));
        QVERIFY(QFile::setPermissions(locks, lockDir == QLatin1String("mode 0755") ? owner | others : owner));
        if (lockDir == QLatin1String("another owner")
            && QProcess::execute(QStringLiteral("chown"), {QStringLiteral("65534:65534"), locks}) != 0)
            QSKIP("giving a directory to another user needs root");
        if (lockDir.startsWith(QLatin1String("FIFO ")))
            QCOMPARE(QProcess::execute(QStringLiteral("mkfifo"), {locks + QLatin1Char('/') + lockDir.mid(5) + QStringLiteral(".lock")}), 0);
    }
    HelperProcess holder = holdLocks(held);
    QVERIFY(holder);

    if (!lockDir.isEmpty())
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(brokenRuntime.path()));
    QElapsedTimer clock;
    clock.start();
    const int exitCode = install.run(args, 30000);
    qputenv("XDG_RUNTIME_DIR", runtimeDir.path().toUtf8());
    QCOMPARE(exitCode, 0);
    QVERIFY2(clock.elapsed() < 10000, QByteArray::number(clock.elapsed()).constData());

    // Refused before anything else: only the reason, if any, logged; the other side's mutexes
    // untouched.
    QCOMPARE(install.logTexts(), logged.replaceInStrings(QStringLiteral("<locks>"), locks));
    for (const QString& name : held)
        QVERIFY(isHeld(name));
    if (!held.contains(kUpdater))
        QVERIFY(!isHeld(kUpdater));
}

void TestEntryPoint::twoApplyRunsStartedTogether()
{
    // A prefetch keeps whichever run takes the updater lock waiting, so both runs overlap.
    for (int round = 0; round < 3; ++round) {
        TestInstall install;
        QVERIFY(install.isValid());
        HelperProcess prefetch = holdLocks({kPrefetch});
        QVERIFY(prefetch);

        UpdaterProcess first(install.start());
        UpdaterProcess second(install.start());
        QVERIFY(first->state() != QProcess::NotRunning && second->state() != QProcess::NotRunning);

        // One gives up at once; the other holds the updater lock and waits for the prefetch.
        QTRY_VERIFY_WITH_TIMEOUT(first->state() == QProcess::NotRunning || second->state() == QProcess::NotRunning,
                                 10000);
        QProcess& refused = first->state() == QProcess::NotRunning ? *first : *second;
        QProcess& proceeding = &refused == first.get() ? *second : *first;
        QVERIFY(finishedCleanly(refused, 1000));
        QTRY_COMPARE_WITH_TIMEOUT(install.logTexts(), QStringList{kPrefetchWait}, 10000);
        QVERIFY(isHeld(kUpdater));
        QVERIFY(proceeding.state() != QProcess::NotRunning);

        QVERIFY(killHelper(*prefetch));
        QVERIFY(finishedCleanly(proceeding, 10000));
        QCOMPARE(install.logTexts(), (QStringList{kPrefetchWait, kNoConfig}));
        QVERIFY(!isHeld(kUpdater));
    }
}

void TestEntryPoint::applyWaitsForRunningPrefetch_data()
{
    QTest::addColumn<bool>("kill");
    QTest::newRow("prefetch lets go") << false;
    QTest::newRow("prefetch killed") << true;
}

void TestEntryPoint::applyWaitsForRunningPrefetch()
{
    QFETCH(bool, kill);
    TestInstall install;
    QVERIFY(install.isValid());
    HelperProcess prefetch = holdLocks({kPrefetch});
    QVERIFY(prefetch);

    UpdaterProcess apply(install.start());
    QTRY_COMPARE_WITH_TIMEOUT(install.logTexts(), QStringList{kPrefetchWait}, 10000);
    // Still waiting a while later, with the updater lock already taken.
    QVERIFY(!apply->waitForFinished(1500));
    QVERIFY(isHeld(kUpdater));

    QElapsedTimer clock;
    clock.start();
    QVERIFY(kill ? killHelper(*prefetch) : releaseHelper(*prefetch));
    QVERIFY(finishedCleanly(*apply, 10000));
    QVERIFY2(clock.elapsed() < 5000, QByteArray::number(clock.elapsed()).constData());
    QCOMPARE(install.logTexts(), (QStringList{kPrefetchWait, kNoConfig}));
    QVERIFY(!isHeld(kUpdater));
}

void TestEntryPoint::waitPid_data()
{
    // LIVE is a process that runs until the test ends it, DEAD one that has already ended.
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<bool>("waits");
    QTest::newRow("running process") << QStringList{"--wait-pid", "LIVE"} << true;
    QTest::newRow("ended process") << QStringList{"--wait-pid", "DEAD"} << false;
    QTest::newRow("not a number") << QStringList{"--wait-pid", "abc"} << false;
    QTest::newRow("negative") << QStringList{"--wait-pid", "-5"} << false;
    QTest::newRow("zero") << QStringList{"--wait-pid", "0"} << false;
    QTest::newRow("value missing") << QStringList{"--wait-pid"} << false;
    QTest::newRow("later ended process wins") << QStringList{"--wait-pid", "LIVE", "--wait-pid", "DEAD"} << false;
    QTest::newRow("later running process wins") << QStringList{"--wait-pid", "DEAD", "--wait-pid", "LIVE"} << true;
    QTest::newRow("other letter case") << QStringList{"--Wait-Pid", "LIVE"} << false;
    QTest::newRow("single dash") << QStringList{"-wait-pid", "LIVE"} << false;
}

void TestEntryPoint::waitPid()
{
    QFETCH(QStringList, args);
    QFETCH(bool, waits);

    HelperProcess live = holdLocks({});
    QVERIFY(live);
    HelperProcess dead = holdLocks({});
    QVERIFY(dead);
    const QString deadPid = QString::number(dead->processId());
    QVERIFY(releaseHelper(*dead));
    args.replaceInStrings(QStringLiteral("LIVE"), QString::number(live->processId()));
    args.replaceInStrings(QStringLiteral("DEAD"), deadPid);

    TestInstall install;
    QVERIFY(install.isValid());
    UpdaterProcess apply(install.start(args));
    if (waits) {
        QVERIFY2(!apply->waitForFinished(2500), "the run did not wait for the process");
        QCOMPARE(install.logTexts(), QStringList());
        QVERIFY(releaseHelper(*live));
    }
    QVERIFY(finishedCleanly(*apply, 10000));
    QCOMPARE(live->state() != QProcess::NotRunning, !waits);
    QCOMPARE(install.logTexts(), QStringList{kNoConfig});
}

QTEST_GUILESS_MAIN(TestEntryPoint)
#include "tst_entry_point.moc"
