#include "base/sha256.h"

#include <QFile>

#include <openssl/evp.h>

namespace {

// Files are hashed through a buffer of this size, never read whole.
constexpr qint64 kHashChunkBytes = 1024 * 1024;

} // namespace

struct Sha256::Context {
    EVP_MD_CTX* md = nullptr;
};

Sha256::Sha256()
    : context(std::make_unique<Context>())
{
    context->md = EVP_MD_CTX_new();
    if (context->md && EVP_DigestInit_ex(context->md, EVP_sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(context->md);
        context->md = nullptr;
    }
}

Sha256::~Sha256()
{
    EVP_MD_CTX_free(context->md);
}

void Sha256::addData(const char* data, qint64 length)
{
    if (!context->md || length <= 0)
        return;
    if (EVP_DigestUpdate(context->md, data, size_t(length)) != 1) {
        EVP_MD_CTX_free(context->md);
        context->md = nullptr;
    }
}

QString Sha256::hexResult()
{
    if (!context->md)
        return QString();
    // Finalise a copy so that more data may still be added to the running digest.
    EVP_MD_CTX* copy = EVP_MD_CTX_new();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const bool ok = copy && EVP_MD_CTX_copy_ex(copy, context->md) == 1
                    && EVP_DigestFinal_ex(copy, digest, &length) == 1;
    EVP_MD_CTX_free(copy);
    if (!ok)
        return QString();
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(digest), int(length)).toHex());
}

QString sha256Of(QIODevice& device)
{
    Sha256 hash;
    QByteArray buffer(int(kHashChunkBytes), Qt::Uninitialized);
    for (;;) {
        const qint64 read = device.read(buffer.data(), kHashChunkBytes);
        if (read < 0)
            return QString();
        if (read == 0)
            break;
        hash.addData(buffer.constData(), read);
    }
    return hash.hexResult();
}

QString sha256OfFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return sha256Of(file);
}
