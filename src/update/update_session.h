#pragma once
#include "update/bounded_network_access.h"
#include "update/manifest.h"
#include "update/update_outcome.h"

#include <QList>
#include <QString>
#include <functional>

// Context of one apply run, filled by the entry point. Members are destroyed in reverse
// order: the network manager first, then the callback, then the two strings.
struct UpdateSession {
    QString appDir;        // directory of the running updater: the installation directory
    QString selfFileName;  // the updater's own file name, without directory
    std::function<void(const QString&)> onStatus;  // may be empty
    BoundedNetworkAccessManager network;
};

// One apply run: repair, configuration, trusted manifest, up-to-date decision, hashing,
// staging download, transaction, recorded manifest, cache clean-up.
UpdateOutcome runUpdateSession(UpdateSession& session);

// The manifest's files whose installed copy is missing or has another SHA-256, in manifest
// order. Installed files are streamed, never read whole.
QList<ManifestFile> changedFiles(const Manifest& manifest, const QString& appDir);
