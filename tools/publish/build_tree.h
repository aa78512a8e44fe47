#pragma once
#include <QList>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

// One file of a build as found in the input directory.
struct BuildFile {
    QString relPath;     // with "/" separators, exactly as the manifest will list it
    QString sourcePath;  // absolute path in the input directory
};

// --exclude patterns. "*" and "?" never match "/". A pattern without "/" matches the name of a
// file or directory at any depth; one with "/" matches the whole relative path from the input
// root (a leading "/" is allowed). An excluded directory is skipped with all it holds.
class ExcludeRules {
public:
    // False with *error set when a pattern is not a valid glob.
    bool setPatterns(const QStringList& patterns, QString* error);
    bool excludes(const QString& relPath) const;

private:
    QList<QRegularExpression> namePatterns;
    QList<QRegularExpression> pathPatterns;
};

// Why a relative path cannot be published, or an empty string when it can. Refused are the
// names the updater rejects or would change (".", "..", ":", "\"), names that cannot exist on
// Windows (reserved device names, characters such as "*" or "|", a trailing dot or blank), and
// names that collide with the published manifest or the updater's own working files.
QString unpublishableReason(const QString& relPath);

// Walks inputDir and returns its regular files sorted by relative path. Stops at the first
// entry that cannot be published (a symbolic link, a socket, a pipe or device, a refused name,
// two names differing only in letter case) with a one-line *error that names it.
bool collectBuildFiles(const QString& inputDir, const ExcludeRules& excludes, QList<BuildFile>* files,
                       QString* error);
