#pragma once
// Hostile servers and inputs against the real updater executable, in apply and in prefetch
// mode. Each row publishes build 2.0 (or a hostile variant of it) for an installation of build
// 1.0, tells the fault-injecting server how to misbehave, runs the updater once and reports
// its log lines and every broken invariant:
//  - the process ends normally with exit code 0;
//  - the installation is unchanged unless the row expects the update to complete, in which
//    case it is exactly build 2.0; no ".staging" is left;
//  - the update cache holds only verified files and ".part" files that are prefixes of them;
//  - nothing is written outside the installation: the temporary directory that holds it
//    (also the updater's TMPDIR) contains nothing else afterwards, HOME stays empty, and what
//    a link planted in the installation points to is unchanged;
//  - no file grows beyond 4 MiB, the resident memory stays below 256 MiB, the run ends.
#include "support/test_install.h"
#include "support/test_server.h"

#include <QMetaType>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

enum class RunMode { Apply, Prefetch };

// What the server publishes at b/manifest.json, b/manifest.json.sig and b/<files>.
enum class Publication {
    Normal,                    // build 2.0 (number 11), signed with the trusted key
    OtherProduct,              // "product": "Other"
    OtherArch,                 // "arch": "arm64"
    OlderBuild,                // a validly signed older build 0.9 (number 9) replayed
    SameBuildOtherContent,     // build number 10 as installed, with other files ("1.0-replay")
    SignatureOfOtherManifest,  // a valid signature, but of another manifest
    OtherKey,                  // signed with a key the updater does not trust
    HostilePath,               // 30 more good entries and one unsafe path among them
    ShortFile,                 // lib/c.bin served shorter than the manifest says
    LongFile,                  // lib/c.bin served longer than the manifest says
    EmptyFile,                 // e.txt is empty: an entry of size 0
    ExtraSizes,                // more entries "more/fNNNN.bin" with the sizes of HostileRow::extraSizes
    // lib/c.bin also as zstd artifacts (made with the zstd tool) below .zstd/:
    Artifacts,                 // a patch from build 1's lib/c.bin and a compressed copy
    PatchOnly,                 // only the patch
    CompressedOnly,            // only the compressed copy
    CorruptPatch,              // only the patch, one byte of it changed, listed with the changed bytes' hash
    PatchOfOtherSource,        // only a patch made from another lib/c.bin, listed as from build 1's
    TruncatedCompressed,       // only the compressed copy, cut in half, listed with the cut bytes' hash
};

// A link planted in the installation before the run, to a directory or a file outside it. The
// file holds what the installation had at that path, or else the first 1000 bytes of the
// published lib/c.bin (so that a ".part" there would be resumed). Fifo plants a FIFO, ToZeroDevice
// a link to /dev/zero: neither may hold the run or make a read endless.
enum class Link { None, ToDirectory, ToFile, Hard, Fifo, ToZeroDevice };

struct HostileRow {
    RunMode mode = RunMode::Apply;
    Publication publication = Publication::Normal;
    QString hostilePath;       // for Publication::HostilePath
    QList<double> extraSizes;  // for Publication::ExtraSizes; NaN: an entry without "size"
    QString rulePath;          // path below b/ that misbehaves ("" for none)
    TestServer::Rule rule;
    QMap<QString, TestServer::Rule> moreRules;  // further paths below b/ that misbehave
    qint64 seedPartBytes = 0;  // lib/c.bin.part of that many correct bytes in the cache first
    Link link = Link::None;    // planted at linkPath
    QString linkPath;
    QStringList expected;      // the run's own log lines ("[Update]" or "[UpdatePrefetch]"); "*" matches any text,
                               // " ||| " separates the texts a line may have instead
    // Other whole outcomes that are just as right. A connection cut in the middle of a body is
    // not always reported as an error by Qt: the body then merely ends short, and the length or
    // signature check catches it instead.
    QList<QStringList> alternatives;
    bool updates = false;      // the installation must become build 2.0
};
Q_DECLARE_METATYPE(HostileRow)

// A row whose server misbehaves at rulePath ("" for none) as rule says.
HostileRow makeRow(RunMode mode, Publication publication, const QString& rulePath, const TestServer::Rule& rule,
                   const QStringList& expected, bool updates = false);

struct HostileResult {
    QStringList lines;       // the run's own log lines
    QStringList violations;  // broken invariants
    qint64 peakRssKiB = 0;   // the updater's resident high-water mark, sampled every 50 ms
};

// Bounds of every run: no file may grow beyond kFileSizeLimit (the largest file of these
// builds is 80 KB), the resident memory must stay below kPeakRssLimitKiB, and a run must end.
constexpr qint64 kFileSizeLimit = 4194304;
constexpr qint64 kPeakRssLimitKiB = 262144;
constexpr int kRunLimitMs = 90000;

class HostileBench {
public:
    HostileBench();
    ~HostileBench();
    bool start();

    // "http://127.0.0.1:<port>/b/" + path
    QString url(const QString& path) const;
    HostileResult run(const HostileRow& row);

    // Expected lines of common outcomes, for building rows.
    QStringList applyManifestFails(const QString& path) const;  // path: manifest.json or manifest.json.sig
    QStringList applyFileFails(const QString& path) const;
    // The end of a completed update: the summary, the bytes that went over the wire (80004, the
    // three changed files whole, unless given) and the outcome.
    static QStringList applyUpdated(qint64 wireBytes = 80004);
    static QStringList prefetchStart();  // up to lib/c.bin, which comes last
    static QString prefetchFresh();      // "lib/c.bin tai tu dau 58 KB"
    static QStringList prefetchDone();   // lib/c.bin finished and the run's summary
    static QString prefetchLeft();       // the summary when lib/c.bin was given up
    // lib/c.bin's artifacts as published: their paths below b/ and sizes.
    QString patchPath() const;
    QString compressedPath() const;
    qint64 patchSize() const { return patch.size(); }
    qint64 compressedSize() const { return compressed.size(); }
    qint64 otherPatchSize() const { return otherPatch.size(); }

private:
    bool publish(const HostileRow& row, QString* error);
    void runBounded(const QString& exe, const QStringList& args, const QProcessEnvironment& env, HostileResult& result);

    QTemporaryDir runtimeDir;
    QTemporaryDir published;
    std::unique_ptr<TestServer> server;
    QByteArray otherKeyPath;
    QByteArray patch;       // build 1's lib/c.bin to build 2's
    QByteArray compressed;  // build 2's lib/c.bin
    QByteArray otherPatch;  // from another lib/c.bin to build 2's
};

// True when every expected line matches its actual line ("*" stands for any text, " ||| "
// separates alternatives).
bool linesMatch(const QStringList& expected, const QStringList& actual);
// The expected lines or one of the alternatives match.
bool outcomeMatches(const HostileRow& row, const QStringList& actual);
QString describeLines(const QStringList& expected, const QStringList& actual);
