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
#include <QRegularExpression>
#include <QTimer>

namespace {

// The full length that a 206's "Content-Range: bytes first-last/length" names; -1 without one.
qint64 contentRangeTotal(const QNetworkReply& reply)
{
    static const QRegularExpression form(QStringLiteral("^bytes \\d+-\\d+/(\\d{1,18})$"));
    const QRegularExpressionMatch match = form.match(QString::fromLatin1(reply.rawHeader("Content-Range")).trimmed());
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

} // namespace

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

    if (have >= 1)
        qInfo().noquote() << "[UpdatePrefetch]" << file.path << "resume tu" << have << "byte";
    else
        qInfo().noquote() << "[UpdatePrefetch]" << file.path << "tai tu dau" << qMax<qint64>(file.size, 0) / 1024 << "KB";
    pumpTimer->start();
    requestRange();
}

void UpdatePrefetcher::requestRange()
{
    // A file is asked for in ranges of at most what the budget holds, paid from it at once: the
    // server can then send no faster than the cap, however much the socket buffers would take.
    // Without budget the next pump tick asks.
    const ManifestFile& file = plan.at(currentIndex);
    if (file.size > 0 && writeBudget <= kPrefetchAnswerHeaderBytes)
        return;
    QNetworkRequest request = makeUpdateRequest(baseUrl + file.path);
    paidLeft = 0;
    if (file.size > 0) {
        paidLeft = qMin(writeBudget - kPrefetchAnswerHeaderBytes, file.size - bytesHave);
        spend(paidLeft + kPrefetchAnswerHeaderBytes);
        request.setRawHeader("Range", "bytes=" + QByteArray::number(bytesHave) + '-'
                                          + QByteArray::number(bytesHave + paidLeft - 1));
    } else if (bytesHave >= 1) {
        // No size, no end to ask for: the rest comes in one answer, read at the budget's pace.
        request.setRawHeader("Range", "bytes=" + QByteArray::number(bytesHave) + '-');
    }
    setReadBufferLimit(request, kPrefetchReadBufferBytes);
    sendGet(request);
    connect(reply, &QNetworkReply::readyRead, this, &UpdatePrefetcher::onReadyRead);
    connect(reply, &QNetworkReply::finished, this, &UpdatePrefetcher::onFileReplyFinished);
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
    // A range of a longer file than the manifest's is a range of another file.
    if (status == 206 && exceedsManifestSize(contentRangeTotal(*reply)))
        return false;
    // A 206 to a bounded range brings that range and no more. Any other answer (a 200 with the
    // whole file from a server that ignored the range, the open rest of a file without a size)
    // is read at the budget's pace from the next tick on, the range it paid for forfeited: of a
    // fast body longer than the file, the first tick's read already finds the excess.
    bounded = status == 206 && paidLeft > 0;
    if (!bounded) {
        paidLeft = 0;
        spend(qMax<qint64>(writeBudget, 0));
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

    bool beyondRange = false;
    while (reply && reply->bytesAvailable() > 0) {
        beyondRange = bounded && paidLeft == 0;
        const qint64 allowed = bounded ? paidLeft : paidLeft + qMax<qint64>(writeBudget, 0);
        if (allowed <= 0)
            break;
        const QByteArray chunk = reply->read(qMin(allowed, reply->bytesAvailable()));
        if (chunk.isEmpty())
            break;
        if (exceedsManifestSize(bytesHave + chunk.size()))
            return;
        if (partFile->write(chunk) < chunk.size()) {
            qWarning() << "[UpdatePrefetch] ghi dia hong -> bo file nay";
            advance(false);
            return;
        }
        charge(chunk.size());
        bytesHave += chunk.size();
        bytesSinceSave += chunk.size();
        stallTimer->start(kPrefetchStallTimeoutMs);
    }
    saveState(false);
    if (beyondRange) {
        // More than the range asked for: the rest of this answer is not taken.
        abortReply();
        replyDone();
    }
}

void UpdatePrefetcher::charge(qint64 bytes)
{
    const qint64 paid = qMin(bytes, paidLeft);
    paidLeft -= paid;
    spend(bytes - paid);
}

void UpdatePrefetcher::spend(qint64 bytes)
{
    if (writeBudget >= kPrefetchBudgetCeiling)
        budgetClock.start();
    writeBudget -= bytes;
}

void UpdatePrefetcher::onPumpTick()
{
    if (stopping || (phase != Downloading && phase != Hashing))
        return;
    // The budget fills on while a file is hashed, so the next file's first range need not wait.
    const qint64 tick = qint64(kPrefetchPumpIntervalMs) * 1000000;
    const qint64 earned = budgetClock.isValid() ? qMin(budgetClock.nsecsElapsed(), tick) * kPrefetchBudgetPerTick / tick
                                                : kPrefetchBudgetPerTick;
    writeBudget = qMin(writeBudget + earned, kPrefetchBudgetCeiling);
    budgetClock.start();
    if (phase == Hashing)
        hashStep();
    else if (reply)
        onReadyRead();
    else
        requestRange();
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
    // What is left is bounded by the read buffer, so it is written regardless of the budget;
    // what its request did not pay for comes out of the next ticks' budget.
    if (receiving && partFile && partFile->isOpen()) {
        while (reply->bytesAvailable() > 0 && (!bounded || paidLeft > 0)) {
            const QByteArray chunk = reply->read(bounded ? qMin(paidLeft, kPrefetchDrainChunkBytes)
                                                         : kPrefetchDrainChunkBytes);
            if (chunk.isEmpty())
                break;
            if (exceedsManifestSize(bytesHave + chunk.size()))
                return;
            partFile->write(chunk);
            charge(chunk.size());
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
        replyDone();
        return;
    }
    qWarning().noquote() << "[UpdatePrefetch]" << plan.at(currentIndex).path << "dut o" << bytesHave
                         << "byte:" << finishedReply->errorString();
    advance(false);
}

void UpdatePrefetcher::replyDone()
{
    stallTimer->stop();
    // A whole range in and more of the file to come: the next range, when the budget allows.
    if (bounded && paidLeft == 0 && bytesHave < plan.at(currentIndex).size) {
        closePartFile();
        requestRange();
        return;
    }
    completeFile();
}

bool UpdatePrefetcher::exceedsManifestSize(qint64 length)
{
    const ManifestFile& file = plan.at(currentIndex);
    if (length <= fileSizeBound(file))
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
