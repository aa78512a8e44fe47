#include "platform/file_replace.h"

#include "support/test_files.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace corv::platform;

namespace {

const QByteArray kMissing("<missing>");

std::string utf8(const QString& path)
{
    return path.toStdString();
}

} // namespace

class FileReplaceTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { clearInjectedFileFailures(); }

    void replaceKeepsOldContentAsBackup_data();
    void replaceKeepsOldContentAsBackup();
    void replaceCarriesPermissionsOver();
    void replaceFailures_data();
    void replaceFailures();
    void moveReplacesExisting_data();
    void moveReplacesExisting();
    void moveFailures_data();
    void moveFailures();
    void moveAcrossFileSystemsIsRefused();
    void injectedFailures();
};

void FileReplaceTest::replaceKeepsOldContentAsBackup_data()
{
    QTest::addColumn<QString>("backupBefore");  // "", "file" or "link" (a hard link to the target)
    QTest::addColumn<QString>("name");
    QTest::newRow("no backup yet") << "" << "core.dll";
    QTest::newRow("stale backup overwritten") << "file" << "core.dll";
    QTest::newRow("backup already the same file") << "link" << "core.dll";
    QTest::newRow("utf-8 name") << "" << QString::fromUtf8("tệp cũ.dll");
}

void FileReplaceTest::replaceKeepsOldContentAsBackup()
{
    QFETCH(QString, backupBefore);
    QFETCH(QString, name);
    QTemporaryDir dir;
    const QString target = dir.filePath(name);
    const QString replacement = dir.filePath(QStringLiteral("staged.new"));
    const QString backup = target + QStringLiteral(".bak");
    QVERIFY(writeFile(target, "old"));
    QVERIFY(writeFile(replacement, "new content"));
    if (backupBefore == QLatin1String("file"))
        QVERIFY(writeFile(backup, "stale backup"));
    if (backupBefore == QLatin1String("link"))
        QCOMPARE(::link(utf8(target).c_str(), utf8(backup).c_str()), 0);

    QVERIFY(replaceFile(utf8(target), utf8(replacement), utf8(backup)));
    QCOMPARE(readFile(target, kMissing), QByteArray("new content"));
    QCOMPARE(readFile(backup, kMissing), QByteArray("old"));
    QVERIFY(!QFileInfo::exists(replacement));
    // Nothing else is left behind in the directory.
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 2);
}

void FileReplaceTest::replaceCarriesPermissionsOver()
{
    QTemporaryDir dir;
    const QString target = dir.filePath(QStringLiteral("tool"));
    const QString replacement = dir.filePath(QStringLiteral("tool.staged"));
    QVERIFY(writeFile(target, "#!/bin/sh\n"));
    QVERIFY(writeFile(replacement, "#!/bin/sh\necho new\n"));
    QCOMPARE(::chmod(utf8(target).c_str(), 0750), 0);
    QCOMPARE(::chmod(utf8(replacement).c_str(), 0600), 0);

    QVERIFY(replaceFile(utf8(target), utf8(replacement), utf8(target + QStringLiteral(".bak"))));
    struct stat info {};
    QCOMPARE(::stat(utf8(target).c_str(), &info), 0);
    QCOMPARE(int(info.st_mode & 07777), 0750);
}

void FileReplaceTest::replaceFailures_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("replacement");
    QTest::addColumn<QString>("backup");
    QTest::addColumn<qulonglong>("error");
    // "installed" and "staged" exist as files, "folder" as a directory.
    QTest::newRow("target missing") << "missing" << "staged" << "missing.bak" << 2ull;
    QTest::newRow("replacement missing") << "installed" << "nothing" << "installed.bak" << 2ull;
    QTest::newRow("target is a directory") << "folder" << "staged" << "folder.bak" << 5ull;
    QTest::newRow("path through a file") << "installed/x" << "staged" << "x.bak" << 3ull;
    QTest::newRow("backup directory missing") << "installed" << "staged" << "gone/installed.bak" << 2ull;
}

void FileReplaceTest::replaceFailures()
{
    QFETCH(QString, target);
    QFETCH(QString, replacement);
    QFETCH(QString, backup);
    QFETCH(qulonglong, error);
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath(QStringLiteral("installed")), "old"));
    QVERIFY(writeFile(dir.filePath(QStringLiteral("staged")), "new"));
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("folder")));

    QVERIFY(!replaceFile(utf8(dir.filePath(target)), utf8(dir.filePath(replacement)), utf8(dir.filePath(backup))));
    QCOMPARE(qulonglong(lastError()), error);
    QCOMPARE(readFile(dir.filePath(QStringLiteral("installed")), kMissing), QByteArray("old"));
    QCOMPARE(readFile(dir.filePath(QStringLiteral("staged")), kMissing), QByteArray("new"));
    QVERIFY(QFileInfo(dir.filePath(QStringLiteral("folder"))).isDir());
}

void FileReplaceTest::moveReplacesExisting_data()
{
    QTest::addColumn<QString>("to");
    QTest::addColumn<bool>("toExists");
    QTest::newRow("new name") << "fresh.txt" << false;
    QTest::newRow("over an existing file") << "existing.txt" << true;
    QTest::newRow("into a sub-directory") << "sub/moved.txt" << false;
    QTest::newRow("utf-8 name") << QString::fromUtf8("thư mục/tệp mới.dll") << false;
}

void FileReplaceTest::moveReplacesExisting()
{
    QFETCH(QString, to);
    QFETCH(bool, toExists);
    QTemporaryDir dir;
    QVERIFY(QDir(dir.path()).mkpath(QFileInfo(dir.filePath(to)).path()));
    const QString from = dir.filePath(QStringLiteral("source.txt"));
    QVERIFY(writeFile(from, "moved bytes"));
    if (toExists)
        QVERIFY(writeFile(dir.filePath(to), "previous"));

    QVERIFY(moveFileReplaceWriteThrough(utf8(from), utf8(dir.filePath(to))));
    QVERIFY(!QFileInfo::exists(from));
    QCOMPARE(readFile(dir.filePath(to), kMissing), QByteArray("moved bytes"));
}

void FileReplaceTest::moveFailures_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::addColumn<qulonglong>("error");
    // "file" exists; "folder" is a directory holding "inner".
    QTest::newRow("source missing") << "absent" << "target" << 2ull;
    QTest::newRow("destination is a directory") << "file" << "folder" << 5ull;
    QTest::newRow("destination is an empty directory") << "file" << "empty" << 5ull;
    QTest::newRow("destination directory missing") << "file" << "nowhere/target" << 2ull;
    QTest::newRow("destination through a file") << "file" << "file/target" << 3ull;
}

void FileReplaceTest::moveFailures()
{
    QFETCH(QString, from);
    QFETCH(QString, to);
    QFETCH(qulonglong, error);
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath(QStringLiteral("file")), "content"));
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("folder")));
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("empty")));
    QVERIFY(writeFile(dir.filePath(QStringLiteral("folder/inner")), "inner"));

    QVERIFY(!moveFileReplaceWriteThrough(utf8(dir.filePath(from)), utf8(dir.filePath(to))));
    QCOMPARE(qulonglong(lastError()), error);
    QCOMPARE(readFile(dir.filePath(QStringLiteral("file")), kMissing), QByteArray("content"));
    QVERIFY(QFileInfo(dir.filePath(QStringLiteral("empty"))).isDir());
    QCOMPARE(readFile(dir.filePath(QStringLiteral("folder/inner")), kMissing), QByteArray("inner"));
}

void FileReplaceTest::moveAcrossFileSystemsIsRefused()
{
    QTemporaryDir dir;
    QTemporaryDir other(QStringLiteral("/dev/shm/corv-move-XXXXXX"));
    struct stat a {};
    struct stat b {};
    if (!other.isValid() || ::stat(utf8(dir.path()).c_str(), &a) != 0 || ::stat(utf8(other.path()).c_str(), &b) != 0
        || a.st_dev == b.st_dev)
        QSKIP("no second file system at hand");
    const QString from = dir.filePath(QStringLiteral("file"));
    QVERIFY(writeFile(from, "content"));
    // No silent copy: like a rename without MOVEFILE_COPY_ALLOWED it fails with ERROR_NOT_SAME_DEVICE.
    QVERIFY(!moveFileReplaceWriteThrough(utf8(from), utf8(other.filePath(QStringLiteral("file")))));
    QCOMPARE(qulonglong(lastError()), 17ull);
    QVERIFY(QFileInfo::exists(from));
}

void FileReplaceTest::injectedFailures()
{
    QTemporaryDir dir;
    const QString target = dir.filePath(QStringLiteral("target"));
    const QString staged = dir.filePath(QStringLiteral("staged"));
    const QString other = dir.filePath(QStringLiteral("other"));
    QVERIFY(writeFile(target, "old"));
    QVERIFY(writeFile(staged, "new"));
    QVERIFY(writeFile(other, "other"));

    injectFileFailure(FileCall::ReplaceFile, utf8(staged), 32);
    injectFileFailure(FileCall::MoveFile, utf8(target), 5);

    // The injected failure hits only its own call and source path, every time, without
    // touching the disk.
    for (int attempt = 0; attempt < 2; ++attempt) {
        QVERIFY(!replaceFile(utf8(target), utf8(staged), utf8(target + QStringLiteral(".bak"))));
        QCOMPARE(lastError(), 32ul);
        QVERIFY(!moveFileReplaceWriteThrough(utf8(target), utf8(target + QStringLiteral(".bak"))));
        QCOMPARE(lastError(), 5ul);
    }
    QCOMPARE(readFile(target, kMissing), QByteArray("old"));
    QCOMPARE(readFile(staged, kMissing), QByteArray("new"));
    QVERIFY(!QFileInfo::exists(target + QStringLiteral(".bak")));

    QVERIFY(moveFileReplaceWriteThrough(utf8(staged), utf8(dir.filePath(QStringLiteral("moved")))));
    QVERIFY(replaceFile(utf8(other), utf8(dir.filePath(QStringLiteral("moved"))), std::string()));
    QCOMPARE(readFile(other, kMissing), QByteArray("new"));

    clearInjectedFileFailures();
    QVERIFY(moveFileReplaceWriteThrough(utf8(target), utf8(target + QStringLiteral(".bak"))));
}

QTEST_GUILESS_MAIN(FileReplaceTest)
#include "tst_file_replace.moc"
