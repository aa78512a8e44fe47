#include "app/launch_options.h"

#include <QtTest>

#include <vector>

Q_DECLARE_METATYPE(QList<QByteArray>)

class TestLaunchOptions : public QObject {
    Q_OBJECT
private slots:
    void parse_data();
    void parse();
};

void TestLaunchOptions::parse_data()
{
    QTest::addColumn<QList<QByteArray>>("args");
    QTest::addColumn<qint64>("waitPid");
    QTest::addColumn<bool>("proactive");
    QTest::addColumn<bool>("prefetchOnly");
    QTest::addColumn<QString>("tag");

    using Args = QList<QByteArray>;
    QTest::newRow("no arguments") << Args{} << qint64(0) << false << false << "apply";
    QTest::newRow("wait-pid with a number") << Args{"--wait-pid", "123"} << qint64(123) << false << false << "apply";
    QTest::newRow("wait-pid beyond 32 bits") << Args{"--wait-pid", "9999999999"} << qint64(9999999999LL) << false
                                             << false << "apply";
    QTest::newRow("wait-pid negative") << Args{"--wait-pid", "-5"} << qint64(-5) << false << false << "apply";
    QTest::newRow("wait-pid not a number") << Args{"--wait-pid", "abc"} << qint64(0) << false << false << "apply";
    QTest::newRow("wait-pid with trailing letters") << Args{"--wait-pid", "12abc"} << qint64(0) << false << false
                                                    << "apply";
    QTest::newRow("wait-pid in hexadecimal") << Args{"--wait-pid", "0x1F"} << qint64(0) << false << false << "apply";
    QTest::newRow("wait-pid as the last argument") << Args{"--proactive", "--wait-pid"} << qint64(0) << true << false
                                                   << "apply";
    QTest::newRow("wait-pid consumes the next option")
        << Args{"--wait-pid", "--proactive"} << qint64(0) << false << false << "apply";
    QTest::newRow("last wait-pid wins") << Args{"--wait-pid", "123", "--wait-pid", "456"} << qint64(456) << false
                                        << false << "apply";
    QTest::newRow("last wait-pid wins even malformed")
        << Args{"--wait-pid", "123", "--wait-pid", "x"} << qint64(0) << false << false << "apply";
    QTest::newRow("wait-pid with equals sign") << Args{"--wait-pid=5"} << qint64(0) << false << false << "apply";
    QTest::newRow("proactive") << Args{"--proactive"} << qint64(0) << true << false << "apply";
    QTest::newRow("prefetch-only") << Args{"--prefetch-only"} << qint64(0) << false << true << "prefetch";
    QTest::newRow("prefetch-only with proactive and a pid")
        << Args{"--proactive", "--prefetch-only", "--wait-pid", "77"} << qint64(77) << true << true << "prefetch";
    QTest::newRow("options repeated") << Args{"--proactive", "--proactive", "--prefetch-only", "--prefetch-only"}
                                      << qint64(0) << true << true << "prefetch";
    QTest::newRow("other letter case is ignored")
        << Args{"--Proactive", "--PREFETCH-ONLY", "--Wait-Pid", "5"} << qint64(0) << false << false << "apply";
    QTest::newRow("single leading dash is ignored")
        << Args{"-proactive", "-prefetch-only", "-wait-pid", "5"} << qint64(0) << false << false << "apply";
    QTest::newRow("trailing blank is ignored") << Args{"--proactive ", " --prefetch-only"} << qint64(0) << false
                                               << false << "apply";
    QTest::newRow("unknown arguments around an option")
        << Args{"foo", "--proactive", "", "bar"} << qint64(0) << true << false << "apply";
    QTest::newRow("value taken even when it looks like text")
        << Args{"--wait-pid", "--prefetch-only", "--prefetch-only"} << qint64(0) << false << true << "prefetch";
}

void TestLaunchOptions::parse()
{
    QFETCH(QList<QByteArray>, args);
    QFETCH(qint64, waitPid);
    QFETCH(bool, proactive);
    QFETCH(bool, prefetchOnly);
    QFETCH(QString, tag);

    // argv[0] is the program, never an option, whatever it is called.
    QByteArray program("--prefetch-only");
    std::vector<char*> argv{program.data()};
    for (QByteArray& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    const LaunchOptions options = parseLaunchOptions(int(argv.size()) - 1, argv.data());
    QCOMPARE(options.waitPid, waitPid);
    QCOMPARE(options.proactive, proactive);
    QCOMPARE(options.prefetchOnly, prefetchOnly);
    QCOMPARE(modeTag(options), tag);
}

QTEST_GUILESS_MAIN(TestLaunchOptions)
#include "tst_launch_options.moc"
