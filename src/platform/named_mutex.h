#pragma once
// Named, process-shared mutexes in the current logon session.
//
// Windows: kernel mutex objects (CreateMutexW / OpenMutexW / ReleaseMutex / CloseHandle).
// POSIX: the lock for name N is the file "N.lock" in $XDG_RUNTIME_DIR/corvanta (when that
// variable holds an absolute path) or /tmp/corvanta-<uid>. The directory is created with mode
// 0700 and used only while it is a real directory (not a link) of this user with mode 0700;
// a lock file is opened without waiting (a FIFO cannot hold the call) and used only while it
// is a regular file. Anything else is a MutexFault. Holding the mutex is holding an exclusive
// open-file-description lock on the whole file; a classic fcntl/lockf write lock counts as held
// too. The lock ends with its holder's process, like an abandoned Windows mutex.
//
// Names and paths are UTF-8. This file and its implementations use no Qt.
#include <cstdint>
#include <string>

namespace corv::platform {

// Owns one mutex handle (Windows HANDLE, POSIX file descriptor); closes it on destruction.
class NamedMutex {
public:
    NamedMutex() = default;
    ~NamedMutex();
    NamedMutex(NamedMutex&& other) noexcept;
    NamedMutex& operator=(NamedMutex&& other) noexcept;
    NamedMutex(const NamedMutex&) = delete;
    NamedMutex& operator=(const NamedMutex&) = delete;

    bool isNull() const { return handle_ == 0; }
    // CloseHandle without ReleaseMutex.
    void close();
    // ReleaseMutex, then CloseHandle: gives up a mutex this process owns.
    void releaseAndClose();

    // Used by the implementations only.
    explicit NamedMutex(std::intptr_t handle) : handle_(handle) {}
    std::intptr_t nativeHandle() const { return handle_; }

private:
    std::intptr_t handle_ = 0;
};

// Why a mutex could not be created or tested although its name is fine (POSIX only: on
// Windows the kernel keeps the mutexes and the kind stays None): the lock directory cannot be
// made or is not a private directory of this user, or the lock file cannot be opened or is not
// a regular file. `path` names the directory or the lock file.
struct MutexFault {
    enum Kind { None, LockDirectory, LockFile };
    Kind kind = None;
    std::string path;
};

// CreateMutexW(NULL, TRUE, name). The handle is null when the call failed. When the mutex
// already existed (ERROR_ALREADY_EXISTS) *alreadyExisted is set, the caller does not own it
// and is expected to close the handle. A null handle may come with a fault.
NamedMutex createNamedMutex(const std::string& name, bool* alreadyExisted, MutexFault* fault = nullptr);

// OpenMutexW(SYNCHRONIZE, FALSE, name): a handle when the mutex exists, null otherwise.
// Takes no ownership. A null handle with a fault means: existence unknown.
NamedMutex openNamedMutex(const std::string& name, MutexFault* fault = nullptr);

// WaitForSingleObject on an opened mutex: true when it became free (released, or its holder
// ended), false on time-out.
bool waitForNamedMutex(NamedMutex& mutex, int timeoutMs);

} // namespace corv::platform
