#include "apply/interrupted_apply_repair.h"

#include "apply/file_replacement.h"
#include "base/own_files.h"
#include "update/update_session.h"

#include <QDebug>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

namespace {

const QLatin1String kBackupSuffix(".bak");

// The updater's own working directories: walked although their names start with a dot,
// which makes them hidden on POSIX systems.
bool isUpdaterDir(const QString& name)
{
    return name == QLatin1String(".update-cache") || name == QLatin1String(".staging");
}

bool isBackupName(const QString& name)
{
    return name.endsWith(kBackupSuffix, Qt::CaseInsensitive);
}

// Collects "*.bak" files (any letter case). Hidden files are skipped and hidden directories
// not entered, except the updater's own directories at the top; symbolic links to
// directories are not followed. A "*.bak" directory beside a file of its name without the
// suffix, or without anything of that name, is what an apply moved aside when the new build
// put a file where a directory was: it is collected, not entered.
void collectBackups(const QString& dir, bool top, QStringList& found)
{
    QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        if (info.isDir()) {
            if (info.isSymLink() || info.isJunction() || (info.isHidden() && !(top && isUpdaterDir(info.fileName()))))
                continue;
            if (isBackupName(info.fileName()) && !QFileInfo(info.filePath().chopped(kBackupSuffix.size())).isDir())
                found.append(info.filePath());
            else
                collectBackups(info.filePath(), false, found);
        } else if (info.isFile() && !info.isHidden() && isBackupName(info.fileName())) {
            found.append(info.filePath());
        }
    }
}

} // namespace

void repairInterruptedApply(UpdateSession& session)
{
    QStringList backups;
    collectBackups(session.appDir, true, backups);

    int restored = 0;
    int cleaned = 0;
    for (const QString& bak : backups) {
        const QString orig = bak.left(bak.size() - kBackupSuffix.size());
        if (QFileInfo::exists(orig)) {
            if (removeOwnPath(bak))
                ++cleaned;
        } else if (QFileInfo(bak).isDir() ? moveWithoutReplacing(bak, orig) : moveFileWriteThrough(bak, orig)) {
            ++restored;
            qWarning() << "[Update] CUU duoc file thieu sau lan ap bi cat ngang:" << orig;
        }
    }
    if (restored >= 1 || cleaned >= 1)
        qInfo() << "[Update] don .bak: khoi phuc" << restored << ", don rac" << cleaned;
}
