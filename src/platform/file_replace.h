#pragma once
// Replacing and renaming files in place, with the strongest durability the platform offers.
// Paths are UTF-8. This file and its implementations use no Qt.
//
// Windows: exactly ReplaceFileW(..., REPLACEFILE_IGNORE_MERGE_ERRORS) and
// MoveFileExW(..., MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH), error codes from
// GetLastError().
// POSIX: the same contract. The installed name never goes missing: the old file is hard-linked
// to the backup name (through a temporary name beside the replacement when that name is taken),
// then the new file is renamed over it. "Write-through" means that every directory which gained
// or lost a name is fsync'ed before the call reports success, or, between
// deferDirectorySyncs() and syncDeferredDirectories(), before the latter does. errno values are
// reported as the matching Windows error codes (ENOENT 2, EACCES/EPERM 5, EBUSY/ETXTBSY 32,
// ENOSPC 112, EEXIST 183, ENOTEMPTY 145, EXDEV 17, ...).
//
// No call here syncs the data of the file it moves: whoever writes a file that is to be moved
// syncs it with syncFileData() before closing it, so that no name ever points at data that a
// power loss could take back.
#include <string>

namespace corv::platform {

// ReplaceFileW(replaced, replacement, backup, REPLACEFILE_IGNORE_MERGE_ERRORS, NULL, NULL).
bool replaceFile(const std::string& replaced, const std::string& replacement, const std::string& backup);

// MoveFileExW(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH), flags value 9.
bool moveFileReplaceWriteThrough(const std::string& from, const std::string& to);

// MoveFileExW(from, to, MOVEFILE_WRITE_THROUGH): moves a file or a whole directory to a name
// that does not exist yet; an existing `to` is never replaced.
bool moveWriteThrough(const std::string& from, const std::string& to);

// Makes the written data of the open file `fd` (a C runtime descriptor) durable: fsync(),
// FlushFileBuffers() on Windows.
bool syncFileData(int fd);

// A batch of moves, such as one apply's: the calls above note each directory whose names they
// change instead of syncing it at once, and syncDeferredDirectories() syncs each of them once
// and ends the batch. A move of the batch is durable only once that returned true; on a failure
// `failedDirectory` names the first directory that could not be synced. Windows moves are
// written through one by one: there both calls do nothing.
void deferDirectorySyncs();
bool syncDeferredDirectories(std::string* failedDirectory);

// A batch of written files, such as the staged files of one apply: between
// deferFileDataSyncs() and syncDeferredFileData(), syncFileData() notes the file's filesystem
// instead of syncing the file, and syncDeferredFileData() syncs each such filesystem once
// (syncfs) and ends the batch: thousands of small files cost one journal commit instead of one
// each. A file written in the batch is durable only once that returned true, so it must come
// before any name that others read points at one of them. Windows flushes each file at once:
// there both calls do nothing.
void deferFileDataSyncs();
bool syncDeferredFileData();

// GetLastError() of this thread: the Windows error code of the last failed call above.
unsigned long lastError();

// Test hook: the next calls of `call` whose source path (the replacement file for
// replaceFile, `from` for the moves) equals `sourcePath` fail with `error` without touching the
// disk, until clearInjectedFileFailures(). ReplaceFileAfterRename lets replaceFile do its renames
// and then fail as a failed directory sync would; DirectorySync fails the deferred sync of the
// directory `sourcePath` (both POSIX only). Nothing in the product sets it.
enum class FileCall { ReplaceFile, MoveFile, ReplaceFileAfterRename, DirectorySync };
void injectFileFailure(FileCall call, const std::string& sourcePath, unsigned long error);
void clearInjectedFileFailures();

} // namespace corv::platform
