// Bench runner of the crash-consistency trials: crash_trials [trials] [seed]. Prints one line
// per trial and a summary; exits 1 when any trial found a violation.
#include "reliability/crash_harness.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMap>
#include <QRandomGenerator>
#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int trials = args.size() > 1 ? args.at(1).toInt() : 500;
    const quint32 seed = args.size() > 2 ? args.at(2).toUInt() : QRandomGenerator::global()->generate();
    if (trials < 1) {
        std::fprintf(stderr, "usage: crash_trials [trials] [seed]\n");
        return 2;
    }

    CrashHarness harness;
    QString error;
    if (!harness.setUp(&error)) {
        std::fprintf(stderr, "set-up failed: %s\n", qPrintable(error));
        return 2;
    }
    const CrashHarness::RunProfile profile = harness.measureRuns(3, &error);
    if (profile.total <= 0) {
        std::fprintf(stderr, "uninterrupted run failed: %s\n", qPrintable(error));
        return 2;
    }
    std::printf("%d files, %lld bytes; run %lld ms, apply from %lld to %lld ms; %d trials, seed %u\n",
                harness.fileCount(), harness.build2Bytes(), profile.total, profile.applyFrom, profile.applyTo,
                trials, seed);

    QElapsedTimer clock;
    clock.start();
    QMap<QString, int> phases;
    int violating = 0;
    int missingWithBak = 0;
    int index = 0;
    for (const KillMoment& moment : planKillMoments(profile, trials, seed)) {
        const TrialResult result = harness.runTrial(moment);
        ++index;
        ++phases[QString::fromLatin1(killPhaseName(result.phase))];
        missingWithBak += result.missingWithBak > 0;
        if (!result.violations.isEmpty())
            ++violating;
        std::printf("%4d kill %s: %-16s %2d new, %2d .bak, %d only as .bak%s\n", index,
                    qPrintable(describeKillMoment(moment)),
                    killPhaseName(result.phase), result.newFiles, result.backups, result.missingWithBak,
                    result.violations.isEmpty() ? "" : "  VIOLATION");
        for (const QString& v : result.violations)
            std::printf("       %s\n", qPrintable(v));
        std::fflush(stdout);
    }
    std::printf("\ntrials: %d, with violations: %d, time: %lld s\n", trials, violating, clock.elapsed() / 1000);
    for (auto it = phases.cbegin(); it != phases.cend(); ++it)
        std::printf("  killed %-16s %d\n", qPrintable(it.key()) , it.value());
    std::printf("  trials that left a file only as its .bak: %d\n", missingWithBak);
    return violating == 0 ? 0 : 1;
}
