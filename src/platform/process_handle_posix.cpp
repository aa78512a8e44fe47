#include "platform/process_handle.h"

#include <cerrno>
#include <climits>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace corv::platform {

namespace {

// Handle values: a pidfd is stored shifted by one (0 means null); without pidfd support the
// handle is only a marker and the process is polled through its id.
constexpr std::intptr_t kPolledHandle = -1;
constexpr long long kPollIntervalNs = 20LL * 1000000;

std::intptr_t toHandle(int fd) { return static_cast<std::intptr_t>(fd) + 1; }
int toFd(std::intptr_t handle) { return static_cast<int>(handle - 1); }

long long monotonicNs()
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

void sleepNs(long long ns)
{
    struct timespec delay {};
    delay.tv_sec = static_cast<time_t>(ns / 1000000000LL);
    delay.tv_nsec = static_cast<long>(ns % 1000000000LL);
    while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {
    }
}

// kill(pid, 0) succeeds for a process we may signal; EPERM means it exists but is not ours,
// which counts as "cannot be opened" like a denied OpenProcess.
bool isAlive(pid_t pid) { return kill(pid, 0) == 0; }

int openPidfd(pid_t pid)
{
#ifdef SYS_pidfd_open
    // pidfd descriptors are always close-on-exec.
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

bool waitOnPidfd(int fd, int timeoutMs)
{
    const long long deadline = monotonicNs() + timeoutMs * 1000000LL;
    for (;;) {
        struct pollfd entry {};
        entry.fd = fd;
        entry.events = POLLIN;
        const long long left = deadline - monotonicNs();
        // Rounded up: the wait lasts at least as long as asked.
        const int leftMs = left > 0 ? static_cast<int>((left + 999999) / 1000000) : 0;
        const int result = poll(&entry, 1, leftMs);
        if (result > 0)
            return true;
        if (result < 0 && errno != EINTR)
            return false;
        if (result == 0 && deadline - monotonicNs() <= 0)
            return false;
    }
}

bool waitByPolling(pid_t pid, int timeoutMs)
{
    const long long deadline = monotonicNs() + timeoutMs * 1000000LL;
    for (;;) {
        if (kill(pid, 0) != 0 && errno == ESRCH)
            return true;
        const long long left = deadline - monotonicNs();
        if (left <= 0)
            return false;
        sleepNs(left < kPollIntervalNs ? left : kPollIntervalNs);
    }
}

} // namespace

ProcessHandle::~ProcessHandle() { close(); }

ProcessHandle::ProcessHandle(ProcessHandle&& other) noexcept : handle_(other.handle_), pid_(other.pid_)
{
    other.handle_ = 0;
    other.pid_ = 0;
}

ProcessHandle& ProcessHandle::operator=(ProcessHandle&& other) noexcept
{
    if (this != &other) {
        close();
        handle_ = other.handle_;
        pid_ = other.pid_;
        other.handle_ = 0;
        other.pid_ = 0;
    }
    return *this;
}

void ProcessHandle::close()
{
    if (handle_ > 0)
        ::close(toFd(handle_));
    handle_ = 0;
    pid_ = 0;
}

ProcessHandle openProcess(std::int64_t pid)
{
    // The id travels as a 32-bit value, as it does on Windows.
    const std::uint32_t id = static_cast<std::uint32_t>(pid);
    if (id == 0 || id > static_cast<std::uint32_t>(INT_MAX))
        return ProcessHandle();
    const pid_t processId = static_cast<pid_t>(id);
    const int fd = openPidfd(processId);
    if (fd >= 0)
        return ProcessHandle(toHandle(fd), processId);
    // No pidfd in this kernel (or a sandbox forbids it): fall back to polling the id.
    if ((errno != ENOSYS && errno != EPERM) || !isAlive(processId))
        return ProcessHandle();
    return ProcessHandle(kPolledHandle, processId);
}

bool waitForProcessEnd(ProcessHandle& process, int timeoutMs)
{
    if (process.isNull())
        return false;
    const int timeout = timeoutMs > 0 ? timeoutMs : 0;
    if (process.nativeHandle() == kPolledHandle)
        return waitByPolling(static_cast<pid_t>(process.pid()), timeout);
    return waitOnPidfd(toFd(process.nativeHandle()), timeout);
}

} // namespace corv::platform
