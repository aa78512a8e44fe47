#pragma once
#include "update/manifest.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <functional>

// An earlier content of a build file that a patch is made against (--delta-from).
struct DeltaSource {
    QString path;    // the file in the earlier tree
    QString sha256;
};

// The distinct earlier contents of relPath in the trees `dirs` (earlier builds' input trees or
// published trees) that differ from sha256, in the order of dirs. Files beyond the patch size
// limit, and anything that is not a regular file, are passed over. False with *error when an
// earlier file cannot be read.
bool earlierVersions(const QStringList& dirs, const QString& relPath, const QString& sha256,
                     QList<DeltaSource>* sources, QString* error);

struct ArtifactTotals {
    int compressed = 0;
    qint64 compressedBytes = 0;
    int patches = 0;
    qint64 patchBytes = 0;
};

// Publishes the artifacts of one build file (entry: path, size and SHA-256 of the file at
// inputPath) below outDir/.zstd and lists them in entry->artifacts: the file compressed, then
// one patch per source. Each is published only when smaller than what it stands in for (the
// compressed file: the file; a patch: the compressed file, or the file when there is none), and
// only after it decoded back to the file. One that an earlier run left at its path is kept when
// it decodes to the file. `note` receives a line before each slow step. False with *error when
// something cannot be read or written.
bool publishArtifacts(const QString& inputPath, ManifestFile* entry, const QList<DeltaSource>& sources, int level,
                      const QString& outDir, const std::function<void(const QString&)>& note,
                      ArtifactTotals* totals, QString* error);
