#include "update/manifest_eligibility.h"

#include <QtTest>

class TestManifestEligibility : public QObject {
    Q_OBJECT

private slots:
    void isManifestForThisInstall_data();
    void isManifestForThisInstall();
    void reasonLeftAloneWhenEligible();
    void noReasonOutputGiven();
};

void TestManifestEligibility::isManifestForThisInstall_data()
{
    QTest::addColumn<QString>("product");
    QTest::addColumn<QString>("arch");
    QTest::addColumn<bool>("eligible");
    QTest::addColumn<QString>("reason");

    QTest::newRow("exact constants") << "Corvanta" << "x64" << true << "";
    QTest::newRow("case is ignored: corvanta X64") << "corvanta" << "X64" << true << "";
    QTest::newRow("upper case product") << "CORVANTA" << "x64" << true << "";
    QTest::newRow("both empty") << "" << "" << true << "";
    QTest::newRow("empty product") << "" << "x64" << true << "";
    QTest::newRow("empty arch") << "Corvanta" << "" << true << "";
    QTest::newRow("other product and x86: product reported first")
        << "Other" << "x86" << false << "product=Other (can Corvanta)";
    QTest::newRow("other product, right arch") << "Other" << "x64" << false << "product=Other (can Corvanta)";
    QTest::newRow("other product, empty arch") << "Other" << "" << false << "product=Other (can Corvanta)";
    QTest::newRow("product with a suffix") << "Corvanta Beta" << "x64" << false
                                           << "product=Corvanta Beta (can Corvanta)";
    QTest::newRow("product not trimmed") << " Corvanta" << "x64" << false << "product= Corvanta (can Corvanta)";
    QTest::newRow("placeholder text in product is kept literally")
        << "%2%1" << "x64" << false << "product=%2%1 (can Corvanta)";
    QTest::newRow("arm64") << "Corvanta" << "arm64" << false << "arch=arm64 (can x64)";
    QTest::newRow("x86 without product") << "" << "x86" << false << "arch=x86 (can x64)";
    QTest::newRow("amd64 is not x64") << "Corvanta" << "amd64" << false << "arch=amd64 (can x64)";
    QTest::newRow("x64 with a blank") << "corvanta" << "x64 " << false << "arch=x64  (can x64)";
}

void TestManifestEligibility::isManifestForThisInstall()
{
    QFETCH(QString, product);
    QFETCH(QString, arch);
    QFETCH(bool, eligible);
    QFETCH(QString, reason);

    Manifest manifest;
    manifest.fullVersion = QStringLiteral("5.0.153");
    manifest.product = product;
    manifest.arch = arch;
    QString written;
    QCOMPARE(::isManifestForThisInstall(manifest, &written), eligible);
    QCOMPARE(written, reason);
}

void TestManifestEligibility::reasonLeftAloneWhenEligible()
{
    Manifest manifest;
    manifest.product = QStringLiteral("Corvanta");
    QString reason = QStringLiteral("earlier text");
    QVERIFY(::isManifestForThisInstall(manifest, &reason));
    QCOMPARE(reason, QStringLiteral("earlier text"));
}

void TestManifestEligibility::noReasonOutputGiven()
{
    Manifest manifest;
    manifest.product = QStringLiteral("Other");
    QVERIFY(!::isManifestForThisInstall(manifest));
    manifest.product.clear();
    manifest.arch = QStringLiteral("x86");
    QVERIFY(!::isManifestForThisInstall(manifest, nullptr));
}

QTEST_GUILESS_MAIN(TestManifestEligibility)
#include "tst_manifest_eligibility.moc"
