#include "platform/process_handle.h"

#include <windows.h>

namespace corv::platform {

namespace {

HANDLE toHandle(std::intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }
std::intptr_t fromHandle(HANDLE handle) { return reinterpret_cast<std::intptr_t>(handle); }

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
    if (handle_ != 0)
        CloseHandle(toHandle(handle_));
    handle_ = 0;
    pid_ = 0;
}

ProcessHandle openProcess(std::int64_t pid)
{
    // OpenProcess reports failure with NULL, never INVALID_HANDLE_VALUE.
    HANDLE handle = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    if (handle == nullptr)
        return ProcessHandle();
    return ProcessHandle(fromHandle(handle), pid);
}

bool waitForProcessEnd(ProcessHandle& process, int timeoutMs)
{
    if (process.isNull())
        return false;
    const DWORD timeout = timeoutMs > 0 ? static_cast<DWORD>(timeoutMs) : 0;
    return WaitForSingleObject(toHandle(process.nativeHandle()), timeout) == WAIT_OBJECT_0;
}

} // namespace corv::platform
