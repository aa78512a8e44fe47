#pragma once
// Starting the small helper program built beside the test binaries (lock_holder) and
// waiting until it reports what it holds.
#include <QCoreApplication>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <memory>

// Helpers still running when their owner goes are killed and reaped.
struct HelperProcessDeleter {
    void operator()(QProcess* process) const
    {
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(10000);
        }
        delete process;
    }
};
using HelperProcess = std::unique_ptr<QProcess, HelperProcessDeleter>;

// Starts `program` from the tests' binary directory and waits for its first line ("held" or
// "busy"), which goes to *firstLine. Null when the program did not start or said nothing.
inline HelperProcess startHelper(const QString& program, const QStringList& args, QByteArray* firstLine = nullptr)
{
    HelperProcess process(new QProcess);
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process->start(QCoreApplication::applicationDirPath() + QLatin1Char('/') + program, args);
    if (!process->waitForStarted(10000))
        return nullptr;
    while (!process->canReadLine()) {
        if (!process->waitForReadyRead(10000))
            return nullptr;
    }
    const QByteArray line = process->readLine().trimmed();
    if (firstLine)
        *firstLine = line;
    return process;
}

// lock_holder holding `names`; null unless it reported "held".
inline HelperProcess holdLocks(const QStringList& names, const QStringList& options = {})
{
    QByteArray line;
    auto process = startHelper(QStringLiteral("lock_holder"), options + names, &line);
    if (!process || line != "held")
        return nullptr;
    return process;
}

// Ends a helper the gentle way: its standard input closes, it releases and exits.
inline bool releaseHelper(QProcess& process)
{
    process.closeWriteChannel();
    return process.waitForFinished(10000);
}

// Ends a helper the hard way (SIGKILL on POSIX, TerminateProcess on Windows).
inline bool killHelper(QProcess& process)
{
    process.kill();
    return process.waitForFinished(10000);
}
