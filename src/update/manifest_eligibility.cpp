#include "update/manifest_eligibility.h"

bool isManifestForThisInstall(const Manifest& manifest, QString* reason)
{
    const QLatin1String product(kExpectedProduct);
    const QLatin1String arch(kExpectedArch);
    // The product is checked first: a manifest wrong in both reports only the product.
    if (!manifest.product.isEmpty() && manifest.product.compare(product, Qt::CaseInsensitive) != 0) {
        if (reason)
            *reason = QStringLiteral("product=%1 (can %2)").arg(manifest.product, product);
        return false;
    }
    // An empty product or arch passes: older manifests carry neither.
    if (manifest.arch.isEmpty() || manifest.arch.compare(arch, Qt::CaseInsensitive) == 0)
        return true;
    if (reason)
        *reason = QStringLiteral("arch=%1 (can %2)").arg(manifest.arch, arch);
    return false;
}
