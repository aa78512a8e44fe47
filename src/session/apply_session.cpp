#include "session/apply_session.h"

#include "apply/apply_transaction.h"
#include "apply/interrupted_apply_repair.h"
#include "apply/staging_download.h"
#include "apply/update_cache.h"
#include "base/own_files.h"
#include "base/sha256.h"
#include "update/manifest_signature.h"
#include "update/updater_config.h"

#include <QDir>
#include <QEventLoop>
#include <QThread>
#include <QVector>
#include <QtDebug>

#include <memory>

namespace {

void reportStatus(const UpdateSession& session, const QString& text)
{
    if (session.onStatus)
        session.onStatus(text);
}

// The installed build is current when its build number is not lower than the published one
// (never downgrade); without both build numbers the versions must match exactly.
bool isUpToDate(const Manifest& local, const Manifest& remote)
{
    if (remote.buildNumber >= 0 && local.buildNumber >= 0)
        return local.buildNumber >= remote.buildNumber;
    return local.fullVersion == remote.fullVersion;
}

} // namespace

UpdateOutcome runUpdateSession(UpdateSession& session)
{
    // A cut-short earlier apply is repaired even when this installation does not update itself.
    repairInterruptedApply(session);
    // Staging left by a run that was killed after its files were moved into place would
    // otherwise stay until the next real update; this run holds the updater lock, so nothing
    // else uses it. A link in its place is removed as a link, never followed.
    removeOwnPath(stagingDir(session));

    QString manifestUrl;
    QString baseUrl;
    if (!readUpdaterConfig(session.appDir, manifestUrl, baseUrl)) {
        qInfo() << "[Update] khong co updater.conf -> bo qua update";
        return NoConfig;
    }
    reportStatus(session, QString::fromUtf8("Đang kiểm tra cập nhật…"));

    Manifest remote;
    QByteArray rawBytes;
    if (!fetchTrustedManifest(session.network, manifestUrl, remote, rawBytes))
        return ManifestRejected;

    const QString version = remote.fullVersion;
    pruneCacheExcept(version);

    Manifest local;
    if (loadInstalledManifest(session.appDir, &local) && isUpToDate(local, remote)) {
        qInfo() << "[Update] da moi nhat:" << version;
        clearUpdateCache();
        return UpToDate;
    }

    // Each changed file's GET starts as soon as its installed copy is found to differ.
    StagingFetches fetches(session, baseUrl, version);
    QHash<QString, QString> installedHashes;
    const QList<ManifestFile> plan = changedFiles(remote, session.appDir, &installedHashes,
                                                  [&fetches](const ManifestFile& file, const QString& installed) {
                                                      fetches.fileChanged(file, installed);
                                                  });
    if (plan.isEmpty()) {
        // Every file already has the published content: only the record is missing or stale.
        writeInstalledManifest(session, rawBytes);
        qInfo() << "[Update] hash khop het, dong bo manifest ->" << version;
        clearUpdateCache();
        return UpToDate;
    }

    reportStatus(session, QString::fromUtf8("Đang tải bản cập nhật (%1 tệp)…").arg(plan.size()));
    QList<StagedFile> staged;
    if (!downloadToStaging(session, plan, baseUrl, version, staged, installedHashes, &fetches))
        return Failed;

    reportStatus(session, QString::fromUtf8("Đang áp bản cập nhật…"));
    const bool applied = applyStagedFiles(session, staged);
    removeOwnPath(stagingDir(session));
    if (!applied)
        return Failed;  // rolled back; the cache stays for the next attempt

    writeInstalledManifest(session, rawBytes);
    clearUpdateCache();
    reportStatus(session, QString::fromUtf8("Cập nhật hoàn tất."));
    qInfo() << "[Update] CAP NHAT THANH CONG ->" << version;
    return Updated;
}

QList<ManifestFile> changedFiles(const Manifest& manifest, const QString& appDir,
                                 QHash<QString, QString>* installedHashes, const OnFileChanged& onChanged)
{
    const QDir dir(appDir);
    // The files are hashed on a thread of their own while this one runs its event loop: the
    // network and the disk writes of the first changed files go on beside the reads of the
    // rest, and the status window keeps repainting. Each hash is also sent here as a queued
    // call, in manifest order, for onChanged; the plan itself is made from all of them once
    // the thread has ended, so an event loop that ends early cannot shorten it.
    QVector<QString> installed(manifest.files.size());
    QObject receiver;
    QEventLoop loop;
    std::unique_ptr<QThread> hashing(QThread::create([&] {
        for (int i = 0; i < manifest.files.size(); ++i) {
            // An unreadable or missing file hashes to "" and therefore always lands in the plan.
            installed[i] = sha256OfFile(dir.filePath(manifest.files.at(i).path)).toLower();
            const QString hash = installed[i];
            if (onChanged && hash != manifest.files.at(i).sha256)
                QMetaObject::invokeMethod(&receiver, [&manifest, &onChanged, i, hash] {
                    onChanged(manifest.files.at(i), hash);
                }, Qt::QueuedConnection);
        }
        QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
    }));
    hashing->start();
    loop.exec();
    hashing->wait();

    QList<ManifestFile> changed;
    for (int i = 0; i < manifest.files.size(); ++i) {
        const ManifestFile& file = manifest.files.at(i);
        if (installed.at(i) == file.sha256)
            continue;
        changed.append(file);
        if (installedHashes)
            installedHashes->insert(file.path, installed.at(i));
    }
    return changed;
}
