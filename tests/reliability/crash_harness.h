#pragma once
// Crash consistency of an apply: an installation of build 1 is updated to build 2 by the real
// updater, which is killed with SIGKILL at a chosen moment. What it leaves behind must be a
// mix of build-1 and build-2 files (a replaced file may exist only as its ".bak", holding the
// build-1 content), and one more uninterrupted run must turn it into build 2 exactly.
#include "support/test_install.h"
#include "support/test_server.h"

#include <QMap>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

// Where in the run the kill landed, judged from what is on disk afterwards.
enum class KillPhase {
    BeforeDownload,  // nothing of the update on disk yet (start-up, manifest, hashing)
    Download,        // files being staged, installation untouched
    Apply,           // installation partly replaced
    AfterApply,      // every file replaced: recording the manifest, tidying up
    Finished,        // the run had already ended when the kill came
};
const char* killPhaseName(KillPhase phase);

// When a trial's kill comes: `ms` after the process starts, or `ms` after its log says that the
// staged files are about to be applied. Anchoring the second kind to the log keeps those kills
// inside the apply however long the start-up and the download take on a busy or slow (sanitizer)
// build.
struct KillMoment {
    bool fromApply = false;
    qint64 ms = 0;
};
QString describeKillMoment(const KillMoment& moment);

struct TrialResult {
    KillPhase phase = KillPhase::BeforeDownload;
    int newFiles = 0;        // build-2 contents in place at the kill (changed or added files)
    int backups = 0;         // ".bak" files at the kill
    int missingWithBak = 0;  // files that existed only as their ".bak" at the kill
    QStringList violations;  // empty when the trial passed
};

// One file of a build: its bytes are generated from size and seed, never kept in memory.
struct BuildFile {
    qint64 size = 0;
    quint32 seed = 0;
    QString sha256;
};
using Build = QMap<QString, BuildFile>;

class CrashHarness {
public:
    // largeFileMiB: sizes of the large files of each build; about fifty small files go with them.
    explicit CrashHarness(const QList<int>& largeFileMiB = {16, 12, 8, 24});

    // Publishes build 2 on a test server and writes build 1 into a template installation.
    bool setUp(QString* error);
    // One uninterrupted apply, timed from process start; checks that it yields build 2.
    // total is -1 on failure.
    struct RunProfile {
        qint64 total = -1;      // ms from process start to exit
        qint64 applyFrom = -1;  // ms when the staging download had ended ("[Update] dung ...")
        qint64 applyTo = -1;    // ms when the update was recorded ("[Update] CAP NHAT THANH CONG ...")
    };
    RunProfile measureRun(QString* error);
    // The median of `runs` measurements, each of its three figures taken separately: one run
    // on a busy machine says little.
    RunProfile measureRuns(int runs, QString* error);
    // One trial: a fresh installation of build 1, an apply killed at `moment`, the check of
    // what it left, a second uninterrupted run and the check that it yields build 2 exactly.
    TrialResult runTrial(const KillMoment& moment);

    int fileCount() const { return build2.size(); }
    qint64 build2Bytes() const;

private:
    bool prepareInstall(TestInstall& install) const;
    void checkAfterKill(const TestInstall& install, TrialResult& result) const;
    void checkFinal(const TestInstall& install, const QString& stage, QStringList& violations) const;

    Build build1;
    Build build2;
    QByteArray manifest1;
    QByteArray manifest2;
    QTemporaryDir serverRoot;
    QTemporaryDir templateDir;  // build 1 with its manifest and updater.conf
    QTemporaryDir runtimeDir;   // lock namespace of the updater runs
    std::unique_ptr<TestServer> server;
};

// Kill moments for `trials` trials, stratified so that they are spread evenly: the first half
// over the whole run, the second half over the apply window (the part of the run that changes
// the installation) and a little beyond, each moment drawn at random within its slice.
QList<KillMoment> planKillMoments(const CrashHarness::RunProfile& profile, int trials, quint32 seed);
