// Decodes one artifact exactly as the updater's apply does (src/apply/artifact_decoder) and
// reports what that costs, for bench/small_updates.py:
//   decode_artifact ARTIFACT OUTPUT SIZE [SOURCE]
// prints one JSON line {"ok": ..., "error": ..., "seconds": ..., "peak_kib": ...}; peak_kib is
// the process's resident high-water mark (getrusage), the program itself included.
#include "apply/artifact_decoder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <sys/resource.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 4) {
        std::fprintf(stderr, "usage: decode_artifact ARTIFACT OUTPUT SIZE [SOURCE]\n");
        return 2;
    }
    QString error;
    QElapsedTimer clock;
    clock.start();
    const bool ok = decodeArtifactToFile(args.at(1), args.value(4), args.at(2), args.at(3).toLongLong(), &error);
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    const QJsonObject result{{QStringLiteral("ok"), ok}, {QStringLiteral("error"), error},
                             {QStringLiteral("seconds"), seconds}, {QStringLiteral("peak_kib"), double(usage.ru_maxrss)}};
    std::printf("%s\n", QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    return ok ? 0 : 1;
}
