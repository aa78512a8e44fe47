// Replacing and renaming files on POSIX file systems as the Windows calls do: what ends up
// under which name, which permission bits, and which Windows error code a failure reports.
#include "platform/file_replace.h"

#include <QDirIterator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace corv::platform;

namespace {

std::string utf8(const QString& path) { return QFile::encodeName(path).toStdString(); }

// Plants a tree given as "name=content" (a file), "name=content@750" (with those permission
// bits), "name/" (a directory) or "name~other" (a second name of the file other).
bool plant(const QString& dir, const QString& spec)
{
    for (const QString& entry : spec.split(' ', Qt::SkipEmptyParts)) {
        const QString path = dir + '/' + entry.section(QRegularExpression("[=~@]"), 0, 0);
        bool ok = true;
        if (entry.endsWith('/')) {
            ok = QDir().mkpath(path);
        } else if (entry.contains('~')) {
            ok = ::link(utf8(dir + '/' + entry.section('~', 1)).c_str(), utf8(path).c_str()) == 0;
        } else {
            QFile file(path);
            ok = file.open(QIODevice::WriteOnly) && file.write(entry.section('=', 1).section('@', 0, 0).toUtf8()) >= 0;
            file.close();
            if (entry.contains('@'))
                ok = ok && ::chmod(utf8(path).c_str(), entry.section('@', 1).toUInt(nullptr, 8)) == 0;
        }
        if (!ok)
            return false;
    }
    return true;
}

// The tree below dir in the same form, sorted; permission bits are shown when not 644.
QString tree(const QString& dir)
{
    QStringList entries;
    QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString name = QDir(dir).relativeFilePath(path);
        struct stat info {};
        ::lstat(utf8(path).c_str(), &info);
        if (S_ISDIR(info.st_mode)) {
            entries << name + '/';
            continue;
        }
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        const int mode = info.st_mode & 07777;
        entries << name + '=' + QString::fromUtf8(file.readAll()) + (mode == 0644 ? "" : '@' + QString::number(mode, 8));
    }
    entries.sort();
    return entries.join(' ');
}

} // namespace

class FileReplaceTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { ::umask(022); }
    void cleanup() { clearInjectedFileFailures(); }
    void call_data();
    void call();
};

void FileReplaceTest::call_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("call");    // "replace TARGET REPLACEMENT BACKUP" or "move FROM TO"
    QTest::addColumn<ulong>("injected");  // a failure injected for the call's source path first
    QTest::addColumn<ulong>("error");     // 0: the call succeeds
    QTest::addColumn<QString>("after");

    QTest::newRow("replace, backup made") << "a=old s=new" << "replace a s a.bak" << 0ul << 0ul << "a.bak=old a=new";
    QTest::newRow("replace, backup already a second name") << "a=old s=new a.bak~a" << "replace a s a.bak" << 0ul << 0ul
                                                           << "a.bak=old a=new";
    QTest::newRow("replace, permission bits kept") << "a=old@750 s=new@600" << "replace a s a.bak" << 0ul << 0ul
                                                   << "a.bak=old@750 a=new@750";
    QTest::newRow("replace, replacement missing") << "a=old" << "replace a s a.bak" << 0ul << 2ul << "a=old";
    QTest::newRow("replace, target a directory") << "a/ s=new" << "replace a s a.bak" << 0ul << 5ul << "a/ s=new";
    QTest::newRow("replace, path through a file") << "a=old s=new" << "replace a/x s x.bak" << 0ul << 3ul
                                                  << "a=old s=new";
    QTest::newRow("replace, backup directory missing") << "a=old s=new" << "replace a s gone/a.bak" << 0ul << 2ul
                                                       << "a=old s=new";
    QTest::newRow("replace, injected failure") << "a=old s=new" << "replace a s a.bak" << 32ul << 32ul << "a=old s=new";
    QTest::newRow("move over a file") << "s=x t=y" << "move s t" << 0ul << 0ul << "t=x";
    QTest::newRow("move, source missing") << "t=y" << "move s t" << 0ul << 2ul << "t=y";
    QTest::newRow("move onto a directory") << "s=x d/ d/i=y" << "move s d" << 0ul << 5ul << "d/ d/i=y s=x";
    // No silent copy: like a rename without MOVEFILE_COPY_ALLOWED it fails with ERROR_NOT_SAME_DEVICE.
    QTest::newRow("move to another file system") << "s=x" << "move s /dev/shm" << 0ul << 17ul << "s=x";
    QTest::newRow("move, injected failure") << "s=x" << "move s t" << 5ul << 5ul << "s=x";
}

void FileReplaceTest::call()
{
    QFETCH(QString, before);
    QFETCH(QString, call);
    QFETCH(ulong, injected);
    QFETCH(ulong, error);
    QFETCH(QString, after);
    QTemporaryDir dir;
    QVERIFY(dir.isValid() && plant(dir.path(), before));
    QTemporaryDir shm("/dev/shm/corv-move-XXXXXX");
    QStringList args = call.split(' ');
    const QString op = args.takeFirst();
    for (QString& arg : args)
        arg = arg == "/dev/shm" ? shm.filePath("t") : dir.filePath(arg);
    if (injected)
        injectFileFailure(op == "move" ? FileCall::MoveFile : FileCall::ReplaceFile, utf8(args[op == "move" ? 0 : 1]),
                          injected);

    const bool ok = op == "move" ? moveFileReplaceWriteThrough(utf8(args[0]), utf8(args[1]))
                                 : replaceFile(utf8(args[0]), utf8(args[1]), utf8(args[2]));
    QCOMPARE(ok ? 0ul : lastError(), error);
    QCOMPARE(tree(dir.path()), after);
}

QTEST_GUILESS_MAIN(FileReplaceTest)
#include "tst_file_replace.moc"
