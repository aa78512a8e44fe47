#pragma once
#include "update/manifest.h"

#include <QByteArray>
#include <QString>

class BoundedNetworkAccessManager;

// Bounds on the two documents: a real manifest is far smaller, a DER signature in base64 is
// about a hundred bytes; anything beyond is a hostile or broken server.
constexpr qint64 kMaxManifestBytes = 16777216;
constexpr qint64 kMaxSignatureBytes = 65536;

// The publisher's P-256 public key, embedded at build time (CORV_PUBLIC_KEY_FILE).
extern const char kEmbeddedPublicKeyPem[];

// ECDSA P-256 / SHA-256 check of the exact manifest bytes against the embedded key.
// signatureText is base64 of the DER signature; surrounding whitespace is ignored.
bool verifyManifestSignature(const QByteArray& manifestBytes, const QByteArray& signatureText);

// The same check against a NUL-terminated PEM public key (the release tool verifies published
// trees with the vendor's key file this way).
bool verifySignatureWithPublicKey(const QByteArray& data, const QByteArray& signatureText,
                                  const char* publicKeyPem);

// Fetch, verify, parse, check eligibility, in that order; each failure logs one line.
// rawBytes receives the downloaded manifest bytes as soon as they arrive.
bool fetchTrustedManifest(BoundedNetworkAccessManager& network, const QString& manifestUrl,
                          Manifest& manifest, QByteArray& rawBytes);
