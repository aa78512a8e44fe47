#include "support/test_files.h"
#include "support/test_signing.h"

#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

namespace {

constexpr int kConfigureTimeoutMs = 180000;
constexpr int kBuildTimeoutMs = 840000;

const QByteArray kManifest = R"({"fullVersion": "9.9.9", "files": [{"path": "a.dll", "sha256": "aa"}]})";

// PEM text of a freshly generated key (public part, or the private key itself).
QByteArray generatedPem(EVP_PKEY* key, bool privatePart)
{
    QByteArray pem;
    BIO* bio = BIO_new(BIO_s_mem());
    if (key && bio
        && (privatePart ? PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr)
                        : PEM_write_bio_PUBKEY(bio, key))
               == 1) {
        char* data = nullptr;
        const long length = BIO_get_mem_data(bio, &data);
        pem = QByteArray(data, int(length));
    }
    BIO_free(bio);
    EVP_PKEY_free(key);
    return pem;
}

// A P-256 public key PEM whose curve identifier is replaced by SM2's, which has the same
// length: the text keeps the exact size of a P-256 key but names another curve.
QByteArray otherCurveSameLength(const QByteArray& p256Pem)
{
    QByteArray body = p256Pem;
    body.replace("-----BEGIN PUBLIC KEY-----", "").replace("-----END PUBLIC KEY-----", "");
    QByteArray der = QByteArray::fromBase64(body.simplified().replace(' ', ""));
    der.replace(QByteArray::fromHex("2a8648ce3d030107"), QByteArray::fromHex("2a811ccf5501822d"));
    const QByteArray base64 = der.toBase64();
    QByteArray pem = "-----BEGIN PUBLIC KEY-----\n";
    for (int at = 0; at < base64.size(); at += 64)
        pem += base64.mid(at, 64) + '\n';
    return pem + "-----END PUBLIC KEY-----\n";
}

struct Run {
    int exitCode = -1;
    QString output;
};

Run runProcess(const QString& program, const QStringList& arguments, int timeoutMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    Run run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        run.output = QStringLiteral("timed out: ") + program + QLatin1Char(' ') + arguments.join(QLatin1Char(' '));
        return run;
    }
    run.output = QString::fromLocal8Bit(process.readAll());
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return run;
}

// cmake word-wraps its error messages; compare texts with every run of whitespace as one blank.
QString flattened(const QString& text)
{
    return text.simplified();
}

QStringList configureArguments(const QString& buildDir, const QString& keyFile)
{
    return {QStringLiteral("-S"), QStringLiteral(CORV_SOURCE_DIR), QStringLiteral("-B"), buildDir,
            QStringLiteral("-G"), QStringLiteral(CORV_CMAKE_GENERATOR),
            QStringLiteral("-DCMAKE_MAKE_PROGRAM=" CORV_CMAKE_MAKE_PROGRAM),
            QStringLiteral("-DCMAKE_CXX_COMPILER=" CORV_CXX_COMPILER), QStringLiteral("-DCMAKE_BUILD_TYPE=Debug"),
            QStringLiteral("-DBUILD_TESTING=OFF"), QStringLiteral("-DCORV_PUBLIC_KEY_FILE=") + keyFile};
}

} // namespace

class TestEmbeddedKeyBuild : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void configureRefusesKey_data();
    void configureRefusesKey();
    void configureAcceptsKey_data();
    void configureAcceptsKey();
    void buildTrustsOnlyItsKey();

private:
    QString path(const QString& name) const { return scratch.filePath(name); }

    QTemporaryDir scratch;
};

void TestEmbeddedKeyBuild::initTestCase()
{
    QVERIFY(scratch.isValid());
    QVERIFY(generateKeyPair(path("other_private.pem"), path("other_public.pem")));
    const QByteArray otherPublic = readFile(path("other_public.pem"));
    QCOMPARE(otherPublic.size(), 178);
    QVERIFY(writeFile(path("other_public_crlf.pem"), QByteArray(otherPublic).replace("\n", "\r\n")));

    QVERIFY(writeFile(path("p384_public.pem"), generatedPem(EVP_EC_gen("P-384"), false)));
    QVERIFY(writeFile(path("rsa_public.pem"), generatedPem(EVP_RSA_gen(2048), false)));
    const QByteArray sameLength = otherCurveSameLength(otherPublic);
    QCOMPARE(sameLength.size(), 178);
    QVERIFY(sameLength != otherPublic);
    QVERIFY(writeFile(path("sm2_curve_public.pem"), sameLength));
    QVERIFY(writeFile(path("with_comment.pem"), "# vendor key\n" + otherPublic));
    QVERIFY(writeFile(path("empty.pem"), QByteArray()));
    QVERIFY(QDir(scratch.path()).mkdir(QStringLiteral("a_directory.pem")));
}

void TestEmbeddedKeyBuild::configureRefusesKey_data()
{
    QTest::addColumn<QString>("keyFile");
    QTest::addColumn<QString>("message");

    const QString wrongShape = QStringLiteral("is not a PEM \"PUBLIC KEY\" block of an EC P-256 key");
    QTest::newRow("missing file") << "no_such_key.pem" << "does not exist or is not a file";
    QTest::newRow("a directory") << "a_directory.pem" << "does not exist or is not a file";
    QTest::newRow("empty file") << "empty.pem" << wrongShape;
    QTest::newRow("P-384 public key") << "p384_public.pem" << wrongShape;
    QTest::newRow("RSA public key") << "rsa_public.pem" << wrongShape;
    QTest::newRow("P-256 private key instead of the public one") << "other_private.pem" << wrongShape;
    QTest::newRow("text before the PEM block") << "with_comment.pem" << wrongShape;
    QTest::newRow("same length, other curve") << "sm2_curve_public.pem"
                                              << "holds a public key that is not on curve P-256 (prime256v1)";
}

void TestEmbeddedKeyBuild::configureRefusesKey()
{
    QFETCH(QString, keyFile);
    QFETCH(QString, message);
    const QString keyPath = path(keyFile);
    const Run configure = runProcess(QStringLiteral(CORV_CMAKE_COMMAND),
                                     configureArguments(path("refused-build"), keyPath), kConfigureTimeoutMs);
    QVERIFY2(configure.exitCode > 0, qPrintable(configure.output));
    const QString expected = QStringLiteral("CORV_PUBLIC_KEY_FILE: '%1' %2").arg(keyPath, message);
    QVERIFY2(flattened(configure.output).contains(flattened(expected)), qPrintable(configure.output));
}

void TestEmbeddedKeyBuild::configureAcceptsKey_data()
{
    QTest::addColumn<QString>("keyFile");
    QTest::newRow("P-256 public key with LF line ends") << "other_public.pem";
    QTest::newRow("P-256 public key with CR LF line ends") << "other_public_crlf.pem";
}

void TestEmbeddedKeyBuild::configureAcceptsKey()
{
    QFETCH(QString, keyFile);
    const Run configure = runProcess(QStringLiteral(CORV_CMAKE_COMMAND),
                                     configureArguments(path("accepted-build"), path(keyFile)), kConfigureTimeoutMs);
    QVERIFY2(configure.exitCode == 0, qPrintable(configure.output));
}

void TestEmbeddedKeyBuild::buildTrustsOnlyItsKey()
{
    const QString buildDir = path("other-key-build");
    QStringList arguments = configureArguments(buildDir, path("other_public_crlf.pem"));
    arguments << QStringLiteral("-DCMAKE_PROJECT_CorvantaUpdater_INCLUDE=" CORV_VERIFY_TOOL_INCLUDE);
    const Run configure = runProcess(QStringLiteral(CORV_CMAKE_COMMAND), arguments, kConfigureTimeoutMs);
    QVERIFY2(configure.exitCode == 0, qPrintable(configure.output));
    const Run build = runProcess(QStringLiteral(CORV_CMAKE_COMMAND),
                                 {QStringLiteral("--build"), buildDir, QStringLiteral("--target"),
                                  QStringLiteral("corv-verify-manifest")},
                                 kBuildTimeoutMs);
    QVERIFY2(build.exitCode == 0, qPrintable(build.output));

    const QString tool = QDir(buildDir).filePath(QStringLiteral("corv-verify-manifest"));
    QVERIFY(writeFile(path("manifest.json"), kManifest));
    QVERIFY(writeFile(path("dev.sig"), signWithKey(kManifest) + "\n"));
    QVERIFY(writeFile(path("other.sig"), signWithKey(kManifest, path("other_private.pem")) + "\n"));

    const QString manifest = path("manifest.json");
    const Run devSigned = runProcess(tool, {manifest, path("dev.sig")}, 30000);
    QCOMPARE(devSigned.output, QStringLiteral("rejected\n"));
    QCOMPARE(devSigned.exitCode, 1);
    const Run otherSigned = runProcess(tool, {manifest, path("other.sig")}, 30000);
    QCOMPARE(otherSigned.output, QStringLiteral("verified\n"));
    QCOMPARE(otherSigned.exitCode, 0);
}

QTEST_GUILESS_MAIN(TestEmbeddedKeyBuild)
#include "tst_embedded_key_build.moc"
