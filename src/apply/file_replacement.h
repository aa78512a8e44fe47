#pragma once
#include <QString>

// Replaces an existing installed file by newPath, keeping the old content at backupPath.
// Falls back to two write-through renames when the in-place replacement is refused.
bool replaceInstalledFile(const QString& newPath, const QString& targetPath, const QString& backupPath);

// MoveFileExW(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH).
bool moveFileWriteThrough(const QString& from, const QString& to);

// MoveFileExW(from, to, MOVEFILE_WRITE_THROUGH): a file or a whole directory to a free name.
bool moveWithoutReplacing(const QString& from, const QString& to);
