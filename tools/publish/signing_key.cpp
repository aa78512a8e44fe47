#include "signing_key.h"

#include "update/manifest_signature.h"

#include <QFile>

#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstring>
#include <memory>

namespace {

// A key file larger than this is not a PEM key; it is refused before it is read.
constexpr qint64 kMaxKeyFileBytes = 64 * 1024;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct ContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;
using ContextPtr = std::unique_ptr<EVP_MD_CTX, ContextFree>;

BioPtr readOnlyBio(const QByteArray& bytes)
{
    return BioPtr(BIO_new_mem_buf(bytes.constData(), bytes.size()));
}

QByteArray bioContents(BIO* bio)
{
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return length > 0 ? QByteArray(data, int(length)) : QByteArray();
}

// Without a callback OpenSSL would prompt on the terminal for a passphrase; this one refuses.
int refusePassphrase(char*, int, int, void*)
{
    return -1;
}

bool isP256(EVP_PKEY* key)
{
    char group[64] = {};
    size_t length = 0;
    return EVP_PKEY_is_a(key, "EC")
           && EVP_PKEY_get_group_name(key, group, sizeof group, &length) == 1
           && std::strcmp(group, "prime256v1") == 0;
}

KeyPtr readPublicKey(const QByteArray& pem)
{
    const BioPtr bio = readOnlyBio(pem);
    return KeyPtr(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, refusePassphrase, nullptr) : nullptr);
}

} // namespace

SigningKey::~SigningKey()
{
    EVP_PKEY_free(key);
}

SigningKey::SigningKey(SigningKey&& other) noexcept
    : key(other.key)
{
    other.key = nullptr;
}

SigningKey& SigningKey::operator=(SigningKey&& other) noexcept
{
    std::swap(key, other.key);
    return *this;
}

SigningKey SigningKey::generate()
{
    return SigningKey(EVP_EC_gen("P-256"));
}

SigningKey SigningKey::load(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read key \"%1\": %2").arg(path, file.errorString());
        return SigningKey();
    }
    if (file.size() > kMaxKeyFileBytes) {
        *error = QStringLiteral("key \"%1\" is not a PEM private key (too large)").arg(path);
        return SigningKey();
    }
    const QByteArray pem = file.readAll();
    const BioPtr bio = readOnlyBio(pem);
    KeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, refusePassphrase, nullptr) : nullptr);
    if (!key) {
        if (pem.contains("ENCRYPTED"))
            *error = QStringLiteral("key \"%1\" is protected by a passphrase; decrypt a copy first "
                                    "(openssl pkey -in KEY -out PLAIN.pem)").arg(path);
        else if (pem.contains("PUBLIC KEY"))
            *error = QStringLiteral("key \"%1\" is a public key; signing needs the private key").arg(path);
        else
            *error = QStringLiteral("key \"%1\" is not a PEM private key").arg(path);
        return SigningKey();
    }
    if (!isP256(key.get())) {
        *error = QStringLiteral("key \"%1\" is not an EC P-256 (prime256v1) key").arg(path);
        return SigningKey();
    }
    return SigningKey(key.release());
}

QByteArray SigningKey::privateKeyPem() const
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!key || !bio
        || PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return QByteArray();
    return bioContents(bio.get());
}

QByteArray SigningKey::publicKeyPem() const
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!key || !bio)
        return QByteArray();
    // The updater's build accepts only the 91-byte uncompressed form of the public key.
    EVP_PKEY_set_utf8_string_param(key, OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT,
                                   OSSL_PKEY_EC_POINT_CONVERSION_FORMAT_UNCOMPRESSED);
    if (PEM_write_bio_PUBKEY(bio.get(), key) != 1)
        return QByteArray();
    return bioContents(bio.get());
}

QByteArray SigningKey::sign(const QByteArray& data) const
{
    const ContextPtr context(EVP_MD_CTX_new());
    size_t length = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.constData());
    if (!key || !context
        || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) != 1
        || EVP_DigestSign(context.get(), nullptr, &length, bytes, size_t(data.size())) != 1)
        return QByteArray();
    QByteArray signature(int(length), '\0');
    if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                       bytes, size_t(data.size()))
        != 1)
        return QByteArray();
    signature.resize(int(length));  // a DER signature is often a byte or two shorter than the bound
    return signature.toBase64();
}

QString publicKeyPemProblem(const QByteArray& pem)
{
    const KeyPtr key = readPublicKey(pem);
    if (!key)
        return QStringLiteral("is not a PEM public key");
    if (!isP256(key.get()))
        return QStringLiteral("is not an EC P-256 (prime256v1) public key");
    return QString();
}

bool verifyWithPublicKeyPem(const QByteArray& data, const QByteArray& signatureText,
                            const QByteArray& publicKeyPem)
{
    // QByteArray keeps its data NUL-terminated, as the updater's check expects of a PEM text.
    return verifySignatureWithPublicKey(data, signatureText, publicKeyPem.constData());
}
