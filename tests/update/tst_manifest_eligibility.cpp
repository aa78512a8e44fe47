// Whether a signed manifest is meant for this product and processor architecture.
#include "update/manifest_eligibility.h"

#include <QtTest>

class TestManifestEligibility : public QObject {
    Q_OBJECT
private slots:
    void eligible_data();
    void eligible();
};

void TestManifestEligibility::eligible_data()
{
    QTest::addColumn<QString>("product");
    QTest::addColumn<QString>("arch");
    QTest::addColumn<QString>("reason");  // "" when eligible
    QTest::newRow("letter case ignored") << "corvanta" << "X64" << "";
    QTest::newRow("empty product") << "" << "x64" << "";
    QTest::newRow("empty arch") << "CORVANTA" << "" << "";
    QTest::newRow("product reported first") << "Other" << "x86" << "product=Other (can Corvanta)";
    QTest::newRow("product not trimmed") << " Corvanta" << "x64" << "product= Corvanta (can Corvanta)";
    QTest::newRow("placeholders kept literally") << "%2%1" << "x64" << "product=%2%1 (can Corvanta)";
    QTest::newRow("x86 without product") << "" << "x86" << "arch=x86 (can x64)";
    QTest::newRow("amd64 is not x64") << "Corvanta" << "amd64" << "arch=amd64 (can x64)";
    QTest::newRow("arch not trimmed") << "corvanta" << "x64 " << "arch=x64  (can x64)";
}

void TestManifestEligibility::eligible()
{
    QFETCH(QString, product);
    QFETCH(QString, arch);
    QFETCH(QString, reason);
    Manifest manifest;
    manifest.product = product;
    manifest.arch = arch;
    QString written = "untouched";
    QCOMPARE(isManifestForThisInstall(manifest, &written), reason.isEmpty());
    QCOMPARE(written, reason.isEmpty() ? "untouched" : reason);
    // Without a place for the reason the answer is the same.
    QCOMPARE(isManifestForThisInstall(manifest), reason.isEmpty());
}

QTEST_GUILESS_MAIN(TestManifestEligibility)
#include "tst_manifest_eligibility.moc"
