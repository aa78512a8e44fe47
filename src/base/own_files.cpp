#include "base/own_files.h"

#include "base/installation_dir.h"
#include "platform/file_access.h"
#include "platform/file_replace.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

// Splits `path` into the trusted base and the UTF-8 path below it.
bool splitOwnPath(const QString& path, std::string* base, std::string* relPath)
{
    const QString clean = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    const QString root = QDir::cleanPath(installationDir());
    QString baseDir;
    if (clean.startsWith(root + QLatin1Char('/')))
        baseDir = root;
    else
        baseDir = QFileInfo(clean).path();
    const QString below = clean.mid(baseDir.size() + (baseDir.endsWith(QLatin1Char('/')) ? 0 : 1));
    if (below.isEmpty() || baseDir.isEmpty())
        return false;
    *base = QDir::toNativeSeparators(baseDir).toStdString();
    *relPath = below.toStdString();
    return true;
}

} // namespace

bool openOwnFile(QFile& file, const QString& path, QIODevice::OpenMode mode)
{
    std::string base;
    std::string relPath;
    if (file.isOpen() || !splitOwnPath(path, &base, &relPath))
        return false;
    corv::platform::OwnFileMode ownMode = corv::platform::OwnFileMode::Read;
    if (mode & QIODevice::Append)
        ownMode = corv::platform::OwnFileMode::Append;
    else if (mode & QIODevice::WriteOnly)
        ownMode = corv::platform::OwnFileMode::Write;
    const int fd = corv::platform::openOwnFile(base, relPath, ownMode);
    if (fd < 0)
        return false;
    // Truncate means nothing to a descriptor Qt did not open; the file is new anyway.
    return file.open(fd, mode & ~QIODevice::Truncate, QFileDevice::AutoCloseHandle);
}

qint64 ownFileSize(const QString& path)
{
    QFile file;
    return openOwnFile(file, path, QIODevice::ReadOnly) ? file.size() : -1;
}

bool makeOwnDirectory(const QString& path)
{
    std::string base;
    std::string relPath;
    return splitOwnPath(path, &base, &relPath) && corv::platform::makeOwnDirectory(base, relPath);
}

bool removeOwnPath(const QString& path)
{
    std::string base;
    std::string relPath;
    return splitOwnPath(path, &base, &relPath) && corv::platform::removeOwnPath(base, relPath);
}

bool syncWrittenFile(QFile& file)
{
    return file.flush() && corv::platform::syncFileData(file.handle());
}

void deferWrittenFileSyncs()
{
    corv::platform::deferFileDataSyncs();
}

bool syncDeferredWrittenFiles()
{
    return corv::platform::syncDeferredFileData();
}

bool openRegularFile(QFile& file, const QString& path)
{
    if (file.isOpen() || !QFileInfo(path).isFile())
        return false;
    file.setFileName(path);
    return file.open(QIODevice::ReadOnly);
}
