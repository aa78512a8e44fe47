#include "apply/staging_download.h"

#include "apply/update_cache.h"
#include "base/own_files.h"
#include "base/sha256.h"
#include "update/http_fetch.h"
#include "update/update_session.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

// A cached file into a new file of staging, in blocks, never the whole file at once; neither
// side is reached through a link.
bool copyReplacing(const QString& from, const QString& to)
{
    QFile source;
    QFile target;
    if (!openOwnFile(source, from, QIODevice::ReadOnly) || !openOwnFile(target, to, QIODevice::WriteOnly))
        return false;
    QByteArray buffer(int(kHttpReadChunkBytes), Qt::Uninitialized);
    for (;;) {
        const qint64 read = source.read(buffer.data(), buffer.size());
        if (read == 0)
            return target.flush();
        if (read < 0 || target.write(buffer.constData(), read) != read)
            return false;
    }
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
    removeOwnPath(staging);
    makeOwnDirectory(staging);
    int fromCache = 0;

    auto giveUp = [&](const ManifestFile& file) {
        qWarning() << "[Update] tai" << file.path << "that bai -> huy, chay ban hien tai";
        removeOwnPath(staging);
        return false;
    };

    for (const ManifestFile& file : changed) {
        // The parser already normalised the path; checked again so that no entry can name a
        // file outside the staging directory.
        const QString safePath = safeRelativePath(file.path);
        if (safePath.isEmpty())
            return giveUp(file);
        const QString dst = staging + QLatin1Char('/') + safePath;
        makeOwnDirectory(QFileInfo(dst).path());
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
                removeOwnPath(dst);
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
            removeOwnPath(part);
        removeOwnPath(dst);
        if (!httpGetToFile(session.network, url, dst, 0, bound) || sha256OfFile(dst) != file.sha256) {
            qWarning() << "[Update] hash van lech" << file.path << "-> huy";
            removeOwnPath(staging);
            return false;
        }
        staged.append({dst, file.path});
    }

    qInfo() << "[Update] dung" << fromCache << "/" << changed.size() << "file tu kho tam";
    return true;
}
