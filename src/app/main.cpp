#include "base/file_log.h"
#include "app/launch_options.h"
#include "app/outcome_message.h"
#include "base/instance_locks.h"
#include "base/network_guard.h"
#include "prefetch/update_prefetcher.h"
#include "session/apply_session.h"
#include "ui/update_splash.h"

#include <QApplication>
#include <QFileInfo>

#include <utility>

namespace {

// Downloads the next build in the background; no window, no message box.
int runPrefetchMode(const LaunchOptions& options)
{
    // An apply run is in progress: leave the installation to it. The prefetcher looks again
    // once it holds its own lock (UpdatePrefetcher::start).
    if (testNamedMutex(QLatin1String(kUpdaterMutexName), "[UpdatePrefetch]") != LockTest::Absent)
        return 0;

    corv::UpdatePrefetcher prefetcher;
    QObject::connect(&prefetcher, &corv::UpdatePrefetcher::finished, qApp, &QCoreApplication::quit);
    if (options.waitPid > 0)
        prefetcher.watchProcess(options.waitPid);
    if (!prefetcher.start())
        return 0;
    return QApplication::exec();
}

// Brings the installation up to date now, synchronously: the session's network waits are
// nested event loops, so the main event loop is never entered.
int runApplyMode(const LaunchOptions& options)
{
    if (options.waitPid > 0)
        waitForProcessToEnd(options.waitPid);

    // A lock that cannot be trusted refuses the run with its log line and no box: it is
    // neither the application nor another updater.
    const LockTest application = testNamedMutex(QLatin1String(kMainAppMutexName), "[Update]");
    if (application != LockTest::Absent) {
        if (application == LockTest::Exists && options.proactive)
            showAppStillRunningMessage();
        return 0;
    }

    bool alreadyExisted = false;
    corv::platform::MutexFault fault;
    corv::platform::NamedMutex updaterLock =
        corv::platform::createNamedMutex(kUpdaterMutexName, &alreadyExisted, &fault);
    if (updaterLock.isNull() || alreadyExisted) {
        updaterLock.close();
        if (!logLockFault(fault, "[Update]") && options.proactive)
            showAnotherUpdaterMessage();
        return 0;
    }

    if (!waitForRunningPrefetch()) {
        updaterLock.releaseAndClose();
        return 0;
    }

    UpdateOutcome outcome = Failed;
    {
        const QString selfFileName = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
        corv::UpdateSplash splash;  // hidden until the first status text
        {
            UpdateSession session;
            session.appDir = QCoreApplication::applicationDirPath();
            session.selfFileName = selfFileName;
            std::function<void(const QString&)> onStatus = [window = &splash](const QString& text) {
                window->showStatus(text);
            };
            session.onStatus = std::move(onStatus);
            forceNetworkAccessible(&session.network);

            outcome = runUpdateSession(session);
            splash.hide();
        }  // the session goes first (network manager, callback, strings), then the window
    }

    // Released before the closing box, so the application or a new update may start meanwhile.
    updaterLock.releaseAndClose();
    if (options.proactive)
        showOutcomeMessage(outcome);
    return 0;
}

// Closes the log on every way out of main, before the application object goes.
struct FileLogCloser {
    FileLogCloser() = default;
    FileLogCloser(const FileLogCloser&) = delete;
    FileLogCloser& operator=(const FileLogCloser&) = delete;
    ~FileLogCloser() { shutdownFileLog(); }
};

} // namespace

int main(int argc, char** argv)
{
    // The windows paint with the raster engine. Without this, Qt on X11 loads an OpenGL driver
    // at start: about 60 ms, and memory the driver never gives back.
    if (!qEnvironmentVariableIsSet("QT_XCB_GL_INTEGRATION"))
        qputenv("QT_XCB_GL_INTEGRATION", "none");
    QApplication app(argc, argv);
    // Qt has taken its own options out of argv by now.
    const LaunchOptions options = parseLaunchOptions(argc, argv);
    installFileLog(modeTag(options));
    const FileLogCloser logCloser;
    return options.prefetchOnly ? runPrefetchMode(options) : runApplyMode(options);
}
