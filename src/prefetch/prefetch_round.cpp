// One prefetch run up to its plan: trust the manifest, store it, decide what is missing, and
// refuse early when the download is too large or the disk too full.
#include "prefetch/update_prefetcher.h"

#include "apply/artifact_decoder.h"
#include "base/installation_dir.h"
#include "base/own_files.h"
#include "update/http_fetch.h"
#include "update/manifest_eligibility.h"
#include "update/manifest_signature.h"

#include <QDebug>
#include <QDir>
#include <QHash>
#include <QNetworkReply>
#include <QStorageInfo>
#include <QTimer>

#include <algorithm>
#include <limits>

namespace corv {

namespace {
constexpr qint64 kMiB = 1048576;

// need + more, held at the largest 64-bit count instead of overflowing.
qint64 addSaturating(qint64 need, qint64 more)
{
    return more > std::numeric_limits<qint64>::max() - need ? std::numeric_limits<qint64>::max() : need + more;
}
} // namespace

void UpdatePrefetcher::onManifestReplyFinished()
{
    stallTimer->stop();
    QNetworkReply* finishedReply = reply;
    reply = nullptr;
    if (!finishedReply)
        return;
    finishedReply->deleteLater();
    if (stopping)
        return;
    if (finishedReply->error() != QNetworkReply::NoError) {
        finish(QStringLiteral("tai manifest/sig hong -> thoi (updater se tu tai): ")
               + finishedReply->errorString());
        return;
    }
    // An empty body raises no readyRead, so its encoding is judged here.
    const QByteArray encoding = refusedContentEncoding(*finishedReply);
    if (!encoding.isEmpty()) {
        finish(QStringLiteral("tai manifest/sig hong -> thoi (updater se tu tai): ") + refusedEncodingText(encoding));
        return;
    }
    const QByteArray body = finishedReply->readAll();
    if (phase == FetchingManifest) {
        manifestBytes = body;
        fetchSignature();
        return;
    }

    // The signature is checked before a byte of the manifest reaches the parser.
    QString reason;
    if (!verifyManifestSignature(manifestBytes, body)) {
        finish(QStringLiteral("CHU KY MANIFEST SAI -> khong tai san gi ca"));
    } else if (!parseManifest(manifestBytes, &manifest)) {
        finish(QStringLiteral("manifest hong"));
    } else if (!isManifestForThisInstall(manifest, &reason)) {
        finish(QStringLiteral("manifest khong danh cho ban nay: ") + reason);
    } else {
        storeCachedManifest(manifest.fullVersion, manifestBytes, body);
        planRound();
    }
}

void UpdatePrefetcher::fetchSignature()
{
    phase = FetchingSignature;
    sendDocumentGet(manifestUrl + QStringLiteral(".sig"), kMaxSignatureBytes);
}

void UpdatePrefetcher::planRound()
{
    const QString version = manifest.fullVersion;
    pruneCacheExcept(version);

    Manifest installed;
    QList<ManifestFile> candidates;
    // Which patch applies is judged by the installed manifest: a prefetch never reads the
    // installed files (the apply checks them, and falls back when one differs).
    QHash<QString, QString> installedHashes;
    if (loadInstalledManifest(installationDir(), &installed)) {
        for (const ManifestFile& file : qAsConst(installed.files))
            installedHashes.insert(file.path, file.sha256);
        if (manifest.buildNumber >= 0 && installed.buildNumber >= manifest.buildNumber) {
            finish(QStringLiteral("da moi nhat -> khong co gi de tai san"));
            return;
        }
        candidates = manifestDelta(manifest, installed);
    } else {
        candidates = manifest.files;
    }

    // Files already finished and verified in the cache, whole or as an artifact the apply can
    // use, leave the plan; partial ones count only their missing bytes. The others are fetched
    // as their smallest usable artifact, or whole.
    plan.clear();
    planFiles.clear();
    qint64 need = 0;
    for (const ManifestFile& file : qAsConst(candidates)) {
        const QList<ManifestArtifact> artifacts = usableArtifacts(file, installedHashes.value(file.path));
        const bool cached = !findCompleteCachedFile(version, file).isEmpty()
                            || std::any_of(artifacts.begin(), artifacts.end(), [&](const ManifestArtifact& artifact) {
                                   return !findCompleteCachedFile(version, artifactAsFile(file, artifact)).isEmpty();
                               });
        if (cached) {
            ++filesOk;
            continue;
        }
        const ManifestFile fetched = artifacts.isEmpty() ? file : artifactAsFile(file, artifacts.first());
        // A file without a size may bring up to the global limit for such files.
        need = addSaturating(need, qMax<qint64>(0, fileSizeBound(fetched) - cachePartSize(version, fetched.path)));
        plan.append(fetched);
        planFiles.append({file, artifacts});
    }
    plannedBytes = need;

    if (plan.isEmpty()) {
        finish(QStringLiteral("kho tam da du cho ") + version);
        return;
    }
    if (need > kPrefetchDownloadCap) {
        finish(QStringLiteral("can tai %1 MB > tran %2 MB -> de updater lo")
                   .arg(need / kMiB)
                   .arg(kPrefetchDownloadCap / kMiB));
        return;
    }
    const QString cacheRoot = updateCacheRoot();
    makeOwnDirectory(cacheRoot);
    const QStorageInfo volume(cacheRoot);
    // A volume that cannot be queried, or reports nothing available, is not held against the run.
    if (volume.isValid() && volume.bytesAvailable() > 0
        && volume.bytesAvailable() - need < kPrefetchDiskReserve) {
        finish(QStringLiteral("dia con it cho -> khong tai san"));
        return;
    }

    state = CacheState();
    state.fullVersion = version;
    state.buildNumber = manifest.buildNumber;
    state.baseUrl = baseUrl;
    for (const ManifestFile& file : qAsConst(plan)) {
        CacheFileState entry;
        entry.path = file.path;
        entry.size = file.size;
        entry.sha256 = file.sha256;
        entry.got = cachePartSize(version, file.path);
        entry.done = false;
        state.files.append(entry);
    }
    saveState(true);

    qInfo().noquote() << "[UpdatePrefetch] bat dau" << version << "-" << plan.size() << "file,"
                      << need / kMiB << "MB";
    currentIndex = -1;
    startNextFile();
}

} // namespace corv

QList<ManifestFile> manifestDelta(const Manifest& remote, const Manifest& installed)
{
    QHash<QString, QString> installedHashes;
    for (const ManifestFile& file : installed.files)
        installedHashes.insert(file.path, file.sha256);

    QList<ManifestFile> changed;
    for (const ManifestFile& file : remote.files) {
        const auto found = installedHashes.constFind(file.path);
        if (found == installedHashes.constEnd() || found.value() != file.sha256)
            changed.append(file);
    }
    return changed;
}
