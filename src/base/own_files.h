#pragma once
#include <QIODevice>
#include <QString>

class QFile;

// The updater's own files below the installation directory (updater.log, .update-cache,
// .staging), reached without following a link below that directory: see
// platform/file_access.h. Paths are absolute. A path outside the installation directory (tests,
// and corvanta-publish checking artifacts with the updater's decoder) has its parent directory
// as the trusted base.

// Opens `path` into `file` (which must not be open) for reading (ReadOnly), for writing into a
// new empty file (WriteOnly, with or without Truncate) or for appending (WriteOnly | Append);
// other flags such as Unbuffered pass on to QFile. The opened QFile has no file name.
bool openOwnFile(QFile& file, const QString& path, QIODevice::OpenMode mode);
// Size of the regular file at `path`; -1 when there is none (also when a link is in the way).
qint64 ownFileSize(const QString& path);
bool makeOwnDirectory(const QString& path);
// Removes a file or a tree; a link is removed as a link.
bool removeOwnPath(const QString& path);
// Writes out what the open `file` buffers and makes its data durable: a file that is to be moved
// under a name that others read is synced so before it is closed (platform/file_replace.h).
bool syncWrittenFile(QFile& file);
// Between these two, syncWrittenFile() leaves the sync to the second, which makes every file
// written meanwhile durable at once (platform/file_replace.h: deferFileDataSyncs).
void deferWrittenFileSyncs();
bool syncDeferredWrittenFiles();

// Files the user may have placed, links included (installed files, updater.conf): `path` is
// opened for reading only when it leads to a regular file, so that a FIFO or a device under such
// a name (a link to /dev/zero) can neither hold the open nor make a read endless.
bool openRegularFile(QFile& file, const QString& path);
