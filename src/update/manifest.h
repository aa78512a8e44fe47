#pragma once
#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

struct ManifestFile {
    QString path;    // normalised relative path with "/" separators
    qint64 size = -1;  // bytes, 0 to 2^53; -1 when the entry gives no size
    QString sha256;  // lower case
};

// A file whose entry gives no size may still grow no larger than this (the publisher always
// writes sizes; a manifest without them is bounded all the same).
constexpr qint64 kUnsizedFileLimit = 1073741824;
// The most bytes a download of `file` may bring: its size, 0 included, or kUnsizedFileLimit.
inline qint64 fileSizeBound(const ManifestFile& file)
{
    return file.size >= 0 ? file.size : kUnsizedFileLimit;
}

struct Manifest {
    qint64 buildNumber = -1;  // -1: unknown
    QString fullVersion;
    QString product;
    QString arch;
    QList<ManifestFile> files;
};

// Parses manifest bytes; fills *manifest only on success. One unsafe or reserved path, two
// entries for one file, a file that is another entry's directory, control characters in the
// version, or one size that is not a number, negative or beyond 2^53 reject the whole manifest.
bool parseManifest(const QByteArray& bytes, Manifest* manifest);

// The path-safety rule: the normalised relative path, or "" for a path that must be rejected
// (empty, absolute, containing ":", or with a "." or ".." segment).
QString safeRelativePath(const QString& path);

// Why a build may not hold this normalised path, or "" when it may: the updater's own files
// ("manifest.json", "updater.log", anything under ".staging" or ".update-cache"), names ending in
// the suffixes of its working files (".bak", ".new", ".part", ".tmp"; a directory ending in
// ".bak"), control characters, and names Windows would change or cannot hold (a trailing dot or
// blank, a device name such as "NUL" or "com1.txt", one of <>"|?*). Letter case is ignored, as
// Windows ignores it.
QString reservedPathReason(const QString& path);
// Why these normalised paths cannot be applied as one transaction, or "" when they can: the same
// path twice (letter case aside), or a path that is a file and a directory of another path.
// *path, when given, is set to the path the conflict is found at.
QString pathSetConflict(const QStringList& paths, QString* path = nullptr);

// appDir joined with "manifest.json".
QString installedManifestPath(const QString& appDir);
// Reads and parses the installed manifest; false when it is missing or does not parse.
bool loadInstalledManifest(const QString& appDir, Manifest* manifest);
