#include "console.h"
#include "publish_commands.h"

#include <QCoreApplication>

namespace {

const char kHelp[] =
    "Usage: corvanta-publish <command> [options]\n"
    "\n"
    "Publishes builds for the Corvanta updater: a tree of files below one base URL with a\n"
    "signed manifest.json beside them.\n"
    "\n"
    "Commands:\n"
    "  keygen  --out-dir DIR                     create a new P-256 signing key pair\n"
    "  build   --input DIR --out DIR --version V --key PRIVATE.pem [...]\n"
    "                                            publish a build into DIR, manifest last\n"
    "  verify  --dir DIR [--public-key PUB.pem]  check a published tree and its signature\n"
    "\n"
    "corvanta-publish <command> --help describes a command and its options.\n"
    "Exit codes: 0 success, 1 refused or failed, 2 wrong command line.\n";

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = QCoreApplication::arguments().mid(1);
    if (args.isEmpty())
        return usageError(QString(), QStringLiteral("no command given"));
    const QString command = args.takeFirst();
    if (command == QLatin1String("--help") || command == QLatin1String("-h")
        || command == QLatin1String("help")) {
        printOut(QString::fromUtf8(kHelp).trimmed());
        return kExitOk;
    }
    if (command == QLatin1String("keygen"))
        return runKeygen(args);
    if (command == QLatin1String("build"))
        return runBuild(args);
    if (command == QLatin1String("verify"))
        return runVerify(args);
    return usageError(QString(), QStringLiteral("unknown command \"%1\"").arg(command));
}
