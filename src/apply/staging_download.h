#pragma once
#include "update/fetch_ahead.h"
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

// The GETs of a staging download that start before it: while the installed files are still
// being hashed, each changed file's first GET (the whole file, or its first artifact) starts as
// soon as fileChanged names it, into the staging directory, which the first call empties and
// makes. downloadToStaging then takes their outcomes in file order. A file with anything of its
// own in the update cache is left to its turn.
class StagingFetches {
public:
    StagingFetches(UpdateSession& session, const QString& baseUrl, const QString& version);
    ~StagingFetches();
    void fileChanged(const ManifestFile& file, const QString& installedSha256);

private:
    friend bool downloadToStaging(UpdateSession&, const QList<ManifestFile>&, const QString&, const QString&,
                                  QList<StagedFile>&, const QHash<QString, QString>&, StagingFetches*);
    void prepare();

    QString staging;
    QString baseUrl;
    QString version;
    bool cacheHeld = false;
    bool prepared = false;
    bool stopped = false;
    bool syncsOwed = false;  // the staged files are synced together, once all are written
    qint64 bodyBytes = 0;
    FetchAhead ahead;
};

// Puts a verified copy of every changed file into staging, from the cheapest good source:
// a finished cache file; else the smallest usable artifact (a patch against the installed
// content installedHashes gives for the path, then the compressed file), falling back to the
// next on any failure; else the whole file, a cached partial file resumed over the network or a
// fresh download. Ends with the bytes that went over the wire. On failure the staging
// directory is deleted and false returned.
// `started`, when given, holds the GETs already started for these files.
bool downloadToStaging(UpdateSession& session, const QList<ManifestFile>& changed,
                       const QString& baseUrl, const QString& version, QList<StagedFile>& staged,
                       const QHash<QString, QString>& installedHashes = {}, StagingFetches* started = nullptr);
