#pragma once
#include <QByteArray>
#include <QString>

typedef struct evp_pkey_st EVP_PKEY;

// The publisher's ECDSA P-256 key pair, held by OpenSSL. Move-only.
class SigningKey {
public:
    SigningKey() = default;
    ~SigningKey();
    SigningKey(SigningKey&& other) noexcept;
    SigningKey& operator=(SigningKey&& other) noexcept;
    SigningKey(const SigningKey&) = delete;
    SigningKey& operator=(const SigningKey&) = delete;

    // A fresh key on curve P-256.
    static SigningKey generate();
    // Reads an unencrypted PEM private key ("PRIVATE KEY" or "EC PRIVATE KEY"). On failure the
    // key stays empty and *error names the file and the reason in one line.
    static SigningKey load(const QString& path, QString* error);

    bool isValid() const { return key != nullptr; }
    // PKCS#8 PEM of the private key.
    QByteArray privateKeyPem() const;
    // SubjectPublicKeyInfo PEM with the point uncompressed: the 178-character text that
    // CORV_PUBLIC_KEY_FILE expects.
    QByteArray publicKeyPem() const;
    // Base64 of the DER ECDSA signature over SHA-256 of data, as a manifest.json.sig holds it
    // (without line feed); empty on failure.
    QByteArray sign(const QByteArray& data) const;

private:
    explicit SigningKey(EVP_PKEY* owned) : key(owned) {}
    EVP_PKEY* key = nullptr;
};

// Empty when pem is a PEM "PUBLIC KEY" of an EC P-256 key, else the reason it is not.
QString publicKeyPemProblem(const QByteArray& pem);

// The updater's signature check, with the public key given as PEM text instead of the embedded
// one: signatureText is base64 (surrounding whitespace ignored) of a DER ECDSA signature over
// SHA-256 of the exact data.
bool verifyWithPublicKeyPem(const QByteArray& data, const QByteArray& signatureText,
                            const QByteArray& publicKeyPem);
