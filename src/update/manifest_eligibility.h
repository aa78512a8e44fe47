#pragma once
#include "update/manifest.h"

#include <QString>

constexpr char kExpectedProduct[] = "Corvanta";
constexpr char kExpectedArch[] = "x64";

// Whether a signed manifest is meant for this product and architecture (empty values pass).
// On false, *reason (when given) receives "product=... (can Corvanta)" or "arch=... (can x64)".
bool isManifestForThisInstall(const Manifest& manifest, QString* reason = nullptr);
