#pragma once
#include "update/manifest.h"

#include <QHash>
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
// a finished cache file; else the smallest usable artifact (a patch against the installed
// content installedHashes gives for the path, then the compressed file), falling back to the
// next on any failure; else the whole file, a cached partial file resumed over the network or a
// fresh download. Ends with the bytes that went over the wire. On failure the staging
// directory is deleted and false returned.
bool downloadToStaging(UpdateSession& session, const QList<ManifestFile>& changed,
                       const QString& baseUrl, const QString& version, QList<StagedFile>& staged,
                       const QHash<QString, QString>& installedHashes = {});
