#pragma once
#include "update/manifest.h"

#include <QList>
#include <QString>
#include <functional>

// Patches are used only for files of at most 80 MiB, the file and the installed file the patch
// applies to alike: a patch's frame reaches back over the whole output, so the decoder holds the
// file's whole content in its window, besides the pages of the source it reads through a map.
// For an 80 MiB file that is about 90 MiB on top of the updater's own 40 MiB.
constexpr qint64 kPatchMaxFileBytes = 83886080;
// The largest window a frame may ask for, 2^27 bytes (128 MiB): room for a patch of a file of
// kPatchMaxFileBytes. A compressed file from corvanta-publish asks for 8 MiB.
constexpr int kDecoderWindowLogMax = 27;

// The artifacts of `file` that may stand in for downloading it whole, smallest first: the patch
// whose source is the installed content installedSha256 (when the file is within
// kPatchMaxFileBytes) and the compressed file. Empty: only the whole file will do.
QList<ManifestArtifact> usableArtifacts(const ManifestFile& file, const QString& installedSha256);
// "patch" or "ban nen" (compressed file), for log lines.
QString artifactKind(const ManifestArtifact& artifact);

// Receives decoded bytes in order; false stops the decoding as a failed write.
using DecodedOutput = std::function<bool(const char* data, qint64 length)>;

// Decodes the artifact at artifactPath (reached without following a link, as the updater's own
// files are), exactly one zstd frame, streaming: the input is read in
// pieces and the output handed on as it comes. sourcePath empty: a compressed file; otherwise a
// patch, and sourcePath the file it applies to, read through a memory map (at most
// kPatchMaxFileBytes, released from memory every few MiB of output). The output must come to
// exactly outputSize bytes; a byte more ends the decoding. False with *error set to one line for
// the log on any failure: unreadable input, a frame that asks for a window beyond
// kDecoderWindowLogMax, corrupt or truncated data, bytes after the frame, a wrong length.
bool decodeArtifact(const QString& artifactPath, const QString& sourcePath, qint64 outputSize,
                    const DecodedOutput& write, QString* error);
// The same into outputPath, a new file in place of whatever had the name (never written through
// a link); after a failure it may hold partial output.
bool decodeArtifactToFile(const QString& artifactPath, const QString& sourcePath, const QString& outputPath,
                          qint64 outputSize, QString* error);
