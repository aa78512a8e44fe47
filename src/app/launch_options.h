#pragma once
#include <QString>
#include <QtGlobal>

struct LaunchOptions {
    qint64 waitPid = 0;
    bool proactive = false;
    bool prefetchOnly = false;
};

// Reads "--wait-pid" N, "--proactive" and "--prefetch-only" from argv[1..argc-1] (each entry
// through QString::fromLocal8Bit, exact and case-sensitive matches, anything else ignored).
LaunchOptions parseLaunchOptions(int argc, char** argv);

// "prefetch" or "apply": the log's mode tag.
QString modeTag(const LaunchOptions& options);
