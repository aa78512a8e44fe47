#pragma once
#include <QByteArray>
#include <QString>
#include <QStringList>

// One run of the corvanta-publish executable.
struct ToolRun {
    int exitCode = -1;  // -1: did not start or did not finish in time
    QByteArray out;
    QByteArray err;
    // stderr split into lines, without the final empty one.
    QStringList errLines() const;
};

// Runs corvanta-publish with args. With a umask given ("077"), the tool runs under it via sh.
ToolRun runPublishTool(const QStringList& args, const QString& umask = QString());

// Runs another program (openssl, mkfifo, strace); its exit code, or -1 when it did not run.
int runProgram(const QString& program, const QStringList& args, QByteArray* output = nullptr);

// Deterministic pseudo-random content of the given length.
QByteArray patternBytes(int length, quint32 seed);
