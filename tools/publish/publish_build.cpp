#include "build_tree.h"
#include "published_artifacts.h"
#include "artifact_encoder.h"
#include "command_line.h"
#include "console.h"
#include "publish_commands.h"
#include "published_file.h"
#include "signing_key.h"

#include "base/sha256.h"
#include "update/manifest.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QRegularExpression>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const char kHelp[] =
    "Usage: corvanta-publish build --input DIR --out DIR --version V --build-number N\n"
    "                              --key PRIVATE.pem [--product NAME] [--arch ARCH]\n"
    "                              [--exclude GLOB]... [--delta-from DIR]... [--zstd-level N]\n"
    "\n"
    "Publishes the build in --input into --out, the directory served at the updater's\n"
    "baseUrl: every file at its relative path, then manifest.json (paths with \"/\", sorted,\n"
    "with size and lower-case SHA-256) and manifest.json.sig (base64 of the DER ECDSA\n"
    "signature over the exact bytes of manifest.json).\n"
    "\n"
    "  --input DIR         the build as it is to be installed\n"
    "  --out DIR           the published tree; created when missing, may hold an older build\n"
    "  --version V         fullVersion, e.g. 2.4.1\n"
    "  --build-number N    buildNumber, a whole number >= 0, higher than every earlier build's:\n"
    "                      the updater never installs a lower one, so an old signed manifest\n"
    "                      replayed by a server cannot downgrade an installation\n"
    "  --product NAME      product (default Corvanta; empty leaves it out)\n"
    "  --arch ARCH         arch (default x64; empty leaves it out)\n"
    "  --key PRIVATE.pem   the P-256 signing key (corvanta-publish keygen)\n"
    "  --exclude GLOB      leave out matching files and directories; \"*\" and \"?\" do not\n"
    "                      match \"/\"; a GLOB without \"/\" matches a name at any depth, one\n"
    "                      with \"/\" the path from the input root. May be repeated.\n"
    "  --delta-from DIR    an earlier build, as its input tree or its published tree (also\n"
    "                      --out itself): every file of this build that DIR holds with other\n"
    "                      content gets a zstd patch from that content. May be repeated, one\n"
    "                      patch per distinct earlier content.\n"
    "  --zstd-level N      zstd level of compressed copies and patches, 1 to 19 (default 19);\n"
    "                      0 publishes neither\n"
    "\n"
    "Smaller downloads: every file is also published compressed with zstd, and patched from\n"
    "its earlier versions, below .zstd/ (named by content: <sha256>.zst, <from>-<sha256>.zst),\n"
    "each listed in the file's manifest entry with its size and SHA-256 (\"zstd\",\n"
    "\"zstdPatches\" with \"from\"). One is published only when it is smaller than what it\n"
    "stands in for, and only after it decoded back to the file. Patches are made only for\n"
    "files of at most 80 MiB. Updaters that do not know these keys download whole files.\n"
    "\n"
    "Every file is written under a temporary name and renamed into place; manifest.json and\n"
    "then manifest.json.sig come last, so the published manifest never lists a file that is\n"
    "not there yet. Names the updater or Windows cannot take, symbolic links, sockets, pipes\n"
    "and devices are refused before anything is written. Progress goes to stderr.\n";

// Files are copied and hashed through a buffer of this size, never read whole.
constexpr qint64 kCopyChunkBytes = 1024 * 1024;
// Progress lines are written at most this often.
constexpr qint64 kProgressIntervalMs = 1000;
constexpr double kMebibyte = 1024.0 * 1024.0;

QString mebibytes(qint64 bytes)
{
    return QString::number(double(bytes) / kMebibyte, 'f', 1);
}

class Progress {
public:
    Progress(int totalFiles, qint64 totalBytes) : totalFiles(totalFiles), totalBytes(totalBytes)
    {
        clock.start();
    }
    void report(int files, qint64 bytes)
    {
        if (clock.elapsed() - lastReportMs < kProgressIntervalMs)
            return;
        lastReportMs = clock.elapsed();
        printError(QStringLiteral("copied %1/%2 files, %3/%4 MiB")
                       .arg(files).arg(totalFiles).arg(mebibytes(bytes), mebibytes(totalBytes)));
    }
    void note(const QString& text)
    {
        if (clock.elapsed() - lastReportMs < kProgressIntervalMs)
            return;
        lastReportMs = clock.elapsed();
        printError(text);
    }

private:
    QElapsedTimer clock;
    qint64 lastReportMs = 0;
    int totalFiles;
    qint64 totalBytes;
};

// Copies one file into the published tree and hashes it in the same pass.
bool publishFile(const BuildFile& file, const QString& outDir, ManifestFile* entry, Progress& progress,
                 int filesDone, qint64* bytesDone, QString* error)
{
    QFile source(file.sourcePath);
    if (!source.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read \"%1\": %2").arg(file.sourcePath, source.errorString());
        return false;
    }
    PublishedFile target(QDir(outDir).filePath(file.relPath));
    if (!target.open(error))
        return false;
    Sha256 hash;
    QByteArray buffer(int(kCopyChunkBytes), Qt::Uninitialized);
    qint64 size = 0;
    for (;;) {
        const qint64 got = source.read(buffer.data(), kCopyChunkBytes);
        if (got < 0) {
            *error = QStringLiteral("cannot read \"%1\": %2").arg(file.sourcePath, source.errorString());
            return false;
        }
        if (got == 0)
            break;
        if (!target.write(buffer.constData(), got, error))
            return false;
        hash.addData(buffer.constData(), got);
        size += got;
        *bytesDone += got;
        progress.report(filesDone, *bytesDone);
    }
    if (!target.finishWriting(error) || !target.moveIntoPlace(error))
        return false;
    *entry = ManifestFile{file.relPath, size, hash.hexResult()};
    return true;
}

QByteArray manifestJson(const Manifest& manifest)
{
    QJsonObject root;
    if (manifest.buildNumber >= 0)
        root.insert(QStringLiteral("buildNumber"), double(manifest.buildNumber));
    root.insert(QStringLiteral("fullVersion"), manifest.fullVersion);
    if (!manifest.product.isEmpty())
        root.insert(QStringLiteral("product"), manifest.product);
    if (!manifest.arch.isEmpty())
        root.insert(QStringLiteral("arch"), manifest.arch);
    QJsonArray files;
    for (const ManifestFile& file : manifest.files) {
        QJsonObject entry{{QStringLiteral("path"), file.path},
                          {QStringLiteral("size"), double(file.size)},
                          {QStringLiteral("sha256"), file.sha256}};
        QJsonArray patches;
        for (const ManifestArtifact& artifact : file.artifacts) {
            QJsonObject described{{QStringLiteral("size"), double(artifact.size)},
                                  {QStringLiteral("sha256"), artifact.sha256}};
            if (artifact.isPatch()) {
                described.insert(QStringLiteral("from"), artifact.sourceSha256);
                patches.append(described);
            } else {
                entry.insert(QStringLiteral("zstd"), described);
            }
        }
        if (!patches.isEmpty())
            entry.insert(QStringLiteral("zstdPatches"), patches);
        files.append(entry);
    }
    root.insert(QStringLiteral("files"), files);
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

// The updater must read back exactly what was meant: same header, same files in order.
bool readsBackAsWritten(const QByteArray& bytes, const Manifest& written)
{
    Manifest read;
    if (!parseManifest(bytes, &read) || read.buildNumber != written.buildNumber
        || read.fullVersion != written.fullVersion || read.product != written.product
        || read.arch != written.arch || read.files.size() != written.files.size())
        return false;
    for (int i = 0; i < read.files.size(); ++i) {
        const ManifestFile& a = read.files.at(i);
        const ManifestFile& b = written.files.at(i);
        if (a.path != b.path || a.size != b.size || a.sha256 != b.sha256 || a.artifacts.size() != b.artifacts.size())
            return false;
        for (int j = 0; j < a.artifacts.size(); ++j) {
            const ManifestArtifact& x = a.artifacts.at(j);
            const ManifestArtifact& y = b.artifacts.at(j);
            if (x.sourceSha256 != y.sourceSha256 || x.size != y.size || x.sha256 != y.sha256)
                return false;
        }
    }
    return true;
}

// The canonical form of path, also when its last parts do not exist yet.
QString resolvedPath(const QString& path)
{
    QString existing = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    QString rest;
    while (!QFileInfo::exists(existing) && existing != QDir::rootPath() && !existing.isEmpty()) {
        rest = QStringLiteral("/") + QFileInfo(existing).fileName() + rest;
        existing = QFileInfo(existing).path();
    }
    return QDir::cleanPath(QFileInfo(existing).canonicalFilePath() + rest);
}

bool contains(const QString& dir, const QString& path)
{
    return path == dir || path.startsWith(dir.endsWith(QLatin1Char('/')) ? dir : dir + QLatin1Char('/'));
}

} // namespace

int runBuild(const QStringList& args)
{
    const QString command = QStringLiteral("build");
    QCommandLineParser parser;
    for (const char* name : {"input", "out", "version", "build-number", "product", "arch", "key", "exclude",
                             "delta-from", "zstd-level"})
        parser.addOption(QCommandLineOption(QString::fromLatin1(name), QString(), QStringLiteral("value")));
    int exitCode = kExitOk;
    if (!parseCommandLine(parser, command, args, kHelp,
                          {QStringLiteral("input"), QStringLiteral("out"), QStringLiteral("version"),
                           QStringLiteral("key"), QStringLiteral("build-number")},
                          &exitCode))
        return exitCode;

    Manifest manifest;
    manifest.fullVersion = parser.value(QStringLiteral("version"));
    if (manifest.fullVersion.isEmpty())
        return usageError(command, QStringLiteral("--version is empty"));
    if (manifest.fullVersion.contains(QRegularExpression(QStringLiteral("[\\x00-\\x1f\\x7f]"))))
        return usageError(command, QStringLiteral("--version must not contain control characters"));
    bool ok = false;
    manifest.buildNumber = parser.value(QStringLiteral("build-number")).toLongLong(&ok);
    if (!ok || manifest.buildNumber < 0)
        return usageError(command, QStringLiteral("--build-number must be a whole number >= 0, not \"%1\"")
                                       .arg(parser.value(QStringLiteral("build-number"))));
    manifest.product = parser.isSet(QStringLiteral("product")) ? parser.value(QStringLiteral("product"))
                                                               : QStringLiteral("Corvanta");
    manifest.arch = parser.isSet(QStringLiteral("arch")) ? parser.value(QStringLiteral("arch"))
                                                         : QStringLiteral("x64");
    int zstdLevel = kDefaultZstdLevel;
    if (parser.isSet(QStringLiteral("zstd-level"))) {
        zstdLevel = parser.value(QStringLiteral("zstd-level")).toInt(&ok);
        if (!ok || zstdLevel < 0 || zstdLevel > 19)
            return usageError(command, QStringLiteral("--zstd-level must be a whole number from 0 to 19, not \"%1\"")
                                           .arg(parser.value(QStringLiteral("zstd-level"))));
    }
    ExcludeRules excludes;
    QString error;
    if (!excludes.setPatterns(parser.values(QStringLiteral("exclude")), &error))
        return usageError(command, error);

    const QString inputDir = parser.value(QStringLiteral("input"));
    const QString outDir = parser.value(QStringLiteral("out"));
    if (outDir.isEmpty())
        return usageError(command, QStringLiteral("--out is empty"));
    if (!QFileInfo(inputDir).isDir())
        return fail(QStringLiteral("input directory \"%1\" does not exist").arg(inputDir));
    const QString input = resolvedPath(inputDir);
    const QString out = resolvedPath(outDir);
    if (contains(input, out) || contains(out, input))
        return fail(QStringLiteral("the input \"%1\" and the output \"%2\" must not contain each other")
                        .arg(inputDir, outDir));

    QStringList deltaDirs;
    for (const QString& dir : parser.values(QStringLiteral("delta-from"))) {
        if (!QFileInfo(dir).isDir())
            return fail(QStringLiteral("--delta-from directory \"%1\" does not exist").arg(dir));
        deltaDirs.append(resolvedPath(dir));
    }

    const SigningKey key = SigningKey::load(parser.value(QStringLiteral("key")), &error);
    if (!key.isValid())
        return fail(error);

    QList<BuildFile> files;
    if (!collectBuildFiles(input, excludes, &files, &error))
        return fail(error);
    if (files.isEmpty())
        return fail(QStringLiteral("no files to publish in \"%1\"").arg(inputDir));

    qint64 totalBytes = 0;
    for (const BuildFile& file : files)
        totalBytes += QFileInfo(file.sourcePath).size();
    Progress progress(files.size(), totalBytes);
    qint64 bytesDone = 0;
    ArtifactTotals totals;
    const auto note = [&progress](const QString& text) { progress.note(text); };
    for (const BuildFile& file : files) {
        // The artifacts come first: an earlier tree given with --delta-from may be --out itself,
        // whose copy of this file is about to be replaced.
        ManifestFile entry{file.relPath, QFileInfo(file.sourcePath).size(), sha256OfFile(file.sourcePath), {}};
        QList<DeltaSource> sources;
        if (entry.sha256.isEmpty())
            return fail(QStringLiteral("cannot read \"%1\"").arg(file.sourcePath));
        if (zstdLevel > 0
            && (!earlierVersions(deltaDirs, file.relPath, entry.sha256, &sources, &error)
                || !publishArtifacts(file.sourcePath, &entry, sources, zstdLevel, out, note, &totals, &error)))
            return fail(error);
        ManifestFile copied;
        if (!publishFile(file, out, &copied, progress, manifest.files.size(), &bytesDone, &error))
            return fail(error);
        if (copied.sha256 != entry.sha256 || copied.size != entry.size)
            return fail(QStringLiteral("\"%1\" changed while it was published").arg(file.sourcePath));
        manifest.files.append(entry);
    }

    const QByteArray manifestBytes = manifestJson(manifest);
    const QByteArray signature = key.sign(manifestBytes);
    if (!readsBackAsWritten(manifestBytes, manifest))
        return fail(QStringLiteral("the manifest does not read back as written; nothing was published"));
    if (signature.isEmpty() || !verifyWithPublicKeyPem(manifestBytes, signature, key.publicKeyPem()))
        return fail(QStringLiteral("signing the manifest failed; nothing was published"));

    // Both documents are complete on disk before either takes its name, so the two renames
    // follow each other at once. The manifest goes first: a client reads manifest.json and then
    // manifest.json.sig, so only a client whose two requests straddle both renames, or fall
    // between them, sees a mismatched pair; with the signature first, any client whose
    // requests straddle either rename would. A mismatched pair is only ever rejected (the
    // signature check fails) and the client keeps its installed build.
    PublishedFile manifestFile(QDir(out).filePath(QStringLiteral("manifest.json")));
    PublishedFile signatureFile(QDir(out).filePath(QStringLiteral("manifest.json.sig")));
    const QByteArray signatureText = signature + '\n';
    if (!manifestFile.open(&error) || !manifestFile.write(manifestBytes.constData(), manifestBytes.size(), &error)
        || !manifestFile.finishWriting(&error) || !signatureFile.open(&error)
        || !signatureFile.write(signatureText.constData(), signatureText.size(), &error)
        || !signatureFile.finishWriting(&error))
        return fail(error);
    if (!manifestFile.moveIntoPlace(&error))
        return fail(error);
    if (!signatureFile.moveIntoPlace(&error))
        return fail(error + QStringLiteral(": manifest.json is new but its signature is not, so "
                                           "clients reject the build; run the command again"));

    const QString build = manifest.buildNumber >= 0
                              ? QStringLiteral(" (build %1)").arg(manifest.buildNumber)
                              : QString();
    printOut(QStringLiteral("published %1%2: %3 files, %4 MiB in %5")
                 .arg(manifest.fullVersion, build)
                 .arg(manifest.files.size())
                 .arg(mebibytes(bytesDone), QDir::toNativeSeparators(outDir)));
    if (totals.compressed + totals.patches > 0)
        printOut(QStringLiteral("smaller downloads in %1: %2 (%3 MiB), %4 (%5 MiB)")
                     .arg(QLatin1String(kArtifactDir),
                          counted(totals.compressed, QStringLiteral("compressed copy"), QStringLiteral("compressed copies")),
                          mebibytes(totals.compressedBytes),
                          counted(totals.patches, QStringLiteral("patch"), QStringLiteral("patches")),
                          mebibytes(totals.patchBytes)));
    return kExitOk;
}
