// The guard that keeps a network access manager believing the network is reachable. Qt never
// reports the network gone in the updater's own runs here, so the reports are made by hand.
#include "base/network_guard.h"
#include "support/log_capture.h"

#include <QNetworkAccessManager>
#include <QtTest>

// The accessibility API is deprecated in Qt 5.15; the guard drives it all the same.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED

class TestNetworkGuard : public QObject {
    Q_OBJECT
private slots:
    void guard_data();
    void guard();
};

void TestNetworkGuard::guard_data()
{
    QTest::addColumn<QString>("steps");  // "install", "install null", "report" (Qt says not accessible),
                                         // "quietly off" (no signal), "emit N", "is N"; separated by "|"
    QTest::addColumn<int>("lines");      // warning lines written
    QTest::newRow("null manager") << "install null" << 0;
    QTest::newRow("forced at install, without a line") << "quietly off|install|is 1" << 0;
    QTest::newRow("three reports undone") << "install|report|is 1|report|report|is 1" << 3;
    QTest::newRow("installed once per manager") << "install|quietly off|install|is 0|emit 0|is 1" << 1;
    QTest::newRow("other values left alone") << "install|emit -1|emit 1|quietly off|emit -1|is 0" << 0;
}

void TestNetworkGuard::guard()
{
    QFETCH(QString, steps);
    QFETCH(int, lines);
    QNetworkAccessManager manager;
    LogCapture capture;
    for (const QString& step : steps.split('|')) {
        const auto value = QNetworkAccessManager::NetworkAccessibility(step.section(' ', 1).toInt());
        if (step == "install" || step == "install null") {
            forceNetworkAccessible(step == "install" ? &manager : nullptr);
        } else if (step == "report") {
            manager.setNetworkAccessible(QNetworkAccessManager::NotAccessible);
        } else if (step == "quietly off") {
            manager.blockSignals(true);
            manager.setNetworkAccessible(QNetworkAccessManager::NotAccessible);
            manager.blockSignals(false);
        } else if (step.startsWith("emit ")) {
            emit manager.networkAccessibleChanged(value);
        } else {
            QVERIFY2(manager.networkAccessible() == value, qPrintable(step + " after " + steps));
        }
    }
    QCOMPARE(capture.lines(),
             QStringList(QVector<QString>(lines, "W [bearer] Qt bao NotAccessible -> ep lai Accessible").toList()));
}

QT_WARNING_POP

QTEST_GUILESS_MAIN(TestNetworkGuard)
#include "tst_network_guard.moc"
