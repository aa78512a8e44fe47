#pragma once
#include <QStringList>

// The subcommands of corvanta-publish. Each takes the arguments after its name and returns
// the process exit code (console.h).
int runKeygen(const QStringList& args);
int runBuild(const QStringList& args);
int runVerify(const QStringList& args);
