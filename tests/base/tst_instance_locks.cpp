#include "base/instance_locks.h"
#include "support/helper_process.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <functional>

using corv::platform::NamedMutex;

namespace {

const QString kWaitLine = QStringLiteral("[Update] dang co luot tai san chay -> cho no dung, toi da 15 giay");

QMutex capturedMutex;
QList<QPair<QtMsgType, QString>> captured;
void captureHandler(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    QMutexLocker locker(&capturedMutex);
    captured.append({type, text});
}

// Runs `call` on a thread of its own (the calls block), optionally doing `meanwhile` on this
// thread `meanwhileAfterMs` after the start; returns the call's own duration.
qint64 timedCall(const std::function<void()>& call, int meanwhileAfterMs = -1,
                 const std::function<void()>& meanwhile = {})
{
    qint64 elapsed = -1;
    std::unique_ptr<QThread> thread(QThread::create([&] {
        QElapsedTimer clock;
        clock.start();
        call();
        elapsed = clock.elapsed();
    }));
    thread->start();
    if (meanwhile) {
        QThread::msleep(meanwhileAfterMs);
        meanwhile();
    }
    thread->wait();
    return elapsed;
}

} // namespace

class TestInstanceLocks : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void prefetchLockName();
    void prefetchLockTakenOnce();
    void prefetchLockHeldElsewhere();
    void waitForRunningPrefetch_data();
    void waitForRunningPrefetch();
    void waitForProcessToEnd_data();
    void waitForProcessToEnd();

private:
    QTemporaryDir runtimeDir;
    QtMessageHandler previousHandler = nullptr;
};

void TestInstanceLocks::initTestCase()
{
    QVERIFY(runtimeDir.isValid());
    qputenv("XDG_RUNTIME_DIR", runtimeDir.path().toUtf8());
}

void TestInstanceLocks::init()
{
    captured.clear();
    previousHandler = qInstallMessageHandler(captureHandler);
}

void TestInstanceLocks::cleanup() { qInstallMessageHandler(previousHandler); }

void TestInstanceLocks::prefetchLockName()
{
    QCOMPARE(::prefetchLockName(), QStringLiteral("Corvanta_UpdatePrefetch_Pendrovia"));
}

void TestInstanceLocks::prefetchLockTakenOnce()
{
    NamedMutex lock;
    QVERIFY(tryAcquirePrefetchLock(lock));
    const std::intptr_t handle = lock.nativeHandle();
    QVERIFY(tryAcquirePrefetchLock(lock));
    QCOMPARE(lock.nativeHandle(), handle);

    QByteArray line;
    auto other = startHelper(QStringLiteral("lock_holder"), {QStringLiteral("Corvanta_UpdatePrefetch_Pendrovia")}, &line);
    QVERIFY(other);
    QCOMPARE(line, QByteArray("busy"));

    lock.releaseAndClose();
    auto next = holdLocks({QStringLiteral("Corvanta_UpdatePrefetch_Pendrovia")});
    QVERIFY(next);
    QVERIFY(captured.isEmpty());
}

void TestInstanceLocks::prefetchLockHeldElsewhere()
{
    auto other = holdLocks({QStringLiteral("Corvanta_UpdatePrefetch_Pendrovia")});
    QVERIFY(other);
    NamedMutex lock;
    QVERIFY(!tryAcquirePrefetchLock(lock));
    QVERIFY(lock.isNull());
    QVERIFY(!tryAcquirePrefetchLock(lock));

    QVERIFY(releaseHelper(*other));
    QVERIFY(tryAcquirePrefetchLock(lock));
    QVERIFY(!lock.isNull());
}

void TestInstanceLocks::waitForRunningPrefetch_data()
{
    QTest::addColumn<QString>("prefetch");
    QTest::addColumn<bool>("announced");
    QTest::addColumn<int>("minElapsedMs");
    QTest::addColumn<int>("maxElapsedMs");
    QTest::newRow("no prefetch running") << "none" << false << 0 << 1000;
    QTest::newRow("another mutex held") << "other" << false << 0 << 1000;
    QTest::newRow("prefetch lets go after 1 s") << "release" << true << 900 << 10000;
    QTest::newRow("prefetch ends without letting go") << "exit" << true << 900 << 10000;
    QTest::newRow("prefetch killed after 1 s") << "kill" << true << 900 << 10000;
    QTest::newRow("prefetch outlasts the wait") << "hold" << true << 14900 << 18000;
}

void TestInstanceLocks::waitForRunningPrefetch()
{
    QFETCH(QString, prefetch);
    QFETCH(bool, announced);
    QFETCH(int, minElapsedMs);
    QFETCH(int, maxElapsedMs);

    HelperProcess holder;
    if (prefetch == QLatin1String("other")) {
        holder = holdLocks({QStringLiteral("Corvanta_UpdatePrefetch_Other")});
    } else if (prefetch != QLatin1String("none")) {
        QStringList options;
        if (prefetch == QLatin1String("release"))
            options = QStringList{QStringLiteral("--release-after"), QStringLiteral("1000")};
        else if (prefetch == QLatin1String("exit"))
            options = QStringList{QStringLiteral("--exit-after"), QStringLiteral("1000")};
        holder = holdLocks({QStringLiteral("Corvanta_UpdatePrefetch_Pendrovia")}, options);
    }
    QVERIFY(prefetch == QLatin1String("none") || holder);

    std::function<void()> meanwhile;
    if (prefetch == QLatin1String("kill"))
        meanwhile = [&] { holder->kill(); };
    const qint64 elapsed = timedCall(::waitForRunningPrefetch, 1000, meanwhile);
    QVERIFY2(elapsed >= minElapsedMs && elapsed <= maxElapsedMs, QByteArray::number(elapsed).constData());

    QList<QPair<QtMsgType, QString>> expected;
    if (announced)
        expected.append({QtInfoMsg, kWaitLine});
    QCOMPARE(captured, expected);
    if (holder) {
        holder->kill();
        holder->waitForFinished(5000);
    }
}

void TestInstanceLocks::waitForProcessToEnd_data()
{
    QTest::addColumn<QString>("process");
    QTest::addColumn<int>("minElapsedMs");
    QTest::addColumn<int>("maxElapsedMs");
    QTest::newRow("ends after 1 s") << "ends" << 900 << 10000;
    QTest::newRow("killed after 1 s") << "kill" << 900 << 10000;
    QTest::newRow("already ended") << "ended" << 0 << 1000;
    QTest::newRow("zero") << "zero" << 0 << 1000;
    QTest::newRow("negative") << "negative" << 0 << 1000;
    QTest::newRow("outlives the wait") << "lives" << 19900 << 23000;
}

void TestInstanceLocks::waitForProcessToEnd()
{
    QFETCH(QString, process);
    QFETCH(int, minElapsedMs);
    QFETCH(int, maxElapsedMs);

    HelperProcess child;
    qint64 pid = 0;
    if (process == QLatin1String("negative")) {
        pid = -5;
    } else if (process != QLatin1String("zero")) {
        const QStringList options = process == QLatin1String("ends")
            ? QStringList{QStringLiteral("--release-after"), QStringLiteral("1000")}
            : QStringList{};
        child = holdLocks({}, options);
        QVERIFY(child);
        pid = child->processId();
        if (process == QLatin1String("ended"))
            QVERIFY(releaseHelper(*child));
    }

    std::function<void()> meanwhile;
    if (process == QLatin1String("kill"))
        meanwhile = [&] { child->kill(); };
    const qint64 elapsed = timedCall([pid] { ::waitForProcessToEnd(pid); }, 1000, meanwhile);
    QVERIFY2(elapsed >= minElapsedMs && elapsed <= maxElapsedMs, QByteArray::number(elapsed).constData());
    QVERIFY(captured.isEmpty());
    if (child) {
        child->kill();
        child->waitForFinished(5000);
    }
}

QTEST_GUILESS_MAIN(TestInstanceLocks)
#include "tst_instance_locks.moc"
