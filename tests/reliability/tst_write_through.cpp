// Write-through on POSIX, proven on the system calls of real updater runs traced with strace.
//
// Scope: every rename or link whose destination lies in the installation directory, except
// inside ".staging" (working copies, made durable when they move into the installation) and
// inside ".update-cache" other than "state.json" (the prefetcher's own renames of finished
// ".part" files are plain renames: a lost one is downloaded again). That covers the installed
// files, their ".bak" names, the updater's ".new", and state.json.
//
// Rules, for each such rename or link:
//  - the file's data is on disk first: when the run wrote the file (an openat for writing of
//    it, under any of its names), an fsync of it follows that write and precedes the move.
//    A file the run never wrote (the old installed file that gets its ".bak" name) keeps
//    whatever durability it had;
//  - the move is on disk before the next one: an fsync of the destination directory follows
//    it before the next group of moves starts (moves with no fsync between them, such as the
//    backup link and the rename of one replacement, form a group), and before the run ends.
#include "support/test_install.h"
#include "support/test_server.h"

#include <QDir>
#include <QFile>
#include <QElapsedTimer>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QtTest>

namespace {

const QString kTracedCalls = QStringLiteral("trace=fsync,fdatasync,rename,renameat,renameat2,link,linkat,openat");

struct Event {
    enum Kind { Open, Sync, Move } kind;
    QString path;         // Open: the file; Sync: the path its descriptor was opened on; Move: destination
    QString source;       // Move: the source path
    bool isLink = false;  // Move: a hard link rather than a rename
    bool forWriting = false;  // Open
    int identity = -1;    // Sync/Open: the file; Move: the moved file
    int line = 0;         // in the trace, for messages
};

QString unescape(const QString& quoted)
{
    QString out;
    for (int i = 0; i < quoted.size(); ++i) {
        const QChar c = quoted.at(i);
        if (c != QLatin1Char('\\') || i + 1 >= quoted.size()) {
            out.append(c);
            continue;
        }
        const QChar n = quoted.at(++i);
        if (n.isDigit()) {  // octal byte
            int value = 0;
            int digits = 0;
            while (digits < 3 && i < quoted.size() && quoted.at(i).isDigit()) {
                value = value * 8 + quoted.at(i).digitValue();
                ++i;
                ++digits;
            }
            --i;
            out.append(QChar(value));
        } else if (n == QLatin1Char('n')) {
            out.append(QLatin1Char('\n'));
        } else if (n == QLatin1Char('t')) {
            out.append(QLatin1Char('\t'));
        } else {
            out.append(n);
        }
    }
    return out;
}

// Turns strace output into events, following each file through its renames and links.
class Trace {
public:
    void parse(const QByteArray& text, const QString& cwd)
    {
        static const QRegularExpression unfinished(QStringLiteral("^(\\d+)\\s+(\\w+)\\((.*) <unfinished \\.\\.\\.>$"));
        static const QRegularExpression resumed(QStringLiteral("^(\\d+)\\s+<\\.\\.\\. (\\w+) resumed>(.*)$"));
        static const QRegularExpression complete(QStringLiteral("^(\\d+)\\s+(\\w+)\\((.*)\\)\\s+=\\s+(-?\\d+)(?:\\s.*)?$"));
        QHash<QString, QString> pending;  // pid -> "name(args" of an unfinished call
        int lineNumber = 0;
        for (const QByteArray& raw : text.split('\n')) {
            QString line = QString::fromUtf8(raw).trimmed();
            ++lineNumber;
            QRegularExpressionMatch m = unfinished.match(line);
            if (m.hasMatch()) {
                pending.insert(m.captured(1), m.captured(2) + QLatin1Char('(') + m.captured(3));
                continue;
            }
            m = resumed.match(line);
            if (m.hasMatch()) {
                line = m.captured(1) + QLatin1Char(' ') + pending.take(m.captured(1)) + m.captured(3);
            }
            m = complete.match(line);
            if (!m.hasMatch())
                continue;
            handle(m.captured(2), m.captured(3), m.captured(4).toLongLong(), cwd, lineNumber);
        }
    }

    QList<Event> events;

private:
    int identityOf(const QString& path)
    {
        auto it = identities.find(path);
        if (it == identities.end())
            it = identities.insert(path, nextIdentity++);
        return it.value();
    }

    void handle(const QString& call, const QString& args, qint64 result, const QString& cwd, int line)
    {
        static const QRegularExpression quoted(QStringLiteral("\"((?:[^\"\\\\]|\\\\.)*)\""));
        QStringList strings;
        for (auto it = quoted.globalMatch(args); it.hasNext();)
            strings.append(unescape(it.next().captured(1)));
        const QStringList parts = args.split(QStringLiteral(", "));
        auto absolute = [&](const QString& path, const QString& dirFd) {
            if (path.startsWith(QLatin1Char('/')))
                return QDir::cleanPath(path);
            const QString base = dirFd == QLatin1String("AT_FDCWD") || dirFd.isEmpty() ? cwd
                                                                                      : fdPaths.value(dirFd.toInt(), cwd);
            return QDir::cleanPath(base + QLatin1Char('/') + path);
        };

        if (call == QLatin1String("openat") && result >= 0 && strings.size() == 1 && parts.size() >= 3) {
            const QString path = absolute(strings.first(), parts.first());
            const QString flags = parts.at(2);
            // O_TMPFILE opens a new file without a name in the directory `path`.
            const int identity = flags.contains(QLatin1String("O_TMPFILE")) ? nextIdentity++ : identityOf(path);
            fdPaths.insert(int(result), path);
            fdIdentities.insert(int(result), identity);
            const bool forWriting = flags.contains(QLatin1String("O_WRONLY")) || flags.contains(QLatin1String("O_RDWR"))
                || flags.contains(QLatin1String("O_CREAT")) || flags.contains(QLatin1String("O_TRUNC"));
            events.append(Event{Event::Open, path, QString(), false, forWriting, identity, line});
        } else if ((call == QLatin1String("fsync") || call == QLatin1String("fdatasync")) && result == 0) {
            const int fd = args.trimmed().toInt();
            if (fdPaths.contains(fd))
                events.append(Event{Event::Sync, fdPaths.value(fd), QString(), false, false, fdIdentities.value(fd), line});
        } else if ((call.startsWith(QLatin1String("rename")) || call.startsWith(QLatin1String("link"))) && result == 0
                   && strings.size() == 2) {
            const bool at = call.endsWith(QLatin1String("at")) || call.endsWith(QLatin1String("at2"));
            const QString from = absolute(strings.at(0), at ? parts.at(0) : QString());
            const QString to = absolute(strings.at(1), at ? parts.at(2) : QString());
            // A file without a name gets one through its descriptor's /proc/self/fd link.
            static const QRegularExpression procFd(QStringLiteral("^/proc/self/fd/(\\d+)$"));
            const QRegularExpressionMatch viaFd = procFd.match(from);
            const int moved = viaFd.hasMatch() ? fdIdentities.value(viaFd.captured(1).toInt(), -1) : identityOf(from);
            const bool isLink = call.startsWith(QLatin1String("link"));
            events.append(Event{Event::Move, to, from, isLink, false, moved, line});
            identities.insert(to, moved);
            if (!isLink)
                identities.remove(from);
        }
    }

    QHash<int, QString> fdPaths;
    QHash<int, int> fdIdentities;
    QHash<QString, int> identities;
    int nextIdentity = 0;
};

bool inScope(const QString& installDir, const QString& destination)
{
    if (!destination.startsWith(installDir + QLatin1Char('/')))
        return false;
    const QString rel = destination.mid(installDir.size() + 1);
    if (rel.startsWith(QLatin1String(".staging/")))
        return false;
    if (rel.startsWith(QLatin1String(".update-cache/")))
        return rel.endsWith(QLatin1String("/state.json"));
    return true;
}

QString parentOf(const QString& path)
{
    return path.left(path.lastIndexOf(QLatin1Char('/')));
}

// Every broken rule, one message each; `moved` receives the in-scope destinations.
QStringList checkWriteThrough(const QList<Event>& events, const QString& installDir, QStringList* moved)
{
    QStringList violations;
    for (int i = 0; i < events.size(); ++i) {
        const Event& move = events.at(i);
        if (move.kind != Event::Move || !inScope(installDir, move.path))
            continue;
        const QString rel = move.path.mid(installDir.size() + 1);
        moved->append(rel);

        // The data: the last write of the moved file, then an fsync of it, then the move.
        int lastWrite = -1;
        for (int j = 0; j < i; ++j) {
            if (events.at(j).kind == Event::Open && events.at(j).forWriting && events.at(j).identity == move.identity)
                lastWrite = j;
        }
        if (lastWrite >= 0) {
            bool synced = false;
            for (int j = lastWrite + 1; j < i && !synced; ++j)
                synced = events.at(j).kind == Event::Sync && events.at(j).identity == move.identity;
            if (!synced)
                violations.append(QStringLiteral("line %1: %2 %3 -> %4 without an fsync of the file after it was written")
                                      .arg(move.line)
                                      .arg(move.isLink ? QStringLiteral("link") : QStringLiteral("rename"), move.source, rel));
        }

        // The directory: synced before the next group of moves begins, or before the end.
        int groupEnd = events.size();
        bool syncSeen = false;
        for (int j = i + 1; j < events.size(); ++j) {
            const Event& e = events.at(j);
            if (e.kind == Event::Sync)
                syncSeen = true;
            else if (e.kind == Event::Move && syncSeen && inScope(installDir, e.path)) {
                groupEnd = j;
                break;
            }
        }
        bool dirSynced = false;
        for (int j = i + 1; j < groupEnd && !dirSynced; ++j)
            dirSynced = events.at(j).kind == Event::Sync && events.at(j).path == parentOf(move.path);
        if (!dirSynced)
            violations.append(QStringLiteral("line %1: %2 -> %3 not followed by an fsync of %4")
                                  .arg(move.line)
                                  .arg(move.source, rel, parentOf(move.path)));
    }
    return violations;
}

QByteArray bytesOf(int size, char seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char(seed + i * 31 + (i >> 8));
    return bytes;
}

BuildFiles build1()
{
    return {{QStringLiteral("bin/app.bin"), bytesOf(300000, 1)},
            {QStringLiteral("data/a.txt"), "alpha 1"},
            {QStringLiteral("data/b.txt"), "bravo"},
            {QStringLiteral("top.txt"), "top 1"}};
}

// bin/app.bin, data/a.txt and top.txt change, new/dir/c.txt is added, data/b.txt stays, and
// the updater's own file comes as "updater.new".
BuildFiles build2()
{
    return {{QStringLiteral("bin/app.bin"), bytesOf(310000, 2)},
            {QStringLiteral("data/a.txt"), "alpha 2"},
            {QStringLiteral("data/b.txt"), "bravo"},
            {QStringLiteral("new/dir/c.txt"), "charlie"},
            {QStringLiteral("top.txt"), "top 2"},
            {QStringLiteral("updater"), "the next updater"}};
}

// 80 files of a few bytes: a prefetch finishes about ten of them a second.
BuildFiles smallFiles()
{
    BuildFiles files;
    for (int i = 0; i < 80; ++i)
        files.insert(QStringLiteral("small/file_%1.txt").arg(i, 2, 10, QLatin1Char('0')), "small " + QByteArray::number(i));
    return files;
}

} // namespace

class TestWriteThrough : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void checkerCatches_data();
    void checkerCatches();
    void tracedRun_data();
    void tracedRun();

private:
    QString strace;
    QTemporaryDir runtimeDir;
    QTemporaryDir published;
    std::unique_ptr<TestServer> server;
};

void TestWriteThrough::initTestCase()
{
    strace = QStandardPaths::findExecutable(QStringLiteral("strace"));
    QVERIFY2(!strace.isEmpty(), "strace is needed (Debian package strace)");
    QVERIFY(runtimeDir.isValid() && published.isValid());
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    server = std::make_unique<TestServer>(published.path());
    QVERIFY(server->start());
    QVERIFY(publishBuild(published.path(), QStringLiteral("b"), build2(), makeManifestJson(QStringLiteral("2.0"), 2, build2())));
    QVERIFY(publishBuild(published.path(), QStringLiteral("m"), smallFiles(), makeManifestJson(QStringLiteral("2.0"), 2, smallFiles())));
}

// The check itself, on hand-written traces of an installation in /i: it must flag exactly the
// moves that break a rule, or the proof above would prove nothing.
void TestWriteThrough::checkerCatches_data()
{
    QTest::addColumn<QString>("trace");
    QTest::addColumn<int>("violations");

    const QString written = QStringLiteral("1 openat(AT_FDCWD, \"/i/.staging/a\", O_WRONLY|O_CREAT|O_TRUNC|O_CLOEXEC, 0666) = 5\n");
    const QString fileSync = QStringLiteral("1 openat(AT_FDCWD, \"/i/.staging/a\", O_RDONLY|O_CLOEXEC) = 6\n1 fsync(6) = 0\n");
    const QString replace = QStringLiteral("1 link(\"/i/a\", \"/i/a.bak.link\") = 0\n"
                                           "1 rename(\"/i/a.bak.link\", \"/i/a.bak\") = 0\n"
                                           "1 rename(\"/i/.staging/a\", \"/i/a\") = 0\n");
    const QString dirSync = QStringLiteral("1 openat(AT_FDCWD, \"/i\", O_RDONLY|O_CLOEXEC|O_NONBLOCK) = 7\n1 fsync(7) = 0\n");
    const QString second = QStringLiteral("1 openat(AT_FDCWD, \"/i/.staging/b\", O_WRONLY|O_CREAT|O_TRUNC, 0666) = 5\n"
                                          "1 openat(AT_FDCWD, \"/i/.staging/b\", O_RDONLY) = 6\n1 fsync(6) = 0\n"
                                          "1 renameat2(AT_FDCWD, \"/i/.staging/b\", AT_FDCWD, \"/i/b\", 0) = 0\n");

    QTest::newRow("replacement done right") << written + fileSync + replace + dirSync << 0;
    QTest::newRow("file not synced") << written + replace + dirSync << 1;
    QTest::newRow("file synced before its last write") << fileSync + written + replace + dirSync << 1;
    QTest::newRow("directory not synced") << written + fileSync + replace << 3;
    QTest::newRow("directory synced only after the next move") << written + fileSync + replace + second + dirSync << 3;
    QTest::newRow("failed rename does not count")
        << written + fileSync + QStringLiteral("1 rename(\"/i/.staging/a\", \"/i/a\") = -1 EACCES (Permission denied)\n") << 0;
    QTest::newRow("call split by another thread")
        << written + QStringLiteral("1 rename(\"/i/.staging/a\", \"/i/a\" <unfinished ...>\n"
                                    "2 openat(AT_FDCWD, \"/etc/hosts\", O_RDONLY) = 9\n"
                                    "1 <... rename resumed>) = 0\n") + dirSync << 1;
    QTest::newRow("nameless file linked in through /proc/self/fd")
        << QStringLiteral("1 openat(AT_FDCWD, \"/i/.staging\", O_RDWR|O_CLOEXEC|O_TMPFILE, 0600) = 8\n"
                          "1 linkat(AT_FDCWD, \"/proc/self/fd/8\", AT_FDCWD, \"/i/.staging/c\", AT_SYMLINK_FOLLOW) = 0\n"
                          "1 rename(\"/i/.staging/c\", \"/i/c\") = 0\n") + dirSync << 1;
    QTest::newRow("cache files and other directories are out of scope")
        << QStringLiteral("1 openat(AT_FDCWD, \"/i/.update-cache/v/files/x.part\", O_WRONLY|O_CREAT, 0666) = 5\n"
                          "1 renameat2(AT_FDCWD, \"/i/.update-cache/v/files/x.part\", AT_FDCWD, \"/i/.update-cache/v/files/x\", RENAME_NOREPLACE) = 0\n"
                          "1 openat(AT_FDCWD, \"/o/y\", O_WRONLY|O_CREAT, 0666) = 5\n"
                          "1 rename(\"/o/y\", \"/o/z\") = 0\n") << 0;
    QTest::newRow("state.json is in scope")
        << QStringLiteral("1 openat(AT_FDCWD, \"/i/.update-cache/v/state.json.tmp\", O_WRONLY|O_CREAT|O_TRUNC, 0666) = 5\n"
                          "1 rename(\"/i/.update-cache/v/state.json.tmp\", \"/i/.update-cache/v/state.json\") = 0\n") << 2;
}

void TestWriteThrough::checkerCatches()
{
    QFETCH(QString, trace);
    QFETCH(int, violations);
    Trace parsed;
    parsed.parse(trace.toUtf8(), QStringLiteral("/"));
    QStringList moved;
    const QStringList found = checkWriteThrough(parsed.events, QStringLiteral("/i"), &moved);
    QVERIFY2(found.size() == violations, qPrintable(found.join(QLatin1Char('\n'))));
}

void TestWriteThrough::tracedRun_data()
{
    QTest::addColumn<QString>("publication");      // "b": build 2, "m": 80 small files
    QTest::addColumn<QStringList>("untracedFirst");  // arguments of a run before the traced one ("" for none)
    QTest::addColumn<QStringList>("tracedArgs");
    QTest::addColumn<QStringList>("movedIn");      // the in-scope destinations of the traced run, all of them
    QTest::addColumn<QString>("lastLine");

    const QStringList applied{QStringLiteral("bin/app.bin"), QStringLiteral("bin/app.bin.bak"),
                              QStringLiteral("data/a.txt"),  QStringLiteral("data/a.txt.bak"),
                              QStringLiteral("top.txt"),     QStringLiteral("top.txt.bak"),
                              QStringLiteral("new/dir/c.txt"), QStringLiteral("updater.new"),
                              QStringLiteral("manifest.json")};
    const QString updated = QStringLiteral("[Update] CAP NHAT THANH CONG -> \"2.0\"");
    const QString b = QStringLiteral("b");
    QTest::newRow("apply, downloading") << b << QStringList() << QStringList() << applied << updated;
    QTest::newRow("apply, from the prefetched cache")
        << b << QStringList{QStringLiteral("--prefetch-only")} << QStringList() << applied << updated;
    const QStringList state{QStringLiteral(".update-cache/2.0/state.json")};
    QTest::newRow("prefetch, state.json")
        << b << QStringList() << QStringList{QStringLiteral("--prefetch-only")} << state
        << QStringLiteral("[UpdatePrefetch] xong toan bo - 5 file ok, 0 bo lai cho updater");
    // state.json is rewritten whole: a save per finished file would grow with the square of
    // the plan. Saves come at most once a second, and the last one holds the end of the run.
    QTest::newRow("prefetch of 80 small files, state.json at most once a second")
        << QStringLiteral("m") << QStringList() << QStringList{QStringLiteral("--prefetch-only")} << state
        << QStringLiteral("[UpdatePrefetch] xong toan bo - 80 file ok, 0 bo lai cho updater");
}

void TestWriteThrough::tracedRun()
{
    QFETCH(QString, publication);
    QFETCH(QStringList, untracedFirst);
    QFETCH(QStringList, tracedArgs);
    QFETCH(QStringList, movedIn);
    QFETCH(QString, lastLine);

    TestInstall install;
    QVERIFY(install.isValid());
    QVERIFY(install.installBuild(build1(), makeManifestJson(QStringLiteral("1.0"), 1, build1())));
    QVERIFY(install.writeConfig(server->url(publication + QStringLiteral("/manifest.json"))));
    if (!untracedFirst.isEmpty()) {
        QCOMPARE(install.run(untracedFirst), 0);
        QVERIFY(QFileInfo::exists(install.path(QStringLiteral(".update-cache/2.0/files/bin/app.bin"))));
        QFile::remove(install.logPath());
    }

    const QString installDir = QFileInfo(install.dir()).canonicalFilePath();
    QTemporaryDir traceDir;
    const QString tracePath = traceDir.filePath(QStringLiteral("trace"));
    QProcess traced;
    traced.setProcessChannelMode(QProcess::ForwardedChannels);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    traced.setProcessEnvironment(env);
    traced.setWorkingDirectory(installDir);
    traced.start(strace, QStringList{QStringLiteral("-f"), QStringLiteral("-s"), QStringLiteral("4096"),
                                     QStringLiteral("-e"), kTracedCalls, QStringLiteral("-o"), tracePath,
                                     installDir + QStringLiteral("/updater")}
                             + tracedArgs);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(traced.waitForFinished(120000));
    const qint64 seconds = clock.elapsed() / 1000;
    QCOMPARE(traced.exitCode(), 0);
    QCOMPARE(install.logTexts().last(), lastLine);

    QFile traceFile(tracePath);
    QVERIFY(traceFile.open(QIODevice::ReadOnly));
    Trace trace;
    trace.parse(traceFile.readAll(), installDir);
    QStringList moved;
    const QStringList violations = checkWriteThrough(trace.events, installDir, &moved);
    QVERIFY2(violations.isEmpty(), qPrintable(violations.join(QLatin1Char('\n'))));
    // No other name, such as a temporary one of a replacement, ever appears among the installed
    // files: a kill at that moment would leave it there.
    moved.removeDuplicates();
    moved.sort();
    QStringList expected = movedIn;
    expected.sort();
    QCOMPARE(moved.join(QStringLiteral(", ")), expected.join(QStringLiteral(", ")));

    // The prefetch's saves of state.json: the first at once, then at most one a second, and
    // the last one with every file done.
    const QString statePath = install.path(QStringLiteral(".update-cache/2.0/state.json"));
    if (!tracedArgs.contains(QStringLiteral("--prefetch-only")) || !QFileInfo::exists(statePath))
        return;
    int saves = 0;
    for (const Event& event : trace.events)
        saves += event.kind == Event::Move && event.path == installDir + QStringLiteral("/.update-cache/2.0/state.json");
    QVERIFY2(saves <= seconds + 2, qPrintable(QStringLiteral("%1 saves in %2 s").arg(saves).arg(seconds)));
    QFile state(statePath);
    QVERIFY(state.open(QIODevice::ReadOnly));
    const QJsonArray files = QJsonDocument::fromJson(state.readAll()).object().value(QStringLiteral("files")).toArray();
    QVERIFY(!files.isEmpty());
    for (const QJsonValue& file : files)
        QVERIFY(file.toObject().value(QStringLiteral("done")).toBool());
}

QTEST_GUILESS_MAIN(TestWriteThrough)
#include "tst_write_through.moc"
