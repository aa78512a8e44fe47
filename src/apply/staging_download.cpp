#include "apply/staging_download.h"

#include "apply/update_cache.h"
#include "update/http_fetch.h"
#include "update/sha256.h"
#include "update/update_session.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

// Deletes the staging tree; a link in its place is removed as a link, never followed.
void removeStaging(const QString& staging)
{
    const QFileInfo info(staging);
    if (info.isSymLink() || info.isJunction()) {
        if (!QFile::remove(staging))
            QDir().rmdir(staging);
        return;
    }
    QDir(staging).removeRecursively();
}

// QFile::copy refuses an existing destination, and copies in blocks, never the whole file.
bool copyReplacing(const QString& from, const QString& to)
{
    QFile::remove(to);
    return QFile::copy(from, to);
}

} // namespace

QString stagingDir(const UpdateSession& session)
{
    return session.appDir + QStringLiteral("/.staging");
}

bool downloadToStaging(UpdateSession& session, const QList<ManifestFile>& changed, const QString& baseUrl,
                       const QString& version, QList<StagedFile>& staged)
{
    const QString staging = stagingDir(session);
    // Whatever an earlier run left here is discarded, never reused.
    removeStaging(staging);
    QDir().mkpath(staging);
    int fromCache = 0;

    auto giveUp = [&](const ManifestFile& file) {
        qWarning() << "[Update] tai" << file.path << "that bai -> huy, chay ban hien tai";
        removeStaging(staging);
        return false;
    };

    for (const ManifestFile& file : changed) {
        // The parser already normalised the path; checked again so that no entry can name a
        // file outside the staging directory.
        const QString safePath = safeRelativePath(file.path);
        if (safePath.isEmpty())
            return giveUp(file);
        const QString dst = staging + QLatin1Char('/') + safePath;
        QDir().mkpath(QFileInfo(dst).path());
        // Every download is bounded by the manifest size (0 admits only an empty body): a
        // server that sends without end cannot fill the disk.
        const QString url = baseUrl + file.path;
        const qint64 bound = fileSizeBound(file);

        const QString cached = findCompleteCachedFile(version, file);
        if (!cached.isEmpty()) {
            if (copyReplacing(cached, dst)) {
                ++fromCache;
                staged.append({dst, file.path});
                continue;
            }
            qWarning() << "[Update] khong chep duoc tu kho tam" << file.path << "-> tai lai";
        }

        const QString part = cachePartPath(version, file.path);
        const qint64 have = cachePartSize(version, file.path);
        const bool resumable = have > 0 && !part.isEmpty() && have < bound;
        bool downloaded = false;
        if (resumable && copyReplacing(part, dst)) {
            qInfo() << "[Update]" << file.path << "noi tiep tu kho tam:" << have << "byte";
            downloaded = httpGetToFile(session.network, url, dst, have, bound);
            if (!downloaded) {
                qWarning() << "[Update] tai tiep" << file.path << "that bai -> thu lai tu dau";
                QFile::remove(dst);
            }
        }
        if (!downloaded && !httpGetToFile(session.network, url, dst, 0, bound))
            return giveUp(file);

        if (sha256OfFile(dst) == file.sha256) {
            staged.append({dst, file.path});
            continue;
        }
        // Bad bytes in the cache's partial file must not be resumed from again.
        qWarning() << "[Update] hash lech" << file.path << "-> bo phan da co, tai lai tu dau";
        if (!part.isEmpty())
            QFile::remove(part);
        QFile::remove(dst);
        if (!httpGetToFile(session.network, url, dst, 0, bound) || sha256OfFile(dst) != file.sha256) {
            qWarning() << "[Update] hash van lech" << file.path << "-> huy";
            removeStaging(staging);
            return false;
        }
        staged.append({dst, file.path});
    }

    qInfo() << "[Update] dung" << fromCache << "/" << changed.size() << "file tu kho tam";
    return true;
}
