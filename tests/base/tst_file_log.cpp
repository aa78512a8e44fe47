// updater.log: line format, size cap, handler chain. The updater's own runs show the lines of
// real runs (tests/blackbox); these rows show what those runs never reach.
#include "base/file_log.h"
#include "base/installation_dir.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <ctime>

namespace {

const QString kCapNotice = "... (log updater cham tran, ngung ghi)";
const QRegularExpression kStamp("(^|\n)(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}) \\[");

// Stands in for the handler installed before the file log (Qt's default one in the updater).
int forwarded = 0;
void countingHandler(QtMsgType, const QMessageLogContext&, const QString&) { ++forwarded; }

// What the log holds after `filler`, timestamps replaced by "<ts>" once checked to be local
// time within [from, to].
QString logged(const QString& path, const QByteArray& filler, const QDateTime& from, const QDateTime& to)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return "<no file>";
    const QByteArray bytes = file.readAll();
    if (!bytes.startsWith(filler))
        return "<earlier runs changed>";
    QString text = QString::fromUtf8(bytes.mid(filler.size()));
    for (auto it = kStamp.globalMatch(text); it.hasNext();) {
        const QDateTime stamp = QDateTime::fromString(it.next().captured(2), "yyyy-MM-dd HH:mm:ss.zzz");
        if (stamp < from.addMSecs(-1) || stamp > to.addMSecs(1))
            return "<wrong time " + stamp.toString(Qt::ISODateWithMs) + ">";
    }
    return text.replace(kStamp, "\\1<ts> [");
}

} // namespace

class TestFileLog : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void run_data();
    void run();
};

void TestFileLog::initTestCase()
{
    // A zone away from UTC, so that a timestamp in UTC would show.
    qputenv("TZ", "ICT-7");
    tzset();
}

void TestFileLog::run_data()
{
    QTest::addColumn<int>("existing");      // bytes of updater.log before the run; -1: a directory there
    QTest::addColumn<QString>("steps");     // "install TAG", "shutdown", "LEVEL:text", "disk N" (the first
                                            // N expected lines are on disk already), separated by "|"
    QTest::addColumn<QStringList>("lines"); // what the file holds after the existing bytes
    QTest::addColumn<int>("reached");       // messages that went on to the previous handler

    QTest::newRow("levels, tags, handler restored")
        << 0 << "install apply|I:[Update] một|disk 1|W:w|D:d|C:c|F:f|?:other|shutdown|install prefetch|"
                "I:[UpdatePrefetch] x|shutdown|I:after"
        << QStringList{"<ts> [I] [apply] [Update] một", "<ts> [W] [apply] w", "<ts> [D] [apply] d", "<ts> [C] [apply] c",
                       "<ts> [F] [apply] f", "<ts> [I] [apply] other", "<ts> [I] [prefetch] [UpdatePrefetch] x"}
        << 8;
    QTest::newRow("one byte under the cap") << 262143 << "install apply|I:a|disk 1|I:b|disk 2|I:c|shutdown"
                                            << QStringList{"<ts> [I] [apply] a", kCapNotice} << 3;
    QTest::newRow("at the cap, two runs") << 262144 << "install apply|I:a|shutdown|install prefetch|I:b|W:c|shutdown"
                                          << QStringList{kCapNotice, kCapNotice} << 3;
    QTest::newRow("updater.log cannot be opened") << -1 << "shutdown|I:a|install apply|I:b|shutdown|I:c"
                                                  << QStringList{} << 3;
}

void TestFileLog::run()
{
    QFETCH(int, existing);
    QFETCH(QString, steps);
    QFETCH(QStringList, lines);
    QFETCH(int, reached);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    setInstallationDirForTesting(dir.path());
    const QString path = dir.filePath("updater.log");
    const QByteArray filler = existing > 0 ? QByteArray(existing - 1, 'x') + '\n' : QByteArray();
    QFile file(path);
    QVERIFY(existing < 0 ? QDir().mkdir(path) : file.open(QIODevice::WriteOnly) && file.write(filler) == existing);
    file.close();
    forwarded = 0;
    const QtMessageHandler testHandler = qInstallMessageHandler(countingHandler);
    const QDateTime from = QDateTime::currentDateTime();
    const auto expected = [&](int count) { return lines.mid(0, count).join('\n') + (count > 0 ? "\n" : ""); };

    for (const QString& step : steps.split('|')) {
        const QString text = step.mid(2);
        if (step.startsWith("install "))
            installFileLog(step.mid(8));
        else if (step == "shutdown")
            shutdownFileLog();
        else if (step.startsWith("disk "))
            QCOMPARE(logged(path, filler, from, QDateTime::currentDateTime()), expected(step.mid(5).toInt()));
        else if (QString("DWCI").contains(step[0]))  // through whatever handler is installed
            qt_message_output(QtMsgType(QString("DWC?I").indexOf(step[0])), QMessageLogContext(), text);
        else  // fatal and unknown types are handed over directly: a fatal message would end the test
            fileLogHandler(step[0] == 'F' ? QtFatalMsg : QtMsgType(42), QMessageLogContext(), text);
    }
    const QDateTime to = QDateTime::currentDateTime();
    shutdownFileLog();
    qInstallMessageHandler(testHandler);
    setInstallationDirForTesting(QString());
    QCOMPARE(logged(path, filler, from, to), existing < 0 ? "<no file>" : expected(lines.size()));
    QCOMPARE(forwarded, reached);
}

QTEST_GUILESS_MAIN(TestFileLog)
#include "tst_file_log.moc"
