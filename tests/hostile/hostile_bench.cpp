#include "hostile/hostile_bench.h"

#include "support/test_files.h"
#include "support/test_signing.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QtNumeric>

namespace {

QByteArray pattern(int size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint32 x = seed * 2654435761u + 7u;
    for (int i = 0; i < size; ++i) {
        x = x * 1664525u + 1013904223u;
        bytes[i] = char(x >> 24);
    }
    return bytes;
}

const QString kCBin = QStringLiteral("lib/c.bin");

// 60000 bytes of numbered lines, of which every 50th differs between editions: lib/c.bin
// compresses, and a patch between two editions is small.
QByteArray lines(int edition)
{
    QByteArray text;
    for (int i = 0; text.size() < 60000; ++i)
        text += "entry " + QByteArray::number(i) + " = " + QByteArray::number((i * 7919 + (i % 50 == 0 ? edition : 0)) % 100003) + '\n';
    return text.left(60000);
}

BuildFiles build1()
{
    return {{QStringLiteral("a.bin"), pattern(20000, 1)},
            {QStringLiteral("b.bin"), pattern(5000, 2)},
            {QStringLiteral("d.txt"), "delta"},
            {kCBin, lines(3)}};
}

// Against build 1: a.bin, e.txt (new) and lib/c.bin change, in this manifest order.
BuildFiles build2()
{
    return {{QStringLiteral("a.bin"), pattern(20000, 11)},
            {QStringLiteral("b.bin"), pattern(5000, 2)},
            {QStringLiteral("d.txt"), "delta"},
            {QStringLiteral("e.txt"), "echo"},
            {kCBin, lines(13)}};
}

// The build the server publishes for a row.
BuildFiles publishedBuild(Publication publication)
{
    BuildFiles files = build2();
    if (publication == Publication::EmptyFile)
        files.insert(QStringLiteral("e.txt"), QByteArray());
    return files;
}

BuildFiles olderBuild()
{
    return {{QStringLiteral("a.bin"), pattern(20000, 21)},
            {QStringLiteral("b.bin"), pattern(5000, 2)},
            {QStringLiteral("d.txt"), "delta"},
            {kCBin, lines(23)}};
}

bool writeBytes(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QByteArray readBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// relative path -> SHA-256 of every file of the installation but the log and the cache.
QMap<QString, QString> snapshot(const QString& root)
{
    QMap<QString, QString> files;
    const QDir dir(root);
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString rel = dir.relativeFilePath(it.next());
        if (rel != QLatin1String("updater.log") && !rel.startsWith(QLatin1String(".update-cache/")))
            files.insert(rel, it.fileInfo().isFile() ? sha256Hex(readBytes(it.filePath())) : QStringLiteral("<not a file>"));
    }
    return files;
}

QStringList entriesOf(const QString& dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

// relative path -> content of every file below root, or of root itself when it is a file.
QMap<QString, QByteArray> contents(const QString& root)
{
    if (QFileInfo(root).isFile())
        return {{QString(), readBytes(root)}};
    QMap<QString, QByteArray> files;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        files.insert(QDir(root).relativeFilePath(path), it.fileInfo().isFile() ? readBytes(path) : QByteArray("<dir>"));
    }
    return files;
}

// Plants row.link at row.linkPath, pointing into `outside`.
bool plantLink(const HostileRow& row, const TestInstall& install, const QString& outside)
{
    const QString path = install.path(row.linkPath);
    const QString target = outside + QStringLiteral("/target");
    if (row.link == Link::Fifo || row.link == Link::ToZeroDevice) {
        QFile::remove(path);
        return row.link == Link::Fifo ? QProcess::execute(QStringLiteral("mkfifo"), {path}) == 0
                                      : QFile::link(QStringLiteral("/dev/zero"), path);
    }
    if (row.link == Link::ToDirectory) {
        if (!writeBytes(target + QStringLiteral("/keep.txt"), "outside"))
            return false;
    } else {
        const QByteArray content = QFileInfo::exists(path) ? readBytes(path) : build2().value(kCBin).left(1000);
        if (!writeBytes(target, content))
            return false;
    }
    QFile::remove(path);
    if (!QDir().mkpath(QFileInfo(path).path()))
        return false;
    if (row.link == Link::Hard)
        return QProcess::execute(QStringLiteral("ln"), {target, path}) == 0;
    return QFile::link(target, path);
}

QString describeSnapshotChange(const QMap<QString, QString>& expected, const QMap<QString, QString>& actual)
{
    QStringList changes;
    for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
        if (!actual.contains(it.key()))
            changes.append(QStringLiteral("missing ") + it.key());
        else if (actual.value(it.key()) != it.value())
            changes.append(QStringLiteral("other content in ") + it.key());
    }
    for (auto it = actual.cbegin(); it != actual.cend(); ++it) {
        if (!expected.contains(it.key()))
            changes.append(QStringLiteral("unexpected ") + it.key());
    }
    return changes.join(QStringLiteral(", "));
}

} // namespace

HostileBench::HostileBench() = default;
HostileBench::~HostileBench() = default;

bool HostileBench::start()
{
    if (!runtimeDir.isValid() || !published.isValid())
        return false;
    // Lock files live here (a private directory, as the platform convention wants).
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
    otherKeyPath = QFile::encodeName(runtimeDir.filePath(QStringLiteral("other_private.pem")));
    if (!generateKeyPair(QString::fromLocal8Bit(otherKeyPath), runtimeDir.filePath(QStringLiteral("other_public.pem"))))
        return false;
    // lib/c.bin's artifacts, made once with the zstd tool.
    patch = zstdPatch(build1().value(kCBin), build2().value(kCBin));
    compressed = zstdCompressed(build2().value(kCBin));
    otherPatch = zstdPatch(olderBuild().value(kCBin), build2().value(kCBin));
    if (patch.isEmpty() || compressed.isEmpty() || otherPatch.isEmpty())
        return false;
    server = std::make_unique<TestServer>(published.path());
    return server->start();
}

QString HostileBench::patchPath() const
{
    return patchRelPath(build1().value(kCBin), build2().value(kCBin));
}

QString HostileBench::compressedPath() const
{
    return compressedRelPath(build2().value(kCBin));
}

QString HostileBench::url(const QString& path) const
{
    return server->url(QStringLiteral("b/") + path);
}

QStringList HostileBench::applyManifestFails(const QString& path) const
{
    const QString quoted = QLatin1Char('"') + url(path) + QLatin1Char('"');
    const QString last = path.endsWith(QLatin1String(".sig")) ? QStringLiteral("[Update] tai .sig that bai -> chay ban hien tai")
                                                              : QStringLiteral("[Update] tai manifest that bai -> chay ban hien tai");
    return {QStringLiteral("[Update] GET loi ") + quoted + QStringLiteral(" \"*\""),
            QStringLiteral("[Update] thu lai GET ") + quoted + QStringLiteral(" lan 2"),
            QStringLiteral("[Update] GET loi ") + quoted + QStringLiteral(" \"*\""), last};
}

QStringList HostileBench::applyFileFails(const QString& path) const
{
    return {QStringLiteral("[Update] GET(file) loi \"%1\" \"*\"").arg(url(path)),
            QStringLiteral("[Update] tai \"%1\" that bai -> huy, chay ban hien tai").arg(path)};
}

QStringList HostileBench::applyUpdated(qint64 wireBytes)
{
    return {QStringLiteral("[Update] dung 0 / 3 file tu kho tam"),
            QStringLiteral("[Update] da tai qua mang %1 byte (ca file: 80004 byte)").arg(wireBytes),
            QStringLiteral("[Update] CAP NHAT THANH CONG -> \"2.0\"")};
}

QStringList HostileBench::prefetchStart()
{
    return {QStringLiteral("[UpdatePrefetch] bat dau 2.0 - 3 file, 0 MB"),
            QStringLiteral("[UpdatePrefetch] a.bin tai tu dau 19 KB"),
            QStringLiteral("[UpdatePrefetch] a.bin xong ( 1 / 3 )"),
            QStringLiteral("[UpdatePrefetch] e.txt tai tu dau 0 KB"),
            QStringLiteral("[UpdatePrefetch] e.txt xong ( 2 / 3 )")};
}

QString HostileBench::prefetchFresh()
{
    return QStringLiteral("[UpdatePrefetch] lib/c.bin tai tu dau 58 KB");
}

QStringList HostileBench::prefetchDone()
{
    return {QStringLiteral("[UpdatePrefetch] lib/c.bin xong ( 3 / 3 )"),
            QStringLiteral("[UpdatePrefetch] xong toan bo - 3 file ok, 0 bo lai cho updater")};
}

QString HostileBench::prefetchLeft()
{
    return QStringLiteral("[UpdatePrefetch] xong toan bo - 2 file ok, 1 bo lai cho updater");
}

bool HostileBench::publish(const HostileRow& row, QString* error)
{
    QDir(published.filePath(QStringLiteral("b"))).removeRecursively();
    server->clearRules();

    BuildFiles files = publishedBuild(row.publication);
    QByteArray manifest;
    switch (row.publication) {
    case Publication::OtherProduct:
        manifest = makeManifestJson(QStringLiteral("2.0"), 11, files, QStringLiteral("Other"));
        break;
    case Publication::OtherArch:
        manifest = makeManifestJson(QStringLiteral("2.0"), 11, files, QStringLiteral("Corvanta"), QStringLiteral("arm64"));
        break;
    case Publication::OlderBuild:
        files = olderBuild();
        manifest = makeManifestJson(QStringLiteral("0.9"), 9, files);
        break;
    case Publication::SameBuildOtherContent:
        manifest = makeManifestJson(QStringLiteral("1.0-replay"), 10, files);
        break;
    case Publication::HostilePath: {
        for (int i = 0; i < 30; ++i)
            files.insert(QStringLiteral("fill/f%1.txt").arg(i, 2, 10, QLatin1Char('0')), QByteArray("fill ") + QByteArray::number(i));
        QJsonObject root = QJsonDocument::fromJson(makeManifestJson(QStringLiteral("2.0"), 11, files)).object();
        QJsonArray entries = root.value(QStringLiteral("files")).toArray();
        entries.insert(entries.size() / 2, QJsonObject{{QStringLiteral("path"), row.hostilePath},
                                                       {QStringLiteral("size"), 4},
                                                       {QStringLiteral("sha256"), sha256Hex("evil")}});
        root.insert(QStringLiteral("files"), entries);
        manifest = QJsonDocument(root).toJson();
        break;
    }
    case Publication::ExtraSizes: {
        QJsonObject root = QJsonDocument::fromJson(makeManifestJson(QStringLiteral("2.0"), 11, files)).object();
        QJsonArray entries = root.value(QStringLiteral("files")).toArray();
        for (int i = 0; i < row.extraSizes.size(); ++i) {
            QJsonObject entry{{QStringLiteral("path"), QStringLiteral("more/f%1.bin").arg(i, 4, 10, QLatin1Char('0'))},
                              {QStringLiteral("sha256"), sha256Hex("more")}};
            if (!qIsNaN(row.extraSizes.at(i)))
                entry.insert(QStringLiteral("size"), row.extraSizes.at(i));
            entries.append(entry);
        }
        root.insert(QStringLiteral("files"), entries);
        manifest = QJsonDocument(root).toJson(QJsonDocument::Compact);
        break;
    }
    default:
        manifest = makeManifestJson(QStringLiteral("2.0"), 11, files);
        break;
    }
    // lib/c.bin's artifacts: what is served, and what the manifest lists (the same bytes).
    const QByteArray from = build1().value(kCBin);
    QByteArray servedPatch = row.publication == Publication::PatchOfOtherSource ? otherPatch : patch;
    if (row.publication == Publication::CorruptPatch)
        servedPatch[servedPatch.size() / 2] = char(servedPatch.at(servedPatch.size() / 2) ^ 0x55);
    const QByteArray servedCompressed = row.publication == Publication::TruncatedCompressed
                                            ? compressed.left(compressed.size() / 2) : compressed;
    const bool listsPatch = row.publication == Publication::Artifacts || row.publication == Publication::PatchOnly
                            || row.publication == Publication::CorruptPatch
                            || row.publication == Publication::PatchOfOtherSource;
    const bool listsCompressed = row.publication == Publication::Artifacts
                                 || row.publication == Publication::CompressedOnly
                                 || row.publication == Publication::TruncatedCompressed;
    if (listsPatch || listsCompressed) {
        manifest = withArtifacts(manifest, kCBin, listsCompressed ? servedCompressed : QByteArray(),
                                 listsPatch ? QList<QPair<QByteArray, QByteArray>>{{from, servedPatch}}
                                            : QList<QPair<QByteArray, QByteArray>>{});
    }
    if (!publishBuild(published.path(), QStringLiteral("b"), files, manifest)
        || (listsPatch && !writeBytes(published.filePath(QStringLiteral("b/") + patchPath()), servedPatch))
        || (listsCompressed && !writeBytes(published.filePath(QStringLiteral("b/") + compressedPath()), servedCompressed))) {
        *error = QStringLiteral("cannot publish");
        return false;
    }

    // A second copy of lib/c.bin that a redirect may point to.
    const QString served = published.filePath(QStringLiteral("b/") + kCBin);
    if (!QDir().mkpath(published.filePath(QStringLiteral("b/mirror")))
        || !QFile::copy(served, published.filePath(QStringLiteral("b/mirror/c.bin")))) {
        *error = QStringLiteral("cannot write the mirror");
        return false;
    }
    const QString signature = published.filePath(QStringLiteral("b/manifest.json.sig"));
    bool ok = true;
    if (row.publication == Publication::ShortFile)
        ok = writeBytes(served, files.value(kCBin).left(30000));
    else if (row.publication == Publication::LongFile)
        ok = writeBytes(served, files.value(kCBin) + pattern(20000, 99));
    else if (row.publication == Publication::SignatureOfOtherManifest)
        ok = writeBytes(signature, signWithKey(makeManifestJson(QStringLiteral("2.1"), 12, files)));
    else if (row.publication == Publication::OtherKey)
        ok = writeBytes(signature, signWithKey(manifest, QString::fromLocal8Bit(otherKeyPath)));
    if (!ok) {
        *error = QStringLiteral("cannot write the hostile variant");
        return false;
    }
    if (!row.rulePath.isEmpty())
        server->setRule(QStringLiteral("b/") + row.rulePath, row.rule);
    for (auto it = row.moreRules.cbegin(); it != row.moreRules.cend(); ++it)
        server->setRule(QStringLiteral("b/") + it.key(), it.value());
    return true;
}

// Runs the updater with its file size limited (a longer file ends it with SIGXFSZ) while its
// memory is watched; kills it when its resident size passes the bound or it runs too long.
void HostileBench::runBounded(const QString& exe, const QStringList& args, const QProcessEnvironment& env,
                              HostileResult& result)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.setProcessEnvironment(env);
    process.start(QStringLiteral("prlimit"), QStringList{QStringLiteral("--fsize=%1").arg(kFileSizeLimit), QStringLiteral("--"), exe} + args);
    if (!process.waitForStarted(10000)) {
        result.violations.append(QStringLiteral("cannot start prlimit (util-linux): ") + process.errorString());
        return;
    }
    QFile status(QStringLiteral("/proc/%1/status").arg(process.processId()));
    QElapsedTimer clock;
    clock.start();
    while (!process.waitForFinished(50)) {
        if (status.open(QIODevice::ReadOnly)) {
            static const QRegularExpression highWater(QStringLiteral("VmHWM:\\s+(\\d+) kB"));
            const QRegularExpressionMatch m = highWater.match(QString::fromLatin1(status.readAll()));
            status.close();
            if (m.hasMatch())
                result.peakRssKiB = qMax(result.peakRssKiB, m.captured(1).toLongLong());
        }
        if (result.peakRssKiB > kPeakRssLimitKiB || clock.elapsed() > kRunLimitMs) {
            process.kill();
            process.waitForFinished(10000);
            result.violations.append(result.peakRssKiB > kPeakRssLimitKiB
                                         ? QStringLiteral("resident memory grew beyond %1 KiB").arg(kPeakRssLimitKiB)
                                         : QStringLiteral("still running after %1 ms").arg(kRunLimitMs));
            return;
        }
    }
    if (process.exitStatus() != QProcess::NormalExit)
        result.violations.append(QStringLiteral("ended by a signal (SIGXFSZ when a file grew beyond %1 bytes)").arg(kFileSizeLimit));
    else if (process.exitCode() != 0)
        result.violations.append(QStringLiteral("exit code %1").arg(process.exitCode()));
}

HostileResult HostileBench::run(const HostileRow& row)
{
    HostileResult result;
    QString error;
    if (!publish(row, &error)) {
        result.violations.append(error);
        return result;
    }

    // The installation is the only entry of its temporary parent, which is also the updater's
    // TMPDIR; HOME is an empty directory of its own.
    QTemporaryDir sandbox;
    QTemporaryDir home;
    const QByteArray previousTmp = qgetenv("TMPDIR");
    qputenv("TMPDIR", QFile::encodeName(sandbox.path()));
    std::unique_ptr<TestInstall> install = std::make_unique<TestInstall>();
    qputenv("TMPDIR", previousTmp);
    if (previousTmp.isEmpty())
        qunsetenv("TMPDIR");
    if (!sandbox.isValid() || !home.isValid() || !install->isValid()
        || !install->installBuild(build1(), makeManifestJson(QStringLiteral("1.0"), 10, build1()))
        || !install->writeConfig(url(QStringLiteral("manifest.json")))) {
        result.violations.append(QStringLiteral("cannot prepare the installation"));
        return result;
    }
    if (row.seedPartBytes > 0
        && !writeBytes(install->path(QStringLiteral(".update-cache/2.0/files/lib/c.bin.part")),
                       build2().value(kCBin).left(int(row.seedPartBytes)))) {
        result.violations.append(QStringLiteral("cannot seed the cache"));
        return result;
    }
    QTemporaryDir linkTargets;
    if (row.link != Link::None && (!linkTargets.isValid() || !plantLink(row, *install, linkTargets.path()))) {
        result.violations.append(QStringLiteral("cannot plant the link"));
        return result;
    }
    const QMap<QString, QByteArray> targetsBefore = contents(linkTargets.path());
    const QMap<QString, QString> before = snapshot(install->dir());

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TMPDIR"), sandbox.path());
    env.insert(QStringLiteral("HOME"), home.path());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    runBounded(install->exePath(), row.mode == RunMode::Prefetch ? QStringList{QStringLiteral("--prefetch-only")} : QStringList(),
               env, result);

    const QString tag = row.mode == RunMode::Prefetch ? QStringLiteral("[UpdatePrefetch]") : QStringLiteral("[Update]");
    for (const QString& line : install->logTexts()) {
        if (line.startsWith(tag + QLatin1Char(' ')))
            result.lines.append(line);
    }

    const QStringList outside = entriesOf(sandbox.path());
    if (outside != QStringList{QFileInfo(install->dir()).fileName()})
        result.violations.append(QStringLiteral("written outside the installation: ") + outside.join(QStringLiteral(", ")));
    if (!entriesOf(home.path()).isEmpty())
        result.violations.append(QStringLiteral("written into HOME: ") + entriesOf(home.path()).join(QStringLiteral(", ")));
    if (contents(linkTargets.path()) != targetsBefore)
        result.violations.append(QStringLiteral("written through the link at ") + row.linkPath);
    if (install->exists(QStringLiteral(".staging")))
        result.violations.append(QStringLiteral(".staging left behind"));

    QMap<QString, QString> expected = before;
    if (row.updates) {
        const BuildFiles files = publishedBuild(row.publication);
        for (auto it = files.cbegin(); it != files.cend(); ++it)
            expected.insert(it.key(), sha256Hex(it.value()));
        expected.insert(QStringLiteral("manifest.json"),
                        sha256Hex(readBytes(published.filePath(QStringLiteral("b/manifest.json")))));
    }
    const QMap<QString, QString> after = snapshot(install->dir());
    if (after != expected)
        result.violations.append(QStringLiteral("installation: ") + describeSnapshotChange(expected, after));

    // The cache may only hold what the published build really contains, files and artifacts.
    const QString cacheFiles = install->path(QStringLiteral(".update-cache/2.0/files"));
    const QDir cacheDir(cacheFiles);
    BuildFiles truth = publishedBuild(row.publication);
    const QString artifactDir = published.filePath(QStringLiteral("b/.zstd"));
    for (const QString& name : QDir(artifactDir).entryList(QDir::Files))
        truth.insert(QStringLiteral(".zstd/") + name, readBytes(artifactDir + QLatin1Char('/') + name));
    QDirIterator it(cacheFiles, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString rel = cacheDir.relativeFilePath(it.next());
        const QByteArray content = readBytes(it.filePath());
        const bool part = rel.endsWith(QLatin1String(".part"));
        const QByteArray right = truth.value(part ? rel.chopped(5) : rel);
        if (part ? !right.startsWith(content) : content != right)
            result.violations.append(QStringLiteral("cache holds bad bytes in %1 (%2 bytes)").arg(rel).arg(content.size()));
    }
    return result;
}

HostileRow makeRow(RunMode mode, Publication publication, const QString& rulePath, const TestServer::Rule& rule,
                   const QStringList& expected, bool updates)
{
    HostileRow row;
    row.mode = mode;
    row.publication = publication;
    row.rulePath = rulePath;
    row.rule = rule;
    row.expected = expected;
    row.updates = updates;
    return row;
}

bool linesMatch(const QStringList& expected, const QStringList& actual)
{
    if (expected.size() != actual.size())
        return false;
    for (int i = 0; i < expected.size(); ++i) {
        QStringList choices;
        for (const QString& choice : expected.at(i).split(QStringLiteral(" ||| "))) {
            QStringList pieces = choice.split(QLatin1Char('*'));
            for (QString& piece : pieces)
                piece = QRegularExpression::escape(piece);
            choices.append(pieces.join(QStringLiteral(".*")));
        }
        const QRegularExpression pattern(QStringLiteral("\\A(?:") + choices.join(QLatin1Char('|')) + QStringLiteral(")\\z"),
                                         QRegularExpression::DotMatchesEverythingOption);
        if (!pattern.match(actual.at(i)).hasMatch())
            return false;
    }
    return true;
}

bool outcomeMatches(const HostileRow& row, const QStringList& actual)
{
    if (linesMatch(row.expected, actual))
        return true;
    for (const QStringList& alternative : row.alternatives) {
        if (linesMatch(alternative, actual))
            return true;
    }
    return false;
}

QString describeLines(const QStringList& expected, const QStringList& actual)
{
    return QStringLiteral("\nexpected:\n  ") + expected.join(QStringLiteral("\n  ")) + QStringLiteral("\nactual:\n  ")
        + actual.join(QStringLiteral("\n  "));
}
