#include "platform/file_access.h"

#include <windows.h>

#include <climits>
#include <fcntl.h>
#include <io.h>
#include <string>
#include <vector>

namespace corv::platform {
namespace {

std::wstring toWide(const std::string& utf8)
{
    if (utf8.empty() || utf8.size() > size_t(INT_MAX))
        return std::wstring();
    const int inLength = int(utf8.size());
    const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), inLength, nullptr, 0);
    if (length <= 0)
        return std::wstring();
    std::wstring wide(size_t(length), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), inLength, &wide[0], length);
    return wide;
}

// base and every name below it, each as a full path: the last entry is the path itself.
bool expand(const std::string& base, const std::string& relPath, std::vector<std::wstring>* paths)
{
    std::wstring path = toWide(base);
    if (path.empty())
        return false;
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type slash = relPath.find('/', start);
        const std::string name = relPath.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        // A ':' would name an alternate data stream, a '\\' a name of another directory.
        if (name.empty() || name == "." || name == ".." || name.find_first_of(":\\") != std::string::npos)
            return false;
        path += L'\\';
        path += toWide(name);
        paths->push_back(path);
        if (slash == std::string::npos)
            return true;
        start = slash + 1;
    }
}

constexpr DWORD kNoAttributes = INVALID_FILE_ATTRIBUTES;

bool isLink(DWORD attributes)
{
    return attributes != kNoAttributes && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

// Removes a file, an empty directory, or a link (to a file or a directory, or a junction) as a link.
bool removeEntry(const std::wstring& path, DWORD attributes)
{
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) ? RemoveDirectoryW(path.c_str()) != FALSE
                                                   : DeleteFileW(path.c_str()) != FALSE;
}

// The directories paths[0..count) exist as real directories; with `create` they are made, and
// links in their place removed first.
bool directoryChain(const std::vector<std::wstring>& paths, size_t count, bool create)
{
    for (size_t i = 0; i < count; ++i) {
        DWORD attributes = GetFileAttributesW(paths[i].c_str());
        if (create && isLink(attributes) && removeEntry(paths[i], attributes))
            attributes = kNoAttributes;
        if (create && attributes == kNoAttributes && CreateDirectoryW(paths[i].c_str(), nullptr))
            attributes = GetFileAttributesW(paths[i].c_str());
        if (attributes == kNoAttributes || isLink(attributes) || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
            return false;
    }
    return true;
}

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The handle's own attributes: opened with FILE_FLAG_OPEN_REPARSE_POINT, a link is the link.
bool isPlainDiskFile(HANDLE file, BY_HANDLE_FILE_INFORMATION* info)
{
    return GetFileType(file) == FILE_TYPE_DISK && GetFileInformationByHandle(file, info)
        && !(info->dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY));
}

HANDLE openHandle(const std::wstring& path, DWORD access, DWORD disposition)
{
    return CreateFileW(path.c_str(), access, kShareAll, nullptr, disposition,
                       FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
}

// Wraps the handle in a C runtime descriptor, which then owns it.
int toDescriptor(HANDLE file, int flags)
{
    if (file == INVALID_HANDLE_VALUE)
        return -1;
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(file), flags | _O_BINARY);
    if (fd < 0)
        CloseHandle(file);
    return fd;
}

HANDLE openForWriting(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes != kNoAttributes) {
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) && !isLink(attributes))
            return INVALID_HANDLE_VALUE;
        if (attributes & FILE_ATTRIBUTE_READONLY)
            SetFileAttributesW(path.c_str(), attributes & ~DWORD(FILE_ATTRIBUTE_READONLY));
        // Removing first also removes a link or a second name of somebody else's file.
        if (!removeEntry(path, attributes))
            return INVALID_HANDLE_VALUE;
    }
    return openHandle(path, GENERIC_WRITE, CREATE_NEW);
}

HANDLE openForAppending(const std::wstring& path)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        HANDLE file = openHandle(path, GENERIC_WRITE, OPEN_ALWAYS);
        if (file == INVALID_HANDLE_VALUE)
            return file;
        BY_HANDLE_FILE_INFORMATION info {};
        if (isPlainDiskFile(file, &info) && info.nNumberOfLinks <= 1)
            return file;
        CloseHandle(file);
        if (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) {
            if (!removeEntry(path, info.dwFileAttributes))
                return INVALID_HANDLE_VALUE;
        } else if (info.nNumberOfLinks > 1 && !(info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
            // A second name of a file elsewhere: the name gets a copy of its own.
            const std::wstring copy = path + L".~copy";
            if (!CopyFileW(path.c_str(), copy.c_str(), FALSE)
                || !MoveFileExW(copy.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
                DeleteFileW(copy.c_str());
                return INVALID_HANDLE_VALUE;
            }
        } else {
            return INVALID_HANDLE_VALUE;
        }
    }
    return INVALID_HANDLE_VALUE;
}

HANDLE openForReading(const std::wstring& path)
{
    HANDLE file = openHandle(path, GENERIC_READ, OPEN_EXISTING);
    BY_HANDLE_FILE_INFORMATION info {};
    if (file != INVALID_HANDLE_VALUE && !isPlainDiskFile(file, &info)) {
        CloseHandle(file);
        return INVALID_HANDLE_VALUE;
    }
    return file;
}

bool removeTree(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == kNoAttributes) {
        const DWORD error = GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
    }
    if (isLink(attributes))
        return removeEntry(path, attributes);
    if (attributes & FILE_ATTRIBUTE_READONLY)
        SetFileAttributesW(path.c_str(), attributes & ~DWORD(FILE_ATTRIBUTE_READONLY));
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY))
        return DeleteFileW(path.c_str()) != FALSE;

    // Listed first, removed afterwards.
    std::vector<std::wstring> entries;
    WIN32_FIND_DATAW found {};
    HANDLE listing = FindFirstFileW((path + L"\\*").c_str(), &found);
    if (listing != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name != L"." && name != L"..")
                entries.push_back(path + L'\\' + name);
        } while (FindNextFileW(listing, &found));
        FindClose(listing);
    }
    bool ok = true;
    for (const std::wstring& entry : entries)
        ok = removeTree(entry) && ok;
    return RemoveDirectoryW(path.c_str()) != FALSE && ok;
}

} // namespace

int openOwnFile(const std::string& base, const std::string& relPath, OwnFileMode mode)
{
    std::vector<std::wstring> paths;
    if (!expand(base, relPath, &paths) || !directoryChain(paths, paths.size() - 1, mode != OwnFileMode::Read))
        return -1;
    switch (mode) {
    case OwnFileMode::Read:
        return toDescriptor(openForReading(paths.back()), _O_RDONLY);
    case OwnFileMode::Write:
        return toDescriptor(openForWriting(paths.back()), _O_WRONLY);
    case OwnFileMode::Append:
        return toDescriptor(openForAppending(paths.back()), _O_WRONLY | _O_APPEND);
    }
    return -1;
}

bool makeOwnDirectory(const std::string& base, const std::string& relPath)
{
    std::vector<std::wstring> paths;
    return expand(base, relPath, &paths) && directoryChain(paths, paths.size(), true);
}

bool removeOwnPath(const std::string& base, const std::string& relPath)
{
    std::vector<std::wstring> paths;
    if (!expand(base, relPath, &paths))
        return false;
    // A link on the way: nothing below the base has this path.
    if (!directoryChain(paths, paths.size() - 1, false))
        return true;
    return removeTree(paths.back());
}

} // namespace corv::platform
