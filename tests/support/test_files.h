#pragma once
#include <QByteArray>
#include <QString>
#include <QStringList>

// Small file helpers for tests; every test works on its own QTemporaryDir.

// Writes bytes to path, replacing any earlier content and creating the parent directories;
// false when any step fails.
bool writeFile(const QString& path, const QByteArray& bytes);

// The whole content of path, or ifMissing when it cannot be opened (suites that must tell an
// absent file from an empty one pass a marker such as "<missing>").
QByteArray readFile(const QString& path, const QByteArray& ifMissing = QByteArray());

// Relative paths of every file below dir, sorted; hidden files, FIFOs, sockets and dangling
// links included, so that nothing left behind goes unnoticed.
QStringList filesBelow(const QString& dir);

// Runs the zstd command-line tool (Debian package zstd), an encoder independent of the
// updater's code, over a file holding `content`, or over a pipe when fromPipe (then the frame
// carries no size). An argument "%source" is replaced by the path of a file holding `source`.
// Returns what the tool wrote, or an empty array when it failed or is not installed.
QByteArray runZstd(const QStringList& args, const QByteArray& content, const QByteArray& source = QByteArray(),
                   bool fromPipe = false);
// `content` compressed at level 19, as corvanta-publish compresses files.
QByteArray zstdCompressed(const QByteArray& content);
// A patch that turns `source` into `content` (zstd -19 --long=31 --patch-from).
QByteArray zstdPatch(const QByteArray& source, const QByteArray& content);
