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
};

void TestManifestSignature::initTestCase()
{
    otherKey = dir.filePath("other.pem");
    runOpenssl({"ecparam", "-name", "prime256v1", "-genkey", "-noout", "-out", otherKey});
    QVERIFY(!sign(kManifest).isEmpty() && !sign(kManifest, otherKey).isEmpty());
}

void TestManifestSignature::verify_data()
{
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<bool>("valid");
    const QByteArray sig = sign(kManifest);
    const QByteArray der = QByteArray::fromBase64(sig);
    QByteArray flipped = der;
    flipped[flipped.size() - 1] = char(flipped.back() ^ 0x01);

    QTest::newRow("as published") << kManifest << sig << true;
    QTest::newRow("CR LF after it") << kManifest << sig + "\r\n" << true;
    QTest::newRow("blanks, tabs and line breaks around") << kManifest << " \t\r\n" + sig + "\n\n\t " << true;
    QTest::newRow("characters outside the alphabet skipped") << kManifest << sig.left(10) + "*\x01!" + sig.mid(10) << true;
    QTest::newRow("manifest changed by one byte") << QByteArray(kManifest).replace("153", "154") << sig << false;
    QTest::newRow("manifest with one more line feed") << kManifest + "\n" << sig << false;
    QTest::newRow("signed by another key") << kManifest << sign(kManifest, otherKey) << false;
    QTest::newRow("DER truncated by one byte") << kManifest << der.chopped(1).toBase64() << false;
    QTest::newRow("DER with one bit flipped") << kManifest << flipped.toBase64() << false;
    QTest::newRow("only whitespace") << kManifest << QByteArray(" \r\n\t") << false;
    QTest::newRow("only characters outside the alphabet") << kManifest << QByteArray("!!*** ~~ ## \x01") << false;
}

void TestManifestSignature::verify()
{
    QFETCH(QByteArray, manifest);
    QFETCH(QByteArray, signature);
    QFETCH(bool, valid);
    QCOMPARE(verifyManifestSignature(manifest, signature), valid);
}

QTEST_GUILESS_MAIN(TestManifestSignature)
#include "tst_manifest_signature.moc"
