#include "base/installation_dir.h"

#include <QCoreApplication>

namespace {
QString& installationDirOverride()
{
    static QString dir;
    return dir;
}
} // namespace

QString installationDir()
{
    const QString& overridden = installationDirOverride();
    return overridden.isEmpty() ? QCoreApplication::applicationDirPath() : overridden;
}

void setInstallationDirForTesting(const QString& dir) { installationDirOverride() = dir; }
