#include "fuzz_targets.h"

#include "apply/artifact_decoder.h"
#include "apply/interrupted_apply_repair.h"
#include "update/manifest.h"
#include "update/manifest_signature.h"
#include "update/update_session.h"
#include "update/updater_config.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

void require(bool holds, const char* rule)
{
    if (!holds) {
        std::fprintf(stderr, "fuzz: broken rule: %s\n", rule);
        std::abort();
    }
}

QByteArray bytes(const uint8_t* data, size_t size)
{
    return QByteArray(reinterpret_cast<const char*>(data), int(size));
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

// A scratch directory, on a memory file system when there is one: the repair syncs every rename.
QTemporaryDir& scratch()
{
    static QTemporaryDir dir(QDir(QStringLiteral("/dev/shm")).exists()
                                 ? QStringLiteral("/dev/shm/corv-fuzz-XXXXXX")
                                 : QDir::tempPath() + QStringLiteral("/corv-fuzz-XXXXXX"));
    require(dir.isValid(), "scratch directory");
    return dir;
}

// Relative, "/"-separated, without empty, "." or ".." names, drive letters or backslashes.
bool isSafeRelative(const QString& path)
{
    const QStringList parts = path.split(QLatin1Char('/'));
    return !path.isEmpty() && !path.contains(QLatin1Char(':')) && !path.contains(QLatin1Char('\\'))
        && !parts.contains(QString()) && !parts.contains(QStringLiteral(".")) && !parts.contains(QStringLiteral(".."));
}

// Manifest bytes: a parsed manifest has safe, normalised paths, lower-case hashes, a version;
// a rejected one leaves the record as it was.
int parseManifestInput(const uint8_t* data, size_t size)
{
    Manifest manifest;
    manifest.fullVersion = QStringLiteral("untouched");
    if (!parseManifest(bytes(data, size), &manifest)) {
        require(manifest.fullVersion == QLatin1String("untouched") && manifest.files.isEmpty(),
                "a rejected manifest changed the record");
        return 0;
    }
    require(!manifest.fullVersion.isEmpty() && !manifest.files.isEmpty(),
            "an accepted manifest without version or files");
    for (const ManifestFile& file : manifest.files) {
        require(isSafeRelative(file.path) && safeRelativePath(file.path) == file.path,
                "an accepted path that is unsafe or not normalised");
        require(!file.sha256.isEmpty() && file.sha256 == file.sha256.toLower(), "an accepted hash not in lower case");
    }
    return 0;
}

// A path (UTF-8): the result is empty or a normalised relative path that stays below its root.
int safePathInput(const uint8_t* data, size_t size)
{
    const QString safe = safeRelativePath(QString::fromUtf8(bytes(data, size)));
    require(safe.isEmpty() || (isSafeRelative(safe) && safeRelativePath(safe) == safe),
            "an unsafe or unstable path passed");
    require(safe.isEmpty() || QDir::cleanPath(QStringLiteral("/root/") + safe).startsWith(QStringLiteral("/root/")),
            "a passed path leaves its root");
    return 0;
}

// The bytes of updater.conf.
int configInput(const uint8_t* data, size_t size)
{
    require(writeFile(scratch().filePath(QStringLiteral("updater.conf")), bytes(data, size)), "scratch configuration");
    QString manifestUrl, baseUrl;
    if (readUpdaterConfig(scratch().path(), manifestUrl, baseUrl))
        require(!manifestUrl.isEmpty() && (baseUrl.endsWith(QLatin1Char('/')) || baseUrl == manifestUrl),
                "an accepted configuration without a manifest URL or with a base URL that is no directory");
    return 0;
}

// Manifest bytes, a NUL byte, signature text; without a NUL the input is the signature of a fixed manifest.
int signatureInput(const uint8_t* data, size_t size)
{
    const QByteArray input = bytes(data, size);
    const int split = input.indexOf('\0');
    const QByteArray manifest = split < 0 ? QByteArray("{\"fullVersion\":\"1\"}") : input.left(split);
    const QByteArray signature = input.mid(split + 1);
    require(verifyManifestSignature(manifest, signature) == verifyManifestSignature(manifest, signature),
            "the check is not deterministic");
    return 0;
}

// The sorted contents of the regular files below root and the targets of its links.
QList<QByteArray> treeOf(const QString& root)
{
    QList<QByteArray> found;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        if (info.isSymLink())
            found.append("link to " + info.symLinkTarget().toUtf8());
        else if (info.isFile())
            found.append(readFile(info.filePath()));
    }
    std::sort(found.begin(), found.end());
    return found;
}

// One line per entry of an installation tree: a kind letter and a relative path ("f" file,
// "d" directory, "l" link to a directory outside the tree, "m" link to a file outside it). The
// repair of an interrupted apply then walks the tree: it may only delete or rename what lies in
// it, and never touch anything outside it.
int repairWalkInput(const uint8_t* data, size_t size)
{
    const QString base = scratch().filePath(QStringLiteral("walk"));
    const QString outside = base + QStringLiteral("/outside");
    const QString tree = base + QStringLiteral("/tree");
    static const bool made = QDir().mkpath(outside) && writeFile(outside + QStringLiteral("/victim"), "victim")
        && writeFile(outside + QStringLiteral("/victim.bak"), "victim backup");
    require(made && QDir(tree).removeRecursively() && QDir().mkpath(tree), "scratch tree");
    const QList<QByteArray> lines = bytes(data, size).split('\n');
    for (int index = 0; index < qMin(64, lines.size()); ++index) {
        QStringList parts; // up to 8 names of at most 100 bytes, without ".", ".." or NUL
        for (QByteArray part : lines[index].mid(1).split('/')) {
            part = part.replace('\0', QByteArray()).left(100);
            if (!part.isEmpty() && part != "." && part != ".." && parts.size() < 8)
                parts.append(QFile::decodeName(part));
        }
        // Nothing is made through a link: what the walk may touch stays below the tree.
        QString path = tree;
        bool throughLink = false;
        for (const QString& part : parts)
            throughLink = throughLink || QFileInfo(path += QLatin1Char('/') + part).isSymLink();
        if (parts.isEmpty() || throughLink || QFileInfo::exists(path) || !QDir().mkpath(QFileInfo(path).path()))
            continue;
        switch (lines[index].at(0)) {
        case 'f':
            writeFile(path, "content " + QByteArray::number(index));
            break;
        case 'd':
            QDir().mkpath(path);
            break;
        case 'l':
            QFile::link(outside, path);
            break;
        case 'm':
            QFile::link(outside + QStringLiteral("/victim"), path);
            break;
        }
    }
    QList<QByteArray> before = treeOf(tree);
    UpdateSession session;
    session.appDir = tree;
    repairInterruptedApply(session);
    require(treeOf(outside) == QList<QByteArray>({ "victim", "victim backup" }),
            "the repair changed files outside the installation");
    require(QDir(base).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)
                == QStringList({ QStringLiteral("outside"), QStringLiteral("tree") }),
            "the repair wrote beside the installation");
    // Files and links are only deleted or renamed: everything left was there before.
    for (const QByteArray& entry : treeOf(tree))
        require(before.removeOne(entry), "the repair made up a file or a link");
    return 0;
}

// An artifact: the first byte picks a compressed file (even) or a patch against a fixed source of
// 8000 bytes (odd), the next two the expected size (little endian, plus one), the rest is the zstd
// data. The decoder never hands on more than that size, and succeeds only with exactly that many bytes.
int artifactInput(const uint8_t* data, size_t size)
{
    const QString source = scratch().filePath(QStringLiteral("source"));
    static const bool sourceWritten = [&source] {
        QByteArray lines;
        for (int i = 0; lines.size() < 8000; ++i)
            lines += "line " + QByteArray::number(i) + '\n';
        return writeFile(source, lines.left(8000));
    }();
    const QString artifact = scratch().filePath(QStringLiteral("artifact.zst"));
    if (size < 3)
        return 0;
    require(sourceWritten && writeFile(artifact, bytes(data + 3, size - 3)), "scratch artifact");
    const qint64 expected = qint64(data[1] | (data[2] << 8)) + 1;
    qint64 handedOn = 0;
    QString error;
    const bool decoded = decodeArtifact(
        artifact, data[0] % 2 ? source : QString(), expected,
        [&handedOn, expected](const char*, qint64 length) {
            require((handedOn += length) <= expected, "more output than the file's size");
            return true;
        },
        &error);
    require(decoded ? handedOn == expected && error.isEmpty() : !error.isEmpty(),
            "a result without its length or its reason");
    return 0;
}

} // namespace

const FuzzTarget kFuzzTargets[6] = {
    { "manifest", &parseManifestInput }, { "safe_path", &safePathInput },     { "config", &configInput },
    { "signature", &signatureInput },    { "repair_walk", &repairWalkInput }, { "artifact", &artifactInput },
};
