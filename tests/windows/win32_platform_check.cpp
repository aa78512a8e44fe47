// The Win32 platform layer for real (named mutexes, process handles, ReplaceFileW, MoveFileExW,
// last-error codes, the updater's own files behind links): cross-compiled with MinGW-w64 without
// Qt and run under Wine. A holder of a mutex is this program again:  hold <mutex> <ready event>
#include "platform/file_access.h"
#include "platform/file_replace.h"
#include "platform/named_mutex.h"
#include "platform/process_handle.h"

#include <windows.h>
// <windows.h> maps these names to the A/W variants; here they name FileCall's members.
#undef MoveFile
#undef ReplaceFile

#include <cstdio>
#include <cstring>
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
    return std::wstring(s.begin(), s.end()); // the names and paths used here are ASCII
}

// A process of this program that owns `name`; it signals an event when it does, then sleeps.
struct Holder {
    PROCESS_INFORMATION info {};
    bool started = false;

    explicit Holder(const std::string& name)
    {
        HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, widen(name + "_ready").c_str());
        wchar_t self[MAX_PATH];
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        std::wstring command = L"\"" + std::wstring(self) + L"\" hold " + widen(name) + L" " + widen(name + "_ready");
        STARTUPINFOW startup {};
        startup.cb = sizeof(startup);
        started = CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)
            && WaitForSingleObject(ready, 30000) == WAIT_OBJECT_0;
        CloseHandle(ready);
    }
    void kill()
    {
        TerminateProcess(info.hProcess, 9);
        WaitForSingleObject(info.hProcess, 30000);
    }
    ~Holder()
    {
        kill();
        CloseHandle(info.hProcess);
        CloseHandle(info.hThread);
    }
};

int hold(const char* name, const char* readyName)
{
    bool existed = false;
    NamedMutex mutex = createNamedMutex(name, &existed);
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
        for (int c; (c = std::fgetc(f)) != EOF;)
            content += char(c);
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

void checkMutexesAndProcesses()
{
    const std::string name = "Corvanta_Wine_Check_" + std::to_string(GetCurrentProcessId());
    check(openNamedMutex(name + "_missing").isNull(), "OpenMutexW of a missing name gives no handle");
    {
        Holder holder(name);
        check(holder.started, "holder process started and owns the mutex");
        check(!openNamedMutex(name).isNull(), "OpenMutexW finds a mutex another process created");
        bool existed = false;
        NamedMutex second = createNamedMutex(name, &existed);
        check(!second.isNull() && existed, "CreateMutexW of a held name reports ERROR_ALREADY_EXISTS");
        second.close();

        NamedMutex opened = openNamedMutex(name);
        ProcessHandle process = openProcess(holder.info.dwProcessId);
        check(!process.isNull(), "OpenProcess(SYNCHRONIZE) on a running process gives a handle");
        check(!waitForProcessEnd(process, 200), "WaitForSingleObject on a running process times out");
        const DWORD before = GetTickCount();
        check(!waitForNamedMutex(opened, 700), "waiting on a mutex whose holder keeps it times out");
        check(GetTickCount() - before >= 600, "the time-out lasts as long as asked");

        holder.kill();
        const DWORD killedAt = GetTickCount();
        check(waitForNamedMutex(opened, 10000), "the mutex of a killed holder is abandoned and the wait ends");
        check(GetTickCount() - killedAt < 5000, "the wait on an abandoned mutex ends at once");
        check(waitForProcessEnd(process, 10000), "WaitForSingleObject reports the process's end");
    }
    bool existed = true;
    NamedMutex own = createNamedMutex(name + "_own", &existed);
    check(!own.isNull() && !existed, "CreateMutexW of a new name creates and owns it");
    own.releaseAndClose();
    check(openNamedMutex(name + "_own").isNull(), "a released and closed mutex is gone");
    // Process ids are multiples of 4 on Windows; this one cannot exist.
    check(openProcess(0x7ffffffd).isNull(), "OpenProcess of a missing pid gives NULL");
}

void checkFileReplacement(const std::string& dir)
{
    const std::string target = dir + "\\app.dll", staged = dir + "\\app.dll.staged", backup = dir + "\\app.dll.bak";
    writeAll(target, "old");
    writeAll(staged, "new");
    check(replaceFile(target, staged, backup), "ReplaceFileW succeeds on a free file");
    check(readAll(target) == "new" && readAll(backup) == "old" && !exists(staged),
          "ReplaceFileW leaves the new content in place and the old one in the backup");

    // A file held open without FILE_SHARE_DELETE can be neither replaced nor renamed.
    writeAll(target, "old");
    writeAll(staged, "new");
    DeleteFileW(widen(backup).c_str());
    HANDLE held = CreateFileW(widen(target).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    check(!replaceFile(target, staged, backup) && lastError() == ERROR_SHARING_VIOLATION,
          "ReplaceFileW of a held file fails with error 32");
    check(!moveFileReplaceWriteThrough(target, backup) && lastError() == ERROR_SHARING_VIOLATION,
          "the fallback's rename of a held file fails with error 32");
    CloseHandle(held);
    check(readAll(target) == "old" && readAll(staged) == "new" && !exists(backup),
          "a failed fallback leaves target and staged file untouched");

    check(moveFileReplaceWriteThrough(target, backup) && moveFileReplaceWriteThrough(staged, target)
              && readAll(target) == "new" && readAll(backup) == "old",
          "the two write-through renames of the fallback succeed on a free file");
    writeAll(staged, "newer");
    check(moveFileReplaceWriteThrough(staged, target) && readAll(target) == "newer" && !exists(staged),
          "MoveFileExW(9) replaces an existing file");
    check(!moveFileReplaceWriteThrough(dir + "\\missing", target) && lastError() == ERROR_FILE_NOT_FOUND,
          "MoveFileExW of a missing file fails with error 2");

    injectFileFailure(FileCall::MoveFile, backup, 5);
    check(!moveFileReplaceWriteThrough(backup, target) && lastError() == 5,
          "an injected failure sets the thread's last error");
    clearInjectedFileFailures();
    check(readAll(backup) == "old", "an injected failure touches nothing");
}

// Reads (content == nullptr) or writes through a descriptor of openOwnFile, then closes it.
std::string use(int fd, const char* content = nullptr)
{
    std::string done;
    char buffer[256];
    for (int got; fd >= 0 && !content && (got = _read(fd, buffer, sizeof buffer)) > 0;)
        done.append(buffer, size_t(got));
    if (fd >= 0 && content && _write(fd, content, unsigned(strlen(content))) == int(strlen(content)))
        done = "written";
    if (fd >= 0)
        _close(fd);
    return done;
}

// The updater's own files: links and second names are removed or copied, never followed or
// written through.
void checkOwnFiles(const std::string& dir)
{
    const std::string base = dir + "\\own", outside = dir + "\\outside", victim = outside + "\\victim.txt";
    removeOwnPath(dir, "own"); // Wine reuses process ids, and with them this directory
    removeOwnPath(dir, "outside");
    CreateDirectoryW(widen(base).c_str(), nullptr);
    CreateDirectoryW(widen(outside).c_str(), nullptr);
    writeAll(victim, "outside");

    check(use(openOwnFile(base, "cache/2.0/files/a.part", OwnFileMode::Write), "abc") == "written"
              && use(openOwnFile(base, "cache/2.0/files/a.part", OwnFileMode::Append), "def") == "written"
              && use(openOwnFile(base, "cache/2.0/files/a.part", OwnFileMode::Read)) == "abcdef",
          "a new own file below missing directories, appended to and read back");
    check(openOwnFile(base, "cache/2.0", OwnFileMode::Read) < 0, "a directory is not opened as a file");

    const std::string second = base + "\\cache\\2.0\\files\\b.part";
    check(CreateHardLinkW(widen(second).c_str(), widen(victim).c_str(), nullptr)
              && use(openOwnFile(base, "cache/2.0/files/b.part", OwnFileMode::Append), "+") == "written"
              && readAll(victim) == "outside" && readAll(second) == "outside+",
          "a second name appended to gets a copy of its own");

    if (!CreateSymbolicLinkW(widen(base + "\\staging").c_str(), widen(outside).c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY)) {
        std::printf("note: no symbolic links here (error %lu): those checks are left out\n", GetLastError());
    } else {
        check(removeOwnPath(base, "staging") && !exists(base + "\\staging") && readAll(victim) == "outside",
              "a directory link is removed as a link");
        CreateSymbolicLinkW(widen(base + "\\cache\\2.0\\state.json.tmp").c_str(), widen(victim).c_str(), 0);
        check(use(openOwnFile(base, "cache/2.0/state.json.tmp", OwnFileMode::Write), "{}") == "written"
                  && readAll(victim) == "outside" && readAll(base + "\\cache\\2.0\\state.json.tmp") == "{}",
              "a file link is replaced by a file");
        CreateSymbolicLinkW(widen(base + "\\log").c_str(), widen(outside).c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY);
        check(openOwnFile(base, "log/victim.txt", OwnFileMode::Read) < 0, "nothing is read through a directory link");
        check(use(openOwnFile(base, "log/victim.txt", OwnFileMode::Append), "line") == "written"
                  && readAll(victim) == "outside" && readAll(base + "\\log\\victim.txt") == "line",
              "a directory link on the way is replaced by a directory");
    }
    check(removeOwnPath(base, "cache") && !exists(base + "\\cache") && readAll(victim) == "outside",
          "a tree is removed, a second name in it only as a name");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::string(argv[1]) == "hold")
        return hold(argv[2], argv[3]);
    char temp[MAX_PATH];
    GetTempPathA(MAX_PATH, temp);
    const std::string dir = temp + std::string("corvanta-win32-check-") + std::to_string(GetCurrentProcessId());
    CreateDirectoryW(widen(dir).c_str(), nullptr);
    checkMutexesAndProcesses();
    checkFileReplacement(dir);
    checkOwnFiles(dir);
    std::printf("win32 platform checks: %d of %d held\n", checks - failures, checks);
    return failures == 0 ? 0 : 1;
}
