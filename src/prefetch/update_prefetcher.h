#pragma once
#include "apply/update_cache.h"
#include "platform/named_mutex.h"
#include "platform/process_handle.h"
#include "update/manifest.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QString>

class BoundedNetworkAccessManager;
class QFile;
class QNetworkReply;
class QNetworkRequest;
class QTimer;
class Sha256;

namespace corv {

// No data for this long ends the request (a file attempt, or the whole run before the plan).
constexpr int kPrefetchStallTimeoutMs = 20000;
// The pump writes and hashes on every tick of this interval.
constexpr int kPrefetchPumpIntervalMs = 100;
// 102400 bytes per 100 ms tick is 1,024,000 bytes a second; an idle tick or two may be saved
// up, but never more than the ceiling. A tick adds only what the time since the budget last grew
// (or was last full) earned, so a tick that comes early after a late one adds less. The budget
// pays for the bytes a request asks for when it is sent, and for the headers of its answer
// (nginx sends about 300 bytes): in any 2 s the server sends at most 2 x 1,024,000 + 204,800
// bytes, headers included.
constexpr qint64 kPrefetchBudgetPerTick = 102400;
constexpr qint64 kPrefetchBudgetCeiling = 204800;
constexpr qint64 kPrefetchAnswerHeaderBytes = 1024;
// Qt stops reading from the socket once this much is buffered, so a server that sends more than
// it was asked for is slowed down instead of the file piling up in memory.
constexpr qint64 kPrefetchReadBufferBytes = 262144;
constexpr qint64 kPrefetchDrainChunkBytes = 102400;
constexpr qint64 kPrefetchHashChunkBytes = 4194304;
constexpr qint64 kPrefetchStateSaveBytes = 1048576;
// state.json is rewritten whole, and it grows with the plan (some 3 MB for 20,000 files). Writes
// are at least a second apart, and further apart for a large state, so that rewriting it costs
// no more than 16,000 bytes a second: 1/64 of the transfer rate. Requests in between are
// folded into the next write; the end of a run always writes at once.
constexpr qint64 kPrefetchStateWriteIntervalMs = 1000;
constexpr qint64 kPrefetchStateWriteBytesPerSecond = 16000;
constexpr int kPrefetchRetriesPerFile = 3;
constexpr int kPrefetchRetryDelayMs = 1000;
// A run needing more than 500 MiB is left to the apply updater, and so is one that would leave
// less than 1 GiB free on the installation's disk.
constexpr qint64 kPrefetchDownloadCap = 524288000;
constexpr qint64 kPrefetchDiskReserve = 1073741824;

// What a plan entry stands for: a build file, fetched whole (no artifacts) or as the first of
// its usable artifacts, the others and then the whole file being what a failed artifact falls
// back to.
struct PlannedFile {
    ManifestFile file;
    QList<ManifestArtifact> artifacts;
};

// Downloads the next build into the update cache while the application runs: one request at
// a time, at most 1,024,000 bytes a second on the wire, resumable, verified, and given up
// cleanly when the application closes, the network stalls, or the download is too large for
// the disk. A file comes as the smallest artifact the installed build can use when there is
// one (a patch against the installed manifest's content, else the compressed copy), which the
// apply later decodes; a failed artifact falls back to the next, the whole file last.
// Its only meta-method is the signal finished(); everything else is connected by pointer.
class UpdatePrefetcher : public QObject {
    Q_OBJECT
public:
    enum PrefetchPhase : qint32 { Idle = 0, FetchingManifest = 1, FetchingSignature = 2, Downloading = 3, Hashing = 4 };

    UpdatePrefetcher();
    ~UpdatePrefetcher() override;

    // Ends the run once the process `pid` has ended (checked every second). Does nothing when
    // the process cannot be opened.
    void watchProcess(qint64 pid);
    // True when the manifest request was sent; false when a run is already in progress, there
    // is no usable updater.conf, or another prefetch holds the prefetch lock.
    bool start();
    // Ends a run from outside (application closed, destruction); nothing happens when idle.
    void stop();
    // Ends a run with a reason for the log.
    void finish(const QString& message);

Q_SIGNALS:
    void finished();

private:
    bool loadConfig();
    void abortReply();
    void closePartFile();
    void dropHashing();
    void onStallTimeout();
    void onSlowTransfer();
    // What a stall or a too slow transfer leads to: the file attempt fails, or the run ends.
    void endStalledRequest();
    void onAppWatchTick();
    // Sends the one GET of the moment into `reply` and arms the stall timer and the watch on a
    // too slow transfer.
    void sendGet(const QNetworkRequest& request);
    // Sends the GET of a document (manifest or signature) and ends the run as a failed request
    // once its body is refused: more than maxBytes, or with a Content-Encoding.
    void sendDocumentGet(const QString& url, qint64 maxBytes);

    // The round: manifest, signature, plan.
    void onManifestReplyFinished();
    void fetchSignature();
    void planRound();

    // The transfer of each planned file.
    void startNextFile();
    // Asks for the current file's next bytes, a range of at most what the budget holds (the
    // rest of a file without a size), or leaves it to the next pump tick when there is none.
    void requestRange();
    bool acceptResponse();
    void onReadyRead();
    // Takes bytes read from the reply out of what their request paid for, the rest out of the
    // budget.
    void charge(qint64 bytes);
    // Takes bytes out of the budget; time spent full earns nothing.
    void spend(qint64 bytes);
    void onPumpTick();
    void onFileReplyFinished();
    // After a reply that brought its bytes without a network error: the next range of the file,
    // or the checks once nothing more is due.
    void replyDone();
    // True, after failing the attempt, when a file of `length` bytes would be longer than its
    // manifest size (0 included), or than kUnsizedFileLimit for an entry without one.
    bool exceedsManifestSize(qint64 length);
    void completeFile();
    void hashStep();
    void advance(bool ok);
    // After the last attempt at an artifact failed: plans the next way to the file in its place
    // and returns true, or false when there is none, or when it would take the run beyond the
    // download cap.
    bool fallBack();
    void saveState(bool force);
    // Writes `state` now, or as soon as the interval since the last write is over.
    void writeState();
    // Writes a state still waiting for its turn (the end of a run).
    void writePendingState();

    BoundedNetworkAccessManager* network = nullptr;
    QNetworkReply* reply = nullptr;
    QTimer* stallTimer = nullptr;
    QTimer* pumpTimer = nullptr;
    QTimer* appWatchTimer = nullptr;
    QTimer* stateTimer = nullptr;
    platform::ProcessHandle appProcess;
    QString manifestUrl;
    QString baseUrl;
    QByteArray manifestBytes;
    Manifest manifest;
    QList<ManifestFile> plan;       // what is downloaded: build files, or artifacts as files
    QList<PlannedFile> planFiles;   // what each plan entry stands for
    qint64 plannedBytes = 0;        // bytes the plan still needs, against the download cap
    qint32 currentIndex = -1;
    QFile* partFile = nullptr;
    bool receiving = false;
    qint64 bytesHave = 0;
    qint64 bytesSinceSave = 0;
    qint32 retryCount = 0;
    qint32 retryIndex = -2;
    qint64 writeBudget = 0;
    QElapsedTimer budgetClock;  // since the budget last grew, or was last full
    qint64 paidLeft = 0;   // bytes the current request asked and paid for, not read yet
    bool bounded = false;  // the current reply answers a bounded range: nothing beyond it is taken
    QFile* hashFile = nullptr;
    Sha256* hash = nullptr;
    CacheState state;
    QElapsedTimer lastStateWrite;
    qint64 stateWriteIntervalMs = kPrefetchStateWriteIntervalMs;
    PrefetchPhase phase = Idle;
    bool stopping = false;
    qint32 filesOk = 0;
    qint32 filesLeft = 0;
    platform::NamedMutex prefetchLock;
};

} // namespace corv

// Files of the remote manifest that are new or whose hash differs from the installed
// manifest's entry for the same path (the later entry wins for a path listed twice).
QList<ManifestFile> manifestDelta(const Manifest& remote, const Manifest& installed);
