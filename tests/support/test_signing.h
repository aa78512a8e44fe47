#pragma once
#include <QByteArray>
#include <QString>

// Path of the development private key kept in keys/ (never for production).
QString devPrivateKeyPath();

// Base64 text of the DER ECDSA P-256/SHA-256 signature of `data`, made with the PEM private
// key at keyPath (the development key by default), exactly as a publisher's .sig file holds it.
// Empty on failure.
QByteArray signWithKey(const QByteArray& data, const QString& keyPath = devPrivateKeyPath());

// Writes a new P-256 key pair as PEM files; false on failure.
bool generateKeyPair(const QString& privatePemPath, const QString& publicPemPath);
