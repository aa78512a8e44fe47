#include "update/manifest_signature.h"

#include "update/http_fetch.h"
#include "update/manifest_eligibility.h"

#include <QDebug>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>

namespace {

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct ContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// A key read from its NUL-terminated PEM text; null when it does not parse.
std::unique_ptr<EVP_PKEY, KeyFree> readPublicKey(const char* pem)
{
    BIO* bio = BIO_new_mem_buf(pem, -1);
    if (!bio)
        return nullptr;
    std::unique_ptr<EVP_PKEY, KeyFree> key(PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr));
    BIO_free(bio);
    return key;
}

} // namespace

bool verifyManifestSignature(const QByteArray& manifestBytes, const QByteArray& signatureText)
{
    return verifySignatureWithPublicKey(manifestBytes, signatureText, kEmbeddedPublicKeyPem);
}

bool verifySignatureWithPublicKey(const QByteArray& data, const QByteArray& signatureText,
                                  const char* publicKeyPem)
{
    // Characters outside the base64 alphabet are skipped; text that decodes to nothing never
    // reaches OpenSSL.
    const QByteArray signature = QByteArray::fromBase64(signatureText.trimmed());
    if (signature.isEmpty())
        return false;

    const auto key = readPublicKey(publicKeyPem);
    if (!key)
        return false;
    const std::unique_ptr<EVP_MD_CTX, ContextFree> context(EVP_MD_CTX_new());
    if (!context)
        return false;
    if (EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1)
        return false;
    if (EVP_DigestUpdate(context.get(), data.constData(), size_t(data.size())) != 1)
        return false;
    // 0 is a wrong signature, a negative value a malformed one: both are failures.
    return EVP_DigestVerifyFinal(context.get(),
                                 reinterpret_cast<const unsigned char*>(signature.constData()),
                                 size_t(signature.size()))
           == 1;
}

bool fetchTrustedManifest(BoundedNetworkAccessManager& network, const QString& manifestUrl,
                          Manifest& manifest, QByteArray& rawBytes)
{
    bool ok = false;
    const QByteArray bytes = httpGetWithRetry(network, manifestUrl, ok, kMaxManifestBytes);
    rawBytes = bytes;
    if (!ok || bytes.isEmpty()) {
        qWarning() << "[Update] tai manifest that bai -> chay ban hien tai";
        return false;
    }
    const QByteArray signature = httpGetWithRetry(network, manifestUrl + QStringLiteral(".sig"), ok, kMaxSignatureBytes);
    if (!ok || signature.isEmpty()) {
        qWarning() << "[Update] tai .sig that bai -> chay ban hien tai";
        return false;
    }
    // The signature is checked before parsing: no byte of an unsigned manifest reaches the
    // JSON parser.
    if (!verifyManifestSignature(bytes, signature)) {
        qWarning() << "[Update] CHU KY MANIFEST SAI -> KHONG ap, chay ban hien tai";
        return false;
    }
    if (!parseManifest(bytes, &manifest)) {
        qWarning() << "[Update] manifest hong";
        return false;
    }
    QString reason;
    if (!isManifestForThisInstall(manifest, &reason)) {
        qWarning().noquote() << "[Update] MANIFEST KHONG DANH CHO BAN NAY:" << reason
                             << "-> KHONG ap, chay ban hien tai";
        return false;
    }
    return true;
}
