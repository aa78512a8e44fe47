// The planned files, one at a time: a rate-limited, resumable download into "<path>.part",
// then a length check, an incremental SHA-256 and the rename to the final cache name.
#include "prefetch/update_prefetcher.h"

#include "apply/artifact_decoder.h"
#include "base/own_files.h"
#include "base/sha256.h"
#include "update/http_fetch.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkReply>
#include <QTimer>

namespace corv {

void UpdatePrefetcher::startNextFile()
{
    // Deferred calls may arrive after the run has ended.
    if (stopping || phase == Idle)
        return;
    ++currentIndex;
    if (currentIndex != retryIndex) {
        retryIndex = currentIndex;
        retryCount = 0;
    }
    if (currentIndex >= plan.size()) {
        finish(QStringLiteral("xong toan bo - %1 file ok, %2 bo lai cho updater")
                   .arg(filesOk)
                   .arg(filesLeft));
        return;
    }

    const ManifestFile& file = plan.at(currentIndex);
    const QString version = manifest.fullVersion;
    const QString part = cachePartPath(version, file.path);
    if (part.isEmpty()) {
        qWarning() << "[UpdatePrefetch] duong dan khong an toan trong manifest:" << file.path;
        ++filesLeft;
        QTimer::singleShot(0, this, [this] { startNextFile(); });
        return;
    }
    makeOwnDirectory(QFileInfo(part).absolutePath());
    // The way this entry takes to its file, once per choice (retries do not repeat it).
    const PlannedFile& planned = planFiles.at(currentIndex);
    if (!planned.artifacts.isEmpty() && retryCount == 0)
        qInfo().noquote() << "[UpdatePrefetch]" << planned.file.path << "tai" << artifactKind(planned.artifacts.first())
                          << planned.artifacts.first().size << "byte thay vi" << planned.file.size << "byte";

    qint64 have = cachePartSize(version, file.path);
    phase = Downloading;
    bytesHave = have;
    bytesSinceSave = 0;
    receiving = false;
    writeBudget = 0;
    if (file.size > 0 && have == file.size) {
        qInfo().noquote() << "[UpdatePrefetch]" << file.path << "da du byte tu luot truoc -> chi verify";
        completeFile();
        return;
    }
    if (have > fileSizeBound(file)) {
        removeOwnPath(part);
        have = 0;
        bytesHave = 0;
    }

    QNetworkRequest request = makeUpdateRequest(baseUrl + file.path);
    if (have >= 1) {
        request.setRawHeader("Range", "bytes=" + QByteArray::number(have) + '-');
        qInfo().noquote() << "[UpdatePrefetch]" << file.path << "resume tu" << have << "byte";
    } else {
        qInfo().noquote() << "[UpdatePrefetch]" << file.path << "tai tu dau" << qMax<qint64>(file.size, 0) / 1024 << "KB";
    }
    setReadBufferLimit(request, kPrefetchReadBufferBytes);
    sendGet(request);
    connect(reply, &QNetworkReply::readyRead, this, &UpdatePrefetcher::onReadyRead);
    connect(reply, &QNetworkReply::finished, this, &UpdatePrefetcher::onFileReplyFinished);
    pumpTimer->start();
}

// Decides, once the status line is known, whether and how the body goes into the ".part"
// file. False when the attempt has failed (advance(false) has then been called) or when the
// response has not been received yet.
bool UpdatePrefetcher::acceptResponse()
{
    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!statusAttribute.isValid())
        return false;
    const ManifestFile& file = plan.at(currentIndex);
    const int status = statusAttribute.toInt();
    bool append = false;
    if (status == 206) {
        append = bytesHave > 0;
    } else if (status != 200) {
        qWarning() << "[UpdatePrefetch]" << file.path << "HTTP" << status << "-> bo file nay";
        advance(false);
        return false;
    }
    const QByteArray encoding = refusedContentEncoding(*reply);
    if (!encoding.isEmpty()) {
        qWarning() << "[UpdatePrefetch]" << file.path << "Content-Encoding" << encoding.constData() << "-> bo file nay";
        advance(false);
        return false;
    }

    const QString part = cachePartPath(manifest.fullVersion, file.path);
    const qint64 onDisk = cachePartSize(manifest.fullVersion, file.path);
    if (!append)
        bytesHave = 0;
    delete partFile;
    partFile = new QFile;
    const QIODevice::OpenMode mode =
        append ? QIODevice::WriteOnly | QIODevice::Append : QIODevice::WriteOnly | QIODevice::Truncate;
    if (!openOwnFile(*partFile, part, mode)) {
        qWarning() << "[UpdatePrefetch] khong mo duoc" << part;
        delete partFile;
        partFile = nullptr;
        advance(false);
        return false;
    }
    receiving = true;
    if (!append && status == 200 && onDisk >= 1)
        qWarning() << "[UpdatePrefetch] server tra 200 cho request Range -> BO" << onDisk
                   << "byte da tai, ghi de tu dau";
    return true;
}

void UpdatePrefetcher::onReadyRead()
{
    if (!reply || stopping)
        return;
    if (!receiving && !acceptResponse())
        return;

    while (writeBudget > 0 && reply && reply->bytesAvailable() > 0) {
        const QByteArray chunk = reply->read(qMin(writeBudget, reply->bytesAvailable()));
        if (chunk.isEmpty())
            break;
        if (exceedsManifestSize(chunk.size()))
            return;
        if (partFile->write(chunk) < chunk.size()) {
            qWarning() << "[UpdatePrefetch] ghi dia hong -> bo file nay";
            advance(false);
            return;
        }
        writeBudget -= chunk.size();
        bytesHave += chunk.size();
        bytesSinceSave += chunk.size();
        stallTimer->start(kPrefetchStallTimeoutMs);
    }
    saveState(false);
}

void UpdatePrefetcher::onPumpTick()
{
    if (stopping)
        return;
    if (phase == Hashing) {
        hashStep();
    } else if (phase == Downloading) {
        writeBudget = qMin(writeBudget + kPrefetchBudgetPerTick, kPrefetchBudgetCeiling);
        onReadyRead();
    }
}

void UpdatePrefetcher::onFileReplyFinished()
{
    if (!reply)
        return;
    // A response without a body never raised readyRead (a bodiless status, an empty file):
    // its status is judged here. A failed judgement has already ended the attempt.
    if (!receiving && !stopping
        && reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()
        && !acceptResponse())
        return;
    // What is left is bounded by the read buffer, so it is written regardless of the budget.
    if (receiving && partFile && partFile->isOpen()) {
        while (reply->bytesAvailable() > 0) {
            const QByteArray chunk = reply->read(kPrefetchDrainChunkBytes);
            if (chunk.isEmpty())
                break;
            if (exceedsManifestSize(chunk.size()))
                return;
            partFile->write(chunk);
            bytesHave += chunk.size();
        }
    }
    QNetworkReply* finishedReply = reply;
    reply = nullptr;
    finishedReply->deleteLater();
    stallTimer->stop();
    if (stopping)
        return;
    if (finishedReply->error() == QNetworkReply::NoError) {
        completeFile();
        return;
    }
    qWarning().noquote() << "[UpdatePrefetch]" << plan.at(currentIndex).path << "dut o" << bytesHave
                         << "byte:" << finishedReply->errorString();
    advance(false);
}

bool UpdatePrefetcher::exceedsManifestSize(qint64 chunkBytes)
{
    const ManifestFile& file = plan.at(currentIndex);
    if (bytesHave + chunkBytes <= fileSizeBound(file))
        return false;
    // More bytes than the file has: a broken or hostile server, which could fill the disk.
    qWarning() << "[UpdatePrefetch]" << file.path << "vuot qua" << fileSizeBound(file) << "byte cua manifest -> bo file nay";
    advance(false);
    return true;
}

void UpdatePrefetcher::completeFile()
{
    closePartFile();
    const ManifestFile& file = plan.at(currentIndex);
    const QString part = cachePartPath(manifest.fullVersion, file.path);
    // An entry without a size leaves it to the hash.
    if (file.size >= 0 && ownFileSize(part) != file.size) {
        qWarning() << "[UpdatePrefetch]" << file.path << "thieu byte sau khi tai xong -> bo";
        advance(false);
        return;
    }
    dropHashing();
    hashFile = new QFile;
    if (!openOwnFile(*hashFile, part, QIODevice::ReadOnly)) {
        delete hashFile;
        hashFile = nullptr;
        advance(false);
        return;
    }
    hash = new Sha256;
    phase = Hashing;
    pumpTimer->start();
}

void UpdatePrefetcher::hashStep()
{
    if (!hashFile || !hash)
        return;
    const QByteArray chunk = hashFile->read(kPrefetchHashChunkBytes);
    if (!chunk.isEmpty())
        hash->addData(chunk);
    if (!hashFile->atEnd() && !chunk.isEmpty())
        return;

    const QString hex = hash->hexResult();
    dropHashing();
    const ManifestFile& file = plan.at(currentIndex);
    const QString part = cachePartPath(manifest.fullVersion, file.path);
    if (hex != file.sha256) {
        qWarning().noquote() << "[UpdatePrefetch]" << file.path << "hash lech -> xoa, tai lai";
        removeOwnPath(part);
        advance(false);
        return;
    }

    const QString finalPath = cacheFilePath(manifest.fullVersion, file.path);
    removeOwnPath(finalPath);
    if (!QFile::rename(part, finalPath)) {
        qWarning() << "[UpdatePrefetch] khong doi ten duoc" << part;
        advance(false);
        return;
    }
    ++filesOk;
    qInfo().noquote() << "[UpdatePrefetch]" << file.path << "xong (" << currentIndex + 1 << "/"
                      << plan.size() << ")";
    for (CacheFileState& entry : state.files) {
        if (entry.path == file.path) {
            entry.got = file.size;
            entry.done = true;
        }
    }
    saveState(true);
    advance(true);
}

void UpdatePrefetcher::advance(bool ok)
{
    pumpTimer->stop();
    abortReply();
    closePartFile();
    if (!ok) {
        if (retryCount < kPrefetchRetriesPerFile && !stopping) {
            --currentIndex;
            ++retryCount;
            QTimer::singleShot(kPrefetchRetryDelayMs, this, [this] { startNextFile(); });
            return;
        }
        if (!stopping && fallBack()) {
            --currentIndex;  // the same entry, now the next way to its file
            QTimer::singleShot(0, this, [this] { startNextFile(); });
            return;
        }
        ++filesLeft;  // left for the apply updater
    }
    if (!stopping)
        QTimer::singleShot(0, this, [this] { startNextFile(); });
}

bool UpdatePrefetcher::fallBack()
{
    PlannedFile& planned = planFiles[currentIndex];
    if (planned.artifacts.isEmpty())
        return false;
    const QString version = manifest.fullVersion;
    const ManifestArtifact failed = planned.artifacts.takeFirst();
    const ManifestFile next = planned.artifacts.isEmpty() ? planned.file : artifactAsFile(planned.file, planned.artifacts.first());
    const QString way = planned.artifacts.isEmpty() ? QStringLiteral("tai ca file")
                                                    : QStringLiteral("tai ") + artifactKind(planned.artifacts.first());
    // The cap holds for what the run may still take: a larger way in place of the failed one
    // must fit too.
    const ManifestFile& current = plan.at(currentIndex);
    const qint64 more = qMax<qint64>(0, fileSizeBound(next) - cachePartSize(version, next.path))
                        - qMax<qint64>(0, fileSizeBound(current) - cachePartSize(version, current.path));
    if (plannedBytes + more > kPrefetchDownloadCap) {
        qWarning().noquote() << "[UpdatePrefetch]" << artifactKind(failed) << "cho" << planned.file.path
                             << "hong -> de updater lo (vuot tran" << kPrefetchDownloadCap / 1048576 << "MB)";
        return false;
    }
    qWarning().noquote() << "[UpdatePrefetch]" << artifactKind(failed) << "cho" << planned.file.path << "hong ->" << way;
    plannedBytes += more;
    for (CacheFileState& entry : state.files) {
        if (entry.path == current.path && !entry.done)
            entry = CacheFileState{next.path, next.size, next.sha256, cachePartSize(version, next.path), false};
    }
    plan[currentIndex] = next;
    retryCount = 0;
    saveState(true);
    return true;
}

void UpdatePrefetcher::saveState(bool force)
{
    if (state.fullVersion.isEmpty())
        return;
    if (!force && bytesSinceSave < kPrefetchStateSaveBytes)
        return;
    bytesSinceSave = 0;
    // The recorded count must already be on disk.
    if (partFile && partFile->isOpen())
        partFile->flush();
    if (currentIndex >= 0 && currentIndex < plan.size()) {
        const QString& path = plan.at(currentIndex).path;
        for (CacheFileState& entry : state.files) {
            if (entry.path == path && !entry.done)
                entry.got = bytesHave;
        }
    }
    writeState();
}

} // namespace corv
