#pragma once
// The updater's own files (its log, the update cache, the staging directory) opened and removed
// without ever following a link out of them. Every call names a trusted base directory, used as
// it is (the installation directory may well be reached through a link the user made), and a
// relative path below it with "/" separators and no "." or ".." names. Nothing below the base
// is followed: symbolic links, and on Windows every reparse point (junctions included), count
// as links.
//
// POSIX: openat() from the base, one name at a time, with O_NOFOLLOW. Windows: the attributes
// of every name, then CreateFileW with FILE_FLAG_OPEN_REPARSE_POINT and a check of the opened
// file's attributes and link count.
//
// Paths are UTF-8. This file and its implementations use no Qt.
#include <string>

namespace corv::platform {

enum class OwnFileMode {
    Read,    // an existing regular file, reached without a link on the way
    Write,   // a new empty file: whatever had the name is removed first
    Append,  // the regular file of that name, created when missing
};

// Opens base/relPath and returns a C runtime file descriptor (for QFile::open(int, ...)), or -1.
// Read and Append open regular files only: a FIFO, a device or a directory is never opened,
// and nothing waits for a FIFO's other side. Write and Append create the directories on the
// way; a link found on the way, or at the name itself, is removed and replaced by a real
// directory or file. A file with more than one name (a hard link) is never written through:
// Append first gives the name a copy of its own.
int openOwnFile(const std::string& base, const std::string& relPath, OwnFileMode mode);

// Creates base/relPath and the directories on the way, removing links found there.
bool makeOwnDirectory(const std::string& base, const std::string& relPath);

// Removes base/relPath, a file or a whole tree, without following any link inside it: a link
// is removed as a link. When a directory on the way is a link, nothing below the base has that
// path and nothing is removed. True when the path is gone.
bool removeOwnPath(const std::string& base, const std::string& relPath);

} // namespace corv::platform
