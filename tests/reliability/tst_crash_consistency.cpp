// The real updater, killed with SIGKILL at moments spread over an apply of about sixty files
// (four of them large): every file keeps its old or its new content (or waits as its ".bak"),
// and the next run completes the update without leftovers.
#include "reliability/crash_harness.h"

#include <QtTest>

namespace {
constexpr int kTrials = 20;
}

class TestCrashConsistency : public QObject {
    Q_OBJECT

private slots:
    void killedApplyIsRecoverable();
};

void TestCrashConsistency::killedApplyIsRecoverable()
{
    CrashHarness harness;
    QString error;
    QVERIFY2(harness.setUp(&error), qPrintable(error));
    const CrashHarness::RunProfile profile = harness.measureRuns(3, &error);
    QVERIFY2(profile.total > 0, qPrintable(error));
    QVERIFY2(profile.applyFrom > 0 && profile.applyTo >= profile.applyFrom, "the run's log does not place its apply");

    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo("%d files, %lld bytes; run %lld ms, apply from %lld to %lld ms; seed %u", harness.fileCount(),
          harness.build2Bytes(), profile.total, profile.applyFrom, profile.applyTo, seed);

    QMap<QString, int> phases;
    QStringList violations;
    for (const KillMoment& moment : planKillMoments(profile, kTrials, seed)) {
        const TrialResult result = harness.runTrial(moment);
        ++phases[QString::fromLatin1(killPhaseName(result.phase))];
        const QString killAt = describeKillMoment(moment);
        qInfo("kill %s: %s, %d new, %d .bak, %d only as .bak%s", qPrintable(killAt), killPhaseName(result.phase),
              result.newFiles, result.backups, result.missingWithBak, result.violations.isEmpty() ? "" : " VIOLATED");
        for (const QString& v : result.violations)
            violations.append(QStringLiteral("kill %1: ").arg(killAt) + v);
    }
    for (auto it = phases.cbegin(); it != phases.cend(); ++it)
        qInfo("%s: %d", qPrintable(it.key()), it.value());
    QVERIFY2(violations.isEmpty(), qPrintable(violations.join(QLatin1Char('\n'))));
    // Half of the moments are aimed at the apply: a run that never got killed while it
    // changed the installation would prove nothing.
    QVERIFY2(phases.value(QStringLiteral("apply")) > 0, "no kill landed inside the apply");
}

QTEST_GUILESS_MAIN(TestCrashConsistency)
#include "tst_crash_consistency.moc"
