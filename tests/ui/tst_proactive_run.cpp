// The real updater on a virtual X display (Xvfb, xcb platform). With "--proactive" an apply run
// ends with exactly one box for its outcome, with the right kind, title and text; the status
// window appears centred while the session works and is gone before the box; the updater lock
// is already free while the box is up; Ok ends the process with exit code 0. The refusals show
// their boxes, and without "--proactive" no box ever appears.
//
// Needs the Debian packages xvfb, xdotool and x11-utils (xev, xprop); skipped without them.
#include "support/helper_process.h"
#include "support/test_install.h"
#include "support/test_server.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

const QString kTitle = QString::fromUtf8("Corvanta \u2014 C\u1eadp nh\u1eadt");
const QString kNoConfigLine = QStringLiteral("[Update] khong co updater.conf -> bo qua update");
const QSize kScreenSize(1024, 768);
const QSize kSplashSize(360, 90);

QString noConfigText()
{
    return QString::fromUtf8("Bản này chưa cấu hình kênh cập nhật.\n\n"
                             "Mở lại Corvanta để tiếp tục dùng bản hiện tại.");
}

BuildFiles oldBuild()
{
    return {{QStringLiteral("a.txt"), "alpha 1"}, {QStringLiteral("data/b.bin"), "bravo"}};
}

BuildFiles newBuild()
{
    return {{QStringLiteral("a.txt"), "alpha 2"},
            {QStringLiteral("data/b.bin"), "bravo"},
            {QStringLiteral("c.txt"), "charlie"}};
}

// Runs a short command-line tool and returns its standard output; *exitCode gets -1 when it
// did not finish normally within 20 s.
QByteArray runTool(const QString& program, const QStringList& args, const QProcessEnvironment& env,
                   int* exitCode = nullptr)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, args);
    const bool finished = process.waitForFinished(20000);
    if (exitCode)
        *exitCode = finished && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    if (!finished)
        process.kill();
    return process.readAllStandardOutput();
}

// One map or unmap of a top-level window, with the window's geometry at that moment.
struct Mapping {
    bool mapped = false;
    QString window;
    QRect geometry;
};

// Watches the root window's children through xev, so that even a window that appears only
// for a moment is seen.
class MapRecorder {
public:
    explicit MapRecorder(const QProcessEnvironment& env) : env(env)
    {
        xev.setProcessEnvironment(env);
        startXev();
    }
    ~MapRecorder()
    {
        xev.kill();
        xev.waitForFinished(5000);
    }

    // Touches a root property and waits until xev reports it: every window event the server
    // delivered before that point has then been printed. The property is touched again now and
    // then, in case xev had not selected its events yet.
    bool sync()
    {
        const QString marker = QStringLiteral("CORV_SYNC_%1").arg(++syncCount);
        const QByteArray seenMarker = '(' + marker.toLatin1() + ')';
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < 20000) {
            int code = 0;
            runTool(QStringLiteral("xprop"),
                    {QStringLiteral("-root"), QStringLiteral("-f"), marker, QStringLiteral("8s"),
                     QStringLiteral("-set"), marker, QStringLiteral("1")},
                    env, &code);
            if (code != 0) {
                qWarning("xprop failed with %d", code);
                return false;
            }
            // A busy machine has seen xev fail to connect now and then: start it again.
            if (xev.state() == QProcess::NotRunning && output.isEmpty() && xevStarts < 3)
                startXev();
            QElapsedTimer round;
            round.start();
            while (round.elapsed() < 1000) {
                xev.waitForReadyRead(50);
                output += xev.readAllStandardOutput();
                if (output.contains(seenMarker))
                    return true;
            }
        }
        qWarning("xev (%s) never reported %s; its error output: %s",
                 xev.state() == QProcess::Running ? "running" : "not running", seenMarker.constData(),
                 xev.readAllStandardError().constData());
        return false;
    }

    // Maps and unmaps seen so far (call sync() first), real ones only: the synthetic unmap
    // that withdraws a window repeats a real one.
    QList<Mapping> mappings() const
    {
        QList<Mapping> result;
        QMap<QString, QRect> geometry;
        static const QRegularExpression placed(
            QStringLiteral("window (0x[0-9a-f]+), \\((-?\\d+),(-?\\d+)\\), width (\\d+), height (\\d+)"));
        static const QRegularExpression mapped(QStringLiteral("event 0x[0-9a-f]+, window (0x[0-9a-f]+)"));
        for (const QString& block : QString::fromUtf8(output).split(QStringLiteral("\n\n"))) {
            const QString event = block.trimmed().section(QLatin1Char(' '), 0, 0);
            if (block.contains(QStringLiteral("synthetic YES")))
                continue;
            if (event == QLatin1String("CreateNotify") || event == QLatin1String("ConfigureNotify")) {
                const auto m = placed.match(block);
                if (m.hasMatch())
                    geometry[m.captured(1)] = QRect(m.captured(2).toInt(), m.captured(3).toInt(),
                                                    m.captured(4).toInt(), m.captured(5).toInt());
            } else if (event == QLatin1String("MapNotify") || event == QLatin1String("UnmapNotify")) {
                const auto m = mapped.match(block);
                if (m.hasMatch())
                    result.append({event == QLatin1String("MapNotify"), m.captured(1),
                                   geometry.value(m.captured(1))});
            }
        }
        return result;
    }

    QString describe() const
    {
        QStringList lines;
        for (const Mapping& m : mappings())
            lines << QStringLiteral("%1 %2 %3,%4 %5x%6")
                         .arg(m.mapped ? QStringLiteral("map") : QStringLiteral("unmap"), m.window)
                         .arg(m.geometry.x())
                         .arg(m.geometry.y())
                         .arg(m.geometry.width())
                         .arg(m.geometry.height());
        return lines.join(QStringLiteral("; "));
    }

private:
    void startXev()
    {
        ++xevStarts;
        xev.start(QStringLiteral("xev"), {QStringLiteral("-root"), QStringLiteral("-event"),
                                          QStringLiteral("substructure"), QStringLiteral("-event"),
                                          QStringLiteral("property")});
        xev.waitForStarted(10000);
    }

    QProcessEnvironment env;
    int xevStarts = 0;
    QProcess xev;
    QByteArray output;
    int syncCount = 0;
};

QPoint centredSplashPos()
{
    return {(kScreenSize.width() - 1) / 2 - (kSplashSize.width() - 1) / 2,
            (kScreenSize.height() - 1) / 2 - (kSplashSize.height() - 1) / 2};
}

} // namespace

class TestProactiveRun : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void outcomeBox_data();
    void outcomeBox();
    void refusalBox_data();
    void refusalBox();
    void withoutProactiveNoBox_data();
    void withoutProactiveNoBox();

private:
    QProcessEnvironment xEnvironment() const;
    bool prepare(const QString& scenario, TestInstall& install);
    QStringList visibleWindows(qint64 pid) const;
    QString windowName(const QString& window) const;
    QString waitForBox(qint64 pid, QString* seen) const;
    bool pressReturn(const QString& window) const;

    QTemporaryDir runtimeDir;
    QTemporaryDir serverRoot;
    std::unique_ptr<TestServer> server;
    QProcess xvfb;
    QString display;
};

void TestProactiveRun::initTestCase()
{
    QVERIFY(runtimeDir.isValid());
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));

    const struct {
        const char* tool;
        const char* package;
    } tools[] = {{"Xvfb", "xvfb"}, {"xdotool", "xdotool"}, {"xev", "x11-utils"}, {"xprop", "x11-utils"}};
    for (const auto& t : tools) {
        if (QStandardPaths::findExecutable(QString::fromLatin1(t.tool)).isEmpty())
            QSKIP(qPrintable(QStringLiteral("%1 is not installed (Debian package %2)")
                                 .arg(QLatin1String(t.tool), QLatin1String(t.package))));
    }
    QVERIFY(QFileInfo(QCoreApplication::applicationDirPath() + QStringLiteral("/x11_probe")).isExecutable());

    // The server picks a free display number and writes it to standard output.
    xvfb.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    xvfb.start(QStringLiteral("Xvfb"),
               {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-nolisten"),
                QStringLiteral("tcp"), QStringLiteral("-screen"), QStringLiteral("0"),
                QStringLiteral("%1x%2x24").arg(kScreenSize.width()).arg(kScreenSize.height())});
    QVERIFY(xvfb.waitForStarted(10000));
    QElapsedTimer clock;
    clock.start();
    while (!xvfb.canReadLine() && clock.elapsed() < 20000)
        xvfb.waitForReadyRead(200);
    const QByteArray number = xvfb.readLine().trimmed();
    QVERIFY2(!number.isEmpty(), "Xvfb did not report its display number");
    display = QLatin1Char(':') + QString::fromLatin1(number);

    server = std::make_unique<TestServer>(serverRoot.path());
    QVERIFY(server->start());
}

void TestProactiveRun::cleanupTestCase()
{
    server.reset();
    if (xvfb.state() != QProcess::NotRunning) {
        xvfb.terminate();
        if (!xvfb.waitForFinished(5000))
            xvfb.kill();
    }
}

QProcessEnvironment TestProactiveRun::xEnvironment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), display);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    return env;
}

// Sets up the installation (and the published build) for one outcome of the session.
bool TestProactiveRun::prepare(const QString& scenario, TestInstall& install)
{
    const QString subdir = scenario;
    const QString manifestUrl = server->url(subdir + QStringLiteral("/manifest.json"));
    const QString baseUrl = server->url(subdir + QLatin1Char('/'));
    const QByteArray oldManifest = makeManifestJson(QStringLiteral("5.0.152.0"), 152, oldBuild());
    const QByteArray newManifest = makeManifestJson(QStringLiteral("5.0.153.0"), 153, newBuild());

    if (scenario == QLatin1String("noConfig"))
        return install.installBuild(oldBuild(), oldManifest);
    if (scenario == QLatin1String("manifestUnreachable")) {
        // A port that was free a moment ago: the connection is refused at once.
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost))
            return false;
        const quint16 port = probe.serverPort();
        probe.close();
        return install.installBuild(oldBuild(), oldManifest)
            && install.writeConfig(QStringLiteral("http://127.0.0.1:%1/manifest.json").arg(port),
                                   QStringLiteral("http://127.0.0.1:%1/").arg(port));
    }
    if (scenario == QLatin1String("upToDate"))
        return publishBuild(serverRoot.path(), subdir, newBuild(), newManifest)
            && install.installBuild(newBuild(), newManifest) && install.writeConfig(manifestUrl, baseUrl);
    if (scenario == QLatin1String("updated"))
        return publishBuild(serverRoot.path(), subdir, newBuild(), newManifest)
            && install.installBuild(oldBuild(), oldManifest) && install.writeConfig(manifestUrl, baseUrl);
    if (scenario == QLatin1String("downloadFails"))
        // The manifest lists c.txt, but the server has lost it: 404, nothing is applied.
        return publishBuild(serverRoot.path(), subdir, newBuild(), newManifest)
            && QFile::remove(serverRoot.path() + QLatin1Char('/') + subdir + QStringLiteral("/c.txt"))
            && install.installBuild(oldBuild(), oldManifest) && install.writeConfig(manifestUrl, baseUrl);
    return false;
}

QStringList TestProactiveRun::visibleWindows(qint64 pid) const
{
    const QByteArray out = runTool(QStringLiteral("xdotool"),
                                   {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                                    QStringLiteral("--pid"), QString::number(pid)},
                                   xEnvironment());
    return QString::fromLatin1(out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QString TestProactiveRun::windowName(const QString& window) const
{
    const QByteArray out =
        runTool(QStringLiteral("xdotool"), {QStringLiteral("getwindowname"), window}, xEnvironment());
    return QString::fromUtf8(out).chopped(out.endsWith('\n') ? 1 : 0);
}

// The visible window of process pid that carries the boxes' title; empty after 20 s.
// *seen collects the names of the visible windows met meanwhile, for the failure message.
QString TestProactiveRun::waitForBox(qint64 pid, QString* seen) const
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 20000) {
        for (const QString& window : visibleWindows(pid)) {
            const QString name = windowName(window);
            if (name == kTitle)
                return window;
            if (!seen->contains(name))
                *seen += QLatin1Char('[') + name + QLatin1Char(']');
        }
        QTest::qWait(100);
    }
    return QString();
}

// Gives the window the keyboard focus and presses Return, which presses its Ok button.
bool TestProactiveRun::pressReturn(const QString& window) const
{
    int focus = 0;
    int key = 0;
    runTool(QStringLiteral("xdotool"), {QStringLiteral("windowfocus"), QStringLiteral("--sync"), window},
            xEnvironment(), &focus);
    runTool(QStringLiteral("xdotool"), {QStringLiteral("key"), QStringLiteral("Return")}, xEnvironment(), &key);
    return focus == 0 && key == 0;
}

void TestProactiveRun::outcomeBox_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("splashShown");

    QTest::newRow("0 NoConfig") << "noConfig" << "warning" << noConfigText() << false;
    QTest::newRow("1 ManifestRejected")
        << "manifestUnreachable" << "warning"
        << QString::fromUtf8("Không tải được thông tin cập nhật.\nKiểm tra kết nối mạng rồi thử lại.\n\n"
                             "Mở lại Corvanta để tiếp tục dùng bản hiện tại.")
        << true;
    QTest::newRow("2 UpToDate")
        << "upToDate" << "information"
        << QString::fromUtf8("Bạn đang dùng phiên bản mới nhất — không có gì để cập nhật.\n\n"
                             "Bạn có thể mở lại Corvanta để tiếp tục sử dụng.")
        << true;
    QTest::newRow("3 Updated")
        << "updated" << "information"
        << QString::fromUtf8("Cập nhật thành công!\n\nBạn có thể mở lại Corvanta để tiếp tục sử dụng.") << true;
    QTest::newRow("4 Failed")
        << "downloadFails" << "warning"
        << QString::fromUtf8("Cập nhật thất bại — đã khôi phục bản cũ.\n\n"
                             "Mở lại Corvanta để tiếp tục dùng bản hiện tại, hoặc thử cập nhật lại sau.")
        << true;
}

void TestProactiveRun::outcomeBox()
{
    QFETCH(QString, scenario);
    QFETCH(QString, kind);
    QFETCH(QString, text);
    QFETCH(bool, splashShown);

    TestInstall install;
    QVERIFY(install.isValid());
    QVERIFY(prepare(scenario, install));

    MapRecorder recorder(xEnvironment());
    QVERIFY(recorder.sync());
    HelperProcess updater(install.start({QStringLiteral("--proactive")}, xEnvironment()));
    QVERIFY(updater->waitForStarted(10000));

    QString seen;
    const QString box = waitForBox(updater->processId(), &seen);
    QVERIFY2(!box.isEmpty(), qPrintable(QStringLiteral("no box; windows seen: ") + seen));
    QCOMPARE(updater->state(), QProcess::Running);

    // What reached the screen up to now: the status window (if any) came and went, centred and
    // at its fixed size, before the box was mapped.
    QVERIFY(recorder.sync());
    const QList<Mapping> mappings = recorder.mappings();
    const QString history = recorder.describe();
    QVERIFY2(!mappings.isEmpty() && mappings.last().mapped, qPrintable(history));
    QCOMPARE(mappings.last().window.toULongLong(nullptr, 0), box.toULongLong());
    if (splashShown) {
        QVERIFY2(mappings.size() == 3, qPrintable(history));
        const Mapping& shown = mappings.at(0);
        const Mapping& hidden = mappings.at(1);
        QVERIFY2(shown.mapped && !hidden.mapped && hidden.window == shown.window, qPrintable(history));
        QCOMPARE(shown.geometry, QRect(centredSplashPos(), kSplashSize));
    } else {
        QVERIFY2(mappings.size() == 1, qPrintable(history));
    }
    QCOMPARE(visibleWindows(updater->processId()), QStringList{box});

    // Kind, text and the single Ok button, compared pixel for pixel with a box of that kind
    // drawn by another process on the same display.
    const QString diffFile = QDir::temp().filePath(QStringLiteral("corv-box-%1.png").arg(scenario));
    int compared = -1;
    runTool(QCoreApplication::applicationDirPath() + QStringLiteral("/x11_probe"),
            {QStringLiteral("compare-box"), box, kind, kTitle, text, diffFile}, xEnvironment(), &compared);
    QVERIFY2(compared == 0, qPrintable(QStringLiteral("the box does not look as expected, see ") + diffFile));

    // The updater lock is already free: a second apply run in the same lock namespace goes
    // ahead (and, without configuration, says so in its log) instead of refusing silently.
    TestInstall second;
    QVERIFY(second.isValid());
    QCOMPARE(second.run({}, 30000), 0);
    QCOMPARE(second.logTexts().filter(kNoConfigLine).size(), 1);

    QCOMPARE(updater->state(), QProcess::Running);  // the box still waits for the user
    QVERIFY(pressReturn(box));
    QVERIFY(updater->waitForFinished(15000));
    QCOMPARE(updater->exitStatus(), QProcess::NormalExit);
    QCOMPARE(updater->exitCode(), 0);

    if (scenario == QLatin1String("noConfig"))
        QVERIFY(install.logTexts().contains(kNoConfigLine));
    if (scenario == QLatin1String("updated"))
        QCOMPARE(install.readFile(QStringLiteral("c.txt")), QByteArray("charlie"));
}

void TestProactiveRun::refusalBox_data()
{
    QTest::addColumn<QString>("heldLock");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("text");

    QTest::newRow("application still running")
        << "Corvanta_MainApp_Running" << "warning"
        << QString::fromUtf8("Không cập nhật được vì vẫn còn cửa sổ Corvanta đang mở.\n\n"
                             "Đóng hết Corvanta rồi thử cập nhật lại.");
    QTest::newRow("another updater running")
        << "Corvanta_Updater" << "information"
        << QString::fromUtf8("Một tiến trình cập nhật khác đang chạy.\n\nĐợi nó xong rồi mở lại Corvanta.");
}

void TestProactiveRun::refusalBox()
{
    QFETCH(QString, heldLock);
    QFETCH(QString, kind);
    QFETCH(QString, text);

    const auto holder = holdLocks({heldLock});
    QVERIFY2(holder, "lock_holder could not take the lock");

    TestInstall install;
    QVERIFY(install.isValid());
    QVERIFY(prepare(QStringLiteral("updated"), install));

    MapRecorder recorder(xEnvironment());
    QVERIFY(recorder.sync());
    HelperProcess updater(install.start({QStringLiteral("--proactive")}, xEnvironment()));
    QVERIFY(updater->waitForStarted(10000));

    QString seen;
    const QString box = waitForBox(updater->processId(), &seen);
    QVERIFY2(!box.isEmpty(), qPrintable(QStringLiteral("no box; windows seen: ") + seen));
    QVERIFY(recorder.sync());
    QVERIFY2(recorder.mappings().size() == 1, qPrintable(recorder.describe()));  // no status window

    int compared = -1;
    const QString diffFile = QDir::temp().filePath(QStringLiteral("corv-box-%1.png").arg(heldLock));
    runTool(QCoreApplication::applicationDirPath() + QStringLiteral("/x11_probe"),
            {QStringLiteral("compare-box"), box, kind, kTitle, text, diffFile}, xEnvironment(), &compared);
    QVERIFY2(compared == 0, qPrintable(QStringLiteral("the box does not look as expected, see ") + diffFile));

    if (heldLock == QLatin1String("Corvanta_MainApp_Running")) {
        // Refused before taking the updater lock: another process can take it now.
        const auto probe = holdLocks({QStringLiteral("Corvanta_Updater")});
        QVERIFY2(probe, "the refused run holds the updater lock");
        QVERIFY(releaseHelper(*probe));
    }

    QVERIFY(pressReturn(box));
    QVERIFY(updater->waitForFinished(15000));
    QCOMPARE(updater->exitStatus(), QProcess::NormalExit);
    QCOMPARE(updater->exitCode(), 0);
    // Nothing was touched: the session never ran.
    QCOMPARE(install.readFile(QStringLiteral("a.txt")), QByteArray("alpha 1"));
    QVERIFY(!install.exists(QStringLiteral("c.txt")));
    QVERIFY(releaseHelper(*holder));
}

void TestProactiveRun::withoutProactiveNoBox_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<QString>("heldLock");
    QTest::addColumn<bool>("splashShown");

    QTest::newRow("no config") << "noConfig" << QString() << false;
    QTest::newRow("manifest unreachable") << "manifestUnreachable" << QString() << true;
    QTest::newRow("updated") << "updated" << QString() << true;
    QTest::newRow("application still running") << "updated" << "Corvanta_MainApp_Running" << false;
    QTest::newRow("another updater running") << "updated" << "Corvanta_Updater" << false;
}

void TestProactiveRun::withoutProactiveNoBox()
{
    QFETCH(QString, scenario);
    QFETCH(QString, heldLock);
    QFETCH(bool, splashShown);

    HelperProcess holder;
    if (!heldLock.isEmpty()) {
        holder = holdLocks({heldLock});
        QVERIFY(holder);
    }
    TestInstall install;
    QVERIFY(install.isValid());
    QVERIFY(prepare(scenario, install));

    MapRecorder recorder(xEnvironment());
    QVERIFY(recorder.sync());
    // The run ends by itself: a box would keep it waiting for Ok until the time-out.
    QCOMPARE(install.run({}, 30000, xEnvironment()), 0);
    QVERIFY(recorder.sync());

    const QList<Mapping> mappings = recorder.mappings();
    const QString history = recorder.describe();
    if (splashShown) {
        // Only the status window, shown once and hidden again.
        QVERIFY2(mappings.size() == 2, qPrintable(history));
        QVERIFY2(mappings.at(0).mapped && !mappings.at(1).mapped, qPrintable(history));
        QCOMPARE(mappings.at(0).geometry, QRect(centredSplashPos(), kSplashSize));
    } else {
        QVERIFY2(mappings.isEmpty(), qPrintable(history));
    }
    if (scenario == QLatin1String("updated") && heldLock.isEmpty())
        QCOMPARE(install.readFile(QStringLiteral("c.txt")), QByteArray("charlie"));
    if (holder)
        QVERIFY(releaseHelper(*holder));
}

QTEST_GUILESS_MAIN(TestProactiveRun)
#include "tst_proactive_run.moc"
