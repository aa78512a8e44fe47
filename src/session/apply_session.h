#pragma once
#include "update/manifest.h"
#include "update/update_session.h"

#include <QHash>
#include <QList>
#include <QString>

#include <functional>

// One apply run: repair, configuration, trusted manifest, up-to-date decision, hashing,
// staging download, transaction, recorded manifest, cache clean-up.
UpdateOutcome runUpdateSession(UpdateSession& session);

// The manifest's files whose installed copy is missing or has another SHA-256, in manifest
// order. Installed files are streamed, never read whole. installedHashes, when given, receives
// the installed SHA-256 of each of them ("" for a missing or unreadable file): it tells which
// patch applies, without hashing the installed files twice.
// onChanged, when given, is called for each of them as soon as it is found, with its installed
// SHA-256; the event loop runs meanwhile.
using OnFileChanged = std::function<void(const ManifestFile&, const QString& installedSha256)>;
QList<ManifestFile> changedFiles(const Manifest& manifest, const QString& appDir,
                                 QHash<QString, QString>* installedHashes = nullptr, const OnFileChanged& onChanged = {});
