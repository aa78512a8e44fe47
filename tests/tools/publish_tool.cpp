#include "publish_tool.h"

#include <QProcess>

namespace {

constexpr int kToolTimeoutMs = 60000;

} // namespace

QStringList ToolRun::errLines() const
{
    QStringList lines = QString::fromUtf8(err).split(QLatin1Char('\n'));
    if (!lines.isEmpty() && lines.constLast().isEmpty())
        lines.removeLast();
    return lines;
}

ToolRun runPublishTool(const QStringList& args, const QString& umask)
{
    QProcess process;
    if (umask.isEmpty()) {
        process.start(QStringLiteral(CORV_PUBLISH_EXE), args);
    } else {
        process.start(QStringLiteral("/bin/sh"),
                      QStringList{QStringLiteral("-c"), QStringLiteral("umask %1 && exec \"$0\" \"$@\"").arg(umask),
                                  QStringLiteral(CORV_PUBLISH_EXE)}
                          + args);
    }
    ToolRun run;
    if (!process.waitForFinished(kToolTimeoutMs)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return run;
}

int runProgram(const QString& program, const QStringList& args, QByteArray* output)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    if (!process.waitForFinished(kToolTimeoutMs) || process.exitStatus() != QProcess::NormalExit)
        return -1;
    if (output)
        *output = process.readAll();
    return process.exitCode();
}

QByteArray patternBytes(int length, quint32 seed)
{
    QByteArray bytes(length, Qt::Uninitialized);
    quint32 x = seed * 2654435761u + 1;
    for (int i = 0; i < length; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = char(x);
    }
    return bytes;
}
