#include "platform/file_access.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace corv::platform {
namespace {

// Owns one descriptor.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

int openAt(int dir, const std::string& name, int flags, mode_t mode = 0)
{
    int fd = -1;
    do {
        fd = ::openat(dir, name.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

bool splitRelative(const std::string& relPath, std::vector<std::string>* names)
{
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type slash = relPath.find('/', start);
        const std::string name = relPath.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (name.empty() || name == "." || name == "..")
            return false;
        names->push_back(name);
        if (slash == std::string::npos)
            return true;
        start = slash + 1;
    }
}

bool isLinkAt(int dir, const std::string& name)
{
    struct stat info {};
    return ::fstatat(dir, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode);
}

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;

// The directory made of the first `count` names below `base`, never entered through a link.
// With `create`, missing directories are made and links in their place removed first.
int openDirectoryChain(const std::string& base, const std::vector<std::string>& names, size_t count, bool create)
{
    Fd dir(openAt(AT_FDCWD, base, O_RDONLY | O_DIRECTORY));
    for (size_t i = 0; i < count && dir.get() >= 0; ++i) {
        int next = openAt(dir.get(), names[i], kDirectoryFlags);
        if (next < 0 && create) {
            if (isLinkAt(dir.get(), names[i]))
                ::unlinkat(dir.get(), names[i].c_str(), 0);
            if (::mkdirat(dir.get(), names[i].c_str(), 0777) == 0 || errno == EEXIST)
                next = openAt(dir.get(), names[i], kDirectoryFlags);
        }
        dir.reset(next);
    }
    return dir.release();
}

bool isRegular(int fd, struct stat* info)
{
    return ::fstat(fd, info) == 0 && S_ISREG(info->st_mode);
}

bool writeAll(int fd, const char* data, ssize_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size_t(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        size -= written;
    }
    return true;
}

// Gives `name`, a file with other names too, a copy of its content under its name alone and
// returns that copy opened for appending. The copy is made under a name with ':', which no
// manifest path contains, and renamed over the original name.
int appendToPrivateCopy(int dir, const std::string& name, const struct stat& original)
{
    Fd source(openAt(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
    struct stat sourceInfo {};
    if (source.get() < 0 || !isRegular(source.get(), &sourceInfo) || sourceInfo.st_ino != original.st_ino
        || sourceInfo.st_dev != original.st_dev)
        return -1;
    const std::string copyName = name + ":copy";
    ::unlinkat(dir, copyName.c_str(), 0);
    Fd copy(openAt(dir, copyName, O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW, original.st_mode & 0777));
    if (copy.get() < 0)
        return -1;
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(source.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got == 0)
            break;
        if (got < 0 || !writeAll(copy.get(), buffer, got)) {
            ::unlinkat(dir, copyName.c_str(), 0);
            return -1;
        }
    }
    if (::renameat(dir, copyName.c_str(), dir, name.c_str()) != 0) {
        ::unlinkat(dir, copyName.c_str(), 0);
        return -1;
    }
    return copy.release();
}

int openForWriting(int dir, const std::string& name)
{
    // Removing first also removes a link or a second name of somebody else's file.
    if (::unlinkat(dir, name.c_str(), 0) != 0 && errno != ENOENT)
        return -1;
    return openAt(dir, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0666);
}

int openForAppending(int dir, const std::string& name)
{
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK;
    Fd file(openAt(dir, name, flags, 0666));
    if (file.get() < 0 && isLinkAt(dir, name) && ::unlinkat(dir, name.c_str(), 0) == 0)
        file.reset(openAt(dir, name, flags, 0666));
    struct stat info {};
    if (file.get() < 0 || !isRegular(file.get(), &info))
        return -1;
    if (info.st_nlink > 1)
        return appendToPrivateCopy(dir, name, info);
    return file.release();
}

int openForReading(int dir, const std::string& name)
{
    // Non-blocking, so that a FIFO under the name cannot hold the open.
    Fd file(openAt(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
    struct stat info {};
    if (file.get() < 0 || !isRegular(file.get(), &info))
        return -1;
    return file.release();
}

// Removes `name` in `dir`; a directory with everything in it, a link as a link.
bool removeAt(int dir, const std::string& name)
{
    struct stat info {};
    if (::fstatat(dir, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    if (!S_ISDIR(info.st_mode))
        return ::unlinkat(dir, name.c_str(), 0) == 0 || errno == ENOENT;

    const int sub = openAt(dir, name, kDirectoryFlags);
    if (sub < 0)
        return false;
    DIR* listing = ::fdopendir(sub);
    if (!listing) {
        ::close(sub);
        return false;
    }
    // Listed first, removed afterwards: a directory changed while it is read may skip entries.
    std::vector<std::string> entries;
    while (const struct dirent* entry = ::readdir(listing)) {
        const std::string entryName = entry->d_name;
        if (entryName != "." && entryName != "..")
            entries.push_back(entryName);
    }
    bool ok = true;
    for (const std::string& entry : entries)
        ok = removeAt(::dirfd(listing), entry) && ok;
    ::closedir(listing);
    return (::unlinkat(dir, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) && ok;
}

} // namespace

int openOwnFile(const std::string& base, const std::string& relPath, OwnFileMode mode)
{
    std::vector<std::string> names;
    if (!splitRelative(relPath, &names))
        return -1;
    Fd dir(openDirectoryChain(base, names, names.size() - 1, mode != OwnFileMode::Read));
    if (dir.get() < 0)
        return -1;
    switch (mode) {
    case OwnFileMode::Read:
        return openForReading(dir.get(), names.back());
    case OwnFileMode::Write:
        return openForWriting(dir.get(), names.back());
    case OwnFileMode::Append:
        return openForAppending(dir.get(), names.back());
    }
    return -1;
}

bool makeOwnDirectory(const std::string& base, const std::string& relPath)
{
    std::vector<std::string> names;
    if (!splitRelative(relPath, &names))
        return false;
    Fd dir(openDirectoryChain(base, names, names.size(), true));
    return dir.get() >= 0;
}

bool removeOwnPath(const std::string& base, const std::string& relPath)
{
    std::vector<std::string> names;
    if (!splitRelative(relPath, &names))
        return false;
    Fd dir(openDirectoryChain(base, names, names.size() - 1, false));
    if (dir.get() < 0)
        return errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
    return removeAt(dir.get(), names.back());
}

} // namespace corv::platform
