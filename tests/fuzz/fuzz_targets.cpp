// The fuzzed entry points by name (also their corpus directories' names): each runs one input
// through a reader of untrusted data and aborts when a rule that must hold for any input breaks.
// fuzz_corpus runs them on their corpora; built with libFuzzer, the program named fuzz_<name> fuzzes one.
#include "apply/artifact_decoder.h"
#include "apply/interrupted_apply_repair.h"
#include "update/manifest.h"
#include "update/manifest_signature.h"
#include "update/update_session.h"
#include "update/updater_config.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

struct FuzzTarget {
    const char* name;
    int (*entry)(const uint8_t* data, size_t size);
};

namespace {

void require(bool holds, const char* rule)
{
    if (!holds) {
        std::fprintf(stderr, "fuzz: broken rule: %s\n", rule);
        std::abort();
    }
}

QByteArray bytes(const uint8_t* data, size_t size) { return QByteArray(reinterpret_cast<const char*>(data), int(size)); }

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// A path in the scratch directory of all targets, on a memory file system when there is one:
// the repair syncs every rename.
QString scratch(const QString& name)
{
    static QTemporaryDir dir(QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm/corv-fuzz-XXXXXX")
                                                                       : QDir::tempPath() + "/corv-fuzz-XXXXXX");
    require(dir.isValid(), "scratch directory");
    return dir.filePath(name);
}

// Relative, "/"-separated, normalised, without empty, "." or ".." names, drive letters or backslashes.
bool isSafeRelative(const QString& path)
{
    const QStringList parts = path.split('/');
    return !path.contains(':') && !path.contains('\\') && !parts.contains("") && !parts.contains(".")
        && !parts.contains("..") && safeRelativePath(path) == path;
}

// A rejected manifest leaves the record as it was; an accepted one has a version and files with
// safe paths and lower-case hashes.
int manifestInput(const uint8_t* data, size_t size)
{
    Manifest manifest;
    manifest.fullVersion = "untouched";
    if (!parseManifest(bytes(data, size), &manifest)) {
        require(manifest.fullVersion == "untouched" && manifest.files.isEmpty(), "a rejected manifest changed the record");
        return 0;
    }
    require(!manifest.fullVersion.isEmpty() && !manifest.files.isEmpty(), "an accepted manifest without version or files");
    for (const ManifestFile& file : manifest.files)
        require(isSafeRelative(file.path) && !file.sha256.isEmpty() && file.sha256 == file.sha256.toLower(),
                "an accepted path that is unsafe, or a hash not in lower case");
    return 0;
}

// A path (UTF-8) passes as a safe relative path that stays below its root, or not at all.
int safePathInput(const uint8_t* data, size_t size)
{
    const QString safe = safeRelativePath(QString::fromUtf8(bytes(data, size)));
    require(safe.isEmpty() || (isSafeRelative(safe) && QDir::cleanPath("/root/" + safe).startsWith("/root/")),
            "an unsafe path passed");
    return 0;
}

// The bytes of updater.conf.
int configInput(const uint8_t* data, size_t size)
{
    require(writeFile(scratch("updater.conf"), bytes(data, size)), "scratch configuration");
    QString manifestUrl, baseUrl;
    require(!readUpdaterConfig(scratch(""), manifestUrl, baseUrl)
                || (!manifestUrl.isEmpty() && (baseUrl.endsWith('/') || baseUrl == manifestUrl)),
            "an accepted configuration without a manifest URL or with a base URL that is no directory");
    return 0;
}

// Manifest bytes, NUL, signature text; without a NUL, the signature of a fixed manifest.
int signatureInput(const uint8_t* data, size_t size)
{
    const QByteArray input = bytes(data, size), manifest = input.contains('\0') ? input.left(input.indexOf('\0')) : "{}";
    const QByteArray signature = input.mid(input.indexOf('\0') + 1);
    require(verifyManifestSignature(manifest, signature) == verifyManifestSignature(manifest, signature),
            "the check is not deterministic");
    return 0;
}

// The sorted contents of the files below root, and the targets of its links.
QList<QByteArray> treeOf(const QString& root)
{
    QList<QByteArray> found;
    for (QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
         it.hasNext();) {
        QFile file(it.next());
        if (it.fileInfo().isSymLink() || (it.fileInfo().isFile() && file.open(QIODevice::ReadOnly)))
            found.append(file.isOpen() ? file.readAll() : "link to " + it.fileInfo().symLinkTarget().toUtf8());
    }
    std::sort(found.begin(), found.end());
    return found;
}

// One line per entry of an installation: a kind letter ("f" file, "d" directory, "l" link to a
// directory outside, "m" link to a file outside) and a relative path. The repair of an
// interrupted apply may only delete or rename what lies in the installation.
int repairWalkInput(const uint8_t* data, size_t size)
{
    const QString outside = scratch("walk/outside"), tree = scratch("walk/tree");
    static const bool made = QDir().mkpath(outside) && writeFile(outside + "/victim", "victim")
        && writeFile(outside + "/victim.bak", "victim backup");
    require(made && QDir(tree).removeRecursively() && QDir().mkpath(tree), "scratch tree");
    QList<QByteArray> lines = bytes(data, size).split('\n').mid(0, 64);
    const auto isLink = [](const QByteArray& line) { return line.startsWith('l') || line.startsWith('m'); };
    std::stable_partition(lines.begin(), lines.end(), [&](const QByteArray& line) { return !isLink(line); });
    for (const QByteArray& line : lines) { // links last, so that nothing is made through one
        const QString relative = safeRelativePath(QFile::decodeName(line.mid(1, 400))), path = tree + '/' + relative;
        const QFileInfo info(path), parent(info.path());
        if (relative.isEmpty() || relative.contains(QChar(0)) || info.exists() || info.isSymLink()
            || (isLink(line) ? !parent.isDir() || parent.isSymLink() : !QDir().mkpath(info.path())))
            continue;
        if (line[0] == 'f')
            writeFile(path, "content " + line);
        else if (line[0] == 'd')
            QDir().mkpath(path);
        else if (isLink(line))
            QFile::link(line[0] == 'l' ? outside : outside + "/victim", path);
    }
    QList<QByteArray> before = treeOf(tree);
    UpdateSession session;
    session.appDir = tree;
    repairInterruptedApply(session);
    require(treeOf(outside) == QList<QByteArray>({ "victim", "victim backup" }), "the repair changed files outside");
    require(QDir(scratch("walk")).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)
                == QStringList({ "outside", "tree" }),
            "the repair wrote beside the installation");
    for (const QByteArray& entry : treeOf(tree))
        require(before.removeOne(entry), "the repair made up a file or a link");
    return 0;
}

// The first byte picks a compressed file (even) or a patch against a fixed source of 8000 bytes
// (odd), the next two give the expected size (little endian, plus one), the rest is zstd data.
// The decoder hands on at most that size and succeeds only with exactly that many bytes.
int artifactInput(const uint8_t* data, size_t size)
{
    static const bool sourceWritten = [] {
        QByteArray lines;
        for (int i = 0; lines.size() < 8000; ++i)
            lines += "line " + QByteArray::number(i) + '\n';
        return writeFile(scratch("source"), lines.left(8000));
    }();
    if (size < 3)
        return 0;
    require(sourceWritten && writeFile(scratch("artifact.zst"), bytes(data + 3, size - 3)), "scratch artifact");
    const qint64 expected = qint64(data[1] | (data[2] << 8)) + 1;
    qint64 handedOn = 0;
    QString error;
    const bool decoded = decodeArtifact(scratch("artifact.zst"), data[0] % 2 ? scratch("source") : QString(), expected,
                                        [&](const char*, qint64 length) {
                                            require((handedOn += length) <= expected, "more output than the size");
                                            return true;
                                        },
                                        &error);
    require(decoded ? handedOn == expected && error.isEmpty() : !error.isEmpty(), "a result without its length or reason");
    return 0;
}

} // namespace

extern const FuzzTarget kFuzzTargets[6] = {
    { "manifest", &manifestInput },   { "safe_path", &safePathInput },     { "config", &configInput },
    { "signature", &signatureInput }, { "repair_walk", &repairWalkInput }, { "artifact", &artifactInput },
};

static const FuzzTarget* fuzzed = nullptr;

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // The updater logs through Qt; millions of lines would only slow the fuzzer down.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    static QCoreApplication app(*argc, *argv);
    const QString program = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    for (const FuzzTarget& each : kFuzzTargets)
        fuzzed = program == QLatin1String("fuzz_") + each.name ? &each : fuzzed;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return fuzzed->entry(data, size); }
