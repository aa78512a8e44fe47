#pragma once
#include <QString>

// Replaces an existing installed file by newPath, keeping the old content at backupPath.
// Falls back to two write-through renames when the in-place replacement is refused.
bool replaceInstalledFile(const QString& newPath, const QString& targetPath, const QString& backupPath);

// MoveFileExW(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH).
bool moveFileWriteThrough(const QString& from, const QString& to);

// MoveFileExW(from, to, MOVEFILE_WRITE_THROUGH): a file or a whole directory to a free name.
bool moveWithoutReplacing(const QString& from, const QString& to);

// Moves made after beginMoveBatch() leave the sync of the directories they change to
// endMoveBatch(), which syncs each of them once (on POSIX; Windows moves are written through one
// by one). Only once it returned true are the batch's moves sure to outlive a power loss; on a
// failure `failedDirectory` names a directory that could not be synced.
void beginMoveBatch();
bool endMoveBatch(QString* failedDirectory);
