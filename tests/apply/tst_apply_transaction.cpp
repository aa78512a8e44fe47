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
    // Trees as "path=content", "path->link target" or "path/" (an empty directory); staged files
    // as "path=content", kept flat in .staging. Faults: "replace|move|renamed PATH CODE", PATH an
    // installed path or "@path", the staged file of that path; "link" swaps .staging for a link
    // to a directory outside the installation. The updater itself, Updater.exe, is always there.
    QTest::addColumn<QStringList>("before");
    QTest::addColumn<QStringList>("staged");
    QTest::addColumn<QStringList>("faults");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("log");
    QTest::addColumn<QStringList>("after");

    const QString rollback = QStringLiteral("W [Update] ap that bai -> ROLLBACK");
    const QStringList five{"a.dll=new a", "sub/b.dll=new b", "c.dll=new c", "d.dll=new d", "e.dll=new e"};
    QTest::newRow("replacement refused: two renames instead, over a stale backup")
        << QStringList{"a.dll=old a", "a.dll.bak=stale"} << QStringList{"a.dll=new a"}
        << QStringList{"replace @a.dll 5"}
        << true << QStringList{"W [Update] ReplaceFile hong err= 5 -> da lui ve doi ten hai buoc, OK"}
        << QStringList{".staging/", "a.dll=new a"};
    QTest::newRow("file held open: the ones before are put back, the ones after untouched")
        << QStringList{"a.dll=old a", "c.dll=old c", "d.dll=old d"} << five
        << QStringList{"replace @c.dll 32", "move c.dll 32"} << false
        << QStringList{"W [Update] ReplaceFile hong err= 32 va doi ten -> .bak cung hong err= 32 "
                       "(32=file dang bi giu, 5=khong du quyen/AV)",
                       "W [Update] thay \"c.dll\" that bai", rollback}
        << QStringList{".staging/c.dll=new c", ".staging/d.dll=new d", ".staging/e.dll=new e", "a.dll=old a",
                       "c.dll=old c", "d.dll=old d", "sub/"};
    QTest::newRow("new file refused")
        << QStringList{"a.dll=old a", "d.dll=old d"} << five << QStringList{"move @c.dll 5"} << false
        << QStringList{"W [Update] them moi \"c.dll\" that bai, GetLastError= 5", rollback}
        << QStringList{".staging/c.dll=new c", ".staging/d.dll=new d", ".staging/e.dll=new e", "a.dll=old a",
                       "d.dll=old d", "sub/"};
    QTest::newRow("second rename refused: the old file moved back")
        << QStringList{"a.dll=old a"} << QStringList{"a.dll=new a"}
        << QStringList{"replace @a.dll 5", "move @a.dll 112"}
        << false << QStringList{"W [Update] ReplaceFile hong err= 5 va ghi ban moi cung hong err= 112",
                                "W [Update] thay \"a.dll\" that bai", rollback}
        << QStringList{".staging/a.dll=new a", "a.dll=old a"};
    QTest::newRow("second rename and the move back refused: the old file stays as its backup")
        << QStringList{"a.dll=old a"} << QStringList{"a.dll=new a"}
        << QStringList{"replace @a.dll 5", "move @a.dll 112", "move a.dll.bak 32"} << false
        << QStringList{"W [Update] ReplaceFile hong err= 5 va ghi ban moi cung hong err= 112",
                       "W [Update] thay \"a.dll\" that bai", rollback}
        << QStringList{".staging/a.dll=new a", "a.dll.bak=old a"};
    QTest::newRow("a refused restore does not stop the rollback")
        << QStringList{"a.dll=old a", "b.dll=old b"} << QStringList{"a.dll=new a", "b.dll=new b", "c.dll=new c"}
        << QStringList{"move @c.dll 5", "move a.dll.bak 32"} << false
        << QStringList{"W [Update] them moi \"c.dll\" that bai, GetLastError= 5", rollback}
        << QStringList{".staging/c.dll=new c", "a.dll.bak=old a", "a.dll=new a", "b.dll=old b"};
    // The in-place replacement renamed the new file in and then failed: the fallback must not
    // move the new file over the only backup of the old one.
    QTest::newRow("replacement failing after its rename keeps the old copy")
        << QStringList{"a.dll=old a", "b.dll=old b"} << QStringList{"a.dll=new a", "b.dll=new b", "c.dll=new c"}
        << QStringList{"renamed @b.dll 0", "move @c.dll 5"} << false
        << QStringList{"W [Update] ReplaceFile hong err= 536870917 -> da lui ve doi ten hai buoc, OK",
                       "W [Update] them moi \"c.dll\" that bai, GetLastError= 5", rollback}
        << QStringList{".staging/c.dll=new c", "a.dll=old a", "b.dll=old b"};
    QTest::newRow("updater's own new version refused: no failure")
        << QStringList{"a.dll=old a"} << QStringList{"updater.exe=next updater", "a.dll=new a"}
        << QStringList{"move @updater.exe 5"} << true
        << QStringList{"W [Update] ghi \"Updater.exe.new\" that bai (bo qua self-update)"}
        << QStringList{".staging/updater.exe=next updater", "a.dll=new a"};
    // Renamed out of a link, the files would come from anywhere.
    QTest::newRow("staging swapped for a link after the download")
        << QStringList{"a.dll=old a"} << QStringList{"a.dll=new a"} << QStringList{"link"} << false
        << QStringList{"W [Update] thay \"a.dll\" that bai", rollback} << QStringList{".staging->moved", "a.dll=old a"};
    QTest::newRow("directory becomes a file, rolled back")
        << QStringList{"data/x.bin=old x", "data/sub/y.bin=old y"} << QStringList{"data=new data", "z.dll=new z"}
        << QStringList{"move @z.dll 5"} << false
        << QStringList{"W [Update] them moi \"z.dll\" that bai, GetLastError= 5", rollback}
        << QStringList{".staging/z.dll=new z", "data/sub/y.bin=old y", "data/x.bin=old x"};
    QTest::newRow("file becomes a directory")
        << QStringList{"plugins=old plugins"} << QStringList{"plugins/a/x.so=new x", "plugins/y.so=new y"}
        << QStringList()
        << true << QStringList() << QStringList{".staging/", "plugins/a/x.so=new x", "plugins/y.so=new y"};
    QTest::newRow("file becomes a directory over a stale backup, rolled back")
        << QStringList{"plugins=old plugins", "plugins.bak=stale"} << QStringList{"plugins/x.so=new x", "z.dll=new z"}
        << QStringList{"move @z.dll 5"} << false
        << QStringList{"W [Update] them moi \"z.dll\" that bai, GetLastError= 5", rollback}
        << QStringList{".staging/z.dll=new z", "plugins=old plugins"};
    // A link at the backup's name is nobody's backup.
    QTest::newRow("a link at the backup's name")
        << QStringList{"data/x.bin=old x", "elsewhere/z=z", "data.bak->elsewhere"} << QStringList{"data=new data"}
        << QStringList() << true << QStringList() << QStringList{".staging/", "data=new data", "elsewhere/z=z"};
    // Entries that step on each other, or leave the installation, are refused before anything moves.
    const QStringList untouched{"a.dll=old a"};
    for (const auto& [paths, named] : {std::pair{QStringList{"a.dll", "b.dll", "a.dll"}, "a.dll"},
                                       {QStringList{"lib/A.dll", "LIB/a.dll"}, "LIB/a.dll"},
                                       {QStringList{"a.dll", "a.dll/c.dll"}, "a.dll/c.dll"},
                                       {QStringList{"a.dll", "a.dll.bak"}, "a.dll.bak"},
                                       {QStringList{"a.dll", "../escaped.dll"}, "../escaped.dll"},
                                       {QStringList{"a.dll", "/escaped.dll"}, "/escaped.dll"},
                                       {QStringList{"a.dll", "C:escaped.dll"}, "C:escaped.dll"}}) {
        QStringList staged;
        QStringList after = untouched;
        for (const QString& path : paths) {
            staged << path + QStringLiteral("=new");
            after << QStringLiteral(".staging/") + QString(path).replace(QLatin1Char('/'), QLatin1Char('_'))
                         + QStringLiteral("=new");
        }
        after.removeDuplicates();
        QTest::addRow("refused: %s", qPrintable(paths.join(QLatin1String(", "))))
            << untouched << staged << QStringList() << false
            << QStringList{QStringLiteral("W [Update] thay \"%1\" that bai").arg(named), rollback} << after;
    }
}

void ApplyTransactionTest::apply()
{
    QFETCH(QStringList, before);
    QFETCH(QStringList, staged);
    QFETCH(QStringList, faults);
    QFETCH(bool, result);
    QFETCH(QStringList, log);
    QFETCH(QStringList, after);
    QTemporaryDir top;
    const QString dir = top.filePath(QStringLiteral("inst"));
    setInstallationDirForTesting(dir);
    const auto write = [](const QString& path, const QByteArray& content) {
        QFile file(path);
        QVERIFY(QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), qint64(content.size()));
    };
    write(dir + QStringLiteral("/Updater.exe"), "running updater");
    for (const QString& entry : before) {
        if (entry.contains(QLatin1String("->")))
            QVERIFY(QFile::link(entry.section(QLatin1String("->"), 1),
                                dir + '/' + entry.section(QLatin1String("->"), 0, 0)));
        else
            write(dir + '/' + entry.section('=', 0, 0), entry.section('=', 1).toUtf8());
    }
    QList<StagedFile> files;
    QHash<QString, QString> stagedPaths;
    for (const QString& entry : staged) {
        const QString relPath = entry.section('=', 0, 0);
        const QString path = dir + QStringLiteral("/.staging/") + QString(relPath).replace('/', '_');
        write(path, entry.section('=', 1).toUtf8());
        files.append({path, relPath});
        stagedPaths.insert(relPath, path);
    }
    for (const QString& fault : faults) {
        if (fault == QLatin1String("link")) {
            QVERIFY(QDir().rename(dir + QStringLiteral("/.staging"), top.filePath(QStringLiteral("moved"))));
            QVERIFY(QFile::link(top.filePath(QStringLiteral("moved")), dir + QStringLiteral("/.staging")));
            continue;
        }
        const QStringList parts = fault.split(' ');
        const QString source = parts[1].startsWith('@') ? stagedPaths.value(parts[1].mid(1)) : dir + '/' + parts[1];
        const FileCall call = parts[0] == QLatin1String("replace") ? FileCall::ReplaceFile
                              : parts[0] == QLatin1String("move")  ? FileCall::MoveFile
                                                                    : FileCall::ReplaceFileAfterRename;
        corv::platform::injectFileFailure(call, QDir::toNativeSeparators(source).toStdString(), parts[2].toULong());
    }
    UpdateSession session;
    session.appDir = dir;
    session.selfFileName = QStringLiteral("Updater.exe");

    LogCapture capture;
    QCOMPARE(applyStagedFiles(session, files), result);
    QCOMPARE(capture.lines(), log);
    QStringList tree;
    QDirIterator it(dir, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
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
    after.sort();
    QCOMPARE(tree, after);
    // Nothing lands beside the installation, nor at the root.
    QCOMPARE(QDir(top.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).filter("escaped"),
             QStringList());
    QVERIFY(!QFileInfo::exists(QStringLiteral("/escaped.dll")));
}

QTEST_GUILESS_MAIN(ApplyTransactionTest)
#include "tst_apply_transaction.moc"
