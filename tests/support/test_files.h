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
