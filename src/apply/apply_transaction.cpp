#include "apply/apply_transaction.h"

#include "apply/file_replacement.h"
#include "base/own_files.h"
#include "platform/file_replace.h"
#include "update/update_session.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPair>
#include <QSet>

namespace {

const QLatin1String kBackupSuffix(".bak");

bool isUpdaterItself(const UpdateSession& session, const QString& relPath)
{
    // The whole relative path is compared, so only an entry at the top of the installation
    // can be the running executable.
    return !session.selfFileName.isEmpty() && relPath.compare(session.selfFileName, Qt::CaseInsensitive) == 0;
}

// What one apply has done so far, to be undone by a rollback.
struct Transaction {
    QList<QPair<QString, QString>> replaced;  // (backupPath, targetPath), in order of replacement
    QStringList added;
    // A build may change shape: an installed directory that becomes a file, or a file that
    // becomes a directory. The obstacle is moved aside to "<name>.bak" like a backup:
    // (asidePath, originalPath), in order.
    QList<QPair<QString, QString>> movedAside;
    // Directories that files may be moved into: each is cleared and made once, not once per file.
    QSet<QString> directoriesChecked;
    // The error of the move that failed, taken at once: on Windows the Qt calls made before it
    // is logged (thread-local lookups) reset GetLastError() to 0.
    unsigned long moveError = 0;

    // Moves whatever stands where `path` must be (a directory for a file, or a file for a
    // directory) aside. False when that move failed; `present` tells whether something of the
    // right shape is left there.
    bool clearShapeObstacle(const QString& path, bool wantDirectory, bool* present = nullptr)
    {
        const QFileInfo info(path);
        const bool exists = info.exists();
        if (present)
            *present = exists && info.isDir() == wantDirectory;
        // Nothing there, or the right shape already (a link to a directory counts as one).
        if ((!exists && !info.isSymLink()) || info.isDir() == wantDirectory)
            return true;
        const QString aside = path + kBackupSuffix;
        // A backup beside a file that exists is garbage, as in the repair; a link there is
        // nobody's backup (the repair never touches one), removed as a link.
        const QFileInfo asideInfo(aside);
        if (!info.isDir() || asideInfo.isSymLink() || asideInfo.isJunction())
            removeOwnPath(aside);
        if (!moveWithoutReplacing(path, aside)) {
            moveError = corv::platform::lastError();
            return false;
        }
        movedAside.append({aside, path});
        return true;
    }

    // Every directory above `target` that is a file in the installation is moved aside, and
    // the directories are made.
    bool clearParents(const QString& appDir, const QString& relPath)
    {
        const QStringList parts = relPath.split(QLatin1Char('/'));
        QString path = appDir;
        for (int i = 0; i + 1 < parts.size(); ++i) {
            path += QLatin1Char('/') + parts.at(i);
            if (directoriesChecked.contains(path))
                continue;
            if (!clearShapeObstacle(path, true))
                return false;
            QDir().mkpath(path);
            directoriesChecked.insert(path);
        }
        return true;
    }

    // Every replaced file is in place for good: the backups go, never through a link planted
    // since, read-only ones too (Windows keeps the attribute of the file it replaced).
    void commit()
    {
        for (const auto& pair : replaced)
            removeOwnPath(pair.first);
        for (const auto& pair : movedAside)
            removeOwnPath(pair.first);
    }

    void rollBack()
    {
        qWarning() << "[Update] ap that bai -> ROLLBACK";
        // First to last, in the order the replacements were made.
        for (const auto& pair : replaced)
            moveFileWriteThrough(pair.first, pair.second);
        for (const QString& path : added)
            QFile::remove(path);
        // Last to first: a file moved aside for a directory comes back once the directories
        // made in its place, empty again now, are gone.
        for (auto it = movedAside.crbegin(); it != movedAside.crend(); ++it) {
            removeEmptyDirectories(it->second);
            moveWithoutReplacing(it->first, it->second);
        }
        QString unsynced;
        endMoveBatch(&unsynced);
    }

    static void removeEmptyDirectories(const QString& path)
    {
        const QFileInfo info(path);
        if (!info.isDir() || info.isSymLink() || info.isJunction())
            return;
        const QStringList children = QDir(path).entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot);
        for (const QString& child : children)
            removeEmptyDirectories(path + QLatin1Char('/') + child);
        QDir().rmdir(path);
    }
};

// Checked again here, before anything is moved, so that no entry can name a file outside the
// installation or one of the updater's own files, and no two entries can step on each other.
bool isApplicable(const QList<StagedFile>& staged)
{
    QStringList paths;
    for (const StagedFile& file : staged) {
        if (safeRelativePath(file.relPath).isEmpty() || !reservedPathReason(file.relPath).isEmpty()) {
            qWarning() << "[Update] thay" << file.relPath << "that bai";
            return false;
        }
        paths.append(safeRelativePath(file.relPath));
    }
    QString conflicting;
    if (!pathSetConflict(paths, &conflicting).isEmpty()) {
        qWarning() << "[Update] thay" << conflicting << "that bai";
        return false;
    }
    return true;
}

} // namespace

bool applyStagedFiles(UpdateSession& session, const QList<StagedFile>& staged)
{
    if (!isApplicable(staged)) {
        qWarning() << "[Update] ap that bai -> ROLLBACK";
        return false;
    }
    Transaction transaction;
    bool ok = true;
    // Each directory is synced once, after its last move and before the backups go.
    beginMoveBatch();

    for (const StagedFile& file : staged) {
        const QString relPath = safeRelativePath(file.relPath);
        const QString target = session.appDir + QLatin1Char('/') + relPath;

        // The staged file is reached again without a link on the way, right before it moves: a
        // ".staging" swapped for a link after the download must not have a file from elsewhere
        // renamed into the installation (and so removed from where it was).
        if (ownFileSize(file.stagedPath) < 0) {
            qWarning() << "[Update] thay" << file.relPath << "that bai";
            ok = false;
            break;
        }

        if (isUpdaterItself(session, file.relPath)) {
            // The running executable cannot be replaced; its new version waits beside it.
            if (!moveFileWriteThrough(file.stagedPath, target + QStringLiteral(".new")))
                qWarning() << "[Update] ghi" << session.selfFileName + QStringLiteral(".new")
                           << "that bai (bo qua self-update)";
            continue;
        }

        bool present = false;
        if (!transaction.clearParents(session.appDir, relPath) || !transaction.clearShapeObstacle(target, false, &present)) {
            qWarning() << "[Update] them moi" << file.relPath << "that bai, GetLastError=" << transaction.moveError;
            ok = false;
            break;
        }
        if (!present) {
            if (!moveFileWriteThrough(file.stagedPath, target)) {
                const unsigned long error = corv::platform::lastError();
                qWarning() << "[Update] them moi" << file.relPath << "that bai, GetLastError=" << error;
                ok = false;
                break;
            }
            transaction.added.append(target);
            continue;
        }

        const QString backup = target + kBackupSuffix;
        if (!replaceInstalledFile(file.stagedPath, target, backup)) {
            qWarning() << "[Update] thay" << file.relPath << "that bai";
            ok = false;
            break;
        }
        transaction.replaced.append({backup, target});
    }

    QString unsynced;
    if (ok && !endMoveBatch(&unsynced)) {
        // The moves may not outlive a power loss: undone like a failed one, batched again.
        const unsigned long error = corv::platform::lastError();
        qWarning() << "[Update] dong bo thu muc" << QDir(session.appDir).relativeFilePath(unsynced)
                   << "that bai, GetLastError=" << error;
        ok = false;
        beginMoveBatch();
    }
    if (ok) {
        transaction.commit();
        return true;
    }
    transaction.rollBack();
    return false;
}

void writeInstalledManifest(UpdateSession& session, const QByteArray& manifestBytes)
{
    // Written whole in the updater's working directory, then renamed over the record with
    // write-through: a run cut short leaves the old record or the new one, never a torn one.
    const QString staging = stagingDir(session);
    const QString written = staging + QStringLiteral("/manifest.json");
    QFile file;
    if (makeOwnDirectory(staging) && openOwnFile(file, written, QIODevice::WriteOnly) && file.write(manifestBytes) == manifestBytes.size()
        && syncWrittenFile(file)) {
        file.close();
        moveFileWriteThrough(written, installedManifestPath(session.appDir));
    }
    file.close();
    removeOwnPath(written);
    QDir().rmdir(staging);
}
