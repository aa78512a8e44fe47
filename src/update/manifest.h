#pragma once
#include <QByteArray>
#include <QList>
#include <QString>

struct ManifestFile {
    QString path;    // normalised relative path with "/" separators
    qint64 size = 0;
    QString sha256;  // lower case
};

struct Manifest {
    qint64 buildNumber = -1;  // -1: unknown
    QString fullVersion;
    QString product;
    QString arch;
    QList<ManifestFile> files;
};

// Parses manifest bytes; fills *manifest only on success. One unsafe path rejects the whole
// manifest.
bool parseManifest(const QByteArray& bytes, Manifest* manifest);

// The path-safety rule: the normalised relative path, or "" for a path that must be rejected
// (empty, absolute, containing ":", or with a "." or ".." segment).
QString safeRelativePath(const QString& path);

// appDir joined with "manifest.json".
QString installedManifestPath(const QString& appDir);
// Reads and parses the installed manifest; false when it is missing or does not parse.
bool loadInstalledManifest(const QString& appDir, Manifest* manifest);
