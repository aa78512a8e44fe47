// The signature check, against signatures made by the openssl tool. Runs with bad signatures are
// rows of tests/blackbox and tests/hostile; the fetch rows are empty bodies no row serves.
#include "update/bounded_network_access.h"
#include "update/manifest_signature.h"

#include "support/test_server.h"

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

QStringList captured;
void captureMessage(QtMsgType, const QMessageLogContext&, const QString& message) { captured << message; }

} // namespace

class TestManifestSignature : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void verify_data();
    void verify();
    void fetch_data();
    void fetch();

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

void TestManifestSignature::fetch_data()
{
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QStringList>("requests");
    QTest::newRow("trusted") << kManifest << sign(kManifest) << QStringList()
                             << QStringList{"a/manifest.json", "a/manifest.json.sig"};
    QTest::newRow("empty manifest") << QByteArray() << sign(QByteArray())
                                    << QStringList{"[Update] tai manifest that bai -> chay ban hien tai"}
                                    << QStringList{"a/manifest.json"};
    QTest::newRow("empty signature") << kManifest << QByteArray()
                                     << QStringList{"[Update] tai .sig that bai -> chay ban hien tai"}
                                     << QStringList{"a/manifest.json", "a/manifest.json.sig"};
}

void TestManifestSignature::fetch()
{
    QFETCH(QByteArray, manifest);
    QFETCH(QByteArray, signature);
    QFETCH(QStringList, lines);
    QFETCH(QStringList, requests);
    QTemporaryDir root;
    QVERIFY(QDir(root.path()).mkdir("a"));
    for (const QString name : {"a/manifest.json", "a/manifest.json.sig"}) {
        const QByteArray& bytes = name.endsWith(".sig") ? signature : manifest;
        QFile file(root.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
    }
    TestServer server(root.path());
    QVERIFY(server.start());

    BoundedNetworkAccessManager network;
    Manifest parsed;
    QByteArray raw = "before";
    captured.clear();
    const QtMessageHandler previous = qInstallMessageHandler(captureMessage);
    const bool trusted = fetchTrustedManifest(network, server.url("a/manifest.json"), parsed, raw);
    qInstallMessageHandler(previous);

    QCOMPARE(captured, lines);
    QCOMPARE(trusted, lines.isEmpty());
    QCOMPARE(raw, manifest);
    QStringList asked;
    for (const TestServer::Request& request : server.requests())
        asked << request.path;
    QCOMPARE(asked, requests);
    QCOMPARE(parsed.files.isEmpty() ? QString() : parsed.files[0].path, trusted ? "bin/core.dll" : "");
}

QTEST_GUILESS_MAIN(TestManifestSignature)
#include "tst_manifest_signature.moc"
