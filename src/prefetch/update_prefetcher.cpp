#include "prefetch/update_prefetcher.h"

#include "base/installation_dir.h"
#include "base/instance_locks.h"
#include "base/network_guard.h"
#include "base/sha256.h"
#include "update/http_fetch.h"
#include "update/manifest_signature.h"
#include "update/slow_transfer.h"
#include "update/updater_config.h"

#include <QDebug>
#include <QFile>
#include <QNetworkReply>
#include <QTimer>

namespace corv {

UpdatePrefetcher::UpdatePrefetcher()
{
    network = new BoundedNetworkAccessManager(this);
    forceNetworkAccessible(network);

    // Precise: a coarse timer may fire up to 5% early, and a transfer must be given its full
    // 20 s without data before it is called stalled.
    stallTimer = new QTimer(this);
    stallTimer->setTimerType(Qt::PreciseTimer);
    stallTimer->setSingleShot(true);
    stallTimer->setInterval(kPrefetchStallTimeoutMs);
    connect(stallTimer, &QTimer::timeout, this, &UpdatePrefetcher::onStallTimeout);

    // The pump is the rate limit: a precise timer keeps ten ticks a second on average, where a
    // coarse one may fire a few milliseconds early and let more through.
    pumpTimer = new QTimer(this);
    pumpTimer->setTimerType(Qt::PreciseTimer);
    pumpTimer->setInterval(kPrefetchPumpIntervalMs);
    connect(pumpTimer, &QTimer::timeout, this, &UpdatePrefetcher::onPumpTick);

    stateTimer = new QTimer(this);
    stateTimer->setTimerType(Qt::PreciseTimer);
    stateTimer->setSingleShot(true);
    connect(stateTimer, &QTimer::timeout, this, [this] { saveState(true); });
}

UpdatePrefetcher::~UpdatePrefetcher()
{
    stop();
    if (!prefetchLock.isNull())
        prefetchLock.releaseAndClose();
    appProcess.close();
}

void UpdatePrefetcher::watchProcess(qint64 pid)
{
    appProcess = platform::openProcess(pid);
    if (appProcess.isNull())
        return;
    appWatchTimer = new QTimer(this);
    appWatchTimer->setInterval(kAppWatchIntervalMs);
    connect(appWatchTimer, &QTimer::timeout, this, &UpdatePrefetcher::onAppWatchTick);
    appWatchTimer->start();
}

bool UpdatePrefetcher::start()
{
    if (phase != Idle)
        return false;
    stopping = false;
    if (!loadConfig())
        return false;
    platform::MutexFault fault;
    if (!tryAcquirePrefetchLock(prefetchLock, &fault)) {
        if (!logLockFault(fault, "[UpdatePrefetch]"))
            qInfo() << "[UpdatePrefetch] mot luot tai khac dang chay -> bo qua";
        return false;
    }
    // Looked at again now that the prefetch lock is held: an apply run that took its lock after
    // the entry point looked has either seen this lock (and waits for it) or is seen here.
    if (testNamedMutex(QLatin1String(kUpdaterMutexName), "[UpdatePrefetch]") != LockTest::Absent) {
        prefetchLock.releaseAndClose();
        return false;
    }
    filesOk = 0;
    filesLeft = 0;
    // One budget for the whole run: it is the run's rate, and it goes on from file to file.
    writeBudget = 0;
    budgetClock.invalidate();
    state = CacheState();
    // A reused prefetcher must not report the previous run's plan as remaining work.
    plan.clear();
    currentIndex = -1;
    phase = FetchingManifest;
    sendDocumentGet(manifestUrl, kMaxManifestBytes);
    return true;
}

bool UpdatePrefetcher::loadConfig()
{
    return readUpdaterConfig(installationDir(), manifestUrl, baseUrl);
}

void UpdatePrefetcher::sendGet(const QNetworkRequest& request)
{
    ensureNetworkAccessible(*network);
    reply = network->get(request);
    new SlowTransferWatch(reply, [this] { onSlowTransfer(); });
    stallTimer->start(kPrefetchStallTimeoutMs);
}

void UpdatePrefetcher::sendDocumentGet(const QString& url, qint64 maxBytes)
{
    QNetworkRequest request = makeUpdateRequest(url);
    limitBodySize(request, maxBytes);
    sendGet(request);
    QNetworkReply* document = reply;
    connect(document, &QNetworkReply::finished, this, &UpdatePrefetcher::onManifestReplyFinished);
    connect(document, &QNetworkReply::readyRead, this, [this, document, maxBytes] {
        if (stopping || document != reply)
            return;
        const QString refusal = bodyRefusal(*document, maxBytes);
        if (refusal.isEmpty())
            return;
        abortReply();
        finish(QStringLiteral("tai manifest/sig hong -> thoi (updater se tu tai): ") + refusal);
    });
}

void UpdatePrefetcher::onStallTimeout()
{
    if (phase == Idle)
        return;
    qWarning() << "[UpdatePrefetch] dung im qua" << kPrefetchStallTimeoutMs / 1000 << "giay";
    endStalledRequest();
}

void UpdatePrefetcher::onSlowTransfer()
{
    if (phase == Idle || stopping)
        return;
    qWarning() << "[UpdatePrefetch] tai qua cham (duoi" << kSlowTransferMinBytesPerSecond << "byte/giay)";
    endStalledRequest();
}

void UpdatePrefetcher::endStalledRequest()
{
    abortReply();
    if (phase == Downloading) {
        advance(false);
        return;
    }
    finish(QStringLiteral("mang dung im -> bo luot nay"));
}

void UpdatePrefetcher::onAppWatchTick()
{
    if (appProcess.isNull() || !platform::waitForProcessEnd(appProcess, 0))
        return;
    appWatchTimer->stop();
    qInfo() << "[UpdatePrefetch] app da dong -> dung tai";
    stop();
}

void UpdatePrefetcher::abortReply()
{
    if (!reply)
        return;
    QNetworkReply* abandoned = reply;
    reply = nullptr;
    // Cut the connections first so that the aborted reply's finished() never arrives here.
    disconnect(abandoned, nullptr, this, nullptr);
    abandoned->abort();
    abandoned->deleteLater();
}

void UpdatePrefetcher::closePartFile()
{
    if (partFile) {
        partFile->flush();
        partFile->close();
        delete partFile;
        partFile = nullptr;
    }
    receiving = false;
}

void UpdatePrefetcher::dropHashing()
{
    delete hashFile;
    hashFile = nullptr;
    delete hash;
    hash = nullptr;
}

void UpdatePrefetcher::stop()
{
    if (phase == Idle)
        return;
    stopping = true;
    pumpTimer->stop();
    stallTimer->stop();
    abortReply();
    closePartFile();
    dropHashing();
    saveState(true);
    writePendingState();
    const int remaining = currentIndex >= 0 ? plan.size() - currentIndex : plan.size();
    qInfo() << "[UpdatePrefetch] dung - xong" << filesOk << "file, con" << remaining;
    phase = Idle;
    if (!prefetchLock.isNull())
        prefetchLock.releaseAndClose();
    emit finished();
}

void UpdatePrefetcher::finish(const QString& message)
{
    pumpTimer->stop();
    stallTimer->stop();
    if (appWatchTimer)
        appWatchTimer->stop();
    abortReply();
    closePartFile();
    dropHashing();
    saveState(true);
    writePendingState();
    phase = Idle;
    if (!prefetchLock.isNull())
        prefetchLock.releaseAndClose();
    qInfo().noquote() << "[UpdatePrefetch]" << message;
    emit finished();
}

void UpdatePrefetcher::writeState()
{
    if (lastStateWrite.isValid() && lastStateWrite.elapsed() < stateWriteIntervalMs) {
        if (!stateTimer->isActive())
            stateTimer->start(int(stateWriteIntervalMs - lastStateWrite.elapsed()));
        return;
    }
    stateTimer->stop();
    qint64 bytes = 0;
    writeCacheState(state, &bytes);
    lastStateWrite.start();
    stateWriteIntervalMs = qMax(kPrefetchStateWriteIntervalMs, bytes * 1000 / kPrefetchStateWriteBytesPerSecond);
}

void UpdatePrefetcher::writePendingState()
{
    if (!stateTimer->isActive())
        return;
    lastStateWrite.invalidate();
    writeState();
}

} // namespace corv
