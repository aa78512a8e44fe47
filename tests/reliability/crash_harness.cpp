#include "reliability/crash_harness.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QSet>
#include <QThread>

#include <algorithm>

namespace {

const QString kVersion1 = QStringLiteral("5.0.1");
const QString kVersion2 = QStringLiteral("5.1.0");
constexpr qint64 kChunk = 1 << 20;
constexpr int kRunTimeoutMs = 180000;
// The log line that ends the staging download: "[Update] dung N / M file tu kho tam".
constexpr char kApplyStartText[] = "file tu kho tam";

// Writes `size` reproducible bytes that depend on seed and position; returns their SHA-256
// (empty on a write failure). Generated in chunks, so large files never sit in memory.
QString writePattern(const QString& path, qint64 size, quint32 seed)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return QString();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    quint32 x = seed * 2654435761u + 99991u;
    QByteArray chunk;
    for (qint64 done = 0; done < size;) {
        const qint64 n = qMin(kChunk, size - done);
        chunk.resize(int(n));
        for (int i = 0; i < chunk.size(); ++i) {
            x = x * 1664525u + 1013904223u;
            chunk[i] = char(x >> 24);
        }
        if (file.write(chunk) != n)
            return QString();
        hash.addData(chunk);
        done += n;
    }
    return QString::fromLatin1(hash.result().toHex());
}

// Lower-case hex SHA-256 of a file on disk, streamed; empty when it cannot be read.
QString hashOfFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!hash.addData(&file))
        return QString();
    return QString::fromLatin1(hash.result().toHex());
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray manifestFor(const QString& version, qint64 buildNumber, const Build& build)
{
    QJsonArray files;
    for (auto it = build.cbegin(); it != build.cend(); ++it)
        files.append(QJsonObject{{QStringLiteral("path"), it.key()},
                                 {QStringLiteral("size"), double(it->size)},
                                 {QStringLiteral("sha256"), it->sha256}});
    return QJsonDocument(QJsonObject{{QStringLiteral("buildNumber"), double(buildNumber)},
                                     {QStringLiteral("fullVersion"), version},
                                     {QStringLiteral("product"), QStringLiteral("Corvanta")},
                                     {QStringLiteral("arch"), QStringLiteral("x64")},
                                     {QStringLiteral("files"), files}})
        .toJson();
}

// Every regular file below root except the updater's staging and cache trees, relative paths.
QStringList installationFiles(const QString& root)
{
    QStringList files;
    const QDir dir(root);
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString rel = dir.relativeFilePath(it.next());
        if (!rel.startsWith(QLatin1String(".staging/")) && !rel.startsWith(QLatin1String(".update-cache/")))
            files.append(rel);
    }
    return files;
}

// Where the old content of an installed path is kept during an apply: "<path>.bak", or inside a
// directory that was moved aside as "<dir>.bak" because the new build has a file in its place.
QString backupOf(const TestInstall& install, const QString& path)
{
    const QStringList parts = path.split(QLatin1Char('/'));
    for (int i = 1; i < parts.size(); ++i) {
        const QString dir = parts.mid(0, i).join(QLatin1Char('/'));
        if (QFileInfo(install.path(dir + QStringLiteral(".bak"))).isDir())
            return dir + QStringLiteral(".bak/") + parts.mid(i).join(QLatin1Char('/'));
    }
    return path + QStringLiteral(".bak");
}

// True when a directory above path holds a file of build 2: the new build has no directory there,
// and the file path was removed with the old directory.
bool replacedByAFile(const TestInstall& install, const QString& path)
{
    for (int slash = path.indexOf(QLatin1Char('/')); slash > 0; slash = path.indexOf(QLatin1Char('/'), slash + 1)) {
        if (QFileInfo(install.path(path.left(slash))).isFile())
            return true;
    }
    return false;
}

// The installed path a file found after a kill stands for: ".bak" taken off the file and off a
// directory moved aside.
QString originalOf(const QString& rel)
{
    QStringList parts = rel.split(QLatin1Char('/'));
    for (QString& part : parts) {
        if (part.endsWith(QLatin1String(".bak")))
            part.chop(4);
    }
    return parts.join(QLatin1Char('/'));
}

const QStringList kRunFiles{QStringLiteral("updater"), QStringLiteral("updater.conf"),
                            QStringLiteral("updater.log"), QStringLiteral("manifest.json")};

} // namespace

const char* killPhaseName(KillPhase phase)
{
    switch (phase) {
    case KillPhase::BeforeDownload: return "before download";
    case KillPhase::Download: return "download";
    case KillPhase::Apply: return "apply";
    case KillPhase::AfterApply: return "after apply";
    case KillPhase::Finished: return "already finished";
    }
    return "?";
}

CrashHarness::CrashHarness(const QList<int>& largeFileMiB)
{
    // About fifty small files in a few directories: nine in ten change, one becomes empty;
    // large files that all change; six files that only build 2 has, one in a new directory.
    for (int i = 0; i < 50; ++i) {
        const QString path = i < 4 ? QStringLiteral("file%1.txt").arg(i)
                                   : QStringLiteral("data/d%1/file%2.bin").arg(i % 5).arg(i);
        const qint64 size = 37 + (qint64(i) * 7919) % 200000;
        build1.insert(path, {size, quint32(1000 + i), QString()});
        if (i % 10 == 3)
            build2.insert(path, build1.value(path));
        else
            build2.insert(path, {i == 17 ? 0 : qMax<qint64>(0, size + (i % 3 - 1) * 1000), quint32(2000 + i), QString()});
    }
    for (int k = 0; k < largeFileMiB.size(); ++k) {
        const QString path = QStringLiteral("packs/large%1.pak").arg(k);
        const qint64 size = qint64(largeFileMiB.at(k)) << 20;
        build1.insert(path, {size, quint32(3000 + k), QString()});
        build2.insert(path, {size + 4096 * k, quint32(4000 + k), QString()});
    }
    for (int j = 0; j < 5; ++j)
        build2.insert(QStringLiteral("added/new%1.bin").arg(j), {1000 * (j + 1), quint32(5000 + j), QString()});
    build2.insert(QStringLiteral("data/d0/extra.bin"), {77777, 6000u, QString()});
    // The build changes shape: a directory becomes a file, and a file becomes a directory.
    build1.insert(QStringLiteral("shape/dir/x.bin"), {5000, 7000u, QString()});
    build1.insert(QStringLiteral("shape/dir/y.bin"), {6000, 7001u, QString()});
    build2.insert(QStringLiteral("shape/dir"), {7000, 7002u, QString()});
    build1.insert(QStringLiteral("shape/file"), {8000, 7003u, QString()});
    build2.insert(QStringLiteral("shape/file/a.bin"), {9000, 7004u, QString()});
}

qint64 CrashHarness::build2Bytes() const
{
    qint64 total = 0;
    for (const BuildFile& f : build2)
        total += f.size;
    return total;
}

bool CrashHarness::setUp(QString* error)
{
    if (!serverRoot.isValid() || !templateDir.isValid() || !runtimeDir.isValid()) {
        *error = QStringLiteral("no temporary directories");
        return false;
    }
    // The updater's locks live in their own namespace; the child processes inherit it.
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));

    for (auto it = build1.begin(); it != build1.end(); ++it) {
        it->sha256 = writePattern(templateDir.filePath(it.key()), it->size, it->seed);
        if (it->sha256.isEmpty()) {
            *error = QStringLiteral("cannot write ") + it.key();
            return false;
        }
    }
    for (auto it = build2.begin(); it != build2.end(); ++it) {
        it->sha256 = writePattern(serverRoot.filePath(QStringLiteral("app/") + it.key()), it->size, it->seed);
        if (it->sha256.isEmpty()) {
            *error = QStringLiteral("cannot publish ") + it.key();
            return false;
        }
    }
    manifest1 = manifestFor(kVersion1, 1, build1);
    manifest2 = manifestFor(kVersion2, 2, build2);
    server = std::make_unique<TestServer>(serverRoot.path());
    if (!server->start()) {
        *error = QStringLiteral("the test server does not start");
        return false;
    }
    // publishBuild writes the manifest and its signature; the files are already in place.
    if (!publishBuild(serverRoot.path(), QStringLiteral("app"), {}, manifest2)) {
        *error = QStringLiteral("cannot sign build 2");
        return false;
    }
    QFile manifest(templateDir.filePath(QStringLiteral("manifest.json")));
    if (!manifest.open(QIODevice::WriteOnly) || manifest.write(manifest1) != manifest1.size()) {
        *error = QStringLiteral("cannot write the template manifest");
        return false;
    }
    return true;
}

bool CrashHarness::prepareInstall(TestInstall& install) const
{
    if (!install.isValid())
        return false;
    const QDir from(templateDir.path());
    QDirIterator it(templateDir.path(), QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString rel = from.relativeFilePath(it.next());
        QDir().mkpath(QFileInfo(install.path(rel)).absolutePath());
        if (!QFile::copy(it.filePath(), install.path(rel)))
            return false;
    }
    return install.writeConfig(server->url(QStringLiteral("app/manifest.json")));
}

CrashHarness::RunProfile CrashHarness::measureRun(QString* error)
{
    RunProfile profile;
    TestInstall install;
    if (!prepareInstall(install)) {
        *error = QStringLiteral("cannot prepare an installation");
        return profile;
    }
    const qint64 startedAt = QDateTime::currentMSecsSinceEpoch();
    QElapsedTimer clock;
    clock.start();
    const int code = install.run({}, kRunTimeoutMs);
    const qint64 elapsed = clock.elapsed();
    QStringList violations;
    if (code != 0)
        violations.append(QStringLiteral("exit code %1").arg(code));
    checkFinal(install, QStringLiteral("uninterrupted run"), violations);
    if (!violations.isEmpty()) {
        *error = violations.join(QStringLiteral("; "));
        return profile;
    }
    profile.total = elapsed;

    // The log's local timestamps (millisecond resolution) place the apply inside the run.
    QFile log(install.logPath());
    if (log.open(QIODevice::ReadOnly)) {
        while (!log.atEnd()) {
            const QString line = QString::fromUtf8(log.readLine());
            const QDateTime at = QDateTime::fromString(line.left(23), QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
            if (!at.isValid())
                continue;
            if (line.contains(QLatin1String(kApplyStartText)))
                profile.applyFrom = at.toMSecsSinceEpoch() - startedAt;
            else if (line.contains(QLatin1String("CAP NHAT THANH CONG")))
                profile.applyTo = at.toMSecsSinceEpoch() - startedAt;
        }
    }
    return profile;
}

CrashHarness::RunProfile CrashHarness::measureRuns(int runs, QString* error)
{
    QList<qint64> totals;
    QList<qint64> froms;
    QList<qint64> tos;
    for (int i = 0; i < runs; ++i) {
        const RunProfile one = measureRun(error);
        if (one.total < 0)
            return one;
        totals.append(one.total);
        froms.append(one.applyFrom);
        tos.append(one.applyTo);
    }
    std::sort(totals.begin(), totals.end());
    std::sort(froms.begin(), froms.end());
    std::sort(tos.begin(), tos.end());
    RunProfile median;
    median.total = totals.at(runs / 2);
    median.applyFrom = froms.at(runs / 2);
    median.applyTo = tos.at(runs / 2);
    return median;
}

TrialResult CrashHarness::runTrial(const KillMoment& moment)
{
    TrialResult result;
    TestInstall install;
    if (!prepareInstall(install)) {
        result.violations.append(QStringLiteral("cannot prepare an installation"));
        return result;
    }

    QElapsedTimer clock;
    clock.start();
    std::unique_ptr<QProcess> process(install.start());
    if (moment.fromApply) {
        // The log is flushed line by line; polling it costs far less than the apply takes.
        QFile log(install.logPath());
        QByteArray seen;
        // waitForFinished(1) is the pause between polls, and notices an early exit.
        while (!seen.contains(kApplyStartText) && clock.elapsed() < kRunTimeoutMs && !process->waitForFinished(1)) {
            if (log.isOpen() || log.open(QIODevice::ReadOnly))
                seen += log.readAll();
        }
        clock.restart();
    }
    const qint64 left = moment.ms - clock.elapsed();
    if (left > 0)
        QThread::usleep(quint64(left) * 1000);
    process->kill();  // SIGKILL
    process->waitForFinished(30000);
    const bool finishedBeforeKill = process->exitStatus() == QProcess::NormalExit;
    process.reset();

    checkAfterKill(install, result);
    if (finishedBeforeKill)
        result.phase = KillPhase::Finished;

    const int code = install.run({}, kRunTimeoutMs);
    if (code != 0)
        result.violations.append(QStringLiteral("second run: exit code %1").arg(code));
    checkFinal(install, QStringLiteral("second run"), result.violations);
    return result;
}

void CrashHarness::checkAfterKill(const TestInstall& install, TrialResult& result) const
{
    QSet<QString> paths;
    for (auto it = build1.cbegin(); it != build1.cend(); ++it)
        paths.insert(it.key());
    for (auto it = build2.cbegin(); it != build2.cend(); ++it)
        paths.insert(it.key());

    int expectedNew = 0;
    for (const QString& path : qAsConst(paths)) {
        const bool inBuild1 = build1.contains(path);
        const bool inBuild2 = build2.contains(path);
        const QString old = inBuild1 ? build1.value(path).sha256 : QString();
        const QString fresh = inBuild2 ? build2.value(path).sha256 : QString();
        const bool changes = fresh != old;
        if (changes && inBuild2)
            ++expectedNew;

        const QString bak = backupOf(install, path);
        const bool hasBak = QFileInfo(install.path(bak)).isFile();
        if (hasBak) {
            ++result.backups;
            const QString bakHash = hashOfFile(install.path(bak));
            if (!inBuild1 || bakHash != old)
                result.violations.append(
                    QStringLiteral("after kill: %1 holds %2").arg(bak, bakHash == fresh ? QStringLiteral("build-2 content")
                                                                                        : QStringLiteral("foreign content")));
        }

        if (!QFileInfo(install.path(path)).isFile()) {
            // Build 2 has a directory here, or a file above: once the new shape stands, the old
            // file may be gone with the backup it was moved aside to.
            const bool newShape = !inBuild2 && (QFileInfo(install.path(path)).isDir() || replacedByAFile(install, path));
            if (inBuild1 && hasBak)
                ++result.missingWithBak;
            else if (inBuild1 && !newShape)
                result.violations.append(QStringLiteral("after kill: %1 missing without a backup").arg(path));
            continue;
        }
        const QString hash = hashOfFile(install.path(path));
        if (hash == fresh && changes)
            ++result.newFiles;
        else if (hash != old)
            result.violations.append(QStringLiteral("after kill: %1 has content of neither build").arg(path));
    }

    for (const QString& rel : installationFiles(install.dir())) {
        const QString original = originalOf(rel);
        if (!paths.contains(original) && !kRunFiles.contains(rel))
            result.violations.append(QStringLiteral("after kill: stray file %1").arg(rel));
    }

    if (install.exists(QStringLiteral("manifest.json"))) {
        const QByteArray manifest = readAll(install.path(QStringLiteral("manifest.json")));
        if (manifest != manifest1 && manifest != manifest2)
            result.violations.append(QStringLiteral("after kill: manifest.json torn (%1 bytes)").arg(manifest.size()));
    } else {
        result.violations.append(QStringLiteral("after kill: manifest.json missing"));
    }

    if (result.newFiles == 0 && result.backups == 0 && result.missingWithBak == 0)
        result.phase = install.exists(QStringLiteral(".staging")) ? KillPhase::Download : KillPhase::BeforeDownload;
    else if (result.newFiles == expectedNew && result.missingWithBak == 0)
        result.phase = KillPhase::AfterApply;
    else
        result.phase = KillPhase::Apply;
}

void CrashHarness::checkFinal(const TestInstall& install, const QString& stage, QStringList& violations) const
{
    for (auto it = build2.cbegin(); it != build2.cend(); ++it) {
        if (hashOfFile(install.path(it.key())) != it->sha256)
            violations.append(QStringLiteral("%1: %2 is not build 2").arg(stage, it.key()));
    }
    QStringList expected = kRunFiles;
    for (auto it = build2.cbegin(); it != build2.cend(); ++it)
        expected.append(it.key());
    expected.sort();
    QStringList actual = install.allFiles();
    actual.sort();
    if (actual != expected) {
        for (const QString& rel : actual) {
            if (!expected.contains(rel))
                violations.append(QStringLiteral("%1: left behind %2").arg(stage, rel));
        }
    }
    if (install.exists(QStringLiteral(".staging")))
        violations.append(QStringLiteral("%1: .staging left").arg(stage));
    if (install.exists(QStringLiteral(".update-cache")))
        violations.append(QStringLiteral("%1: .update-cache left").arg(stage));
    if (readAll(install.path(QStringLiteral("manifest.json"))) != manifest2)
        violations.append(QStringLiteral("%1: manifest.json is not build 2's").arg(stage));
}

QString describeKillMoment(const KillMoment& moment)
{
    return moment.fromApply ? QStringLiteral("%1 ms into the apply").arg(moment.ms, 5)
                            : QStringLiteral("%1 ms after start").arg(moment.ms, 5);
}

QList<KillMoment> planKillMoments(const CrashHarness::RunProfile& profile, int trials, quint32 seed)
{
    QRandomGenerator random(seed);
    // Up to a little after the run records the update.
    const qint64 applySpan = profile.applyTo >= profile.applyFrom && profile.applyFrom >= 0
        ? profile.applyTo - profile.applyFrom + 20
        : profile.total;
    const int overWholeRun = (trials + 1) / 2;
    QList<KillMoment> moments;
    for (int i = 0; i < trials; ++i) {
        const bool whole = i < overWholeRun;
        const int slices = whole ? overWholeRun : trials - overWholeRun;
        const int slice = whole ? i : i - overWholeRun;
        const double at = (slice + random.generateDouble()) / slices;
        moments.append({!whole, qint64(at * double(whole ? profile.total : applySpan))});
    }
    return moments;
}
