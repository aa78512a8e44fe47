#pragma once
#include <QCommandLineParser>
#include <QString>
#include <QStringList>

// Parses the arguments of one subcommand whose options are already added to parser (a "--help"
// option is added here). Returns true when the command is to run. Otherwise it has printed the
// help (*exitCode 0) or one usage error line (*exitCode 2): an unknown option, a missing value,
// a stray argument, or a missing option listed in required.
bool parseCommandLine(QCommandLineParser& parser, const QString& command, const QStringList& args,
                      const char* help, const QStringList& required, int* exitCode);
