#pragma once
#include <QString>

class PublishedFile;

// zstd level of compressed files and patches unless --zstd-level gives another (1 to 19; 0: none).
constexpr int kDefaultZstdLevel = 19;

struct EncodedArtifact {
    qint64 size = 0;
    QString sha256;  // of the artifact
};

// Compresses the file at inputPath into one zstd frame, with its content size and a checksum,
// written to `out`. With sourcePath, a patch: the source file (read through a memory map) is the
// frame's prefix, with long-distance matching and a window that spans the larger of the two
// files, as "zstd --long --patch-from" makes it. Without, the window is at most 8 MiB.
// Returns false with *error empty as soon as the frame reaches maxSize bytes (it would not be
// smaller than what it stands in for), or with *error set when reading or writing fails.
bool encodeArtifact(const QString& inputPath, const QString& sourcePath, int level, qint64 maxSize,
                    PublishedFile& out, EncodedArtifact* result, QString* error);
