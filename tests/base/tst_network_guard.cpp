#include "base/network_guard.h"

#include <QNetworkAccessManager>
#include <QSignalSpy>
#include <QtTest>

// The accessibility API is deprecated in Qt 5.15; the guard drives it all the same.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED

namespace {

const QString kBearerWarning = QStringLiteral("[bearer] Qt bao NotAccessible -> ep lai Accessible");

QList<QPair<QtMsgType, QString>> captured;
void captureHandler(QtMsgType type, const QMessageLogContext&, const QString& text) { captured.append({type, text}); }

QList<QPair<QtMsgType, QString>> bearerWarnings(int count)
{
    QList<QPair<QtMsgType, QString>> expected;
    for (int i = 0; i < count; ++i)
        expected.append({QtWarningMsg, kBearerWarning});
    return expected;
}

// What Qt does when its bearer management decides the network is gone.
void reportNotAccessible(QNetworkAccessManager& manager)
{
    manager.setNetworkAccessible(QNetworkAccessManager::NotAccessible);
}

} // namespace

class TestNetworkGuard : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void nullManagerIsIgnored();
    void forcesAccessibleAtOnce();
    void reportsAreUndone_data();
    void reportsAreUndone();
    void installedOncePerManager();
    void otherValuesAreLeftAlone();

private:
    QtMessageHandler previousHandler = nullptr;
};

void TestNetworkGuard::initTestCase()
{
    qRegisterMetaType<QNetworkAccessManager::NetworkAccessibility>();
}

void TestNetworkGuard::init()
{
    captured.clear();
    previousHandler = qInstallMessageHandler(captureHandler);
}

void TestNetworkGuard::cleanup() { qInstallMessageHandler(previousHandler); }

void TestNetworkGuard::nullManagerIsIgnored()
{
    forceNetworkAccessible(nullptr);
    QVERIFY(captured.isEmpty());
}

void TestNetworkGuard::forcesAccessibleAtOnce()
{
    QNetworkAccessManager manager;
    manager.setNetworkAccessible(QNetworkAccessManager::NotAccessible);
    forceNetworkAccessible(&manager);
    QCOMPARE(manager.networkAccessible(), QNetworkAccessManager::Accessible);
    QCOMPARE(manager.property("cvBearerForced"), QVariant(true));
    // Forcing at install time is not a report from Qt: nothing is logged.
    QVERIFY(captured.isEmpty());
}

void TestNetworkGuard::reportsAreUndone_data()
{
    QTest::addColumn<int>("reports");
    QTest::newRow("once") << 1;
    QTest::newRow("three times") << 3;
}

void TestNetworkGuard::reportsAreUndone()
{
    QFETCH(int, reports);
    QNetworkAccessManager manager;
    forceNetworkAccessible(&manager);
    QSignalSpy changes(&manager, &QNetworkAccessManager::networkAccessibleChanged);

    for (int i = 0; i < reports; ++i) {
        reportNotAccessible(manager);
        QCOMPARE(manager.networkAccessible(), QNetworkAccessManager::Accessible);
    }
    QCOMPARE(captured, bearerWarnings(reports));
    // Each report is answered by exactly one change back to accessible, never by a loop (the
    // answer is emitted from inside the report, so the spy may see it first).
    QCOMPARE(changes.count(), 2 * reports);
    int notAccessible = 0;
    for (const QList<QVariant>& change : changes)
        notAccessible += change.at(0).value<QNetworkAccessManager::NetworkAccessibility>()
            == QNetworkAccessManager::NotAccessible;
    QCOMPARE(notAccessible, reports);
}

void TestNetworkGuard::installedOncePerManager()
{
    QNetworkAccessManager manager;
    forceNetworkAccessible(&manager);

    // A second install must neither force again nor connect again.
    manager.blockSignals(true);
    manager.setNetworkAccessible(QNetworkAccessManager::NotAccessible);
    manager.blockSignals(false);
    forceNetworkAccessible(&manager);
    QCOMPARE(manager.networkAccessible(), QNetworkAccessManager::NotAccessible);

    manager.setNetworkAccessible(QNetworkAccessManager::Accessible);
    reportNotAccessible(manager);
    QCOMPARE(captured, bearerWarnings(1));
    QCOMPARE(manager.networkAccessible(), QNetworkAccessManager::Accessible);

    // Each manager gets its own guard.
    QNetworkAccessManager other;
    forceNetworkAccessible(&other);
    reportNotAccessible(other);
    QCOMPARE(captured, bearerWarnings(2));
}

void TestNetworkGuard::otherValuesAreLeftAlone()
{
    QNetworkAccessManager manager;
    forceNetworkAccessible(&manager);
    emit manager.networkAccessibleChanged(QNetworkAccessManager::UnknownAccessibility);
    emit manager.networkAccessibleChanged(QNetworkAccessManager::Accessible);
    QVERIFY(captured.isEmpty());
}

QT_WARNING_POP

QTEST_GUILESS_MAIN(TestNetworkGuard)
#include "tst_network_guard.moc"
