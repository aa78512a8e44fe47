#include "console.h"

#include <cstdio>

namespace {

void writeLine(FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fflush(stream);
}

} // namespace

void printOut(const QString& text)
{
    writeLine(stdout, text);
}

void printError(const QString& text)
{
    writeLine(stderr, QStringLiteral("corvanta-publish: ") + text);
}

int fail(const QString& text)
{
    printError(text);
    return kExitFailure;
}

int usageError(const QString& command, const QString& text)
{
    const QString help = command.isEmpty() ? QStringLiteral("corvanta-publish --help")
                                           : QStringLiteral("corvanta-publish %1 --help").arg(command);
    printError(QStringLiteral("%1 (see %2)").arg(text, help));
    return kExitUsage;
}

QString counted(int count, const QString& one, const QString& many)
{
    return QStringLiteral("%1 %2").arg(count).arg(count == 1 ? one : many);
}
