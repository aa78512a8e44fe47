#pragma once
#include <QString>

// Reads "updater.conf" in appDir: "manifestUrl" (required) and "baseUrl" (derived from the
// manifest URL when empty; always ends in "/" unless taken over whole). True only when a
// non-empty manifestUrl was read: a FIFO or device under that name, or a file over 64 KiB,
// is no configuration. Logs nothing.
bool readUpdaterConfig(const QString& appDir, QString& manifestUrl, QString& baseUrl);
