#include "apply/apply_transaction.h"

#include "apply/file_replacement.h"
#include "platform/file_replace.h"
#include "update/update_session.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPair>

namespace {

bool isUpdaterItself(const UpdateSession& session, const QString& relPath)
{
    // The whole relative path is compared, so only an entry at the top of the installation
    // can be the running executable.
    return !session.selfFileName.isEmpty() && relPath.compare(session.selfFileName, Qt::CaseInsensitive) == 0;
}

} // namespace

bool applyStagedFiles(UpdateSession& session, const QList<StagedFile>& staged)
{
    QList<QPair<QString, QString>> replaced;  // (backupPath, targetPath), in order of replacement
    QStringList added;
    bool ok = true;

    for (const StagedFile& file : staged) {
        // Checked again here so that no entry can name a file outside the installation.
        const QString safePath = safeRelativePath(file.relPath);
        if (safePath.isEmpty()) {
            qWarning() << "[Update] thay" << file.relPath << "that bai";
            ok = false;
            break;
        }
        const QString target = session.appDir + QLatin1Char('/') + safePath;

        if (isUpdaterItself(session, file.relPath)) {
            // The running executable cannot be replaced; its new version waits beside it.
            if (!moveFileWriteThrough(file.stagedPath, target + QStringLiteral(".new")))
                qWarning() << "[Update] ghi" << session.selfFileName + QStringLiteral(".new")
                           << "that bai (bo qua self-update)";
            continue;
        }

        QDir().mkpath(QFileInfo(target).path());
        if (!QFileInfo::exists(target)) {
            if (!moveFileWriteThrough(file.stagedPath, target)) {
                // The error code is taken after the items before it were written.
                qWarning() << "[Update] them moi" << file.relPath << "that bai, GetLastError="
                           << corv::platform::lastError();
                ok = false;
                break;
            }
            added.append(target);
            continue;
        }

        const QString backup = target + QStringLiteral(".bak");
        if (!replaceInstalledFile(file.stagedPath, target, backup)) {
            qWarning() << "[Update] thay" << file.relPath << "that bai";
            ok = false;
            break;
        }
        replaced.append({backup, target});
    }

    if (ok) {
        for (const auto& pair : replaced)
            QFile::remove(pair.first);
        return true;
    }

    qWarning() << "[Update] ap that bai -> ROLLBACK";
    // First to last, in the order the replacements were made.
    for (const auto& pair : replaced)
        moveFileWriteThrough(pair.first, pair.second);
    for (const QString& path : added)
        QFile::remove(path);
    return false;
}

void writeInstalledManifest(UpdateSession& session, const QByteArray& manifestBytes)
{
    QFile file(installedManifestPath(session.appDir));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(manifestBytes);
}
