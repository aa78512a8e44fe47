#include "apply/apply_transaction.h"
#include "base/installation_dir.h"
#include "platform/file_replace.h"
#include "support/log_capture.h"
#include "support/test_files.h"
#include "update/update_session.h"

#include <QDir>
#include <QDirIterator>
#include <QRegularExpression>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

using corv::platform::FileCall;

namespace {

const QByteArray kMissing("<missing>");

std::string native(const QString& path)
{
    return QDir::toNativeSeparators(path).toStdString();
}

} // namespace

class ApplyTransactionTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void everyFilePlaced();
    void updaterItself_data();
    void updaterItself();
    void updaterItselfFailingIsNoFailure();
    void failureRollsBack_data();
    void failureRollsBack();
    void rollbackGoesOnAfterAFailedRestore();
    void shapeChanges_data();
    void shapeChanges();
    void entriesThatStepOnEachOtherAreRefusedFirst_data();
    void entriesThatStepOnEachOtherAreRefusedFirst();
    void failureAfterTheRenameKeepsTheOnlyOldCopy();
    void hostilePathNeverLeavesTheInstallation_data();
    void hostilePathNeverLeavesTheInstallation();
    void installedManifest();

private:
    // Writes `content` as the staged file for relPath and returns its StagedFile.
    StagedFile stage(const QString& relPath, const QByteArray& content);
    QString installed(const QString& relPath) const { return dir->path() + QLatin1Char('/') + relPath; }

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<UpdateSession> session;
};

void ApplyTransactionTest::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
    session = std::make_unique<UpdateSession>();
    session->appDir = dir->path();
    session->selfFileName = QStringLiteral("Updater.exe");
    QVERIFY(writeFile(installed(QStringLiteral("Updater.exe")), "running updater"));
}

void ApplyTransactionTest::cleanup()
{
    corv::platform::clearInjectedFileFailures();
    setInstallationDirForTesting(QString());
    session.reset();
    dir.reset();
}

StagedFile ApplyTransactionTest::stage(const QString& relPath, const QByteArray& content)
{
    // Flat names: a staged file need not mirror its installed path.
    const QString path = dir->path() + QStringLiteral("/.staging/") + QString(relPath).replace(QLatin1Char('/'), QLatin1Char('_'));
    writeFile(path, content);
    return {path, relPath};
}

void ApplyTransactionTest::everyFilePlaced()
{
    QVERIFY(writeFile(installed("a.dll"), "old a"));
    QVERIFY(writeFile(installed("data/b.pak"), "old b"));
    const QList<StagedFile> staged{stage("a.dll", "new a"), stage("plugins/new/c.dll", "new c"),
                                   stage("data/b.pak", "new b")};
    LogCapture capture;
    QVERIFY(applyStagedFiles(*session, staged));
    QCOMPARE(capture.lines(), QStringList());
    QCOMPARE(readFile(installed("a.dll"), kMissing), QByteArray("new a"));
    QCOMPARE(readFile(installed("data/b.pak"), kMissing), QByteArray("new b"));
    QCOMPARE(readFile(installed("plugins/new/c.dll"), kMissing), QByteArray("new c"));
    // Backups are gone and the staging directory is empty of files.
    QCOMPARE(filesBelow(dir->path()),
             (QStringList{"Updater.exe", "a.dll", "data/b.pak", "plugins/new/c.dll"}));
}

void ApplyTransactionTest::updaterItself_data()
{
    QTest::addColumn<QString>("selfFileName");
    QTest::addColumn<QString>("relPath");
    QTest::addColumn<QStringList>("filesAfter");
    QTest::newRow("same case") << "Updater.exe" << "Updater.exe" << QStringList{"Updater.exe", "Updater.exe.new"};
    QTest::newRow("upper case") << "Updater.exe" << "UPDATER.EXE" << QStringList{"UPDATER.EXE.new", "Updater.exe"};
    QTest::newRow("lower case") << "Updater.exe" << "updater.exe" << QStringList{"Updater.exe", "updater.exe.new"};
    QTest::newRow("in a sub-directory: ordinary file")
        << "Updater.exe" << "tools/Updater.exe" << QStringList{"Updater.exe", "tools/Updater.exe"};
    QTest::newRow("no own name known: ordinary file") << "" << "Updater.exe" << QStringList{"Updater.exe"};
}

void ApplyTransactionTest::updaterItself()
{
    QFETCH(QString, selfFileName);
    QFETCH(QString, relPath);
    QFETCH(QStringList, filesAfter);
    session->selfFileName = selfFileName;
    const bool ordinary = filesAfter.size() == 1 || relPath.contains(QLatin1Char('/'));

    LogCapture capture;
    QVERIFY(applyStagedFiles(*session, {stage(relPath, "next updater")}));
    QCOMPARE(capture.lines(), QStringList());
    QCOMPARE(filesBelow(dir->path()), filesAfter);
    if (ordinary) {
        QCOMPARE(readFile(installed(relPath), kMissing), QByteArray("next updater"));
    } else {
        QCOMPARE(readFile(installed("Updater.exe"), kMissing), QByteArray("running updater"));
        QCOMPARE(readFile(installed(relPath + ".new"), kMissing), QByteArray("next updater"));
    }
}

void ApplyTransactionTest::updaterItselfFailingIsNoFailure()
{
    QVERIFY(writeFile(installed("a.dll"), "old a"));
    const StagedFile self = stage("updater.exe", "next updater");
    corv::platform::injectFileFailure(FileCall::MoveFile, native(self.stagedPath), 5);

    LogCapture capture;
    QVERIFY(applyStagedFiles(*session, {self, stage("a.dll", "new a")}));
    QCOMPARE(capture.lines(), QStringList{"W [Update] ghi \"Updater.exe.new\" that bai (bo qua self-update)"});
    QCOMPARE(readFile(installed("a.dll"), kMissing), QByteArray("new a"));
    QCOMPARE(readFile(installed("Updater.exe"), kMissing), QByteArray("running updater"));
    QVERIFY(!QFileInfo::exists(installed("updater.exe.new")));
}

void ApplyTransactionTest::failureRollsBack_data()
{
    QTest::addColumn<QString>("thirdPath");     // the entry that fails
    QTest::addColumn<bool>("thirdInstalled");   // an existing file (replacement) or a new one
    // 0: refused replacement, 1: refused move of a new file, 2: ".staging" swapped for a link to a
    // directory outside the installation after the download, -1: none
    QTest::addColumn<int>("fault");
    QTest::addColumn<QStringList>("log");
    QTest::newRow("replacement refused")
        << "c.dll" << true << 0
        << QStringList{"W [Update] ReplaceFile hong err= 32 va doi ten -> .bak cung hong err= 32 "
                       "(32=file dang bi giu, 5=khong du quyen/AV)",
                       "W [Update] thay \"c.dll\" that bai", "W [Update] ap that bai -> ROLLBACK"};
    QTest::newRow("new file refused")
        << "c.dll" << false << 1
        << QStringList{"W [Update] them moi \"c.dll\" that bai, GetLastError= 5", "W [Update] ap that bai -> ROLLBACK"};
    // Before, the files there were renamed into the installation: gone from where they were.
    QTest::newRow("staging swapped for a link") << "c.dll" << true << 2
                                                << QStringList{"W [Update] thay \"a.dll\" that bai", "W [Update] ap that bai -> ROLLBACK"};
}

void ApplyTransactionTest::failureRollsBack()
{
    QFETCH(QString, thirdPath);
    QFETCH(bool, thirdInstalled);
    QFETCH(int, fault);
    QFETCH(QStringList, log);
    QVERIFY(writeFile(installed("a.dll"), "old a"));
    QVERIFY(writeFile(installed("d.dll"), "old d"));
    if (thirdInstalled)
        QVERIFY(writeFile(installed(thirdPath), "old c"));
    const QList<StagedFile> staged{stage("a.dll", "new a"), stage("sub/b.dll", "new b"), stage(thirdPath, "new c"),
                                   stage("d.dll", "new d"), stage("e.dll", "new e")};
    if (fault == 0) {
        corv::platform::injectFileFailure(FileCall::ReplaceFile, native(staged[2].stagedPath), 32);
        corv::platform::injectFileFailure(FileCall::MoveFile, native(installed(thirdPath)), 32);
    } else if (fault == 1) {
        corv::platform::injectFileFailure(FileCall::MoveFile, native(staged[2].stagedPath), 5);
    }
    QTemporaryDir outside;
    if (fault == 2) {
        setInstallationDirForTesting(dir->path());
        QVERIFY(QDir().rename(dir->path() + QStringLiteral("/.staging"), outside.filePath(QStringLiteral("moved"))));
        QVERIFY(QFile::link(outside.filePath(QStringLiteral("moved")), dir->path() + QStringLiteral("/.staging")));
    }

    LogCapture capture;
    QVERIFY(!applyStagedFiles(*session, staged));
    QCOMPARE(capture.lines(), log);
    // The first file is back from its backup, the added second one deleted (its directory
    // stays), the third unchanged, the fourth and fifth never touched; through the link at
    // ".staging", nothing is touched at all.
    QCOMPARE(readFile(installed("a.dll"), kMissing), QByteArray("old a"));
    QVERIFY(!QFileInfo::exists(installed("sub/b.dll")));
    QCOMPARE(QFileInfo(installed("sub")).isDir(), fault != 2);
    QCOMPARE(readFile(installed(thirdPath), kMissing), thirdInstalled ? QByteArray("old c") : kMissing);
    QCOMPARE(readFile(installed("d.dll"), kMissing), QByteArray("old d"));
    QVERIFY(!QFileInfo::exists(installed("e.dll")));
    for (int i = 2; i < 5; ++i)
        QCOMPARE(readFile(staged[i].stagedPath, kMissing), QByteArray("new ") + "cde"[i - 2]);
    QCOMPARE(filesBelow(dir->path()).filter(QStringLiteral(".bak")), QStringList());
}

void ApplyTransactionTest::rollbackGoesOnAfterAFailedRestore()
{
    QVERIFY(writeFile(installed("a.dll"), "old a"));
    QVERIFY(writeFile(installed("b.dll"), "old b"));
    const QList<StagedFile> staged{stage("a.dll", "new a"), stage("b.dll", "new b"), stage("c.dll", "new c")};
    corv::platform::injectFileFailure(FileCall::MoveFile, native(staged[2].stagedPath), 5);
    corv::platform::injectFileFailure(FileCall::MoveFile, native(installed("a.dll.bak")), 32);

    QVERIFY(!applyStagedFiles(*session, staged));
    QCOMPARE(readFile(installed("a.dll"), kMissing), QByteArray("new a"));
    QCOMPARE(readFile(installed("a.dll.bak"), kMissing), QByteArray("old a"));
    QCOMPARE(readFile(installed("b.dll"), kMissing), QByteArray("old b"));
    QVERIFY(!QFileInfo::exists(installed("b.dll.bak")));
}

void ApplyTransactionTest::shapeChanges_data()
{
    // Trees as "path=content"; a path ending in "/" is an empty directory.
    QTest::addColumn<QStringList>("before");
    QTest::addColumn<QStringList>("staged");
    QTest::addColumn<QString>("failAt");  // the staged path whose move in is refused ("" for none)
    QTest::addColumn<QStringList>("after");
    const QStringList dirTree{"data/x.bin=old x", "data/sub/y.bin=old y", "keep.txt=k"};
    QTest::newRow("directory becomes a file")
        << dirTree << QStringList{"data=new data"} << "" << QStringList{"data=new data", "keep.txt=k"};
    QTest::newRow("directory becomes a file, rolled back")
        << dirTree << QStringList{"data=new data", "z.dll=new z"} << "z.dll" << dirTree;
    // A link planted at the backup's name is nobody's backup: before, every run failed on it for good.
    QTest::newRow("directory becomes a file, a link at its backup's name")
        << dirTree + QStringList{"elsewhere/z=z", "data.bak->elsewhere"} << QStringList{"data=new data"} << ""
        << QStringList{"data=new data", "keep.txt=k", "elsewhere/z=z"};
    const QStringList fileTree{"plugins=old plugins", "keep.txt=k"};
    QTest::newRow("file becomes a directory")
        << fileTree << QStringList{"plugins/a/x.so=new x", "plugins/y.so=new y"} << ""
        << QStringList{"keep.txt=k", "plugins/a/x.so=new x", "plugins/y.so=new y"};
    QTest::newRow("file becomes a directory, rolled back")
        << fileTree << QStringList{"plugins/a/x.so=new x", "plugins/y.so=new y", "z.dll=new z"} << "z.dll" << fileTree;
    QTest::newRow("file becomes a directory, its stale backup overwritten")
        << QStringList{"plugins=old plugins", "plugins.bak=stale"} << QStringList{"plugins/x.so=new x", "z.dll=new z"}
        << "z.dll" << QStringList{"plugins=old plugins"};
    QTest::newRow("both at once, rolled back")
        << QStringList{"a=old a", "b/c=old c", "d/e/f=old f"} << QStringList{"a/x=new x", "b=new b", "d/e=new e", "z=new z"}
        << "z" << QStringList{"a=old a", "b/c=old c", "d/e/f=old f"};
    // A directory of the application's own that a link stands for is left as the user made it.
    QTest::newRow("a file below a directory link")
        << QStringList{"real/x=old x", "linked->real"} << QStringList{"linked/x=new x"} << ""
        << QStringList{"linked->real", "real/x=new x"};
}

void ApplyTransactionTest::shapeChanges()
{
    QFETCH(QStringList, before);
    QFETCH(QStringList, staged);
    QFETCH(QString, failAt);
    QFETCH(QStringList, after);
    QVERIFY(QFile::remove(installed("Updater.exe")));
    const auto makeTree = [this](const QStringList& tree) {
        for (const QString& entry : tree) {
            if (entry.contains(QLatin1String("->")))
                QVERIFY(QFile::link(entry.section(QLatin1String("->"), 1), installed(entry.section(QLatin1String("->"), 0, 0))));
            else
                QVERIFY(writeFile(installed(entry.section(QLatin1Char('='), 0, 0)), entry.section(QLatin1Char('='), 1).toUtf8()));
        }
    };
    makeTree(before);
    QList<StagedFile> files;
    for (const QString& entry : staged) {
        files.append(stage(entry.section(QLatin1Char('='), 0, 0), entry.section(QLatin1Char('='), 1).toUtf8()));
        if (files.last().relPath == failAt)
            corv::platform::injectFileFailure(FileCall::MoveFile, native(files.last().stagedPath), 5);
    }
    QCOMPARE(applyStagedFiles(*session, files), failAt.isEmpty());
    QStringList tree;
    QDirIterator it(dir->path(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        const QString rel = QDir(dir->path()).relativeFilePath(info.filePath());
        if (rel.startsWith(QLatin1String(".staging")) || (info.isDir() && !info.isSymLink()))
            continue;
        tree.append(info.isSymLink() ? rel + QStringLiteral("->") + info.symLinkTarget().section(QLatin1Char('/'), -1)
                                     : rel + QLatin1Char('=') + QString::fromUtf8(readFile(info.filePath())));
    }
    tree.sort();
    QStringList expected = after;
    expected.sort();
    QCOMPARE(tree, expected);
    if (!failAt.isEmpty())
        QVERIFY(!QFileInfo(installed("plugins")).isDir() && !QFileInfo(installed("a")).isDir());
}

void ApplyTransactionTest::entriesThatStepOnEachOtherAreRefusedFirst_data()
{
    QTest::addColumn<QStringList>("paths");
    QTest::addColumn<QString>("named");
    QTest::newRow("one path twice") << QStringList{"a.dll", "b.dll", "a.dll"} << "a.dll";
    QTest::newRow("twice but for letter case") << QStringList{"lib/A.dll", "LIB/a.dll"} << "LIB/a.dll";
    QTest::newRow("a file and its directory") << QStringList{"a.dll", "a.dll/c.dll"} << "a.dll/c.dll";
    QTest::newRow("a backup's name") << QStringList{"a.dll", "a.dll.bak"} << "a.dll.bak";
}

void ApplyTransactionTest::entriesThatStepOnEachOtherAreRefusedFirst()
{
    QFETCH(QStringList, paths);
    QFETCH(QString, named);
    QVERIFY(writeFile(installed("a.dll"), "old a"));
    QList<StagedFile> files;
    for (const QString& path : paths)
        files.append(stage(path, "new " + path.toUtf8()));
    LogCapture capture;
    QVERIFY(!applyStagedFiles(*session, files));
    QCOMPARE(capture.lines(), (QStringList{"W [Update] thay \"" + named + "\" that bai", "W [Update] ap that bai -> ROLLBACK"}));
    QCOMPARE(filesBelow(dir->path()).filter(QRegularExpression(QStringLiteral("^[^.]"))), (QStringList{"Updater.exe", "a.dll"}));
    QCOMPARE(readFile(installed("a.dll"), kMissing), QByteArray("old a"));
}

void ApplyTransactionTest::failureAfterTheRenameKeepsTheOnlyOldCopy()
{
    // The in-place replacement renamed the new file in and then failed (a directory sync): the
    // fallback's renames must not move the new file over the backup of the old one.
    QVERIFY(writeFile(installed("a.dll"), "old a"));
    QVERIFY(writeFile(installed("b.dll"), "old b"));
    const QList<StagedFile> staged{stage("a.dll", "new a"), stage("b.dll", "new b"), stage("c.dll", "new c")};
    corv::platform::injectFileFailure(FileCall::ReplaceFileAfterRename, native(staged[1].stagedPath), 0);
    corv::platform::injectFileFailure(FileCall::MoveFile, native(staged[2].stagedPath), 5);
    QVERIFY(!applyStagedFiles(*session, staged));
    QCOMPARE(readFile(installed("a.dll"), kMissing), QByteArray("old a"));
    QCOMPARE(readFile(installed("b.dll"), kMissing), QByteArray("old b"));
    QCOMPARE(filesBelow(dir->path()).filter(QStringLiteral(".bak")), QStringList());
}

void ApplyTransactionTest::hostilePathNeverLeavesTheInstallation_data()
{
    QTest::addColumn<QString>("relPath");
    QTest::newRow("parent") << "../escaped.dll";
    QTest::newRow("inner parent") << "sub/../../escaped.dll";
    QTest::newRow("absolute") << "/escaped.dll";
    QTest::newRow("drive") << "C:escaped.dll";
}

void ApplyTransactionTest::hostilePathNeverLeavesTheInstallation()
{
    QFETCH(QString, relPath);
    QVERIFY(writeFile(installed("a.dll"), "old a"));
    const StagedFile hostile{dir->path() + QStringLiteral("/.staging/hostile"), relPath};
    QVERIFY(writeFile(hostile.stagedPath, "payload"));
    const QString parentDir = QFileInfo(dir->path()).path();

    LogCapture capture;
    QVERIFY(!applyStagedFiles(*session, {stage("a.dll", "new a"), hostile}));
    QCOMPARE(capture.lines(), (QStringList{"W [Update] thay \"" + relPath + "\" that bai",
                                           "W [Update] ap that bai -> ROLLBACK"}));
    QVERIFY(!QFileInfo::exists(parentDir + QStringLiteral("/escaped.dll")));
    QVERIFY(!QFileInfo::exists(QStringLiteral("/escaped.dll")));
    QCOMPARE(readFile(installed("a.dll"), kMissing), QByteArray("old a"));
    QCOMPARE(readFile(hostile.stagedPath, kMissing), QByteArray("payload"));
}

void ApplyTransactionTest::installedManifest()
{
    const QString path = installed("manifest.json");
    QVERIFY(writeFile(path, QByteArray(5000, 'o')));
    const QByteArray bytes("{\"fullVersion\": \"5.1\",\r\n \"files\": []}\n");
    writeInstalledManifest(*session, bytes);
    QCOMPARE(readFile(path, kMissing), bytes);

    // A directory in its place: nothing written, nothing thrown.
    QVERIFY(QFile::remove(path));
    QVERIFY(QDir().mkpath(path));
    writeInstalledManifest(*session, bytes);
    QVERIFY(QFileInfo(path).isDir());
}

QTEST_GUILESS_MAIN(ApplyTransactionTest)
#include "tst_apply_transaction.moc"
