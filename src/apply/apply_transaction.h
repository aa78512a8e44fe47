#pragma once
#include "apply/staging_download.h"

#include <QByteArray>
#include <QList>

struct UpdateSession;

// Moves every staged file into place as one transaction with ".bak" backups; on any failure
// restores what was replaced and deletes what was added. The updater's own executable is
// written beside itself as "<selfFileName>.new".
bool applyStagedFiles(UpdateSession& session, const QList<StagedFile>& staged);

// Writes the manifest bytes, exactly as downloaded, to appDir/manifest.json (errors ignored).
void writeInstalledManifest(UpdateSession& session, const QByteArray& manifestBytes);
