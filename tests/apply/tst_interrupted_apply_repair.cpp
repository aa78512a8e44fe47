#include "apply/interrupted_apply_repair.h"
#include "platform/file_replace.h"
#include "support/log_capture.h"
#include "support/test_files.h"
#include "update/update_session.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

namespace {

using Files = QMap<QString, QByteArray>;  // relative path -> content

// Every file below dir, hidden ones included, links not followed.
Files snapshot(const QString& dir)
{
    Files files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile f(it.next());
        files.insert(QDir(dir).relativeFilePath(f.fileName()), f.open(QIODevice::ReadOnly) ? f.readAll() : "<unreadable>");
    }
    return files;
}

} // namespace

class InterruptedApplyRepairTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { corv::platform::clearInjectedFileFailures(); }
    void repair_data();
    void repair();
    void linkedDirectoryNotFollowed();
    void failedRestoreIsSilent();
};

void InterruptedApplyRepairTest::repair_data()
{
    QTest::addColumn<Files>("before");
    QTest::addColumn<Files>("after");
    QTest::addColumn<QStringList>("restoredPaths");  // named in the warning lines, any order
    QTest::addColumn<QString>("summary");            // empty: no summary line

    QTest::newRow("no backup")
        << Files{{"a.dll", "a"}, {"lib/core.dll", "c"}} << Files{{"a.dll", "a"}, {"lib/core.dll", "c"}}
        << QStringList() << QString();
    QTest::newRow("backup beside its file")
        << Files{{"lib/core.dll", "new"}, {"lib/core.dll.bak", "old"}} << Files{{"lib/core.dll", "new"}}
        << QStringList() << "I [Update] don .bak: khoi phuc 0 , don rac 1";
    QTest::newRow("backup without its file")
        << Files{{"lib/core.dll.bak", "old"}} << Files{{"lib/core.dll", "old"}} << QStringList{"lib/core.dll"}
        << "I [Update] don .bak: khoi phuc 1 , don rac 0";
    QTest::newRow("upper-case suffix restored")
        << Files{{"DATA.BAK", "old data"}} << Files{{"DATA", "old data"}} << QStringList{"DATA"}
        << "I [Update] don .bak: khoi phuc 1 , don rac 0";
    QTest::newRow("mixed-case suffix cleaned")
        << Files{{"Data.pak", "new"}, {"Data.pak.BaK", "old"}} << Files{{"Data.pak", "new"}} << QStringList()
        << "I [Update] don .bak: khoi phuc 0 , don rac 1";
    QTest::newRow("application's own backup treated alike")
        << Files{{"config/settings.ini.bak", "user"}} << Files{{"config/settings.ini", "user"}}
        << QStringList{"config/settings.ini"} << "I [Update] don .bak: khoi phuc 1 , don rac 0";
    QTest::newRow("update cache and staging walked")
        << Files{{".update-cache/1.0/files/a.dll.bak", "x"}, {".staging/b.dll", "b"}, {".staging/b.dll.bak", "y"}}
        << Files{{".update-cache/1.0/files/a.dll", "x"}, {".staging/b.dll", "b"}}
        << QStringList{".update-cache/1.0/files/a.dll"} << "I [Update] don .bak: khoi phuc 1 , don rac 1";
    QTest::newRow("hidden files and directories skipped")
        << Files{{".hidden.bak", "h"}, {".config/x.bak", "c"}, {"lib/.y.bak", "y"}, {".update-cache/.tmp/z.bak", "z"},
                 {"lib/.git/objects/o.bak", "o"}}
        << Files{{".hidden.bak", "h"}, {".config/x.bak", "c"}, {"lib/.y.bak", "y"}, {".update-cache/.tmp/z.bak", "z"},
                 {"lib/.git/objects/o.bak", "o"}}
        << QStringList() << QString();
    // What an apply moved aside when the new build put a file where a directory was.
    QTest::newRow("directory moved aside, its file never placed")
        << Files{{"data.bak/x.bin", "x0"}, {"data.bak/sub/y.bin", "y0"}} << Files{{"data/x.bin", "x0"}, {"data/sub/y.bin", "y0"}}
        << QStringList{"data"} << "I [Update] don .bak: khoi phuc 1 , don rac 0";
    QTest::newRow("directory moved aside, its file placed")
        << Files{{"data", "new"}, {"data.bak/x.bin", "x0"}, {"data.bak/z.bin.bak", "z0"}} << Files{{"data", "new"}}
        << QStringList() << "I [Update] don .bak: khoi phuc 0 , don rac 1";
    QTest::newRow("file moved aside, its directory made")
        << Files{{"plugins.bak", "old"}, {"plugins/x.so", "new"}} << Files{{"plugins/x.so", "new"}}
        << QStringList() << "I [Update] don .bak: khoi phuc 0 , don rac 1";
    QTest::newRow("other suffixes ignored")
        << Files{{"a.bak.txt", "1"}, {"b.bakk", "2"}, {"cbak", "3"}} << Files{{"a.bak.txt", "1"}, {"b.bakk", "2"}, {"cbak", "3"}}
        << QStringList() << QString();
    QTest::newRow("several at several depths")
        << Files{{"a.dll.bak", "a0"}, {"a.dll", "a1"}, {"x/y/z/deep.bin.bak", "d0"}, {"x/y/keep.bin", "k"},
                 {"x/y/keep.bin.bak", "k0"}, {"top.exe.bak", "t0"}}
        << Files{{"a.dll", "a1"}, {"x/y/z/deep.bin", "d0"}, {"x/y/keep.bin", "k"}, {"top.exe", "t0"}}
        << QStringList{"top.exe", "x/y/z/deep.bin"} << "I [Update] don .bak: khoi phuc 2 , don rac 2";
}

void InterruptedApplyRepairTest::repair()
{
    QFETCH(Files, before);
    QFETCH(Files, after);
    QFETCH(QStringList, restoredPaths);
    QFETCH(QString, summary);
    QTemporaryDir dir;
    for (auto it = before.cbegin(); it != before.cend(); ++it)
        QVERIFY(writeFile(dir.filePath(it.key()), it.value()));
    // A directory named like a backup beside a directory of its name is no candidate.
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("folder.bak/inner")));
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("folder")));
    UpdateSession session;
    session.appDir = dir.path();

    LogCapture capture;
    repairInterruptedApply(session);

    QStringList expected;
    for (const QString& path : restoredPaths)
        expected.append("W [Update] CUU duoc file thieu sau lan ap bi cat ngang: \"" + dir.path() + '/' + path + '"');
    QStringList lines = capture.lines();
    if (!summary.isEmpty()) {
        QVERIFY(!lines.isEmpty());
        QCOMPARE(lines.takeLast(), summary);
    }
    lines.sort();
    QCOMPARE(lines, expected);
    QCOMPARE(snapshot(dir.path()), after);
    QVERIFY(QFileInfo(dir.filePath(QStringLiteral("folder.bak/inner"))).isDir());
    QVERIFY(QFileInfo(dir.filePath(QStringLiteral("folder.bak/inner"))).isDir());
}

void InterruptedApplyRepairTest::linkedDirectoryNotFollowed()
{
    QTemporaryDir dir;
    QTemporaryDir outside;
    QVERIFY(writeFile(outside.filePath(QStringLiteral("other.dll.bak")), "not ours"));
    QVERIFY(writeFile(outside.filePath(QStringLiteral("twin.dll.bak")), "not ours"));
    QVERIFY(writeFile(outside.filePath(QStringLiteral("twin.dll")), "beside"));
    QVERIFY(QFile::link(outside.path(), dir.filePath(QStringLiteral("linked"))));
    QVERIFY(QFile::link(outside.path(), dir.filePath(QStringLiteral(".update-cache"))));
    UpdateSession session;
    session.appDir = dir.path();

    LogCapture capture;
    repairInterruptedApply(session);
    QCOMPARE(capture.lines(), QStringList());
    QCOMPARE(snapshot(outside.path()),
             (Files{{"other.dll.bak", "not ours"}, {"twin.dll.bak", "not ours"}, {"twin.dll", "beside"}}));
}

void InterruptedApplyRepairTest::failedRestoreIsSilent()
{
    QTemporaryDir dir;
    const QString bak = dir.filePath(QStringLiteral("core.dll.bak"));
    QVERIFY(writeFile(bak, "old"));
    corv::platform::injectFileFailure(corv::platform::FileCall::MoveFile, QDir::toNativeSeparators(bak).toStdString(), 32);
    UpdateSession session;
    session.appDir = dir.path();

    LogCapture capture;
    repairInterruptedApply(session);
    QCOMPARE(capture.lines(), QStringList());
    QCOMPARE(snapshot(dir.path()), (Files{{"core.dll.bak", "old"}}));
}

QTEST_GUILESS_MAIN(InterruptedApplyRepairTest)
#include "tst_interrupted_apply_repair.moc"
