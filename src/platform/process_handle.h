#pragma once
// Handles to other processes, opened only to wait for their end.
// Windows: OpenProcess(SYNCHRONIZE) and WaitForSingleObject. POSIX: a pidfd where the kernel
// has one, polling with kill(pid, 0) otherwise. This file and its implementations use no Qt.
#include <cstdint>

namespace corv::platform {

class ProcessHandle {
public:
    ProcessHandle() = default;
    ~ProcessHandle();
    ProcessHandle(ProcessHandle&& other) noexcept;
    ProcessHandle& operator=(ProcessHandle&& other) noexcept;
    ProcessHandle(const ProcessHandle&) = delete;
    ProcessHandle& operator=(const ProcessHandle&) = delete;

    bool isNull() const { return handle_ == 0; }
    void close();

    // Used by the implementations only.
    ProcessHandle(std::intptr_t handle, std::int64_t pid) : handle_(handle), pid_(pid) {}
    std::intptr_t nativeHandle() const { return handle_; }
    std::int64_t pid() const { return pid_; }

private:
    std::intptr_t handle_ = 0;
    std::int64_t pid_ = 0;
};

// OpenProcess(SYNCHRONIZE, FALSE, pid), the id passed as a 32-bit value. Null when the process
// does not exist or cannot be opened.
ProcessHandle openProcess(std::int64_t pid);

// WaitForSingleObject(process, timeoutMs): true when the process has ended, false while it
// still runs after the time-out. A timeout of 0 only polls.
bool waitForProcessEnd(ProcessHandle& process, int timeoutMs);

} // namespace corv::platform
