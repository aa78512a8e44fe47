#include "artifact_encoder.h"

#include "published_file.h"

#include "base/sha256.h"

#include <QFile>

#include <algorithm>
#include <memory>
#include <zstd.h>

namespace {

// 8 MiB: what level 19 chooses for large files, and what the updater's decoder then holds.
constexpr int kCompressedWindowLog = 23;

struct CctxFree {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};

int highestBit(quint64 value)
{
    int bit = 0;
    while (value >>= 1)
        ++bit;
    return bit;
}

} // namespace

bool encodeArtifact(const QString& inputPath, const QString& sourcePath, int level, qint64 maxSize,
                    PublishedFile& out, EncodedArtifact* result, QString* error)
{
    error->clear();
    QFile input(inputPath);
    if (!input.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read \"%1\": %2").arg(inputPath, input.errorString());
        return false;
    }
    const std::unique_ptr<ZSTD_CCtx, CctxFree> context(ZSTD_createCCtx());
    if (!context) {
        *error = QStringLiteral("zstd: out of memory");
        return false;
    }
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, level);
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
    QFile source(sourcePath);
    if (sourcePath.isEmpty()) {
        ZSTD_CCtx_setParameter(context.get(), ZSTD_c_windowLog, kCompressedWindowLog);
    } else {
        if (!source.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("cannot read \"%1\": %2").arg(sourcePath, source.errorString());
            return false;
        }
        const uchar* sourceBytes = source.size() > 0 ? source.map(0, source.size()) : nullptr;
        if (source.size() > 0 && !sourceBytes) {
            *error = QStringLiteral("cannot map \"%1\": %2").arg(sourcePath, source.errorString());
            return false;
        }
        // The output refers back into the source from anywhere in the file.
        const ZSTD_bounds bounds = ZSTD_cParam_getBounds(ZSTD_c_windowLog);
        const int windowLog = std::clamp(highestBit(quint64(std::max(input.size(), source.size()))) + 1,
                                         bounds.lowerBound, bounds.upperBound);
        ZSTD_CCtx_setParameter(context.get(), ZSTD_c_windowLog, windowLog);
        ZSTD_CCtx_setParameter(context.get(), ZSTD_c_enableLongDistanceMatching, 1);
        ZSTD_CCtx_refPrefix(context.get(), sourceBytes, size_t(source.size()));
    }
    ZSTD_CCtx_setPledgedSrcSize(context.get(), quint64(input.size()));

    Sha256 hash;
    qint64 written = 0;
    QByteArray in(int(ZSTD_CStreamInSize()), Qt::Uninitialized);
    QByteArray compressed(int(ZSTD_CStreamOutSize()), Qt::Uninitialized);
    for (bool last = false; !last;) {
        const qint64 got = input.read(in.data(), in.size());
        if (got < 0) {
            *error = QStringLiteral("cannot read \"%1\": %2").arg(inputPath, input.errorString());
            return false;
        }
        last = input.atEnd();
        ZSTD_inBuffer inBuffer{in.constData(), size_t(got), 0};
        for (bool flushed = false; !flushed;) {
            ZSTD_outBuffer outBuffer{compressed.data(), size_t(compressed.size()), 0};
            const size_t remaining =
                ZSTD_compressStream2(context.get(), &outBuffer, &inBuffer, last ? ZSTD_e_end : ZSTD_e_continue);
            if (ZSTD_isError(remaining)) {
                *error = QStringLiteral("zstd: %1").arg(QString::fromLatin1(ZSTD_getErrorName(remaining)));
                return false;
            }
            if (!out.write(compressed.constData(), qint64(outBuffer.pos), error))
                return false;
            hash.addData(compressed.constData(), qint64(outBuffer.pos));
            written += qint64(outBuffer.pos);
            if (written >= maxSize)
                return false;  // no smaller than what it would stand in for
            flushed = last ? remaining == 0 : inBuffer.pos == inBuffer.size;
        }
    }
    result->size = written;
    result->sha256 = hash.hexResult();
    return true;
}
