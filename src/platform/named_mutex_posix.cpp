#include "platform/named_mutex.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace corv::platform {

namespace {

// How often a waiter looks at the lock again: short enough that an apply run goes on almost
// as soon as a prefetch lets go, long enough to cost nothing while it waits 15 s.
constexpr long long kPollIntervalNs = 20LL * 1000000;

// A descriptor may be 0, which the handle reserves for "null": store it shifted by one.
std::intptr_t toHandle(int fd) { return static_cast<std::intptr_t>(fd) + 1; }
int toFd(std::intptr_t handle) { return static_cast<int>(handle - 1); }

void setFault(MutexFault* fault, MutexFault::Kind kind, const std::string& path)
{
    if (fault) {
        fault->kind = kind;
        fault->path = path;
    }
}

// The per-user directory of the lock files, created on first use. Only a real directory of
// this user that nobody else may enter is trusted: anyone who could write there could fake or
// hold the locks.
bool lockDirectory(std::string* dir, MutexFault* fault)
{
    const char* runtimeDir = std::getenv("XDG_RUNTIME_DIR");
    if (runtimeDir && runtimeDir[0] == '/')
        *dir = std::string(runtimeDir) + "/corvanta";
    else
        *dir = "/tmp/corvanta-" + std::to_string(geteuid());

    // The umask may have taken bits away from a directory made just now; it gets 0700 itself.
    if (mkdir(dir->c_str(), 0700) == 0)
        chmod(dir->c_str(), 0700);
    struct stat info {};
    if (lstat(dir->c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != geteuid()
        || (info.st_mode & 07777) != 0700) {
        setFault(fault, MutexFault::LockDirectory, *dir);
        return false;
    }
    return true;
}

// "N.lock" in the lock directory; a name that could leave the directory has no lock file.
bool lockFilePath(const std::string& name, std::string* path, MutexFault* fault)
{
    if (name.empty() || name.find('/') != std::string::npos)
        return false;
    std::string dir;
    if (!lockDirectory(&dir, fault))
        return false;
    *path = dir + "/" + name + ".lock";
    return true;
}

// Opens a lock file without waiting for a FIFO's other side; only a regular file is a lock.
// A missing file is no fault when it is not to be created.
int openLockFile(const std::string& path, int flags, MutexFault* fault)
{
    int fd = -1;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    } while (fd < 0 && errno == EINTR);
    struct stat info {};
    if (fd >= 0 && fstat(fd, &info) == 0 && S_ISREG(info.st_mode))
        return fd;
    if (fd >= 0 || errno != ENOENT || (flags & O_CREAT))
        setFault(fault, MutexFault::LockFile, path);
    if (fd >= 0)
        ::close(fd);
    return -1;
}

struct flock wholeFile(short type)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    lock.l_pid = 0;  // must be 0 for open-file-description locks
    return lock;
}

// True when any process holds a lock on the file, an OFD lock or a classic fcntl/lockf one.
// A failed query counts as held: waiting a little longer is safer than running twice.
bool isLockedByAnyone(int fd)
{
    struct flock probe = wholeFile(F_WRLCK);
    if (fcntl(fd, F_OFD_GETLK, &probe) != 0)
        return true;
    return probe.l_type != F_UNLCK;
}

void sleepNs(long long ns)
{
    struct timespec delay {};
    delay.tv_sec = static_cast<time_t>(ns / 1000000000LL);
    delay.tv_nsec = static_cast<long>(ns % 1000000000LL);
    while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {
    }
}

long long monotonicNs()
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

} // namespace

NamedMutex::~NamedMutex() { close(); }

NamedMutex::NamedMutex(NamedMutex&& other) noexcept : handle_(other.handle_) { other.handle_ = 0; }

NamedMutex& NamedMutex::operator=(NamedMutex&& other) noexcept
{
    if (this != &other) {
        close();
        handle_ = other.handle_;
        other.handle_ = 0;
    }
    return *this;
}

void NamedMutex::close()
{
    if (handle_ == 0)
        return;
    // Closing the only descriptor of the open file description drops its lock.
    ::close(toFd(handle_));
    handle_ = 0;
}

void NamedMutex::releaseAndClose()
{
    if (handle_ == 0)
        return;
    struct flock unlock = wholeFile(F_UNLCK);
    fcntl(toFd(handle_), F_OFD_SETLK, &unlock);
    close();
}

NamedMutex createNamedMutex(const std::string& name, bool* alreadyExisted, MutexFault* fault)
{
    *alreadyExisted = false;
    std::string path;
    if (!lockFilePath(name, &path, fault))
        return NamedMutex();
    const int fd = openLockFile(path, O_RDWR | O_CREAT, fault);
    if (fd < 0)
        return NamedMutex();
    struct flock lock = wholeFile(F_WRLCK);
    if (fcntl(fd, F_OFD_SETLK, &lock) != 0) {
        if (errno != EAGAIN && errno != EACCES) {
            ::close(fd);
            return NamedMutex();
        }
        // Held by someone else: like ERROR_ALREADY_EXISTS, the caller gets a handle it does
        // not own and closes it.
        *alreadyExisted = true;
    }
    return NamedMutex(toHandle(fd));
}

NamedMutex openNamedMutex(const std::string& name, MutexFault* fault)
{
    std::string path;
    if (!lockFilePath(name, &path, fault))
        return NamedMutex();
    // Read-only and without O_CREAT: testing for a mutex must neither create nor take it.
    const int fd = openLockFile(path, O_RDONLY, fault);
    if (fd < 0)
        return NamedMutex();
    if (!isLockedByAnyone(fd)) {
        ::close(fd);
        return NamedMutex();
    }
    return NamedMutex(toHandle(fd));
}

bool waitForNamedMutex(NamedMutex& mutex, int timeoutMs)
{
    if (mutex.isNull())
        return false;
    const int fd = toFd(mutex.nativeHandle());
    const long long deadline = monotonicNs() + (timeoutMs > 0 ? timeoutMs : 0) * 1000000LL;
    for (;;) {
        if (!isLockedByAnyone(fd))
            return true;
        const long long left = deadline - monotonicNs();
        if (left <= 0)
            return false;
        sleepNs(left < kPollIntervalNs ? left : kPollIntervalNs);
    }
}

} // namespace corv::platform
