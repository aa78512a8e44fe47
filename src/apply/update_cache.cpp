#include "apply/update_cache.h"

#include "apply/file_replacement.h"
#include "base/installation_dir.h"
#include "base/own_files.h"
#include "base/sha256.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

QString updateCacheRoot()
{
    return installationDir() + QStringLiteral("/.update-cache");
}

QString sanitizedVersionKey(const QString& version)
{
    static const QRegularExpression unsafe(QStringLiteral("[^0-9A-Za-z._+-]"));
    QString key = version;
    return key.replace(unsafe, QStringLiteral("_"));
}

QString cacheVersionDir(const QString& version)
{
    if (version.isEmpty())
        return QString();
    const QString key = sanitizedVersionKey(version);
    // "." and ".." survive the character rule but would name the cache root or the
    // installation directory itself.
    if (key == QLatin1String(".") || key == QLatin1String(".."))
        return QString();
    return updateCacheRoot() + QLatin1Char('/') + key;
}

bool ensureCacheVersionDir(const QString& version)
{
    const QString dir = cacheVersionDir(version);
    return !dir.isEmpty() && makeOwnDirectory(dir + QStringLiteral("/files"));
}

QString cacheFilePath(const QString& version, const QString& relPath)
{
    const QString safePath = safeRelativePath(relPath);
    const QString dir = cacheVersionDir(version);
    if (safePath.isEmpty() || dir.isEmpty())
        return QString();
    return dir + QStringLiteral("/files/") + safePath;
}

QString cachePartPath(const QString& version, const QString& relPath)
{
    const QString filePath = cacheFilePath(version, relPath);
    return filePath.isEmpty() ? QString() : filePath + QStringLiteral(".part");
}

qint64 cachePartSize(const QString& version, const QString& relPath)
{
    const QString partPath = cachePartPath(version, relPath);
    if (partPath.isEmpty())
        return 0;
    // A link in the cache is nobody's partial download.
    return qMax<qint64>(0, ownFileSize(partPath));
}

QString findCompleteCachedFile(const QString& version, const ManifestFile& file)
{
    const QString path = cacheFilePath(version, file.path);
    if (path.isEmpty())
        return QString();
    QFile cached;
    if (!openOwnFile(cached, path, QIODevice::ReadOnly))
        return QString();
    // A wrong size rules the file out before it is read at all (an entry without a size, -1,
    // leaves it to the hash).
    if (file.size >= 0 && cached.size() != file.size)
        return QString();
    if (sha256Of(cached) != file.sha256)
        return QString();
    return path;
}

void pruneCacheExcept(const QString& version)
{
    const QString root = updateCacheRoot();
    const QFileInfo rootInfo(root);
    // A cache root that is a link points outside the installation: nothing there is ours.
    if (!rootInfo.isDir() || rootInfo.isSymLink())
        return;
    const QString keep = QFileInfo(cacheVersionDir(version)).fileName();
    // Without QDir::Hidden, hidden directories are neither listed nor touched.
    const QStringList names =
        QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& name : names) {
        if (!keep.isEmpty() && name == keep)
            continue;
        removeOwnPath(root + QLatin1Char('/') + name);
    }
}

void clearUpdateCache()
{
    removeOwnPath(updateCacheRoot());
}

bool writeCacheState(const CacheState& state, qint64* size)
{
    if (state.fullVersion.isEmpty() || !ensureCacheVersionDir(state.fullVersion))
        return false;

    QJsonArray files;
    for (const CacheFileState& file : state.files) {
        QJsonObject entry;
        entry.insert(QStringLiteral("path"), file.path);
        entry.insert(QStringLiteral("size"), double(file.size));
        entry.insert(QStringLiteral("sha256"), file.sha256);
        entry.insert(QStringLiteral("got"), double(file.got));
        entry.insert(QStringLiteral("done"), file.done);
        files.append(entry);
    }
    QJsonObject root;
    root.insert(QStringLiteral("fullVersion"), state.fullVersion);
    root.insert(QStringLiteral("buildNumber"), double(state.buildNumber));
    root.insert(QStringLiteral("baseUrl"), state.baseUrl);
    root.insert(QStringLiteral("files"), files);

    const QString finalPath = cacheVersionDir(state.fullVersion) + QStringLiteral("/state.json");
    const QString tmpPath = finalPath + QStringLiteral(".tmp");
    QFile tmp;
    if (!openOwnFile(tmp, tmpPath, QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    const QByteArray json = QJsonDocument(root).toJson(QJsonDocument::Compact);
    if (size)
        *size = json.size();
    tmp.write(json);
    syncWrittenFile(tmp);
    tmp.close();
    // A crash leaves the old state.json or the new one, never a torn file.
    return moveFileWriteThrough(tmpPath, finalPath);
}

bool storeCachedManifest(const QString& version, const QByteArray& manifestBytes,
                         const QByteArray& signatureBytes)
{
    if (!ensureCacheVersionDir(version))
        return false;
    const QString dir = cacheVersionDir(version);
    QFile manifest;
    if (!openOwnFile(manifest, dir + QStringLiteral("/manifest.json"), QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    manifest.write(manifestBytes);
    manifest.close();
    // The signature is a courtesy copy: failing to write it does not fail the call.
    QFile signature;
    if (openOwnFile(signature, dir + QStringLiteral("/manifest.json.sig"), QIODevice::WriteOnly | QIODevice::Truncate))
        signature.write(signatureBytes);
    return true;
}
