// The parsing rules of the command line that no run of the updater (tests/blackbox) tells apart.
#include "app/launch_options.h"

#include <QtTest>

#include <vector>

class TestLaunchOptions : public QObject {
    Q_OBJECT
private slots:
    void parse_data();
    void parse();
};

void TestLaunchOptions::parse_data()
{
    QTest::addColumn<QString>("args");    // separated by blanks
    QTest::addColumn<QString>("options");  // "waitPid proactive prefetchOnly modeTag"
    QTest::newRow("none") << "" << "0 0 0 apply";
    QTest::newRow("a pid") << "--wait-pid 123" << "123 0 0 apply";
    QTest::newRow("a pid beyond 32 bits") << "--wait-pid 9999999999" << "9999999999 0 0 apply";
    QTest::newRow("a negative pid") << "--wait-pid -5" << "-5 0 0 apply";
    QTest::newRow("trailing letters") << "--wait-pid 12abc" << "0 0 0 apply";
    QTest::newRow("the value is the next argument, whatever it is") << "--wait-pid --proactive" << "0 0 0 apply";
    QTest::newRow("no value after it") << "--proactive --wait-pid" << "0 1 0 apply";
    QTest::newRow("the last one wins, even malformed") << "--wait-pid 1 --wait-pid x" << "0 0 0 apply";
    QTest::newRow("prefetch") << "--prefetch-only" << "0 0 1 prefetch";
    QTest::newRow("all of them, repeated") << "--proactive --prefetch-only --wait-pid 77 --proactive --prefetch-only"
                                           << "77 1 1 prefetch";
    QTest::newRow("unknown arguments around an option") << "foo --proactive bar" << "0 1 0 apply";
}

void TestLaunchOptions::parse()
{
    QFETCH(QString, args);
    QFETCH(QString, options);
    // argv[0] is the program, never an option, whatever it is called.
    QList<QByteArray> strings{"--prefetch-only"};
    for (const QString& arg : args.split(' ', Qt::SkipEmptyParts))
        strings << arg.toLocal8Bit();
    std::vector<char*> argv;
    for (QByteArray& string : strings)
        argv.push_back(string.data());
    argv.push_back(nullptr);
    const LaunchOptions parsed = parseLaunchOptions(int(argv.size()) - 1, argv.data());
    QCOMPARE(QStringLiteral("%1 %2 %3 %4").arg(parsed.waitPid).arg(parsed.proactive).arg(parsed.prefetchOnly)
                 .arg(modeTag(parsed)), options);
}

QTEST_GUILESS_MAIN(TestLaunchOptions)
#include "tst_launch_options.moc"
