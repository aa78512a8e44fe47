// The Windows processes that the black-box rows of updater_blackbox.py run beside updater.exe
// under Wine. Each prints "ready <its Windows process id>" when it is in place, then keeps its
// state until its standard input closes (or it is killed):
//   win32_test_helper.exe hold PATH     PATH open for reading, shared for reading and writing
//                                       but not for deletion, as a running program holds a file
//   win32_test_helper.exe mutex NAME    owns the named mutex NAME (the application's lock)
//   win32_test_helper.exe live MS       ends after MS milliseconds instead
//   win32_test_helper.exe trust DER     puts the DER certificate into the machine's ROOT store
//                                       (first removing any earlier one with the same subject)
//                                       and exits
//   win32_test_helper.exe check         the rows below: the Win32 platform layer where no run of
//                                       updater.exe shows it (waits on a named mutex, renames, the
//                                       updater's own files where a second name or a stream stands
//                                       in the way); each makes a tree, makes its calls, and must
//                                       give exactly its result and leave exactly its tree
#include "platform/file_access.h"
#include "platform/file_replace.h"
#include "platform/named_mutex.h"

#include <windows.h>
#include <wincrypt.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <fstream>
#include <io.h>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace corv::platform;
using Path = const std::string&;

namespace {

// Makes "path=content" (a file), "path/" (a directory) and "path&target" (a second name of a
// file), separated by blanks, with the directories on the way. (Wine makes no symbolic links.)
// Windows takes "/" for "\\" in these paths.
void make(Path root, const std::string& spec)
{
    std::istringstream items(spec);
    for (std::string item; items >> item;) {
        const size_t mark = std::min(item.find_first_of("=&"), item.size());
        const std::string path = root + "/" + item.substr(0, mark), other = item.substr(std::min(mark + 1, item.size()));
        for (size_t slash = root.size(); (slash = path.find('/', slash + 1)) != std::string::npos;)
            CreateDirectoryA(path.substr(0, slash).c_str(), nullptr);
        if ((item[mark] == '=' && !(std::ofstream(path, std::ios::binary) << other))
            || (item[mark] == '&' && !CreateHardLinkA(path.c_str(), (root + "/" + other).c_str(), nullptr)))
            std::printf("cannot make %s (error %lu)\n", item.c_str(), GetLastError());
    }
}

// The tree below root in the same words.
void list(Path root, Path below, std::set<std::string>& found)
{
    WIN32_FIND_DATAA entry;
    HANDLE listing = FindFirstFileA((root + "/" + below + "*").c_str(), &entry);
    for (bool more = listing != INVALID_HANDLE_VALUE; more; more = FindNextFileA(listing, &entry)) {
        const std::string name = entry.cFileName, path = below + name;
        std::ifstream file(root + "/" + path, std::ios::binary);
        if (name == "." || name == "..")
            continue;
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            found.insert(path + "/"), list(root, path + "/", found);
        else
            found.insert(path + "=" + std::string(std::istreambuf_iterator<char>(file), {}));
    }
    FindClose(listing);
}

std::string result(bool ok) { return ok ? "ok" : "failed " + std::to_string(lastError()); }

// openOwnFile below root/own and a write of text: "refused", "written" or "opened".
std::string own(Path root, const char* relPath, OwnFileMode mode, const std::string& text = "")
{
    const int fd = openOwnFile(root + "\\own", relPath, mode);
    const bool written = fd >= 0 && !text.empty() && _write(fd, text.data(), unsigned(text.size())) == int(text.size());
    return fd < 0 ? "refused" : (_close(fd), written ? "written" : "opened");
}

std::string mutexName(bool release)
{
    return "Corvanta_Wine_Check_" + std::to_string(GetCurrentProcessId()) + (release ? "_release" : "_end");
}

// Owns the mutex for 1.5 s, then releases it, or ends with it (the mutex is then abandoned).
DWORD WINAPI hold(void* release)
{
    bool existed = false;
    NamedMutex mutex = createNamedMutex(mutexName(release), &existed);
    Sleep(1500);
    if (release)
        mutex.releaseAndClose();
    return 0;
}

// Two waits, for 0.7 s and then for up to 10 s, on a mutex that another thread holds.
std::string waitsOnMutex(bool release)
{
    HANDLE thread = CreateThread(nullptr, 0, hold, reinterpret_cast<void*>(std::intptr_t(release)), 0, nullptr);
    NamedMutex mutex;
    for (int i = 0; i < 1000 && (mutex = openNamedMutex(mutexName(release))).isNull(); ++i)
        Sleep(10);
    std::string seen;
    for (DWORD timeout : { 700, 10000 }) {
        const DWORD start = GetTickCount();
        const bool free = waitForNamedMutex(mutex, int(timeout));
        const DWORD took = GetTickCount() - start;
        seen += free ? (took < 5000 ? "free" : "free late") : (took + 100 < timeout ? "timed out early, " : "timed out, ");
    }
    WaitForSingleObject(thread, 10000);
    CloseHandle(thread);
    return seen;
}

struct Row {
    const char* what;
    const char* before;
    std::string (*call)(Path root);
    const char* result;
    const char* after;
};

const Row kRows[] = {
    { "a wait on a held mutex ends when it is released", "", [](Path) { return waitsOnMutex(true); },
      "timed out, free", "" },
    { "a mutex whose holder ends with it is free", "", [](Path) { return waitsOnMutex(false); },
      "timed out, free", "" },
    { "MoveFileExW(9) over a file", "a=new b=old",
      [](Path r) { return result(moveFileReplaceWriteThrough(r + "\\a", r + "\\b")); }, "ok", "b=new" },
    { "MoveFileExW(9) of a missing file", "b=old",
      [](Path r) { return result(moveFileReplaceWriteThrough(r + "\\a", r + "\\b")); }, "failed 2", "b=old" },
    { "MoveFileExW(8) never replaces a file", "a=new b=old",
      [](Path r) { return result(moveWriteThrough(r + "\\a", r + "\\b")); }, "failed 183", "a=new b=old" },
    { "a directory is not read as a file", "own/cache/", [](Path r) { return own(r, "cache", OwnFileMode::Read); },
      "refused", "own/ own/cache/" },
    { "a name of an alternate data stream is refused", "own/a=x",
      [](Path r) { return own(r, "a:s", OwnFileMode::Write, "y"); }, "refused", "own/ own/a=x" },
    { "a second name appended to gets a copy of its own", "outside/v=out own/b&outside/v",
      [](Path r) { return own(r, "b", OwnFileMode::Append, "+"); }, "written", "outside/ outside/v=out own/ own/b=out+" },
    { "a second name written to is a new file", "outside/v=out own/b&outside/v",
      [](Path r) { return own(r, "b", OwnFileMode::Write, "new"); }, "written", "outside/ outside/v=out own/ own/b=new" },
    { "a tree is removed, a second name in it only as a name", "outside/v=out own/cache/a/b=1 own/cache/h&outside/v",
      [](Path r) { return result(removeOwnPath(r + "\\own", "cache")); }, "ok", "outside/ outside/v=out own/" },
};

int fail(const char* what)
{
    std::printf("failed %s %lu\n", what, GetLastError());
    return 1;
}

int trust(const wchar_t* derPath)
{
    std::ifstream file(derPath, std::ios::binary);
    const std::vector<BYTE> der { std::istreambuf_iterator<char>(file), {} };
    PCCERT_CONTEXT cert = CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), DWORD(der.size()));
    HCERTSTORE root = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"ROOT");
    if (!cert || !root)
        return fail(cert ? "store" : "parse");
    // Every test run makes a new CA of the same name: keep one in the store, not one per run.
    std::vector<PCCERT_CONTEXT> earlier;
    for (PCCERT_CONTEXT c = nullptr; (c = CertEnumCertificatesInStore(root, c));)
        if (CertCompareCertificateName(X509_ASN_ENCODING, &c->pCertInfo->Subject, &cert->pCertInfo->Subject))
            earlier.push_back(CertDuplicateCertificateContext(c));
    for (PCCERT_CONTEXT c : earlier)
        CertDeleteCertificateFromStore(c);
    // The registry behind the store is written when the store is committed, not on every add.
    if (!CertAddCertificateContextToStore(root, cert, CERT_STORE_ADD_REPLACE_EXISTING, nullptr)
        || !CertControlStore(root, 0, CERT_STORE_CTRL_COMMIT, nullptr))
        return fail("add");
    CertCloseStore(root, 0);
    CertFreeCertificateContext(cert);
    std::printf("ready %lu\n", GetCurrentProcessId());
    return 0;
}

int check()
{
    char temp[MAX_PATH];
    const std::string tempDir(temp, GetTempPathA(MAX_PATH, temp) - 1), base = tempDir + "\\corvanta-win32-check";
    removeOwnPath(tempDir, "corvanta-win32-check"); // what an earlier run left
    CreateDirectoryA(base.c_str(), nullptr);
    int failures = 0;
    for (const Row& row : kRows) {
        const std::string root = base + "\\" + std::to_string(&row - kRows);
        CreateDirectoryA(root.c_str(), nullptr);
        make(root, row.before);
        const std::string got = row.call(root);
        std::set<std::string> found;
        list(root, "", found);
        std::string after;
        for (const std::string& entry : found)
            after += (after.empty() ? "" : " ") + entry;
        if ((got != row.result || after != row.after) && ++failures)
            std::printf("FAIL: %s\n  got:  %s | %s\n  want: %s | %s\n", row.what, got.c_str(), after.c_str(), row.result,
                        row.after);
    }
    std::printf("win32 platform rows: %d of %d held\n", int(std::size(kRows)) - failures, int(std::size(kRows)));
    return failures == 0 ? 0 : 1;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const std::wstring mode = argc == 3 || argc == 2 ? argv[1] : L"";
    std::setvbuf(stdout, nullptr, _IONBF, 0); // the harness reads each line as it comes
    if (argc == 2)
        return mode == L"check" ? check() : 2;
    if (mode == L"trust")
        return trust(argv[2]);
    HANDLE held = mode == L"hold" ? CreateFileW(argv[2], GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)
        : mode == L"mutex"        ? CreateMutexW(nullptr, TRUE, argv[2])
                                  : nullptr;
    if (mode == L"hold" && held == INVALID_HANDLE_VALUE)
        return fail("hold");
    if (mode == L"mutex" && (!held || GetLastError() == ERROR_ALREADY_EXISTS))
        return fail("mutex");
    if (mode != L"hold" && mode != L"mutex" && mode != L"live")
        return 2;
    std::printf("ready %lu\n", GetCurrentProcessId());
    if (mode == L"live")
        Sleep(DWORD(std::wcstoul(argv[2], nullptr, 10)));
    char buffer[256];
    DWORD got = 0;
    while (mode != L"live" && ReadFile(GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof buffer, &got, nullptr) && got > 0) {
    }
    CloseHandle(held);
    return 0;
}
