// The apply transaction where a run of the updater cannot take it: file calls made to fail
// through the platform layer's failure injection, the rollback after them, and entries that a
// parsed manifest never holds.
#include "apply/apply_transaction.h"
#include "base/installation_dir.h"
#include "platform/file_replace.h"
#include "support/log_capture.h"
#include "update/update_session.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

using corv::platform::FileCall;

class ApplyTransactionTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup()
    {
        corv::platform::clearInjectedFileFailures();
        setInstallationDirForTesting(QString());
    }
    void apply_data();
    void apply();
};

void ApplyTransactionTest::apply_data()
{
    // Trees and staged files are blank-separated "path=content", "path" (content "old" when
    // installed, "new" when staged), "path->link target" or "path/" (an empty directory), the
    // expected tree in sorted order; staged files lie flat in .staging. Faults: "replace|move|renamed|synced
    // PATH CODE", PATH installed or "@path", the staged file of that path; "link" swaps .staging
    // for a link to a directory outside the installation. Updater.exe, the updater, is always there.
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("staged");
    QTest::addColumn<QStringList>("faults");
    QTest::addColumn<QStringList>("log");  // the run fails exactly when it ends in the rollback
    QTest::addColumn<QString>("after");
    const auto row = [](const char* name, const char* before, const char* staged, const QStringList& faults,
                        const QStringList& log, const char* after) {
        QTest::newRow(name) << QString(before) << QString(staged) << faults << log << QString(after);
    };
    const QString rollback = QStringLiteral("W [Update] ap that bai -> ROLLBACK");
    const QString refused = QStringLiteral("W [Update] them moi \"%1\" that bai, GetLastError= 5");
    row("replacement refused: two renames instead, over a stale backup", "a.dll a.dll.bak=stale", "a.dll",
        {"replace @a.dll 5"}, {"W [Update] ReplaceFile hong err= 5 -> da lui ve doi ten hai buoc, OK"}, ".staging/ a.dll=new");
    row("file held open: those before put back, those after untouched", "a.dll c.dll d.dll",
        "a.dll sub/b.dll c.dll d.dll e.dll", {"replace @c.dll 32", "move c.dll 32"},
        {"W [Update] ReplaceFile hong err= 32 va doi ten -> .bak cung hong err= 32 (32=file dang bi giu, 5=khong du "
         "quyen/AV)", "W [Update] thay \"c.dll\" that bai", rollback},
        ".staging/c.dll=new .staging/d.dll=new .staging/e.dll=new a.dll=old c.dll=old d.dll=old sub/");
    row("second rename refused: the old file moved back", "a.dll", "a.dll", {"replace @a.dll 5", "move @a.dll 112"},
        {"W [Update] ReplaceFile hong err= 5 va ghi ban moi cung hong err= 112", "W [Update] thay \"a.dll\" that bai",
         rollback}, ".staging/a.dll=new a.dll=old");
    row("a refused restore does not stop the rollback", "a.dll b.dll", "a.dll b.dll c.dll",
        {"move @c.dll 5", "move a.dll.bak 32"}, {refused.arg("c.dll"), rollback},
        ".staging/c.dll=new a.dll.bak=old a.dll=new b.dll=old");
    // The in-place replacement renamed the new file in and then failed: the fallback must not
    // move the new file over the only backup of the old one.
    row("replacement failing after its rename keeps the old copy", "a.dll b.dll", "a.dll b.dll c.dll",
        {"renamed @b.dll 0", "move @c.dll 5"},
        {"W [Update] ReplaceFile hong err= 536870917 -> da lui ve doi ten hai buoc, OK", refused.arg("c.dll"), rollback},
        ".staging/c.dll=new a.dll=old b.dll=old");
    row("a directory not synced after the moves: all undone", "a.dll sub/b.dll", "a.dll sub/b.dll c.dll",
        {"synced sub 5"}, {"W [Update] dong bo thu muc \"sub\" that bai, GetLastError= 5", rollback},
        ".staging/ a.dll=old sub/b.dll=old");
    row("updater's own new version refused: no failure", "a.dll", "updater.exe=next a.dll", {"move @updater.exe 5"},
        {"W [Update] ghi \"Updater.exe.new\" that bai (bo qua self-update)"}, ".staging/updater.exe=next a.dll=new");
    // Renamed out of a link, the files would come from anywhere.
    row("staging swapped for a link after the download", "a.dll", "a.dll", {"link"},
        {"W [Update] thay \"a.dll\" that bai", rollback}, ".staging->moved a.dll=old");
    // A link at the backup's name is nobody's backup: removed, never followed.
    row("directory becomes a file over a link at its backup's name, rolled back",
        "data/x.bin data/sub/y.bin elsewhere/z data.bak->elsewhere", "data z.dll", {"move @z.dll 5"},
        {refused.arg("z.dll"), rollback}, ".staging/z.dll=new data/sub/y.bin=old data/x.bin=old elsewhere/z=old");
    row("file becomes a directory over a stale backup, rolled back", "plugins plugins.bak=stale",
        "plugins/a/x.so plugins/y.so z.dll", {"move @z.dll 5"}, {refused.arg("z.dll"), rollback},
        ".staging/z.dll=new plugins=old");
    // Entries that leave the installation, are the updater's own or step on each other are
    // refused before anything moves.
    row("refused: out of the installation", "a.dll", "a.dll ../escaped.dll", {},
        {"W [Update] thay \"../escaped.dll\" that bai", rollback}, ".staging/.._escaped.dll=new .staging/a.dll=new a.dll=old");
    row("refused: a backup's name", "a.dll", "a.dll a.dll.bak", {}, {"W [Update] thay \"a.dll.bak\" that bai", rollback},
        ".staging/a.dll.bak=new .staging/a.dll=new a.dll=old");
    row("refused: one file under two names", "a.dll", "lib/A.dll LIB/a.dll", {},
        {"W [Update] thay \"LIB/a.dll\" that bai", rollback}, ".staging/LIB_a.dll=new .staging/lib_A.dll=new a.dll=old");
}

void ApplyTransactionTest::apply()
{
    QFETCH(QString, before);
    QFETCH(QString, staged);
    QFETCH(QStringList, faults);
    QFETCH(QStringList, log);
    QFETCH(QString, after);
    QTemporaryDir top;
    const QString dir = top.filePath(QStringLiteral("inst"));
    setInstallationDirForTesting(dir);
    const auto write = [](const QString& path, const QString& content) {
        QFile file(path);
        QVERIFY(QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content.toUtf8()), qint64(content.toUtf8().size()));
    };
    const auto stagedPath = [&dir](QString relPath) { return dir + "/.staging/" + relPath.replace('/', '_'); };
    write(dir + QStringLiteral("/Updater.exe"), QStringLiteral("running updater"));
    for (const QString& entry : before.split(' ')) {
        if (entry.contains(QLatin1String("->")))
            QVERIFY(QFile::link(entry.section(QLatin1String("->"), 1), dir + '/' + entry.section(QLatin1String("->"), 0, 0)));
        else
            write(dir + '/' + entry.section('=', 0, 0), entry.contains('=') ? entry.section('=', 1) : "old");
    }
    QList<StagedFile> files;
    for (const QString& entry : staged.split(' ')) {
        files.append({stagedPath(entry.section('=', 0, 0)), entry.section('=', 0, 0)});
        write(files.last().stagedPath, entry.contains('=') ? entry.section('=', 1) : "new");
    }
    for (const QString& fault : faults) {
        if (fault == QLatin1String("link")) {
            QVERIFY(QDir().rename(dir + QStringLiteral("/.staging"), top.filePath(QStringLiteral("moved"))));
            QVERIFY(QFile::link(top.filePath(QStringLiteral("moved")), dir + QStringLiteral("/.staging")));
            continue;
        }
        const QStringList parts = fault.split(' ');
        const QString source = parts[1].startsWith('@') ? stagedPath(parts[1].mid(1)) : dir + '/' + parts[1];
        const auto call = FileCall(QStringList{"replace", "move", "renamed", "synced"}.indexOf(parts[0]));  // in FileCall's order
        corv::platform::injectFileFailure(call, QDir::toNativeSeparators(source).toStdString(), parts[2].toULong());
    }
    UpdateSession session;
    session.appDir = dir;
    session.selfFileName = QStringLiteral("Updater.exe");

    LogCapture capture;
    QCOMPARE(applyStagedFiles(session, files), !log.contains(QStringLiteral("W [Update] ap that bai -> ROLLBACK")));
    QCOMPARE(capture.lines(), log);
    QStringList tree;
    QDirIterator it(dir, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        const QString rel = QDir(dir).relativeFilePath(info.filePath());
        QFile file(info.filePath());
        if (info.isSymLink())
            tree << rel + QStringLiteral("->") + info.symLinkTarget().section('/', -1);
        else if (info.isDir() && QDir(info.filePath()).isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden))
            tree << rel + '/';
        else if (!info.isDir() && file.open(QIODevice::ReadOnly))
            tree << rel + '=' + QString::fromUtf8(file.readAll());
    }
    tree.removeOne(QStringLiteral("Updater.exe=running updater"));
    tree.sort();
    QCOMPARE(tree.join(' '), after);
    // Nothing lands beside the installation.
    QCOMPARE(QDir(top.path()).entryList({QStringLiteral("*escaped*")}, QDir::AllEntries | QDir::Hidden), QStringList());
}

QTEST_GUILESS_MAIN(ApplyTransactionTest)
#include "tst_apply_transaction.moc"
