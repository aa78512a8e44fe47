#pragma once
#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

// A smaller download of a file's content that the publisher puts under kArtifactDir: the file
// compressed with zstd, or a zstd patch that turns the file with sourceSha256 into it. Both are
// single zstd frames; the patch uses the source file as its prefix (zstd --patch-from).
struct ManifestArtifact {
    QString sourceSha256;  // empty: the compressed file; else the SHA-256 of the file a patch applies to
    qint64 size = 0;       // bytes of the artifact itself
    QString sha256;        // of the artifact itself, lower case

    bool isPatch() const { return !sourceSha256.isEmpty(); }
};

struct ManifestFile {
    QString path;    // normalised relative path with "/" separators
    qint64 size = -1;  // bytes, 0 to 2^53; -1 when the entry gives no size
    QString sha256;  // lower case
    // Optional ("zstd", "zstdPatches"): the compressed file first, then patches in manifest
    // order. Only artifacts smaller than the file are kept, each with 64-digit hashes.
    QList<ManifestArtifact> artifacts;
};

// A file whose entry gives no size may still grow no larger than this (the publisher always
// writes sizes; a manifest without them is bounded all the same).
constexpr qint64 kUnsizedFileLimit = 1073741824;
// The most bytes a download of `file` may bring: its size, 0 included, or kUnsizedFileLimit.
inline qint64 fileSizeBound(const ManifestFile& file)
{
    return file.size >= 0 ? file.size : kUnsizedFileLimit;
}

// The top-level directory below baseUrl that holds the artifacts; no build file may lie there.
constexpr char kArtifactDir[] = ".zstd";
// Where an artifact of a file lies below baseUrl, named by content: "<kArtifactDir>/<sha256 of
// the file>.zst" for the compressed file, "<kArtifactDir>/<source sha256>-<sha256 of the
// file>.zst" for a patch.
QString artifactPath(const ManifestFile& file, const ManifestArtifact& artifact);
// An artifact as a file of its own (path from artifactPath, its size and SHA-256), so that it
// can be downloaded, cached and verified like any file of a build.
ManifestFile artifactAsFile(const ManifestFile& file, const ManifestArtifact& artifact);

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
// ("manifest.json", "updater.log", anything under ".staging" or ".update-cache"), the artifact
// directory ".zstd", names ending in the suffixes of its working files (".bak", ".new", ".part",
// ".tmp"; a directory ending in ".bak"), control characters, and names Windows would change or
// cannot hold (a trailing dot or blank, a device name such as "NUL" or "com1.txt", one of
// <>"|?*). Letter case is ignored, as Windows ignores it.
QString reservedPathReason(const QString& path);
// Why these normalised paths cannot be applied as one transaction, or "" when they can: the same
// path twice (letter case aside), or a path that is a file and a directory of another path.
// *path, when given, is set to the path the conflict is found at.
QString pathSetConflict(const QStringList& paths, QString* path = nullptr);

// appDir joined with "manifest.json".
QString installedManifestPath(const QString& appDir);
// Reads and parses the installed manifest; false when it is missing or does not parse.
bool loadInstalledManifest(const QString& appDir, Manifest* manifest);
