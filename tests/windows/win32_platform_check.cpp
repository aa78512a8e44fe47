// Exercises the Win32 platform layer (named mutexes, process handles, ReplaceFileW,
// MoveFileExW, last-error codes, the updater's own files behind links) for real: cross-compiled with MinGW-w64 and run under Wine.
// Qt-free, like the files it tests. Cross-process cases start this same program again in a
// helper mode:  win32_platform_check.exe hold <mutex name> <ready event name>
#include "platform/file_access.h"
#include "platform/file_replace.h"
#include "platform/named_mutex.h"
#include "platform/process_handle.h"

#include <windows.h>
// <windows.h> maps these names to the A/W variants; here they name FileCall's members.
#undef MoveFile
#undef ReplaceFile

#include <cstdio>
#include <io.h>
#include <string>

using namespace corv::platform;

namespace {

int failures = 0;
int checks = 0;

void check(bool condition, const char* what)
{
    ++checks;
    if (!condition) {
        ++failures;
        std::printf("FAIL: %s (GetLastError=%lu)\n", what, GetLastError());
    }
}

std::wstring widen(const std::string& s)
{
    return std::wstring(s.begin(), s.end());  // the names and paths used here are ASCII
}

// A helper process that creates and owns `mutexName`, then signals `readyName` and sleeps.
struct Holder {
    PROCESS_INFORMATION info{};
    bool started = false;

    Holder(const std::string& mutexName, const std::string& readyName)
    {
        HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, widen(readyName).c_str());
        wchar_t self[MAX_PATH];
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        std::wstring command = L"\"" + std::wstring(self) + L"\" hold " + widen(mutexName) + L" " + widen(readyName);
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        started = CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)
            && WaitForSingleObject(ready, 30000) == WAIT_OBJECT_0;
        CloseHandle(ready);
    }
    void kill()
    {
        if (info.hProcess) {
            TerminateProcess(info.hProcess, 9);
            WaitForSingleObject(info.hProcess, 30000);
        }
    }
    ~Holder()
    {
        kill();
        if (info.hProcess) {
            CloseHandle(info.hProcess);
            CloseHandle(info.hThread);
        }
    }
};

int holdMode(const char* mutexName, const char* readyName)
{
    bool existed = false;
    NamedMutex mutex = createNamedMutex(mutexName, &existed);
    HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, widen(readyName).c_str());
    if (mutex.isNull() || existed || !ready)
        return 2;
    SetEvent(ready);
    Sleep(INFINITE);
    return 0;
}

std::string readAll(const std::string& path)
{
    std::string content;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        char buffer[256];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
            content.append(buffer, n);
        std::fclose(f);
    }
    return content;
}

void writeAll(const std::string& path, const std::string& content)
{
    if (FILE* f = std::fopen(path.c_str(), "wb")) {
        std::fwrite(content.data(), 1, content.size(), f);
        std::fclose(f);
    }
}

bool exists(const std::string& path)
{
    return GetFileAttributesW(widen(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

void checkMutexes()
{
    const std::string name = "Corvanta_Wine_Check_" + std::to_string(GetCurrentProcessId());

    check(openNamedMutex(name + "_missing").isNull(), "OpenMutexW of a missing name gives no handle");

    {
        Holder holder(name, name + "_ready1");
        check(holder.started, "holder process started and owns the mutex");
        check(!openNamedMutex(name).isNull(), "OpenMutexW finds a mutex another process created");
        bool existed = false;
        NamedMutex second = createNamedMutex(name, &existed);
        check(!second.isNull() && existed, "CreateMutexW of a held name reports ERROR_ALREADY_EXISTS");
        second.close();

        NamedMutex opened = openNamedMutex(name);
        const DWORD before = GetTickCount();
        check(!waitForNamedMutex(opened, 700), "waiting on a mutex whose holder keeps it times out");
        check(GetTickCount() - before >= 600, "the time-out lasts as long as asked");

        holder.kill();
        const DWORD killedAt = GetTickCount();
        check(waitForNamedMutex(opened, 10000), "the mutex of a killed holder is abandoned and the wait ends");
        check(GetTickCount() - killedAt < 5000, "the wait on an abandoned mutex ends at once");
    }

    bool existed = true;
    NamedMutex own = createNamedMutex(name + "_own", &existed);
    check(!own.isNull() && !existed, "CreateMutexW of a new name creates and owns it");
    own.releaseAndClose();
    check(openNamedMutex(name + "_own").isNull(), "a released and closed mutex is gone");
}

void checkProcesses()
{
    Holder child("Corvanta_Wine_Child_" + std::to_string(GetCurrentProcessId()),
                 "Corvanta_Wine_ChildReady_" + std::to_string(GetCurrentProcessId()));
    check(child.started, "child process started");
    ProcessHandle process = openProcess(child.info.dwProcessId);
    check(!process.isNull(), "OpenProcess(SYNCHRONIZE) on a running child gives a handle");
    check(!waitForProcessEnd(process, 200), "WaitForSingleObject on a running child times out");
    child.kill();
    check(waitForProcessEnd(process, 10000), "WaitForSingleObject reports the child's end");
    // Process ids are multiples of 4 on Windows; this one cannot exist.
    check(openProcess(0x7ffffffd).isNull(), "OpenProcess of a missing pid gives NULL");
}

void checkFileReplacement(const std::string& dir)
{
    const std::string target = dir + "\\app.dll";
    const std::string staged = dir + "\\app.dll.staged";
    const std::string backup = dir + "\\app.dll.bak";

    writeAll(target, "old");
    writeAll(staged, "new");
    check(replaceFile(target, staged, backup), "ReplaceFileW succeeds on a free file");
    check(readAll(target) == "new" && readAll(backup) == "old" && !exists(staged),
          "ReplaceFileW leaves the new content in place and the old one in the backup");

    // A file held open without FILE_SHARE_DELETE cannot be replaced or renamed.
    writeAll(target, "old");
    writeAll(staged, "new");
    DeleteFileW(widen(backup).c_str());
    HANDLE held = CreateFileW(widen(target).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    check(held != INVALID_HANDLE_VALUE, "target opened without share-delete");
    check(!replaceFile(target, staged, backup), "ReplaceFileW fails on a file held open");
    check(lastError() == ERROR_SHARING_VIOLATION, "ReplaceFileW reports error 32 for a held file");
    // The fallback's first step is the write-through rename of the target to its backup name.
    check(!moveFileReplaceWriteThrough(target, backup), "the fallback's rename of a held file fails too");
    check(lastError() == ERROR_SHARING_VIOLATION, "the rename reports error 32");
    CloseHandle(held);
    check(readAll(target) == "old" && readAll(staged) == "new" && !exists(backup),
          "a failed fallback leaves target and staged file untouched");

    // Once the file is free, the two-step fallback goes through.
    check(moveFileReplaceWriteThrough(target, backup) && moveFileReplaceWriteThrough(staged, target),
          "the two write-through renames succeed on a free file");
    check(readAll(target) == "new" && readAll(backup) == "old", "two-step fallback result");

    writeAll(staged, "newer");
    check(moveFileReplaceWriteThrough(staged, target), "MoveFileExW(9) replaces an existing file");
    check(readAll(target) == "newer" && !exists(staged), "MoveFileExW(9) result");

    check(!moveFileReplaceWriteThrough(dir + "\\missing", target), "MoveFileExW of a missing file fails");
    check(lastError() == ERROR_FILE_NOT_FOUND, "a missing source reports error 2");

    injectFileFailure(FileCall::MoveFile, backup, 5);
    check(!moveFileReplaceWriteThrough(backup, target) && lastError() == 5,
          "an injected failure sets the thread's last error");
    clearInjectedFileFailures();
    check(readAll(backup) == "old", "an injected failure touches nothing");
}

std::string readDescriptor(int fd)
{
    std::string content;
    char buffer[256];
    int got = 0;
    while (fd >= 0 && (got = _read(fd, buffer, sizeof buffer)) > 0)
        content.append(buffer, size_t(got));
    if (fd >= 0)
        _close(fd);
    return content;
}

bool writeDescriptor(int fd, const std::string& content)
{
    const bool ok = fd >= 0 && _write(fd, content.data(), unsigned(content.size())) == int(content.size());
    if (fd >= 0)
        _close(fd);
    return ok;
}

// The updater's own files: links and second names are removed or copied, never followed or
// written through.
void checkOwnFiles(const std::string& dir)
{
    const std::string base = dir + "\\own";
    const std::string outside = dir + "\\outside";
    const std::string victim = outside + "\\victim.txt";
    // Wine reuses process ids, and with them this directory: start afresh.
    removeOwnPath(dir, "own");
    removeOwnPath(dir, "outside");
    CreateDirectoryW(widen(base).c_str(), nullptr);
    CreateDirectoryW(widen(outside).c_str(), nullptr);
    writeAll(victim, "outside");

    check(writeDescriptor(openOwnFile(base, "cache/2.0/files/a.part", OwnFileMode::Write), "abc"),
          "a new own file below missing directories");
    check(writeDescriptor(openOwnFile(base, "cache/2.0/files/a.part", OwnFileMode::Append), "def"), "appending to it");
    check(readDescriptor(openOwnFile(base, "cache/2.0/files/a.part", OwnFileMode::Read)) == "abcdef", "reading it back");
    check(openOwnFile(base, "cache/2.0", OwnFileMode::Read) < 0, "a directory is not opened as a file");

    const std::string second = base + "\\cache\\2.0\\files\\b.part";
    check(CreateHardLinkW(widen(second).c_str(), widen(victim).c_str(), nullptr) != FALSE, "a second name made");
    check(writeDescriptor(openOwnFile(base, "cache/2.0/files/b.part", OwnFileMode::Append), "+"), "appending to a second name");
    check(readAll(victim) == "outside" && readAll(second) == "outside+", "the second name got a copy of its own");

    if (CreateSymbolicLinkW(widen(base + "\\staging").c_str(), widen(outside).c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY)) {
        check(removeOwnPath(base, "staging") && !exists(base + "\\staging") && readAll(victim) == "outside",
              "a directory link is removed as a link");
        CreateSymbolicLinkW(widen(base + "\\cache\\2.0\\state.json.tmp").c_str(), widen(victim).c_str(), 0);
        check(writeDescriptor(openOwnFile(base, "cache/2.0/state.json.tmp", OwnFileMode::Write), "{}")
                  && readAll(victim) == "outside" && readAll(base + "\\cache\\2.0\\state.json.tmp") == "{}",
              "a file link is replaced by a file");
        check(CreateSymbolicLinkW(widen(base + "\\log").c_str(), widen(outside).c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY)
                  != FALSE,
              "a directory link made");
        check(openOwnFile(base, "log/victim.txt", OwnFileMode::Read) < 0, "nothing is read through a directory link");
        check(writeDescriptor(openOwnFile(base, "log/victim.txt", OwnFileMode::Append), "line")
                  && readAll(victim) == "outside" && readAll(base + "\\log\\victim.txt") == "line",
              "a directory link on the way is replaced by a directory");
    } else {
        std::printf("note: no symbolic links here (error %lu): those checks are left out\n", GetLastError());
    }
    check(removeOwnPath(base, "cache") && !exists(base + "\\cache") && readAll(victim) == "outside",
          "a tree is removed, a second name in it only as a name");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::string(argv[1]) == "hold")
        return holdMode(argv[2], argv[3]);

    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring wideDir = std::wstring(temp) + L"corvanta-win32-check-" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(wideDir.c_str(), nullptr);
    const std::string dir(wideDir.begin(), wideDir.end());

    checkMutexes();
    checkProcesses();
    checkFileReplacement(dir);
    checkOwnFiles(dir);

    std::printf("win32 platform checks: %d of %d held\n", checks - failures, checks);
    return failures == 0 ? 0 : 1;
}
