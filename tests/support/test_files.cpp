#include "support/test_files.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

bool writeFile(const QString& path, const QByteArray& bytes)
{
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return false;
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size()
        && file.flush();
}

QByteArray readFile(const QString& path, const QByteArray& ifMissing)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : ifMissing;
}

QStringList filesBelow(const QString& dir)
{
    QStringList files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(QDir(dir).relativeFilePath(it.next()));
    files.sort();
    return files;
}
