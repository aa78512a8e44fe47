#include "platform/named_mutex.h"
#include "support/helper_process.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

using corv::platform::createNamedMutex;
using corv::platform::NamedMutex;
using corv::platform::openNamedMutex;
using corv::platform::waitForNamedMutex;

namespace {
bool existsNow(const std::string& name)
{
    NamedMutex probe = openNamedMutex(name);
    return !probe.isNull();
}
} // namespace

class TestNamedMutex : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();

    void createOpenRelease();
    void secondCreateInSameProcessFindsIt();
    void otherProcessHolds_data();
    void otherProcessHolds();
    void waitEndsWithHolder_data();
    void waitEndsWithHolder();
    void openNeverTakesTheLock();
    void closedHandleIsNotInheritedByChildren();
    void moveKeepsOneOwner();
    void nullHandles();

private:
    QTemporaryDir runtimeDir;
};

void TestNamedMutex::initTestCase()
{
    QVERIFY(runtimeDir.isValid());
    qputenv("XDG_RUNTIME_DIR", runtimeDir.path().toUtf8());
}

void TestNamedMutex::createOpenRelease()
{
    const std::string name = "Corvanta_Test_Basic";
    QVERIFY(!existsNow(name));

    bool existed = true;
    NamedMutex mutex = createNamedMutex(name, &existed);
    QVERIFY(!mutex.isNull());
    QVERIFY(!existed);
    QVERIFY(existsNow(name));

    mutex.releaseAndClose();
    QVERIFY(mutex.isNull());
    QVERIFY(!existsNow(name));

    // Free again: the next creator owns it.
    NamedMutex again = createNamedMutex(name, &existed);
    QVERIFY(!again.isNull());
    QVERIFY(!existed);
}

void TestNamedMutex::secondCreateInSameProcessFindsIt()
{
    const std::string name = "Corvanta_Test_Twice";
    bool existed = true;
    NamedMutex first = createNamedMutex(name, &existed);
    QVERIFY(!first.isNull());
    QVERIFY(!existed);

    NamedMutex second = createNamedMutex(name, &existed);
    QVERIFY(existed);
    second.close();
    // Closing the handle that did not own it leaves the owner's lock in place.
    QVERIFY(existsNow(name));
}

void TestNamedMutex::otherProcessHolds_data()
{
    QTest::addColumn<bool>("kill");
    QTest::newRow("holder releases") << false;
    QTest::newRow("holder killed") << true;
}

void TestNamedMutex::otherProcessHolds()
{
    QFETCH(bool, kill);
    const std::string name = kill ? "Corvanta_Test_Killed" : "Corvanta_Test_Released";
    auto holder = holdLocks({QString::fromStdString(name)});
    QVERIFY(holder);

    QVERIFY(existsNow(name));
    bool existed = false;
    NamedMutex refused = createNamedMutex(name, &existed);
    QVERIFY(existed);
    refused.close();
    // A second holder process is refused as well.
    QByteArray line;
    auto second = startHelper(QStringLiteral("lock_holder"), {QString::fromStdString(name)}, &line);
    QVERIFY(second);
    QCOMPARE(line, QByteArray("busy"));

    QVERIFY(kill ? killHelper(*holder) : releaseHelper(*holder));
    QVERIFY(!existsNow(name));
    NamedMutex mine = createNamedMutex(name, &existed);
    QVERIFY(!mine.isNull());
    QVERIFY(!existed);
}

void TestNamedMutex::waitEndsWithHolder_data()
{
    QTest::addColumn<QString>("holderEnd");  // what ends the holder while the test waits
    QTest::addColumn<int>("timeoutMs");
    QTest::addColumn<bool>("expectFree");
    QTest::addColumn<int>("minElapsedMs");
    QTest::addColumn<int>("maxElapsedMs");
    QTest::newRow("released during the wait") << "release" << 15000 << true << 300 << 5000;
    QTest::newRow("killed during the wait") << "kill" << 15000 << true << 300 << 5000;
    QTest::newRow("exits without releasing") << "exit" << 15000 << true << 300 << 5000;
    QTest::newRow("outlasts the wait") << "never" << 600 << false << 600 << 5000;
    QTest::newRow("zero time-out only polls") << "never" << 0 << false << 0 << 500;
}

void TestNamedMutex::waitEndsWithHolder()
{
    QFETCH(QString, holderEnd);
    QFETCH(int, timeoutMs);
    QFETCH(bool, expectFree);
    QFETCH(int, minElapsedMs);
    QFETCH(int, maxElapsedMs);
    const std::string name = "Corvanta_Test_Wait_" + holderEnd.toStdString() + std::to_string(timeoutMs);
    const QString qname = QString::fromStdString(name);

    QStringList options;
    if (holderEnd == QLatin1String("release"))
        options = QStringList{QStringLiteral("--release-after"), QStringLiteral("600")};
    else if (holderEnd == QLatin1String("exit"))
        options = QStringList{QStringLiteral("--exit-after"), QStringLiteral("600")};
    auto holder = holdLocks({qname}, options);
    QVERIFY(holder);

    NamedMutex opened = openNamedMutex(name);
    QVERIFY(!opened.isNull());

    bool free = !expectFree;
    QElapsedTimer clock;
    clock.start();
    std::unique_ptr<QThread> waiter(QThread::create([&] { free = waitForNamedMutex(opened, timeoutMs); }));
    waiter->start();
    if (holderEnd == QLatin1String("kill")) {
        QThread::msleep(600);
        holder->kill();
    }
    QVERIFY(waiter->wait(20000));
    const qint64 elapsed = clock.elapsed();

    QCOMPARE(free, expectFree);
    QVERIFY2(elapsed >= minElapsedMs && elapsed <= maxElapsedMs, QByteArray::number(elapsed).constData());
    QCOMPARE(existsNow(name), !expectFree);
    holder->kill();
    holder->waitForFinished(5000);
}

void TestNamedMutex::openNeverTakesTheLock()
{
    const QString name = QStringLiteral("Corvanta_Test_OpenOnly");
    auto first = holdLocks({name});
    QVERIFY(first);
    NamedMutex opened = openNamedMutex(name.toStdString());
    QVERIFY(!opened.isNull());
    QVERIFY(releaseHelper(*first));

    // The opened handle is still there, and yet another process can take the mutex.
    auto second = holdLocks({name});
    QVERIFY2(second, "an existence test must not hold the mutex");
    QVERIFY(releaseHelper(*second));

    // Testing a free mutex leaves it free.
    QVERIFY(openNamedMutex(name.toStdString()).isNull());
    auto third = holdLocks({name});
    QVERIFY(third);
}

void TestNamedMutex::closedHandleIsNotInheritedByChildren()
{
    const std::string name = "Corvanta_Test_Inherit";
    bool existed = true;
    NamedMutex mutex = createNamedMutex(name, &existed);
    QVERIFY(!mutex.isNull());

    // A child started while the mutex is held must not keep it alive after we let go.
    auto child = holdLocks({});
    QVERIFY(child);
    mutex.close();
    QVERIFY(!existsNow(name));
    QVERIFY(releaseHelper(*child));
}

void TestNamedMutex::moveKeepsOneOwner()
{
    const std::string a = "Corvanta_Test_MoveA";
    const std::string b = "Corvanta_Test_MoveB";
    bool existed = true;
    NamedMutex holderA = createNamedMutex(a, &existed);
    NamedMutex holderB = createNamedMutex(b, &existed);
    QVERIFY(!holderA.isNull() && !holderB.isNull());

    NamedMutex moved(std::move(holderA));
    QVERIFY(holderA.isNull());
    holderA.close();  // closing the emptied source must not touch the moved lock
    QVERIFY(existsNow(a));

    // Assigning over a held mutex gives up the old one.
    moved = std::move(holderB);
    QVERIFY(!existsNow(a));
    QVERIFY(existsNow(b));
    moved.releaseAndClose();
    QVERIFY(!existsNow(b));
}

void TestNamedMutex::nullHandles()
{
    NamedMutex none;
    QVERIFY(none.isNull());
    QVERIFY(!waitForNamedMutex(none, 0));
    none.close();
    none.releaseAndClose();
    QVERIFY(openNamedMutex("Corvanta_Test_NeverCreated").isNull());
}

QTEST_GUILESS_MAIN(TestNamedMutex)
#include "tst_named_mutex.moc"
