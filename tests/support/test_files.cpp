#include "support/test_files.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

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

QByteArray runZstd(const QStringList& args, const QByteArray& content, const QByteArray& source, bool fromPipe)
{
    QTemporaryDir dir;
    const QString input = dir.filePath(QStringLiteral("input"));
    const QString sourcePath = dir.filePath(QStringLiteral("source"));
    const QString output = dir.filePath(QStringLiteral("output.zst"));
    if (!dir.isValid() || !writeFile(input, content) || !writeFile(sourcePath, source))
        return QByteArray();
    QStringList full{QStringLiteral("-q"), QStringLiteral("-f")};
    for (const QString& arg : args)
        full.append(QString(arg).replace(QLatin1String("%source"), sourcePath));
    QProcess zstd;
    if (fromPipe) {
        zstd.setStandardInputFile(input);
        full << QStringLiteral("-c");
        zstd.setStandardOutputFile(output);
    } else {
        full << input << QStringLiteral("-o") << output;
    }
    zstd.start(QStringLiteral("zstd"), full);
    if (!zstd.waitForFinished(120000) || zstd.exitStatus() != QProcess::NormalExit || zstd.exitCode() != 0)
        return QByteArray();
    return readFile(output);
}

QByteArray zstdCompressed(const QByteArray& content)
{
    return runZstd({QStringLiteral("-19")}, content);
}

QByteArray zstdPatch(const QByteArray& source, const QByteArray& content)
{
    return runZstd({QStringLiteral("-19"), QStringLiteral("--long=31"), QStringLiteral("--patch-from=%source")}, content,
                   source);
}
