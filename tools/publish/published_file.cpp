#include "published_file.h"

#include "apply/file_replacement.h"
#include "base/own_files.h"

#include <QDir>
#include <QFileInfo>

namespace {

const QFile::Permissions kPublishedPermissions =
    QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther;
const QFile::Permissions kPublishedDirPermissions =
    kPublishedPermissions | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther;

// Creates dir and its missing parents.
bool ensurePublishedDir(const QString& dir)
{
    const QFileInfo info(dir);
    if (info.isDir())
        return true;
    const QString parent = info.path();
    if (parent == dir || !ensurePublishedDir(parent) || !QDir(parent).mkdir(info.fileName()))
        return QFileInfo(dir).isDir();  // another process may have made it meanwhile
    return QFile::setPermissions(dir, kPublishedDirPermissions);
}

} // namespace

PublishedFile::PublishedFile(const QString& finalPath)
    : finalPath(finalPath),
      temp(QFileInfo(finalPath).dir().filePath(
          QStringLiteral(".%1.publishing-XXXXXX").arg(QFileInfo(finalPath).fileName())))
{
}

bool PublishedFile::open(QString* error)
{
    if (!ensurePublishedDir(QFileInfo(finalPath).path()))
        return fail(QStringLiteral("cannot create the directory of"), error);
    if (!temp.open() || !temp.setPermissions(kPublishedPermissions))
        return fail(QStringLiteral("cannot write"), error);
    return true;
}

bool PublishedFile::write(const char* data, qint64 length, QString* error)
{
    return temp.write(data, length) == length || fail(QStringLiteral("cannot write"), error);
}

bool PublishedFile::finishWriting(QString* error)
{
    // Synced before it is moved into place: the move makes the name durable, not the data.
    if (!syncWrittenFile(temp))
        return fail(QStringLiteral("cannot write"), error);
    temp.close();
    return true;
}

bool PublishedFile::moveIntoPlace(QString* error)
{
    if (!moveFileWriteThrough(temp.fileName(), finalPath))
        return fail(QStringLiteral("cannot move into place"), error);
    temp.setAutoRemove(false);
    return true;
}

bool PublishedFile::fail(const QString& what, QString* error)
{
    const QString reason = temp.errorString();
    *error = QStringLiteral("%1 \"%2\"").arg(what, finalPath);
    if (!reason.isEmpty() && reason != QLatin1String("Unknown error"))
        *error += QStringLiteral(": ") + reason;
    return false;
}
