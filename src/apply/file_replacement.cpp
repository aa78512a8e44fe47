#include "apply/file_replacement.h"

#include "platform/file_replace.h"

#include <QDebug>
#include <QDir>

namespace {

std::string nativePath(const QString& path)
{
    return QDir::toNativeSeparators(path).toStdString();
}

} // namespace

bool moveFileWriteThrough(const QString& from, const QString& to)
{
    return corv::platform::moveFileReplaceWriteThrough(nativePath(from), nativePath(to));
}

bool moveWithoutReplacing(const QString& from, const QString& to)
{
    return corv::platform::moveWriteThrough(nativePath(from), nativePath(to));
}

bool replaceInstalledFile(const QString& newPath, const QString& targetPath, const QString& backupPath)
{
    if (corv::platform::replaceFile(nativePath(targetPath), nativePath(newPath), nativePath(backupPath)))
        return true;
    const unsigned long replaceError = corv::platform::lastError();

    // The in-place replacement was refused (typically a file held open, or a virus scanner):
    // two plain renames instead, the old file first.
    if (!moveFileWriteThrough(targetPath, backupPath)) {
        const unsigned long renameError = corv::platform::lastError();
        qWarning() << "[Update] ReplaceFile hong err=" << replaceError << "va doi ten -> .bak cung hong err="
                   << renameError << "(32=file dang bi giu, 5=khong du quyen/AV)";
        return false;
    }
    if (moveFileWriteThrough(newPath, targetPath)) {
        qWarning() << "[Update] ReplaceFile hong err=" << replaceError << "-> da lui ve doi ten hai buoc, OK";
        return true;
    }
    const unsigned long writeError = corv::platform::lastError();
    // Put the old content back under the installed name before reporting the failure.
    moveFileWriteThrough(backupPath, targetPath);
    qWarning() << "[Update] ReplaceFile hong err=" << replaceError << "va ghi ban moi cung hong err=" << writeError;
    return false;
}

void beginMoveBatch()
{
    corv::platform::deferDirectorySyncs();
}

bool endMoveBatch(QString* failedDirectory)
{
    std::string directory;
    if (corv::platform::syncDeferredDirectories(&directory))
        return true;
    *failedDirectory = QDir::fromNativeSeparators(QString::fromStdString(directory));
    return false;
}
