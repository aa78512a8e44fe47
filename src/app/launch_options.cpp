#include "app/launch_options.h"

LaunchOptions parseLaunchOptions(int argc, char** argv)
{
    LaunchOptions options;
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        if (argument == QLatin1String("--wait-pid")) {
            // Without a value the option is skipped; a malformed value reads as 0 (no wait).
            if (i + 1 < argc)
                options.waitPid = QString::fromLocal8Bit(argv[++i]).toLongLong(nullptr, 10);
        } else if (argument == QLatin1String("--proactive")) {
            options.proactive = true;
        } else if (argument == QLatin1String("--prefetch-only")) {
            options.prefetchOnly = true;
        }
    }
    return options;
}

QString modeTag(const LaunchOptions& options)
{
    return options.prefetchOnly ? QStringLiteral("prefetch") : QStringLiteral("apply");
}
