#pragma once
// Replacing and renaming files in place, with the strongest durability the platform offers.
// Paths are UTF-8. This file and its implementations use no Qt.
//
// Windows: exactly ReplaceFileW(..., REPLACEFILE_IGNORE_MERGE_ERRORS) and
// MoveFileExW(..., MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH), error codes from
// GetLastError().
// POSIX: the same contract. The installed name never goes missing: the old file is hard-linked
// to the backup name (through a temporary name beside the replacement), then the new file is
// renamed over it. "Write-through" means the moved
// file and its directory are fsync'ed before the call reports success. errno values are
// reported as the matching Windows error codes (ENOENT 2, EACCES/EPERM 5, EBUSY/ETXTBSY 32,
// ENOSPC 112, EEXIST 183, ENOTEMPTY 145, EXDEV 17, ...).
#include <string>

namespace corv::platform {

// ReplaceFileW(replaced, replacement, backup, REPLACEFILE_IGNORE_MERGE_ERRORS, NULL, NULL).
bool replaceFile(const std::string& replaced, const std::string& replacement, const std::string& backup);

// MoveFileExW(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH), flags value 9.
bool moveFileReplaceWriteThrough(const std::string& from, const std::string& to);

// MoveFileExW(from, to, MOVEFILE_WRITE_THROUGH): moves a file or a whole directory to a name
// that does not exist yet; an existing `to` is never replaced.
bool moveWriteThrough(const std::string& from, const std::string& to);

// GetLastError() of this thread: the Windows error code of the last failed call above.
unsigned long lastError();

// Test hook: the next calls of `call` whose source path (the replacement file for
// replaceFile, `from` for the moves) equals `sourcePath` fail with `error` without touching the
// disk, until clearInjectedFileFailures(). ReplaceFileAfterRename lets replaceFile do its renames
// and then fail as a failed directory sync would (POSIX only). Nothing in the product sets it.
enum class FileCall { ReplaceFile, MoveFile, ReplaceFileAfterRename };
void injectFileFailure(FileCall call, const std::string& sourcePath, unsigned long error);
void clearInjectedFileFailures();

} // namespace corv::platform
