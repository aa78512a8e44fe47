#pragma once
#include "apply/update_cache.h"
#include "platform/named_mutex.h"
#include "platform/process_handle.h"
#include "update/manifest.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>

class QFile;
class QNetworkAccessManager;
class QNetworkReply;
class QTimer;
class Sha256;

namespace corv {

// Downloads the next build into the update cache while the application runs: one request at
// a time, at most 1,024,000 bytes a second, resumable, verified, and given up cleanly when the
// application closes, the network stalls, or the download is too large for the disk.
// Its only meta-method is the signal finished(); everything else is connected by pointer.
class UpdatePrefetcher : public QObject {
    Q_OBJECT
public:
    enum PrefetchPhase : qint32 { Idle = 0, FetchingManifest = 1, FetchingSignature = 2, Downloading = 3, Hashing = 4 };

    UpdatePrefetcher();
    ~UpdatePrefetcher() override;

    void watchProcess(qint64 pid);
    bool start();
    void stop();
    void finish(const QString& message);

Q_SIGNALS:
    void finished();

private:
    bool loadConfig();
    void abortReply();
    void closePartFile();
    void dropHashing();
    void onStallTimeout();
    void onAppWatchTick();
    void sendGet(const QString& url, qint64 rangeFrom);

    // The round: manifest, signature, plan.
    void onManifestReplyFinished();
    void fetchSignature();
    void planRound();

    // The transfer of each planned file.
    void startNextFile();
    void onReadyRead();
    void onPumpTick();
    void onFileReplyFinished();
    void completeFile();
    void hashStep();
    void advance(bool ok);
    void saveState(bool force);

    QNetworkAccessManager* network = nullptr;
    QNetworkReply* reply = nullptr;
    QTimer* stallTimer = nullptr;
    QTimer* pumpTimer = nullptr;
    QTimer* appWatchTimer = nullptr;
    platform::ProcessHandle appProcess;
    QString manifestUrl;
    QString baseUrl;
    QByteArray manifestBytes;
    Manifest manifest;
    QList<ManifestFile> plan;
    qint32 currentIndex = -1;
    QFile* partFile = nullptr;
    bool receiving = false;
    qint64 bytesHave = 0;
    qint64 bytesSinceSave = 0;
    qint32 retryCount = 0;
    qint32 retryIndex = -2;
    qint64 writeBudget = 0;
    QFile* hashFile = nullptr;
    Sha256* hash = nullptr;
    CacheState state;
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
