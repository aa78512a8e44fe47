#include "base/file_log.h"

#include "base/installation_dir.h"
#include "base/own_files.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>

namespace {

// Written once per process when the file is found at or over the cap; the message that hit
// the cap is dropped.
constexpr char kCapNotice[] = "... (log updater cham tran, ngung ghi)\n";

struct LogState {
    QMutex mutex;  // not recursive: nothing may log while it is held
    QFile* file = nullptr;
    QtMessageHandler previousHandler = nullptr;
    bool capped = false;
    QString modeTag;
};

LogState logState;

QLatin1String levelLetter(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return QLatin1String("D");
    case QtWarningMsg:
        return QLatin1String("W");
    case QtCriticalMsg:
        return QLatin1String("C");
    case QtFatalMsg:
        return QLatin1String("F");
    default:
        return QLatin1String("I");
    }
}

} // namespace

void installFileLog(const QString& modeTag)
{
    QMutexLocker locker(&logState.mutex);
    if (logState.file)
        return;
    logState.modeTag = modeTag;
    logState.capped = false;
    auto* file = new QFile;
    // Binary append: every earlier run stays, and lines end in a bare LF. A link in the log's
    // place is replaced by a file of its own, so no line ever lands outside the installation.
    if (!openOwnFile(*file, QDir(installationDir()).filePath(QStringLiteral("updater.log")),
                     QIODevice::WriteOnly | QIODevice::Append)) {
        delete file;
        return;
    }
    logState.file = file;
    logState.previousHandler = qInstallMessageHandler(fileLogHandler);
}

void shutdownFileLog()
{
    QMutexLocker locker(&logState.mutex);
    if (logState.previousHandler) {
        qInstallMessageHandler(logState.previousHandler);
        logState.previousHandler = nullptr;
    }
    if (logState.file) {
        logState.file->flush();
        logState.file->close();
        delete logState.file;
        logState.file = nullptr;
    }
}

void fileLogHandler(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    QtMessageHandler previous = nullptr;
    {
        QMutexLocker locker(&logState.mutex);
        QFile* file = logState.file;
        if (file && file->isOpen() && !logState.capped) {
            // The size on disk includes what earlier runs appended.
            if (file->size() >= kLogSizeCap) {
                logState.capped = true;
                file->write(kCapNotice);
            } else {
                const QString line = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"))
                    + QLatin1String(" [") + levelLetter(type) + QLatin1String("] [") + logState.modeTag
                    + QLatin1String("] ") + text + QLatin1Char('\n');
                file->write(line.toUtf8());
            }
            // Flushed line by line so the file is complete if the process is killed mid-update.
            file->flush();
        }
        previous = logState.previousHandler;
    }
    if (previous)
        previous(type, context, text);
}
