#include "apply/staging_download.h"

#include "apply/artifact_decoder.h"
#include "apply/update_cache.h"
#include "base/own_files.h"
#include "base/sha256.h"
#include "platform/file_replace.h"
#include "update/fetch_ahead.h"
#include "update/update_session.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <memory>

namespace {

// A cached file into a new file of staging, in blocks, never the whole file at once; neither
// side is reached through a link. A copy that is staged as it is gets synced to disk.
enum class Copy { ToResume, ToStage };
bool copyReplacing(const QString& from, const QString& to, Copy purpose)
{
    QFile source;
    QFile target;
    if (!openOwnFile(source, from, QIODevice::ReadOnly) || !openOwnFile(target, to, QIODevice::WriteOnly))
        return false;
    QByteArray buffer(int(kHttpReadChunkBytes), Qt::Uninitialized);
    for (;;) {
        const qint64 read = source.read(buffer.data(), buffer.size());
        if (read == 0)
            return purpose == Copy::ToStage ? syncWrittenFile(target) : target.flush();
        if (read < 0 || target.write(buffer.constData(), read) != read)
            return false;
    }
}

// One staging download: where it goes, its GETs, and the body bytes it has taken from the
// network.
struct Transfer {
    QString staging;
    QString baseUrl;
    QString version;
    FetchAhead& ahead;
    qint64& bodyBytes;
    int fromCache = 0;  // files staged from the cache, whole or from a finished artifact
};

// Stages `file` at dst from one of its artifacts: taken finished from the cache, or downloaded
// into staging beside it (resumed from a partial one in the cache), checked by its SHA-256,
// decoded (a patch against `installed`) and checked again as a whole download would be. Any
// failure logs one line that names `next`, the way tried after this one, and leaves nothing at
// dst.
bool stageFromArtifact(Transfer& transfer, const ManifestFile& file, const ManifestArtifact& artifact,
                       const QString& dst, const QString& installed, const QString& next)
{
    const ManifestFile packed = artifactAsFile(file, artifact);
    const QString kind = artifactKind(artifact);
    qInfo().noquote() << QStringLiteral("[Update] \"%1\" tai %2 %3 byte thay vi %4 byte")
                             .arg(file.path, kind).arg(artifact.size).arg(file.size);
    const auto fallBack = [&](const QString& reason) {
        qWarning().noquote() << QStringLiteral("[Update] %1 cho \"%2\" hong (%3) -> %4").arg(kind, file.path, reason, next);
        removeOwnPath(dst);
        return false;
    };

    QString input = findCompleteCachedFile(transfer.version, packed);
    const bool cached = !input.isEmpty();
    const QString staged = transfer.staging + QLatin1Char('/') + packed.path;
    if (input.isEmpty()) {
        const QString url = transfer.baseUrl + packed.path;
        const QString part = cachePartPath(transfer.version, packed.path);
        const qint64 have = cachePartSize(transfer.version, packed.path);
        // Bounded by the artifact's size, like a whole file by its own.
        const bool resumed = have > 0 && have < packed.size && copyReplacing(part, staged, Copy::ToResume);
        if (resumed)
            qInfo() << "[Update]" << packed.path << "noi tiep tu kho tam:" << have << "byte";
        if (!transfer.ahead.getToFile(url, staged, resumed ? have : 0, packed.size, &transfer.bodyBytes, nullptr)) {
            removeOwnPath(staged);
            return fallBack(QStringLiteral("tai that bai"));
        }
        if (sha256OfFile(staged) != packed.sha256) {
            // Bad bytes in the cache's partial artifact must not be resumed from again.
            if (resumed)
                removeOwnPath(part);
            removeOwnPath(staged);
            return fallBack(QStringLiteral("hash lech"));
        }
        input = staged;
    }
    QString reason;
    const bool decoded =
        decodeArtifactToFile(input, artifact.isPatch() ? installed : QString(), dst, file.size, &reason);
    if (input == staged)
        removeOwnPath(staged);
    if (!decoded)
        return fallBack(reason);
    if (sha256OfFile(dst) != file.sha256)
        return fallBack(QStringLiteral("file giai ra hash lech"));
    transfer.fromCache += cached;
    return true;
}

} // namespace

QString stagingDir(const UpdateSession& session)
{
    return session.appDir + QStringLiteral("/.staging");
}

StagingFetches::StagingFetches(UpdateSession& session, const QString& baseUrl, const QString& version)
    : staging(stagingDir(session)), baseUrl(baseUrl), version(version),
      ahead(session.network, &bodyBytes)
{
    // Nothing can come from a cache without a directory for this build: looked at once here
    // rather than by a few opens per file.
    const QString cacheDir = cacheVersionDir(version);
    cacheHeld = !cacheDir.isEmpty() && QFileInfo(cacheDir + QStringLiteral("/files")).isDir();
}

StagingFetches::~StagingFetches()
{
    // Whatever ended the download, later writes are synced one by one again.
    if (syncsOwed)
        syncDeferredWrittenFiles();
}

void StagingFetches::prepare()
{
    if (prepared)
        return;
    // Whatever an earlier run left here is discarded, never reused.
    removeOwnPath(staging);
    makeOwnDirectory(staging);
    prepared = true;
    // From the first staged file on, and only for the staged files: a run that stages nothing
    // (every hash already matches) writes its record synced, as always.
    deferWrittenFileSyncs();
    syncsOwed = true;
}

void StagingFetches::fileChanged(const ManifestFile& file, const QString& installedSha256)
{
    prepare();
    // The download gives up at a path that is not safe, and fetches nothing after it.
    const QString safePath = safeRelativePath(file.path);
    stopped = stopped || safePath.isEmpty();
    if (stopped)
        return;
    // A file with anything of its own in the cache is left to its turn, which looks at the
    // cache as it is then.
    const auto inCache = [&](const ManifestFile& f) {
        return cacheHeld && (QFileInfo::exists(cacheFilePath(version, f.path))
                             || QFileInfo::exists(cachePartPath(version, f.path)));
    };
    const QList<ManifestArtifact> options = usableArtifacts(file, installedSha256);
    if (inCache(file) || std::any_of(options.begin(), options.end(), [&](const ManifestArtifact& artifact) {
            return inCache(artifactAsFile(file, artifact));
        }))
        return;
    if (options.isEmpty()) {
        ahead.add(baseUrl + file.path, staging + QLatin1Char('/') + safePath, fileSizeBound(file), true);
    } else {
        const ManifestFile packed = artifactAsFile(file, options.first());
        ahead.add(baseUrl + packed.path, staging + QLatin1Char('/') + packed.path, packed.size, false);
    }
}

bool downloadToStaging(UpdateSession& session, const QList<ManifestFile>& changed, const QString& baseUrl,
                       const QString& version, QList<StagedFile>& staged,
                       const QHash<QString, QString>& installedHashes, StagingFetches* started)
{
    std::unique_ptr<StagingFetches> own;
    if (!started) {
        own = std::make_unique<StagingFetches>(session, baseUrl, version);
        started = own.get();
        for (const ManifestFile& file : changed)
            started->fileChanged(file, installedHashes.value(file.path));
    }
    started->prepare();
    const QString staging = started->staging;
    const bool cacheHeld = started->cacheHeld;
    Transfer transfer{staging, baseUrl, version, started->ahead, started->bodyBytes};
    qint64 wholeBytes = 0;

    // The fetches still under way write into staging: they end before it goes.
    const auto abandon = [&] {
        transfer.ahead.dropAll();
        removeOwnPath(staging);
        return false;
    };
    auto giveUp = [&](const ManifestFile& file) {
        qWarning() << "[Update] tai" << file.path << "that bai -> huy, chay ban hien tai";
        return abandon();
    };

    for (const ManifestFile& file : changed) {
        // The parser already normalised the path; checked again so that no entry can name a
        // file outside the staging directory.
        const QString safePath = safeRelativePath(file.path);
        if (safePath.isEmpty())
            return giveUp(file);
        const QString dst = staging + QLatin1Char('/') + safePath;
        // Every download is bounded by the manifest size (0 admits only an empty body): a
        // server that sends without end cannot fill the disk.
        const QString url = baseUrl + file.path;
        const qint64 bound = fileSizeBound(file);
        wholeBytes += qMax<qint64>(0, file.size);

        const QString cached = cacheHeld ? findCompleteCachedFile(version, file) : QString();
        if (!cached.isEmpty()) {
            if (copyReplacing(cached, dst, Copy::ToStage)) {
                ++transfer.fromCache;
                staged.append({dst, file.path});
                continue;
            }
            qWarning() << "[Update] khong chep duoc tu kho tam" << file.path << "-> tai lai";
        }

        // The smallest usable transfer first; each failure falls back to the next, the whole
        // file last.
        QList<ManifestArtifact> options = usableArtifacts(file, installedHashes.value(file.path));
        // One that the prefetcher already holds finished costs nothing on the wire.
        std::stable_partition(options.begin(), options.end(), [&](const ManifestArtifact& artifact) {
            return !findCompleteCachedFile(version, artifactAsFile(file, artifact)).isEmpty();
        });
        bool stagedSmaller = false;
        for (int i = 0; i < options.size() && !stagedSmaller; ++i) {
            const QString next = i + 1 < options.size() ? QStringLiteral("tai ") + artifactKind(options.at(i + 1))
                                                        : QStringLiteral("tai ca file");
            stagedSmaller = stageFromArtifact(transfer, file, options.at(i), dst,
                                              session.appDir + QLatin1Char('/') + safePath, next);
        }
        if (stagedSmaller) {
            staged.append({dst, file.path});
            continue;
        }

        // The download hashes the file as it writes it; only a file resumed from the cache's
        // partial one is read again.
        QString digest;
        const auto download = [&](qint64 offset) {
            return transfer.ahead.getToFile(url, dst, offset, bound, &transfer.bodyBytes, &digest);
        };
        const auto stagedHash = [&] { return digest.isEmpty() ? sha256OfFile(dst) : digest; };
        const QString part = cachePartPath(version, file.path);
        const qint64 have = cacheHeld ? cachePartSize(version, file.path) : 0;
        const bool resumable = have > 0 && !part.isEmpty() && have < bound;
        bool downloaded = false;
        if (resumable && copyReplacing(part, dst, Copy::ToResume)) {
            qInfo() << "[Update]" << file.path << "noi tiep tu kho tam:" << have << "byte";
            downloaded = download(have);
            if (!downloaded) {
                qWarning() << "[Update] tai tiep" << file.path << "that bai -> thu lai tu dau";
                removeOwnPath(dst);
            }
        }
        if (!downloaded && !download(0))
            return giveUp(file);

        if (stagedHash() == file.sha256) {
            staged.append({dst, file.path});
            continue;
        }
        // Bad bytes in the cache's partial file must not be resumed from again.
        qWarning() << "[Update] hash lech" << file.path << "-> bo phan da co, tai lai tu dau";
        if (!part.isEmpty())
            removeOwnPath(part);
        removeOwnPath(dst);
        if (!download(0) || stagedHash() != file.sha256) {
            qWarning() << "[Update] hash van lech" << file.path << "-> huy";
            return abandon();
        }
        staged.append({dst, file.path});
    }

    // Every staged file is on disk before the first of them is moved into the installation.
    started->ahead.dropAll();
    started->syncsOwed = false;
    if (!syncDeferredWrittenFiles()) {
        qWarning() << "[Update] dong bo cac file da tai that bai, GetLastError=" << corv::platform::lastError()
                   << "-> huy, chay ban hien tai";
        removeOwnPath(staging);
        return false;
    }
    qInfo() << "[Update] dung" << transfer.fromCache << "/" << changed.size() << "file tu kho tam";
    qInfo() << "[Update] da tai qua mang" << transfer.bodyBytes << "byte (ca file:" << wholeBytes << "byte)";
    return true;
}
