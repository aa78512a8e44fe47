#include "published_artifacts.h"

#include "artifact_encoder.h"
#include "published_file.h"

#include "apply/artifact_decoder.h"
#include "base/sha256.h"

#include <QDir>
#include <QFileInfo>

namespace {

// Files from this size on are announced before they are compressed: level 19 takes seconds a MiB.
constexpr qint64 kNoteFromBytes = 4 * 1024 * 1024;

bool decodesTo(const QString& artifactPath, const QString& sourcePath, const ManifestFile& file)
{
    Sha256 hash;
    QString ignored;
    const bool decoded = decodeArtifact(
        artifactPath, sourcePath, file.size,
        [&hash](const char* data, qint64 length) {
            hash.addData(data, length);
            return true;
        },
        &ignored);
    return decoded && hash.hexResult() == file.sha256;
}

// Publishes one artifact, or leaves it out when it is not smaller than maxSize. False only with
// *error set.
bool publishArtifact(const QString& inputPath, const DeltaSource* source, const ManifestFile& file, qint64 maxSize,
                     int level, const QString& outDir, QList<ManifestArtifact>* published, QString* error)
{
    ManifestArtifact artifact;
    if (source)
        artifact.sourceSha256 = source->sha256;
    const QString sourcePath = source ? source->path : QString();
    const QString finalPath = QDir(outDir).filePath(artifactPath(file, artifact));

    const QFileInfo existing(finalPath);
    if (existing.isFile() && !existing.isSymLink() && decodesTo(finalPath, sourcePath, file)) {
        if (existing.size() < maxSize) {
            artifact.size = existing.size();
            artifact.sha256 = sha256OfFile(finalPath);
            published->append(artifact);
        }
        return true;
    }

    PublishedFile out(finalPath);
    if (!out.open(error))
        return false;
    EncodedArtifact encoded;
    if (!encodeArtifact(inputPath, sourcePath, level, maxSize, out, &encoded, error))
        return error->isEmpty();  // not smaller: left out
    if (!out.finishWriting(error))
        return false;
    if (!decodesTo(out.writtenPath(), sourcePath, file)) {
        *error = QStringLiteral("the %1 of \"%2\" does not decode back to the file; nothing was published")
                     .arg(source ? QStringLiteral("patch") : QStringLiteral("compressed copy"), file.path);
        return false;
    }
    if (!out.moveIntoPlace(error))
        return false;
    artifact.size = encoded.size;
    artifact.sha256 = encoded.sha256;
    published->append(artifact);
    return true;
}

} // namespace

bool earlierVersions(const QStringList& dirs, const QString& relPath, const QString& sha256,
                     QList<DeltaSource>* sources, QString* error)
{
    sources->clear();
    QStringList seen{sha256};
    for (const QString& dir : dirs) {
        const QFileInfo info(QDir(dir).filePath(relPath));
        if (!info.isFile() || info.isSymLink() || info.size() > kPatchMaxFileBytes)
            continue;
        const QString earlier = sha256OfFile(info.filePath());
        if (earlier.isEmpty()) {
            *error = QStringLiteral("cannot read \"%1\"").arg(info.filePath());
            return false;
        }
        if (seen.contains(earlier))
            continue;
        seen.append(earlier);
        sources->append({info.filePath(), earlier});
    }
    return true;
}

bool publishArtifacts(const QString& inputPath, ManifestFile* entry, const QList<DeltaSource>& sources, int level,
                      const QString& outDir, const std::function<void(const QString&)>& note,
                      ArtifactTotals* totals, QString* error)
{
    entry->artifacts.clear();
    if (entry->size <= 0)
        return true;
    if (entry->size >= kNoteFromBytes)
        note(QStringLiteral("compressing \"%1\" (%2 MiB)").arg(entry->path).arg(double(entry->size) / 1048576.0, 0, 'f', 1));
    if (!publishArtifact(inputPath, nullptr, *entry, entry->size, level, outDir, &entry->artifacts, error))
        return false;
    const qint64 compressedSize = entry->artifacts.isEmpty() ? entry->size : entry->artifacts.constFirst().size;
    if (!entry->artifacts.isEmpty()) {
        ++totals->compressed;
        totals->compressedBytes += compressedSize;
    }
    if (entry->size > kPatchMaxFileBytes)
        return true;
    for (const DeltaSource& source : sources) {
        if (entry->size >= kNoteFromBytes)
            note(QStringLiteral("making a patch of \"%1\" from %2").arg(entry->path, source.path));
        const int before = entry->artifacts.size();
        if (!publishArtifact(inputPath, &source, *entry, compressedSize, level, outDir, &entry->artifacts, error))
            return false;
        if (entry->artifacts.size() > before) {
            ++totals->patches;
            totals->patchBytes += entry->artifacts.constLast().size;
        }
    }
    return true;
}
