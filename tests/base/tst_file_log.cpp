#include "base/file_log.h"
#include "base/installation_dir.h"

#include "support/test_files.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMutex>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <ctime>
#include <memory>
#include <vector>

namespace {

const QByteArray kCapNotice("... (log updater cham tran, ngung ghi)\n");

// Stands in for whatever handler was installed before the file log (Qt's default one in the
// updater): records what reaches it.
QMutex recordedMutex;
QStringList recorded;
void recordingHandler(QtMsgType, const QMessageLogContext&, const QString& text)
{
    QMutexLocker locker(&recordedMutex);
    recorded << text;
}

QtMessageHandler currentHandler()
{
    QtMessageHandler current = qInstallMessageHandler(nullptr);
    qInstallMessageHandler(current);
    return current;
}

// Splits a log line into timestamp, level and tag, and checks the fixed punctuation.
const QRegularExpression kLinePattern(
    QStringLiteral("^(\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}) \\[(.)\\] \\[([a-z]+)\\] (.*)$"),
    QRegularExpression::DotMatchesEverythingOption);

} // namespace

class TestFileLog : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void lineFormat_data();
    void lineFormat();
    void textKeptAsGiven_data();
    void textKeptAsGiven();
    void appendsToEarlierRuns();
    void eachLineReachesDiskAtOnce();
    void sizeCap_data();
    void sizeCap();
    void oneCapNoticePerRun();
    void chainsAndRestoresPreviousHandler();
    void secondInstallChangesNothing();
    void unopenableFileKeepsDefaultOutput();
    void shutdownWithoutInstall();
    void threadsNeverInterleave();

private:
    QString logPath() const { return dir->filePath(QStringLiteral("updater.log")); }
    std::unique_ptr<QTemporaryDir> dir;
    QtMessageHandler testLibHandler = nullptr;
};

void TestFileLog::initTestCase()
{
    // A zone away from UTC, so that a timestamp in UTC would show.
    qputenv("TZ", "ICT-7");
    tzset();
}

void TestFileLog::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
    setInstallationDirForTesting(dir->path());
    recorded.clear();
    testLibHandler = qInstallMessageHandler(recordingHandler);
}

void TestFileLog::cleanup()
{
    shutdownFileLog();
    qInstallMessageHandler(testLibHandler);
    setInstallationDirForTesting(QString());
}

void TestFileLog::lineFormat_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("tag");
    QTest::addColumn<QString>("letter");
    QTest::newRow("info, apply") << int(QtInfoMsg) << "apply" << "I";
    QTest::newRow("debug, apply") << int(QtDebugMsg) << "apply" << "D";
    QTest::newRow("warning, prefetch") << int(QtWarningMsg) << "prefetch" << "W";
    QTest::newRow("critical, prefetch") << int(QtCriticalMsg) << "prefetch" << "C";
    QTest::newRow("fatal") << int(QtFatalMsg) << "apply" << "F";
    QTest::newRow("unknown type") << 42 << "apply" << "I";
}

void TestFileLog::lineFormat()
{
    QFETCH(int, type);
    QFETCH(QString, tag);
    QFETCH(QString, letter);

    installFileLog(tag);
    const QDateTime before = QDateTime::currentDateTime();
    const QString text = QStringLiteral("[Update] dong thu %1").arg(type);
    switch (type) {
    case QtInfoMsg:
        qInfo().noquote() << text;
        break;
    case QtDebugMsg:
        qDebug().noquote() << text;
        break;
    case QtWarningMsg:
        qWarning().noquote() << text;
        break;
    case QtCriticalMsg:
        qCritical().noquote() << text;
        break;
    default:
        // Fatal and unknown types are handed over directly: qFatal would end the test.
        fileLogHandler(QtMsgType(type), QMessageLogContext(), text);
    }
    const QDateTime after = QDateTime::currentDateTime();
    shutdownFileLog();

    const QByteArray bytes = readFile(logPath());
    QVERIFY(bytes.endsWith('\n'));
    QVERIFY(!bytes.contains('\r'));
    QCOMPARE(bytes.count('\n'), 1);
    const QRegularExpressionMatch match = kLinePattern.match(QString::fromUtf8(bytes.chopped(1)));
    QVERIFY2(match.hasMatch(), bytes.constData());
    QCOMPARE(match.captured(2), letter);
    QCOMPARE(match.captured(3), tag);
    QCOMPARE(match.captured(4), text);

    // Local time, to the millisecond.
    const QDateTime stamp = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
    QVERIFY(stamp.isValid());
    QVERIFY2(stamp >= before.addMSecs(-1) && stamp <= after.addMSecs(1), bytes.constData());

    // The previous handler saw the same message.
    QCOMPARE(recorded, QStringList{text});
}

void TestFileLog::textKeptAsGiven_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("vietnamese with diacritics") << QString::fromUtf8("Đang tải bản cập nhật… xong");
    QTest::newRow("line break inside") << QStringLiteral("dong mot\ndong hai");
    QTest::newRow("empty") << QString();
    QTest::newRow("quotes and brackets") << QStringLiteral("[Update] \"a\" ] [W] x");
}

void TestFileLog::textKeptAsGiven()
{
    QFETCH(QString, text);
    installFileLog(QStringLiteral("apply"));
    qInfo().noquote() << text;
    shutdownFileLog();

    const QByteArray bytes = readFile(logPath());
    // The text follows "] [apply] " as UTF-8, and exactly one LF ends the line.
    QVERIFY2(bytes.endsWith("] [apply] " + text.toUtf8() + '\n'), bytes.constData());
    QCOMPARE(bytes.count('\n'), text.count(QLatin1Char('\n')) + 1);
}

void TestFileLog::appendsToEarlierRuns()
{
    const QByteArray earlier("2020-01-01 00:00:00.000 [I] [prefetch] luot truoc\n");
    QVERIFY(writeFile(logPath(), earlier));

    installFileLog(QStringLiteral("apply"));
    qInfo() << "[Update] luot nay";
    shutdownFileLog();
    installFileLog(QStringLiteral("prefetch"));
    qWarning() << "[UpdatePrefetch] luot sau";
    shutdownFileLog();

    const QByteArray bytes = readFile(logPath());
    QVERIFY(bytes.startsWith(earlier));
    const QList<QByteArray> lines = bytes.mid(earlier.size()).split('\n');
    QCOMPARE(lines.size(), 3);
    QVERIFY(lines[0].endsWith(" [I] [apply] [Update] luot nay"));
    QVERIFY(lines[1].endsWith(" [W] [prefetch] [UpdatePrefetch] luot sau"));
    QVERIFY(lines[2].isEmpty());
}

void TestFileLog::eachLineReachesDiskAtOnce()
{
    installFileLog(QStringLiteral("apply"));
    qInfo() << "[Update] mot";
    // Read by another handle while the log is still open, as after a crash.
    QVERIFY(readFile(logPath()).endsWith("] [apply] [Update] mot\n"));
    qInfo() << "[Update] hai";
    QVERIFY(readFile(logPath()).endsWith("] [apply] [Update] hai\n"));
}

void TestFileLog::sizeCap_data()
{
    QTest::addColumn<int>("initialSize");
    QTest::addColumn<int>("messages");
    QTest::addColumn<int>("fullLines");  // lines written before the notice
    QTest::addColumn<bool>("notice");
    QTest::newRow("empty file") << 0 << 3 << 3 << false;
    QTest::newRow("one byte under the cap") << 262143 << 3 << 1 << true;
    QTest::newRow("exactly at the cap") << 262144 << 3 << 0 << true;
    QTest::newRow("far over the cap") << 400000 << 3 << 0 << true;
}

void TestFileLog::sizeCap()
{
    QFETCH(int, initialSize);
    QFETCH(int, messages);
    QFETCH(int, fullLines);
    QFETCH(bool, notice);

    const QByteArray filler = initialSize > 0 ? QByteArray(initialSize - 1, 'x') + '\n' : QByteArray();
    QVERIFY(writeFile(logPath(), filler));

    installFileLog(QStringLiteral("apply"));
    for (int i = 0; i < messages; ++i)
        qInfo() << "[Update] dong" << i;
    shutdownFileLog();

    const QByteArray bytes = readFile(logPath());
    QVERIFY(bytes.startsWith(filler));
    QByteArray rest = bytes.mid(filler.size());
    if (notice) {
        QVERIFY2(rest.endsWith(kCapNotice), rest.constData());
        rest.chop(kCapNotice.size());
    }
    const QList<QByteArray> lines = rest.split('\n');
    QCOMPARE(lines.size(), fullLines + 1);
    for (int i = 0; i < fullLines; ++i)
        QVERIFY2(lines[i].endsWith("] [apply] [Update] dong " + QByteArray::number(i)), lines[i].constData());
    // Capped or not, every message still went on to the previous handler.
    QCOMPARE(recorded.size(), messages);
}

void TestFileLog::oneCapNoticePerRun()
{
    const QByteArray filler(262144, 'x');
    QVERIFY(writeFile(logPath(), filler));
    for (int run = 0; run < 2; ++run) {
        installFileLog(run == 0 ? QStringLiteral("apply") : QStringLiteral("prefetch"));
        qInfo() << "[Update] a";
        qWarning() << "[Update] b";
        shutdownFileLog();
    }
    QCOMPARE(readFile(logPath()), filler + kCapNotice + kCapNotice);
}

void TestFileLog::chainsAndRestoresPreviousHandler()
{
    installFileLog(QStringLiteral("apply"));
    QVERIFY(currentHandler() == &fileLogHandler);
    qInfo() << "[Update] trong";
    shutdownFileLog();
    QVERIFY(currentHandler() == &recordingHandler);

    qInfo() << "[Update] sau";
    QCOMPARE(recorded, (QStringList{QStringLiteral("[Update] trong"), QStringLiteral("[Update] sau")}));
    QVERIFY(!readFile(logPath()).contains("sau"));
}

void TestFileLog::secondInstallChangesNothing()
{
    installFileLog(QStringLiteral("apply"));
    QTemporaryDir other;
    setInstallationDirForTesting(other.path());
    installFileLog(QStringLiteral("prefetch"));
    qInfo() << "[Update] x";
    shutdownFileLog();

    QVERIFY(readFile(logPath()).endsWith(" [I] [apply] [Update] x\n"));
    QVERIFY(!QFile::exists(QDir(other.path()).filePath(QStringLiteral("updater.log"))));
    // One shutdown undid the one install.
    QVERIFY(currentHandler() == &recordingHandler);
}

void TestFileLog::unopenableFileKeepsDefaultOutput()
{
    QVERIFY(QDir(dir->path()).mkdir(QStringLiteral("updater.log")));
    installFileLog(QStringLiteral("apply"));
    QVERIFY(currentHandler() == &recordingHandler);
    qInfo() << "[Update] van chay";
    QCOMPARE(recorded, QStringList{QStringLiteral("[Update] van chay")});
    shutdownFileLog();
    QVERIFY(currentHandler() == &recordingHandler);

    // The failure leaves nothing behind: a later install in a usable place works.
    QTemporaryDir usable;
    setInstallationDirForTesting(usable.path());
    installFileLog(QStringLiteral("prefetch"));
    qInfo() << "[Update] lan sau";
    shutdownFileLog();
    QVERIFY(readFile(QDir(usable.path()).filePath(QStringLiteral("updater.log")))
                .endsWith(" [I] [prefetch] [Update] lan sau\n"));
}

void TestFileLog::shutdownWithoutInstall()
{
    shutdownFileLog();
    QVERIFY(currentHandler() == &recordingHandler);
    QVERIFY(!QFile::exists(logPath()));
}

void TestFileLog::threadsNeverInterleave()
{
    constexpr int kThreads = 4;
    constexpr int kPerThread = 300;
    installFileLog(QStringLiteral("apply"));
    std::vector<std::unique_ptr<QThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back(QThread::create([t] {
            for (int i = 0; i < kPerThread; ++i)
                qInfo().noquote() << QStringLiteral("[Update] luong %1 dong %2 %3").arg(t).arg(i).arg(QString(40, 'z'));
        }));
        threads.back()->start();
    }
    for (auto& thread : threads)
        QVERIFY(thread->wait(30000));
    shutdownFileLog();

    QList<QByteArray> lines = readFile(logPath()).split('\n');
    QVERIFY(lines.takeLast().isEmpty());
    QCOMPARE(lines.size(), kThreads * kPerThread);
    QSet<QString> seen;
    for (const QByteArray& line : lines) {
        const QRegularExpressionMatch match = kLinePattern.match(QString::fromUtf8(line));
        QVERIFY2(match.hasMatch(), line.constData());
        seen.insert(match.captured(4));
    }
    QCOMPARE(seen.size(), kThreads * kPerThread);
}

QTEST_GUILESS_MAIN(TestFileLog)
#include "tst_file_log.moc"
