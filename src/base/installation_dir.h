#pragma once
#include <QString>

// The installation directory: the directory of the running updater executable
// (QCoreApplication::applicationDirPath()), never the current directory. Everything the
// updater writes lives below it.
QString installationDir();

// Test hook: makes installationDir() return `dir` for the rest of the process (an empty
// string restores the executable's directory). Lets library tests work in a temporary
// directory; the updater itself never calls it.
void setInstallationDirForTesting(const QString& dir);
