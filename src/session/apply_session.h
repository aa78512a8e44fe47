#pragma once
#include "update/manifest.h"
#include "update/update_session.h"

#include <QList>
#include <QString>

// One apply run: repair, configuration, trusted manifest, up-to-date decision, hashing,
// staging download, transaction, recorded manifest, cache clean-up.
UpdateOutcome runUpdateSession(UpdateSession& session);

// The manifest's files whose installed copy is missing or has another SHA-256, in manifest
// order. Installed files are streamed, never read whole.
QList<ManifestFile> changedFiles(const Manifest& manifest, const QString& appDir);
