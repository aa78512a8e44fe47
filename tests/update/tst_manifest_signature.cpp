#include "update/bounded_network_access.h"
#include "update/manifest_signature.h"

#include "support/test_files.h"
#include "support/test_server.h"
#include "support/test_signing.h"

#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

#include <openssl/bn.h>
#include <openssl/ec.h>

namespace {

const QByteArray kManifest = R"({
  "buildNumber": 153,
  "fullVersion": "5.0.153",
  "product": "Corvanta",
  "arch": "x64",
  "files": [
    {"path": "Corvanta.exe", "size": 4, "sha256": "9F86D081884C7D659A2FEAA0C55AD015A3BF4F1B2B0B822CD15D6C15B0F00A08"},
    {"path": "bin\\core.dll", "size": 3, "sha256": "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"}
  ]
}
)";

// Every line fetchTrustedManifest may write; a failure writes exactly one of them.
const QString kLineManifestMissing = QStringLiteral("[Update] tai manifest that bai -> chay ban hien tai");
const QString kLineSigMissing = QStringLiteral("[Update] tai .sig that bai -> chay ban hien tai");
const QString kLineBadSignature = QStringLiteral("[Update] CHU KY MANIFEST SAI -> KHONG ap, chay ban hien tai");
const QString kLineMalformed = QStringLiteral("[Update] manifest hong");
const QString kLineNotForThisInstall = QStringLiteral("[Update] MANIFEST KHONG DANH CHO BAN NAY:");

// The raw 64-byte r||s form of a DER signature, which the updater must not accept.
QByteArray rawRsFromDer(const QByteArray& der)
{
    const auto* p = reinterpret_cast<const unsigned char*>(der.constData());
    ECDSA_SIG* sig = d2i_ECDSA_SIG(nullptr, &p, der.size());
    if (!sig)
        return {};
    const BIGNUM* r = nullptr;
    const BIGNUM* s = nullptr;
    ECDSA_SIG_get0(sig, &r, &s);
    QByteArray raw(64, '\0');
    auto* out = reinterpret_cast<unsigned char*>(raw.data());
    const bool ok = BN_bn2binpad(r, out, 32) == 32 && BN_bn2binpad(s, out + 32, 32) == 32;
    ECDSA_SIG_free(sig);
    return ok ? raw : QByteArray();
}

QByteArray wrapAt64(const QByteArray& base64)
{
    QByteArray out;
    for (int at = 0; at < base64.size(); at += 64)
        out += base64.mid(at, 64) + '\n';
    return out;
}

QByteArray manifestWith(const QByteArray& from, const QByteArray& to)
{
    QByteArray copy = kManifest;
    return copy.replace(from, to);
}

QStringList captured;

void captureMessage(QtMsgType, const QMessageLogContext&, const QString& message)
{
    captured << message;
}

} // namespace

class TestManifestSignature : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void verifyManifestSignature_data();
    void verifyManifestSignature();
    void fetchTrustedManifest_data();
    void fetchTrustedManifest();

private:
    QTemporaryDir keyDir;
    QString otherPrivateKey;
};

void TestManifestSignature::initTestCase()
{
    QVERIFY(keyDir.isValid());
    otherPrivateKey = keyDir.filePath(QStringLiteral("other_private.pem"));
    QVERIFY(generateKeyPair(otherPrivateKey, keyDir.filePath(QStringLiteral("other_public.pem"))));
    QVERIFY(!signWithKey(kManifest).isEmpty());
}

void TestManifestSignature::verifyManifestSignature_data()
{
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<bool>("valid");

    const QByteArray sig = signWithKey(kManifest);
    const QByteArray der = QByteArray::fromBase64(sig);

    QTest::newRow("as published") << kManifest << sig << true;
    QTest::newRow("trailing LF") << kManifest << sig + "\n" << true;
    QTest::newRow("trailing CR LF") << kManifest << sig + "\r\n" << true;
    QTest::newRow("blanks, tabs and line breaks around") << kManifest << " \t\r\n" + sig + "\n\n\t " << true;
    QTest::newRow("wrapped at 64 columns") << kManifest << wrapAt64(sig) << true;
    QTest::newRow("characters outside the alphabet are skipped")
        << kManifest << sig.left(10) + "*\x01!" + sig.mid(10) << true;
    QTest::newRow("empty manifest signed") << QByteArray() << signWithKey(QByteArray()) << true;

    QTest::newRow("manifest changed by one byte") << manifestWith("\"size\": 4", "\"size\": 5") << sig << false;
    QTest::newRow("manifest with one more line feed") << kManifest + "\n" << sig << false;
    QTest::newRow("manifest without its last line feed") << kManifest.chopped(1) << sig << false;
    QTest::newRow("manifest re-indented") << QJsonDocument::fromJson(kManifest).toJson(QJsonDocument::Indented) << sig
                                          << false;
    QTest::newRow("manifest compacted") << QJsonDocument::fromJson(kManifest).toJson(QJsonDocument::Compact) << sig
                                        << false;
    QTest::newRow("signed by another key") << kManifest << signWithKey(kManifest, otherPrivateKey) << false;
    QTest::newRow("signature of another manifest")
        << kManifest << signWithKey(manifestWith("5.0.153", "5.0.154")) << false;
    QTest::newRow("raw r||s instead of DER") << kManifest << rawRsFromDer(der).toBase64() << false;
    QTest::newRow("DER truncated by one byte") << kManifest << der.chopped(1).toBase64() << false;
    QTest::newRow("DER with a byte appended") << kManifest << (der + '\0').toBase64() << false;
    QByteArray flipped = der;
    flipped[flipped.size() - 1] = char(flipped.at(flipped.size() - 1) ^ 0x01);
    QTest::newRow("DER with one bit flipped in s") << kManifest << flipped.toBase64() << false;
    QTest::newRow("DER bytes not base64-encoded") << kManifest << der << false;
    QTest::newRow("empty text") << kManifest << QByteArray() << false;
    QTest::newRow("only whitespace") << kManifest << QByteArray(" \r\n\t") << false;
    QTest::newRow("only characters outside the alphabet") << kManifest << QByteArray("!!*** ~~ ## \x01") << false;
    QTest::newRow("only padding") << kManifest << QByteArray("====") << false;
    QTest::newRow("a single base64 character") << kManifest << QByteArray("A") << false;
}

void TestManifestSignature::verifyManifestSignature()
{
    QFETCH(QByteArray, manifest);
    QFETCH(QByteArray, signature);
    QFETCH(bool, valid);
    QCOMPARE(::verifyManifestSignature(manifest, signature), valid);
}

void TestManifestSignature::fetchTrustedManifest_data()
{
    QTest::addColumn<bool>("publishManifest");
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<bool>("publishSignature");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<int>("failFirstManifestRequests");  // answered 503 before the file
    QTest::addColumn<QString>("expectedLine");            // empty: success, no line
    QTest::addColumn<int>("manifestRequests");
    QTest::addColumn<int>("sigRequests");

    const QByteArray sig = signWithKey(kManifest);
    const QByteArray notJson = "fullVersion=5.0.153\n";
    const QByteArray unsafe = manifestWith("bin\\\\core.dll", "..\\\\core.dll");
    const QByteArray otherProduct = manifestWith("\"Corvanta\"", "\"Other\"");
    const QByteArray x86 = manifestWith("\"x64\"", "\"x86\"");

    const QString trusted;  // no line at all
    QTest::newRow("trusted") << true << kManifest << true << sig << 0 << trusted << 1 << 1;
    QTest::newRow("trusted, signature with CR LF") << true << kManifest << true << sig + "\r\n" << 0 << trusted << 1
                                                   << 1;
    QTest::newRow("trusted after one failed attempt") << true << kManifest << true << sig << 1 << trusted << 2 << 1;
    QTest::newRow("manifest missing") << false << QByteArray() << true << sig << 0 << kLineManifestMissing << 2 << 0;
    QTest::newRow("manifest fails twice") << true << kManifest << true << sig << 2 << kLineManifestMissing << 2 << 0;
    QTest::newRow("manifest empty") << true << QByteArray() << true << sig << 0 << kLineManifestMissing << 1 << 0;
    QTest::newRow(".sig missing") << true << kManifest << false << QByteArray() << 0 << kLineSigMissing << 1 << 2;
    QTest::newRow(".sig empty") << true << kManifest << true << QByteArray() << 0 << kLineSigMissing << 1 << 1;
    QTest::newRow("signed by another key")
        << true << kManifest << true << signWithKey(kManifest, otherPrivateKey) << 0 << kLineBadSignature << 1 << 1;
    QTest::newRow("manifest changed by one byte after signing")
        << true << manifestWith("\"size\": 3", "\"size\": 2") << true << sig << 0 << kLineBadSignature << 1 << 1;
    QTest::newRow("signature that decodes to nothing")
        << true << kManifest << true << QByteArray("!!!\n") << 0 << kLineBadSignature << 1 << 1;
    QTest::newRow("unsigned malformed manifest is never parsed")
        << true << notJson << true << sig << 0 << kLineBadSignature << 1 << 1;
    QTest::newRow("signed manifest that is not JSON")
        << true << notJson << true << signWithKey(notJson) << 0 << kLineMalformed << 1 << 1;
    QTest::newRow("signed manifest with an unsafe path")
        << true << unsafe << true << signWithKey(unsafe) << 0 << kLineMalformed << 1 << 1;
    QTest::newRow("signed manifest of another product")
        << true << otherProduct << true << signWithKey(otherProduct) << 0
        << "[Update] MANIFEST KHONG DANH CHO BAN NAY: product=Other (can Corvanta) -> KHONG ap, chay ban hien tai"
        << 1 << 1;
    QTest::newRow("signed manifest for x86")
        << true << x86 << true << signWithKey(x86) << 0
        << "[Update] MANIFEST KHONG DANH CHO BAN NAY: arch=x86 (can x64) -> KHONG ap, chay ban hien tai" << 1 << 1;
}

void TestManifestSignature::fetchTrustedManifest()
{
    QFETCH(bool, publishManifest);
    QFETCH(QByteArray, manifest);
    QFETCH(bool, publishSignature);
    QFETCH(QByteArray, signature);
    QFETCH(int, failFirstManifestRequests);
    QFETCH(QString, expectedLine);
    QFETCH(int, manifestRequests);
    QFETCH(int, sigRequests);

    QTemporaryDir root;
    QVERIFY(root.isValid());
    QVERIFY(QDir(root.path()).mkdir(QStringLiteral("app")));
    if (publishManifest)
        QVERIFY(writeFile(root.filePath(QStringLiteral("app/manifest.json")), manifest));
    if (publishSignature)
        QVERIFY(writeFile(root.filePath(QStringLiteral("app/manifest.json.sig")), signature));

    TestServer server(root.path());
    QVERIFY(server.start());
    if (failFirstManifestRequests > 0) {
        TestServer::Rule rule;
        rule.status = 503;
        rule.times = failFirstManifestRequests;
        server.setRule(QStringLiteral("app/manifest.json"), rule);
    }

    BoundedNetworkAccessManager network;
    Manifest parsed;
    parsed.fullVersion = QStringLiteral("before");
    QByteArray rawBytes = "before";

    captured.clear();
    const QtMessageHandler previous = qInstallMessageHandler(captureMessage);
    const bool trusted =
        ::fetchTrustedManifest(network, server.url(QStringLiteral("app/manifest.json")), parsed, rawBytes);
    qInstallMessageHandler(previous);

    const QStringList stepLines = {kLineManifestMissing, kLineSigMissing, kLineBadSignature, kLineMalformed};
    QStringList written;
    for (const QString& line : qAsConst(captured)) {
        if (stepLines.contains(line) || line.startsWith(kLineNotForThisInstall))
            written << line;
    }
    QCOMPARE(written, expectedLine.isEmpty() ? QStringList() : QStringList{expectedLine});
    QCOMPARE(trusted, expectedLine.isEmpty());

    // The manifest is fetched first, its signature only once a manifest body has arrived.
    QCOMPARE(server.requestsFor(QStringLiteral("app/manifest.json")).size(), manifestRequests);
    QCOMPARE(server.requestsFor(QStringLiteral("app/manifest.json.sig")).size(), sigRequests);
    QCOMPARE(server.requests().first().path, QStringLiteral("app/manifest.json"));

    // The bytes are handed out exactly as downloaded, whatever step failed afterwards.
    const bool manifestArrived = publishManifest && failFirstManifestRequests < 2;
    QCOMPARE(rawBytes, manifestArrived ? manifest : QByteArray());

    if (trusted) {
        QCOMPARE(parsed.buildNumber, qint64(153));
        QCOMPARE(parsed.fullVersion, QStringLiteral("5.0.153"));
        QCOMPARE(parsed.files.size(), 2);
        QCOMPARE(parsed.files.at(1).path, QStringLiteral("bin/core.dll"));
        QCOMPARE(parsed.files.at(0).sha256,
                 QStringLiteral("9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08"));
    } else if (!expectedLine.startsWith(kLineNotForThisInstall)) {
        // Nothing before a successful parse may touch the caller's record.
        QCOMPARE(parsed.fullVersion, QStringLiteral("before"));
    }
}

QTEST_GUILESS_MAIN(TestManifestSignature)
#include "tst_manifest_signature.moc"
