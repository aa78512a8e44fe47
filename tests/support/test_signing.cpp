#include "support/test_signing.h"
#include "support/test_files.h"


#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>

namespace {

template <typename T, void (*Free)(T*)>
using OsslPtr = std::unique_ptr<T, std::integral_constant<decltype(Free), Free>>;

} // namespace

QString devPrivateKeyPath()
{
    return QStringLiteral(CORV_DEV_PRIVATE_KEY);
}

QByteArray signWithKey(const QByteArray& data, const QString& keyPath)
{
    const QByteArray pem = readFile(keyPath);
    OsslPtr<BIO, BIO_free_all> bio(BIO_new_mem_buf(pem.constData(), pem.size()));
    if (!bio)
        return {};
    OsslPtr<EVP_PKEY, EVP_PKEY_free> key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
    OsslPtr<EVP_MD_CTX, EVP_MD_CTX_free> ctx(EVP_MD_CTX_new());
    if (!key || !ctx || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1)
        return {};
    size_t length = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.constData());
    if (EVP_DigestSign(ctx.get(), nullptr, &length, bytes, size_t(data.size())) != 1)
        return {};
    QByteArray der(int(length), '\0');
    if (EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(der.data()), &length, bytes,
                       size_t(data.size())) != 1)
        return {};
    der.resize(int(length));
    return der.toBase64();
}

bool generateKeyPair(const QString& privatePemPath, const QString& publicPemPath)
{
    OsslPtr<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
    OsslPtr<BIO, BIO_free_all> priv(BIO_new(BIO_s_mem()));
    OsslPtr<BIO, BIO_free_all> pub(BIO_new(BIO_s_mem()));
    if (!key || !priv || !pub
        || PEM_write_bio_PrivateKey(priv.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1
        || PEM_write_bio_PUBKEY(pub.get(), key.get()) != 1)
        return false;
    auto bioBytes = [](BIO* bio) {
        char* data = nullptr;
        const long length = BIO_get_mem_data(bio, &data);
        return QByteArray(data, int(length));
    };
    return writeFile(privatePemPath, bioBytes(priv.get())) && writeFile(publicPemPath, bioBytes(pub.get()));
}
