#pragma once
#include "update/manifest.h"

#include <QList>
#include <QString>

struct UpdateSession;

struct StagedFile {
    QString stagedPath;  // absolute path inside the staging directory
    QString relPath;     // manifest path
};

// appDir joined with ".staging".
QString stagingDir(const UpdateSession& session);

// Puts a verified copy of every changed file into staging, from the cheapest good source:
// a finished cache file, a cached partial file resumed over the network, or a fresh download.
// On failure the staging directory is deleted and false returned.
bool downloadToStaging(UpdateSession& session, const QList<ManifestFile>& changed,
                       const QString& baseUrl, const QString& version, QList<StagedFile>& staged);
