#include "platform/file_failure_injection.h"
#include "platform/file_replace.h"

#include <windows.h>
// <windows.h> maps these names to the A/W variants; here they must name FileCall's members.
#undef MoveFile
#undef ReplaceFile

#include <io.h>

#include <climits>
#include <string>

namespace corv::platform {
namespace {

static_assert((MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) == 9, "flags value 9");
static_assert(REPLACEFILE_IGNORE_MERGE_ERRORS == 2, "flags value 2");

// UTF-8 to UTF-16 for the wide API. Invalid UTF-8 fails with the conversion's own error code
// (ERROR_NO_UNICODE_TRANSLATION) rather than naming some other file.
bool toWide(const std::string& utf8, std::wstring& wide)
{
    wide.clear();
    if (utf8.empty())
        return true;
    if (utf8.size() > size_t(INT_MAX)) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return false;
    }
    const int inLength = int(utf8.size());
    const int outLength = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), inLength, nullptr, 0);
    if (outLength <= 0)
        return false;
    wide.resize(size_t(outLength));
    return MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), inLength, &wide[0], outLength)
        == outLength;
}

bool failInjected(FileCall call, const std::string& sourcePath)
{
    unsigned long error = 0;
    if (!injectedFileFailure(call, sourcePath, error))
        return false;
    SetLastError(DWORD(error));
    return true;
}

} // namespace

bool replaceFile(const std::string& replaced, const std::string& replacement, const std::string& backup)
{
    if (failInjected(FileCall::ReplaceFile, replacement))
        return false;
    std::wstring wideReplaced, wideReplacement, wideBackup;
    if (!toWide(replaced, wideReplaced) || !toWide(replacement, wideReplacement) || !toWide(backup, wideBackup))
        return false;
    return ReplaceFileW(wideReplaced.c_str(), wideReplacement.c_str(),
                        backup.empty() ? nullptr : wideBackup.c_str(), REPLACEFILE_IGNORE_MERGE_ERRORS,
                        nullptr, nullptr)
        != FALSE;
}

bool moveFileReplaceWriteThrough(const std::string& from, const std::string& to)
{
    if (failInjected(FileCall::MoveFile, from))
        return false;
    std::wstring wideFrom, wideTo;
    if (!toWide(from, wideFrom) || !toWide(to, wideTo))
        return false;
    return MoveFileExW(wideFrom.c_str(), wideTo.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)
        != FALSE;
}

bool moveWriteThrough(const std::string& from, const std::string& to)
{
    if (failInjected(FileCall::MoveFile, from))
        return false;
    std::wstring wideFrom, wideTo;
    if (!toWide(from, wideFrom) || !toWide(to, wideTo))
        return false;
    return MoveFileExW(wideFrom.c_str(), wideTo.c_str(), MOVEFILE_WRITE_THROUGH) != FALSE;
}

bool syncFileData(int fd)
{
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(fd));
    return handle != INVALID_HANDLE_VALUE && FlushFileBuffers(handle) != FALSE;
}

// Every file is flushed on its own; there is nothing to defer.
void deferFileDataSyncs() {}

bool syncDeferredFileData()
{
    return true;
}

// Every move is MOVEFILE_WRITE_THROUGH on its own; there is nothing to defer.
void deferDirectorySyncs() {}

bool syncDeferredDirectories(std::string*)
{
    return true;
}

unsigned long lastError()
{
    return GetLastError();
}

} // namespace corv::platform
