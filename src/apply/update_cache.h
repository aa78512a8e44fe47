#pragma once
#include "update/manifest.h"

#include <QByteArray>
#include <QList>
#include <QString>

// <installationDir>/.update-cache/<versionKey>/{manifest.json, manifest.json.sig, state.json,
// files/<relPath>[.part]}. Every path is recomputed from the installation directory.

struct CacheFileState {
    QString path;
    qint64 size = 0;
    QString sha256;
    qint64 got = 0;
    bool done = false;
};

// In-memory form of state.json, which the updater writes but never reads back.
struct CacheState {
    QString fullVersion;
    qint64 buildNumber = -1;
    QString baseUrl;
    QList<CacheFileState> files;
};

QString updateCacheRoot();
// Every character outside [0-9A-Za-z._+-] becomes "_".
QString sanitizedVersionKey(const QString& version);
QString cacheVersionDir(const QString& version);
bool ensureCacheVersionDir(const QString& version);
QString cacheFilePath(const QString& version, const QString& relPath);
QString cachePartPath(const QString& version, const QString& relPath);
qint64 cachePartSize(const QString& version, const QString& relPath);
// The finished cache file when its size (if the manifest gives one) and SHA-256 match.
QString findCompleteCachedFile(const QString& version, const ManifestFile& file);
void pruneCacheExcept(const QString& version);
void clearUpdateCache();
// Compact JSON to state.json.tmp, then an atomic, write-through rename to state.json. `size`,
// when given, receives the bytes written.
bool writeCacheState(const CacheState& state, qint64* size = nullptr);
bool storeCachedManifest(const QString& version, const QByteArray& manifestBytes,
                         const QByteArray& signatureBytes);
