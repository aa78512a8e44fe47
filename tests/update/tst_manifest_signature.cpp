// The signature check, against signatures made by the openssl tool. Runs with bad or missing
// signatures are rows of tests/blackbox and tests/hostile.
#include "update/manifest_signature.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

const QByteArray kManifest = R"({"buildNumber": 153, "fullVersion": "5.0.153", "product": "Corvanta", "arch": "x64",
  "files": [{"path": "bin\\core.dll", "size": 3, "sha256": "BA78"}]}
)";

QByteArray runOpenssl(const QStringList& args, const QByteArray& input = QByteArray())
{
    QProcess openssl;
    openssl.start("openssl", args);
    openssl.write(input);
    openssl.closeWriteChannel();
    openssl.waitForFinished(30000);
    return openssl.exitCode() == 0 ? openssl.readAllStandardOutput() : QByteArray();
}

// Base64 of the DER ECDSA P-256/SHA-256 signature, as a publisher's .sig file holds it.
QByteArray sign(const QByteArray& data, const QString& key = CORV_DEV_PRIVATE_KEY)
{
    return runOpenssl({"dgst", "-sha256", "-sign", key}, data).toBase64();
}

} // namespace

class TestManifestSignature : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void verify_data();
    void verify();

private:
    QTemporaryDir dir;
    QString otherKey;
    QByteArray otherPublicKey, ed25519PublicKey;
};

void TestManifestSignature::initTestCase()
{
    otherKey = dir.filePath("other.pem");
    runOpenssl({"ecparam", "-name", "prime256v1", "-genkey", "-noout", "-out", otherKey});
    QVERIFY(!sign(kManifest).isEmpty() && !sign(kManifest, otherKey).isEmpty());
    otherPublicKey = runOpenssl({"ec", "-in", otherKey, "-pubout"});
    ed25519PublicKey = runOpenssl({"pkey", "-pubout"}, runOpenssl({"genpkey", "-algorithm", "ed25519"}));
    QVERIFY(otherPublicKey.startsWith("-----BEGIN PUBLIC KEY") && ed25519PublicKey.startsWith("-----BEGIN PUBLIC KEY"));
}

void TestManifestSignature::verify_data()
{
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<QByteArray>("publicKey");
    const QByteArray sig = sign(kManifest);
    const QByteArray der = QByteArray::fromBase64(sig);
    QByteArray flipped = der;
    flipped[flipped.size() - 1] = char(flipped.back() ^ 0x01);

    // The key column empty: the key built into the updater.
    const auto row = [](const char* name, const QByteArray& manifest, const QByteArray& signature, bool valid,
                        const QByteArray& publicKey = QByteArray()) {
        QTest::newRow(name) << manifest << signature << valid << publicKey;
    };
    row("as published", kManifest, sig, true);
    row("CR LF after it", kManifest, sig + "\r\n", true);
    row("blanks, tabs and line breaks around", kManifest, " \t\r\n" + sig + "\n\n\t ", true);
    row("characters outside the alphabet skipped", kManifest, sig.left(10) + "*\x01!" + sig.mid(10), true);
    row("manifest changed by one byte", QByteArray(kManifest).replace("153", "154"), sig, false);
    row("manifest with one more line feed", kManifest + "\n", sig, false);
    row("signed by another key", kManifest, sign(kManifest, otherKey), false);
    row("DER truncated by one byte", kManifest, der.chopped(1).toBase64(), false);
    row("DER with one bit flipped", kManifest, flipped.toBase64(), false);
    row("only whitespace", kManifest, QByteArray(" \r\n\t"), false);
    row("only characters outside the alphabet", kManifest, QByteArray("!!*** ~~ ## \x01"), false);
    row("another key's signature, checked with its key", kManifest, sign(kManifest, otherKey), true, otherPublicKey);
    row("a key that does not parse", kManifest, sig, false,
        QByteArray("-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n"));
    row("an Ed25519 key, which takes no SHA-256", kManifest, sig, false, ed25519PublicKey);
}

void TestManifestSignature::verify()
{
    QFETCH(QByteArray, manifest);
    QFETCH(QByteArray, signature);
    QFETCH(bool, valid);
    QFETCH(QByteArray, publicKey);
    QCOMPARE(publicKey.isEmpty() ? verifyManifestSignature(manifest, signature)
                                 : verifySignatureWithPublicKey(manifest, signature, publicKey.constData()),
             valid);
}

QTEST_GUILESS_MAIN(TestManifestSignature)
#include "tst_manifest_signature.moc"
