// The guard that keeps a network access manager believing the network is reachable. Qt never
// reports the network gone in the updater's own runs here, so the reports are made by hand.
#include "base/network_guard.h"

#include <QNetworkAccessManager>
#include <QtTest>

// The accessibility API is deprecated in Qt 5.15; the guard drives it all the same.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED

namespace {
QStringList warnings;
void captureHandler(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    warnings << QString::number(type) + ' ' + text;
}
} // namespace

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
    warnings.clear();
    const QtMessageHandler previous = qInstallMessageHandler(captureHandler);
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
        } else if (manager.networkAccessible() != value) {
            qInstallMessageHandler(previous);
            QFAIL(qPrintable(step + " after " + steps));
        }
    }
    qInstallMessageHandler(previous);
    QStringList expected;
    for (int i = 0; i < lines; ++i)
        expected << QString::number(QtWarningMsg) + " [bearer] Qt bao NotAccessible -> ep lai Accessible";
    QCOMPARE(warnings, expected);
}

QT_WARNING_POP

QTEST_GUILESS_MAIN(TestNetworkGuard)
#include "tst_network_guard.moc"
