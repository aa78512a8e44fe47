#include "command_line.h"

#include "console.h"

bool parseCommandLine(QCommandLineParser& parser, const QString& command, const QStringList& args,
                      const char* help, const QStringList& required, int* exitCode)
{
    parser.addOption(QCommandLineOption(QStringLiteral("help")));
    if (!parser.parse(QStringList{QStringLiteral("corvanta-publish")} + args)) {
        *exitCode = usageError(command, parser.errorText());
        return false;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        printOut(QString::fromUtf8(help).trimmed());
        *exitCode = kExitOk;
        return false;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *exitCode = usageError(command, QStringLiteral("unexpected argument \"%1\"")
                                            .arg(parser.positionalArguments().constFirst()));
        return false;
    }
    for (const QString& name : required) {
        if (!parser.isSet(name)) {
            *exitCode = usageError(command, QStringLiteral("%1 needs --%2").arg(command, name));
            return false;
        }
    }
    return true;
}
