#include "platform/process_handle.h"
#include "support/helper_process.h"

#include <QElapsedTimer>
#include <QThread>
#include <QtTest>

using corv::platform::openProcess;
using corv::platform::ProcessHandle;
using corv::platform::waitForProcessEnd;

class TestProcessHandle : public QObject {
    Q_OBJECT
private slots:
    void waitForLiveProcess_data();
    void waitForLiveProcess();
    void cannotOpen_data();
    void cannotOpen();
    void moveKeepsTheHandle();
};

void TestProcessHandle::waitForLiveProcess_data()
{
    QTest::addColumn<QString>("end");  // how the process ends while the test waits
    QTest::addColumn<int>("timeoutMs");
    QTest::addColumn<bool>("expectEnded");
    QTest::addColumn<int>("minElapsedMs");
    QTest::addColumn<int>("maxElapsedMs");
    QTest::newRow("exits during the wait") << "exit" << 15000 << true << 300 << 5000;
    QTest::newRow("killed during the wait") << "kill" << 15000 << true << 300 << 5000;
    QTest::newRow("outlives the wait") << "never" << 500 << false << 500 << 5000;
    QTest::newRow("zero time-out only polls") << "never" << 0 << false << 0 << 500;
}

void TestProcessHandle::waitForLiveProcess()
{
    QFETCH(QString, end);
    QFETCH(int, timeoutMs);
    QFETCH(bool, expectEnded);
    QFETCH(int, minElapsedMs);
    QFETCH(int, maxElapsedMs);

    QStringList options;
    if (end == QLatin1String("exit"))
        options = QStringList{QStringLiteral("--release-after"), QStringLiteral("600")};
    auto child = holdLocks({}, options);
    QVERIFY(child);
    ProcessHandle process = openProcess(child->processId());
    QVERIFY(!process.isNull());

    bool ended = !expectEnded;
    QElapsedTimer clock;
    clock.start();
    std::unique_ptr<QThread> waiter(QThread::create([&] { ended = waitForProcessEnd(process, timeoutMs); }));
    waiter->start();
    if (end == QLatin1String("kill")) {
        QThread::msleep(600);
        child->kill();
    }
    QVERIFY(waiter->wait(20000));
    const qint64 elapsed = clock.elapsed();

    QCOMPARE(ended, expectEnded);
    QVERIFY2(elapsed >= minElapsedMs && elapsed <= maxElapsedMs, QByteArray::number(elapsed).constData());
    if (!expectEnded) {
        QVERIFY(killHelper(*child));
        QVERIFY(waitForProcessEnd(process, 5000));
    }
    // Once ended, it stays ended.
    QVERIFY(waitForProcessEnd(process, 0));
    child->waitForFinished(5000);
}

void TestProcessHandle::cannotOpen_data()
{
    QTest::addColumn<QString>("which");
    QTest::newRow("ended process") << "ended";
    QTest::newRow("zero") << "zero";
    QTest::newRow("negative") << "negative";
}

void TestProcessHandle::cannotOpen()
{
    QFETCH(QString, which);
    qint64 pid = 0;
    if (which == QLatin1String("ended")) {
        auto child = holdLocks({});
        QVERIFY(child);
        pid = child->processId();
        QVERIFY(releaseHelper(*child));
    } else if (which == QLatin1String("negative")) {
        pid = -5;
    }
    ProcessHandle process = openProcess(pid);
    QVERIFY(process.isNull());
    // Nothing to wait for: a null handle never reports an ended process.
    QVERIFY(!waitForProcessEnd(process, 0));
}

void TestProcessHandle::moveKeepsTheHandle()
{
    auto child = holdLocks({});
    QVERIFY(child);
    ProcessHandle first = openProcess(child->processId());
    QVERIFY(!first.isNull());

    ProcessHandle second(std::move(first));
    QVERIFY(first.isNull());
    first.close();  // closing the emptied source leaves the moved handle alone
    QVERIFY(!waitForProcessEnd(second, 0));

    ProcessHandle third;
    third = std::move(second);
    QVERIFY(second.isNull());
    QCOMPARE(third.pid(), child->processId());
    QVERIFY(killHelper(*child));
    QVERIFY(waitForProcessEnd(third, 5000));
}

QTEST_GUILESS_MAIN(TestProcessHandle)
#include "tst_process_handle.moc"
