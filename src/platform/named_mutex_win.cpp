#include "platform/named_mutex.h"

#include <windows.h>

namespace corv::platform {

namespace {

HANDLE toHandle(std::intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }
std::intptr_t fromHandle(HANDLE handle) { return reinterpret_cast<std::intptr_t>(handle); }

// Mutex names are plain names in the logon session's namespace, given as UTF-8.
std::wstring toWide(const std::string& utf8)
{
    if (utf8.empty())
        return std::wstring();
    const int length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
    if (length <= 0)
        return std::wstring();
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &wide[0], length);
    return wide;
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
    CloseHandle(toHandle(handle_));
    handle_ = 0;
}

void NamedMutex::releaseAndClose()
{
    if (handle_ == 0)
        return;
    ReleaseMutex(toHandle(handle_));
    close();
}

NamedMutex createNamedMutex(const std::string& name, bool* alreadyExisted, MutexFault*)
{
    *alreadyExisted = false;
    const std::wstring wideName = toWide(name);
    if (wideName.empty())
        return NamedMutex();
    HANDLE handle = CreateMutexW(nullptr, TRUE, wideName.c_str());
    if (handle == nullptr)
        return NamedMutex();
    // Read at once: nothing may run between the call and its error code.
    *alreadyExisted = GetLastError() == ERROR_ALREADY_EXISTS;
    return NamedMutex(fromHandle(handle));
}

NamedMutex openNamedMutex(const std::string& name, MutexFault*)
{
    const std::wstring wideName = toWide(name);
    if (wideName.empty())
        return NamedMutex();
    HANDLE handle = OpenMutexW(SYNCHRONIZE, FALSE, wideName.c_str());
    if (handle == nullptr)
        return NamedMutex();
    return NamedMutex(fromHandle(handle));
}

bool waitForNamedMutex(NamedMutex& mutex, int timeoutMs)
{
    if (mutex.isNull())
        return false;
    const DWORD timeout = timeoutMs > 0 ? static_cast<DWORD>(timeoutMs) : 0;
    // An abandoned mutex (its holder ended without releasing) counts as free.
    const DWORD result = WaitForSingleObject(toHandle(mutex.nativeHandle()), timeout);
    return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
}

} // namespace corv::platform
