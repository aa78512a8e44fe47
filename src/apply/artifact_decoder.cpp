#include "apply/artifact_decoder.h"

#include "base/own_files.h"
#include "platform/mapped_pages.h"

#include <QFile>

#include <algorithm>
#include <memory>
#include <zstd.h>

static_assert(ZSTD_VERSION_NUMBER >= 10400, "the stable prefix and window-limit API needs libzstd 1.4.0");

namespace {

// The pages of a patch's source that the decoder has read are given back this often.
constexpr qint64 kSourceReleaseIntervalBytes = 8 * 1024 * 1024;

struct DctxFree {
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

QString zstdError(size_t code)
{
    return QStringLiteral("zstd: ") + QString::fromLatin1(ZSTD_getErrorName(code));
}

bool failWith(QString* error, const QString& text)
{
    if (error)
        *error = text;
    return false;
}

} // namespace

QList<ManifestArtifact> usableArtifacts(const ManifestFile& file, const QString& installedSha256)
{
    QList<ManifestArtifact> usable;
    for (const ManifestArtifact& artifact : file.artifacts) {
        if (artifact.isPatch() && artifact.sourceSha256 == installedSha256 && file.size <= kPatchMaxFileBytes) {
            usable.append(artifact);
            break;
        }
    }
    for (const ManifestArtifact& artifact : file.artifacts) {
        if (!artifact.isPatch()) {
            usable.append(artifact);
            break;
        }
    }
    // The publisher makes a patch only when it beats the compressed file; a manifest from
    // elsewhere is still taken at its word about sizes.
    std::stable_sort(usable.begin(), usable.end(),
                     [](const ManifestArtifact& a, const ManifestArtifact& b) { return a.size < b.size; });
    return usable;
}

QString artifactKind(const ManifestArtifact& artifact)
{
    return artifact.isPatch() ? QStringLiteral("patch") : QStringLiteral("ban nen");
}

bool decodeArtifact(const QString& artifactPath, const QString& sourcePath, qint64 outputSize,
                    const DecodedOutput& write, QString* error)
{
    if (outputSize <= 0)
        return failWith(error, QStringLiteral("file khong co kich thuoc"));
    // The artifact is one of the updater's own files (cache or staging): no link is followed.
    QFile input;
    if (!openOwnFile(input, artifactPath, QIODevice::ReadOnly))
        return failWith(error, QStringLiteral("khong mo duoc ") + artifactPath);
    const std::unique_ptr<ZSTD_DCtx, DctxFree> context(ZSTD_createDCtx());
    if (!context)
        return failWith(error, QStringLiteral("zstd: khong du bo nho"));
    ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax, kDecoderWindowLogMax);

    // A patch reads its source in place through a map: nothing of it is copied.
    QFile source(sourcePath);
    const uchar* sourceBytes = nullptr;
    qint64 sourceSize = 0;
    if (!sourcePath.isEmpty()) {
        if (!source.open(QIODevice::ReadOnly))
            return failWith(error, QStringLiteral("khong mo duoc file goc: ") + source.errorString());
        sourceSize = source.size();
        if (sourceSize > kPatchMaxFileBytes)
            return failWith(error, QStringLiteral("file goc lon qua %1 byte").arg(kPatchMaxFileBytes));
        if (sourceSize > 0) {
            sourceBytes = source.map(0, sourceSize);
            if (!sourceBytes)
                return failWith(error, QStringLiteral("khong map duoc file goc: ") + source.errorString());
        }
        const size_t referenced = ZSTD_DCtx_refPrefix(context.get(), sourceBytes, size_t(sourceSize));
        if (ZSTD_isError(referenced))
            return failWith(error, zstdError(referenced));
    }

    QByteArray in(int(ZSTD_DStreamInSize()), Qt::Uninitialized);
    QByteArray out(int(ZSTD_DStreamOutSize()), Qt::Uninitialized);
    qint64 produced = 0;
    qint64 releasedAt = 0;
    bool frameEnded = false;
    for (;;) {
        const qint64 got = input.read(in.data(), in.size());
        if (got < 0)
            return failWith(error, QStringLiteral("khong doc duoc: ") + input.errorString());
        if (got == 0)
            break;
        ZSTD_inBuffer inBuffer{in.constData(), size_t(got), 0};
        // zstd takes the last byte of a frame only once all of its output has been handed out,
        // so consuming the input is enough to drain the output too.
        while (inBuffer.pos < inBuffer.size) {
            if (frameEnded)
                return failWith(error, QStringLiteral("du lieu thua sau frame zstd"));
            ZSTD_outBuffer outBuffer{out.data(), size_t(out.size()), 0};
            const size_t result = ZSTD_decompressStream(context.get(), &outBuffer, &inBuffer);
            if (ZSTD_isError(result))
                return failWith(error, zstdError(result));
            if (outBuffer.pos > 0) {
                if (produced + qint64(outBuffer.pos) > outputSize)
                    return failWith(error, QStringLiteral("giai ra qua %1 byte").arg(outputSize));
                if (!write(out.constData(), qint64(outBuffer.pos)))
                    return failWith(error, QStringLiteral("ghi dia hong"));
                produced += qint64(outBuffer.pos);
            }
            frameEnded = result == 0;
            if (sourceBytes && produced - releasedAt >= kSourceReleaseIntervalBytes) {
                corv::platform::releaseMappedPages(sourceBytes, size_t(sourceSize));
                releasedAt = produced;
            }
        }
    }
    if (!frameEnded)
        return failWith(error, QStringLiteral("zstd: frame bi cat ngang"));
    if (produced != outputSize)
        return failWith(error, QStringLiteral("giai ra %1 / %2 byte").arg(produced).arg(outputSize));
    return true;
}

bool decodeArtifactToFile(const QString& artifactPath, const QString& sourcePath, const QString& outputPath,
                          qint64 outputSize, QString* error)
{
    QFile output;
    if (!openOwnFile(output, outputPath, QIODevice::WriteOnly))
        return failWith(error, QStringLiteral("khong mo duoc ") + outputPath);
    const bool decoded = decodeArtifact(
        artifactPath, sourcePath, outputSize,
        [&output](const char* data, qint64 length) { return output.write(data, length) == length; }, error);
    if (!decoded)
        return false;
    // The output is staged as it is: its data is on disk before it is moved into place.
    if (!syncWrittenFile(output))
        return failWith(error, QStringLiteral("ghi dia hong"));
    return true;
}
