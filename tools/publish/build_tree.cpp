#include "build_tree.h"

#include "update/manifest.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace {

QRegularExpression globExpression(const QString& glob)
{
    return QRegularExpression(QRegularExpression::wildcardToRegularExpression(glob));
}

struct Walk {
    const ExcludeRules& excludes;
    QList<BuildFile>* files;
    QString* error;

    bool refuse(const QString& relPath, const QString& reason)
    {
        *error = QStringLiteral("refusing \"%1\": %2").arg(relPath, reason);
        return false;
    }

    bool directory(const QString& absDir, const QString& relPrefix)
    {
        const QDir dir(absDir);
        if (!dir.isReadable())
            return refuse(relPrefix.isEmpty() ? absDir : relPrefix.chopped(1),
                          QStringLiteral("the directory cannot be read"));
        // System lists sockets, pipes, devices and broken links too, so that they are refused
        // rather than silently left out.
        const QFileInfoList entries = dir.entryInfoList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
        for (const QFileInfo& entry : entries) {
            const QString relPath = relPrefix + entry.fileName();
            if (excludes.excludes(relPath))
                continue;
            if (entry.isSymLink())
                return refuse(relPath, QStringLiteral("it is a symbolic link (publish the file itself, "
                                                      "or leave it out with --exclude)"));
            const QString reason = unpublishableReason(relPath);
            if (!reason.isEmpty())
                return refuse(relPath, reason);
            if (entry.isDir()) {
                if (!directory(entry.filePath(), relPath + QLatin1Char('/')))
                    return false;
            } else if (entry.isFile()) {
                files->append({relPath, entry.absoluteFilePath()});
            } else {
                return refuse(relPath, QStringLiteral("it is not a regular file or directory "
                                                      "(a socket, pipe or device cannot be published)"));
            }
        }
        return true;
    }
};

} // namespace

bool ExcludeRules::setPatterns(const QStringList& patterns, QString* error)
{
    namePatterns.clear();
    pathPatterns.clear();
    for (const QString& pattern : patterns) {
        QString glob = pattern;
        while (glob.endsWith(QLatin1Char('/')))
            glob.chop(1);
        const bool wholePath = glob.contains(QLatin1Char('/'));
        while (glob.startsWith(QLatin1Char('/')))
            glob.remove(0, 1);
        const QRegularExpression expression = globExpression(glob);
        if (glob.isEmpty() || !expression.isValid()) {
            *error = QStringLiteral("invalid --exclude pattern \"%1\"").arg(pattern);
            return false;
        }
        (wholePath ? pathPatterns : namePatterns).append(expression);
    }
    return true;
}

bool ExcludeRules::excludes(const QString& relPath) const
{
    const QString name = relPath.section(QLatin1Char('/'), -1);
    const auto matches = [](const QRegularExpression& e, const QString& s) { return e.match(s).hasMatch(); };
    return std::any_of(namePatterns.begin(), namePatterns.end(),
                       [&](const QRegularExpression& e) { return matches(e, name); })
           || std::any_of(pathPatterns.begin(), pathPatterns.end(),
                          [&](const QRegularExpression& e) { return matches(e, relPath); });
}

QString unpublishableReason(const QString& relPath)
{
    const QString safe = safeRelativePath(relPath);
    if (safe.isEmpty())
        return relPath.contains(QLatin1Char(':'))
                   ? QStringLiteral("the updater rejects names containing \":\"")
                   : QStringLiteral("the updater rejects this path");
    if (safe != relPath)
        return relPath.contains(QLatin1Char('\\'))
                   ? QStringLiteral("the updater reads \"\\\" as a directory separator")
                   : QStringLiteral("the updater would change this path to \"%1\"").arg(safe);
    return reservedPathReason(relPath);
}

bool collectBuildFiles(const QString& inputDir, const ExcludeRules& excludes, QList<BuildFile>* files,
                       QString* error)
{
    files->clear();
    Walk walk{excludes, files, error};
    if (!walk.directory(QFileInfo(inputDir).absoluteFilePath(), QString()))
        return false;
    std::sort(files->begin(), files->end(),
              [](const BuildFile& a, const BuildFile& b) { return a.relPath < b.relPath; });
    // Two names that differ only in letter case are one file on Windows: the other file's hash
    // would never match and the installation would never be current.
    QStringList paths;
    for (const BuildFile& file : *files)
        paths.append(file.relPath);
    QString clashing;
    const QString conflict = pathSetConflict(paths, &clashing);
    if (!conflict.isEmpty()) {
        *error = QStringLiteral("refusing \"%1\": %2").arg(clashing, conflict);
        return false;
    }
    return true;
}
