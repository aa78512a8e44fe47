#include "platform/file_failure_injection.h"
#include "platform/file_replace.h"

#include <cerrno>
#include <fcntl.h>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace corv::platform {
namespace {

thread_local unsigned long lastErrorCode = 0;
// The directories that moves of the current batch changed, synced by syncDeferredDirectories().
thread_local bool deferringSyncs = false;
thread_local std::set<std::string> deferredDirectories;
// The filesystems that files of the current batch were written to, one open descriptor each.
thread_local bool deferringFileSyncs = false;
thread_local std::map<dev_t, int> deferredFileSystems;

// Callers log Windows error codes; errno values are reported as the code of the matching
// Windows failure so that a log line means the same on every platform.
unsigned long windowsErrorFor(int error)
{
    switch (error) {
    case ENOENT: return 2;                         // ERROR_FILE_NOT_FOUND
    case ENOTDIR: return 3;                        // ERROR_PATH_NOT_FOUND
    case EMFILE: case ENFILE: return 4;            // ERROR_TOO_MANY_OPEN_FILES
    case EACCES: case EPERM: case EISDIR: return 5; // ERROR_ACCESS_DENIED
    case EXDEV: return 17;                         // ERROR_NOT_SAME_DEVICE
    case EROFS: return 19;                         // ERROR_WRITE_PROTECT
    case EBUSY: case ETXTBSY: return 32;           // ERROR_SHARING_VIOLATION
    case EINVAL: return 87;                        // ERROR_INVALID_PARAMETER
    case ENOSPC: return 112;                       // ERROR_DISK_FULL
    case ENOTEMPTY: return 145;                    // ERROR_DIR_NOT_EMPTY
    case EEXIST: return 183;                       // ERROR_ALREADY_EXISTS
    case ENAMETOOLONG: return 206;                 // ERROR_FILENAME_EXCED_RANGE
    default: return 0x20000000ul | unsigned(error); // Windows' application-defined bit
    }
}

bool fail(int error)
{
    lastErrorCode = windowsErrorFor(error);
    return false;
}

bool failInjected(FileCall call, const std::string& sourcePath)
{
    unsigned long error = 0;
    if (!injectedFileFailure(call, sourcePath, error))
        return false;
    lastErrorCode = error;
    return true;
}

std::string parentDir(const std::string& path)
{
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// fsync of an open file or directory: 0 or an errno value. A file system that cannot sync
// answers EINVAL, which is no failure.
int syncDescriptor(int fd)
{
    return ::fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
}

// fsync of a file or directory by its path. What cannot be opened (no read permission) is left
// to the kernel.
int syncPath(const std::string& path)
{
    int fd = -1;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return 0;
    const int error = syncDescriptor(fd);
    ::close(fd);
    return error;
}

// Makes the names that moves gave and took durable: the directories of `paths`, each once,
// at once or at the end of the batch. A journalling file system would commit a rename's removal
// from the directory it left with the directory it entered; that is not counted on.
int syncDirectories(std::initializer_list<std::string> paths)
{
    std::set<std::string> directories;
    for (const std::string& path : paths)
        if (!path.empty())
            directories.insert(parentDir(path));
    if (deferringSyncs) {
        deferredDirectories.insert(directories.begin(), directories.end());
        return 0;
    }
    for (const std::string& directory : directories)
        if (const int error = syncPath(directory))
            return error;
    return 0;
}

// Hard-links `existing` to `name` under the name `temporary` first, which is then renamed over
// `name`, so an existing file under `name` is replaced atomically and is never missing either.
int linkOver(const std::string& existing, const std::string& name, const std::string& temporary)
{
    // The usual case: nothing has the name yet.
    if (::link(existing.c_str(), name.c_str()) == 0)
        return 0;
    if (errno != EEXIST)
        return errno;
    ::unlink(temporary.c_str());
    if (::link(existing.c_str(), temporary.c_str()) != 0)
        return errno;
    const int error = ::rename(temporary.c_str(), name.c_str()) == 0 ? 0 : errno;
    // rename() does nothing when both names already are links to the same file.
    ::unlink(temporary.c_str());
    return error;
}

// The backup's temporary name lies beside the replacement, in the caller's working area (the
// updater's ".staging"), so a process killed between the link and the rename leaves it there and
// not among the installed files. A ':' appears in no name a manifest may give, so it never
// stands for a staged file.
std::string backupLinkName(const std::string& replacement)
{
    return replacement + ":backup";
}

} // namespace

bool replaceFile(const std::string& replaced, const std::string& replacement, const std::string& backup)
{
    if (failInjected(FileCall::ReplaceFile, replacement))
        return false;
    struct stat oldInfo {};
    struct stat newInfo {};
    if (::lstat(replaced.c_str(), &oldInfo) != 0 || ::lstat(replacement.c_str(), &newInfo) != 0)
        return fail(errno);
    if (S_ISDIR(oldInfo.st_mode) || S_ISDIR(newInfo.st_mode))
        return fail(EISDIR);
    // The new content takes over the replaced file's permission bits (an installed program
    // stays executable), as the in-place replacement on Windows keeps attributes; like there,
    // a failure to carry them over is ignored.
    if (S_ISREG(oldInfo.st_mode) && S_ISREG(newInfo.st_mode) && (oldInfo.st_mode & 07777) != (newInfo.st_mode & 07777))
        (void)::chmod(replacement.c_str(), oldInfo.st_mode & 07777);
    if (!backup.empty())
        if (const int error = linkOver(replaced, backup, backupLinkName(replacement)))
            return fail(error);
    if (::rename(replacement.c_str(), replaced.c_str()) != 0)
        return fail(errno);
    unsigned long injected = 0;
    const int syncError = injectedFileFailure(FileCall::ReplaceFileAfterRename, replacement, injected)
                              ? EIO
                              : syncDirectories({replaced, backup, replacement});
    if (syncError != 0) {
        // A failure means what it means on Windows: the old content under the installed name,
        // the new one still staged. Otherwise a caller's fallback would move the new file over
        // the backup that holds the only old copy.
        if (!backup.empty() && ::link(replaced.c_str(), replacement.c_str()) == 0)
            linkOver(backup, replaced, backupLinkName(replacement));
        return fail(syncError);
    }
    return true;
}

namespace {

// A write-through rename. An existing `to` is replaced when `replace` says so and it is not a
// directory (Windows refuses to replace one; rename() would accept an empty one).
bool moveWriteThrough(const std::string& from, const std::string& to, bool replace)
{
    if (failInjected(FileCall::MoveFile, from))
        return false;
    struct stat fromInfo {};
    if (::lstat(from.c_str(), &fromInfo) != 0)
        return fail(errno);
    struct stat toInfo {};
    if (::lstat(to.c_str(), &toInfo) == 0 && (!replace || S_ISDIR(toInfo.st_mode)))
        return fail(replace ? EACCES : EEXIST);
    if (::rename(from.c_str(), to.c_str()) != 0)
        return fail(errno);
    if (const int error = syncDirectories({to, from}))
        return fail(error);
    return true;
}

} // namespace

bool moveFileReplaceWriteThrough(const std::string& from, const std::string& to)
{
    return moveWriteThrough(from, to, true);
}

bool moveWriteThrough(const std::string& from, const std::string& to)
{
    return moveWriteThrough(from, to, false);
}

bool syncFileData(int fd)
{
    struct stat info {};
    if (deferringFileSyncs && ::fstat(fd, &info) == 0) {
        if (deferredFileSystems.count(info.st_dev))
            return true;
        const int kept = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (kept >= 0) {
            deferredFileSystems[info.st_dev] = kept;
            return true;
        }
    }
    const int error = syncDescriptor(fd);
    return error == 0 || fail(error);
}

void deferFileDataSyncs()
{
    deferringFileSyncs = true;
}

bool syncDeferredFileData()
{
    deferringFileSyncs = false;
    int firstError = 0;
    for (const auto& fileSystem : deferredFileSystems) {
        if (::syncfs(fileSystem.second) != 0 && firstError == 0)
            firstError = errno;
        ::close(fileSystem.second);
    }
    deferredFileSystems.clear();
    return firstError == 0 || fail(firstError);
}

void deferDirectorySyncs()
{
    deferringSyncs = true;
}

bool syncDeferredDirectories(std::string* failedDirectory)
{
    deferringSyncs = false;
    unsigned long firstError = 0;
    // Every directory is synced even after a failure: the more of the batch is durable, the less
    // a power loss during the rollback can undo.
    for (const std::string& directory : deferredDirectories) {
        unsigned long error = 0;
        if (!injectedFileFailure(FileCall::DirectorySync, directory, error))
            if (const int syncError = syncPath(directory))
                error = windowsErrorFor(syncError);
        if (error != 0 && firstError == 0) {
            firstError = error;
            *failedDirectory = directory;
        }
    }
    deferredDirectories.clear();
    if (firstError == 0)
        return true;
    lastErrorCode = firstError;
    return false;
}

unsigned long lastError()
{
    return lastErrorCode;
}

} // namespace corv::platform
