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
#include <QFileInfo>
#include <QMap>
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

bool isSafeRelative(const QString& path)
{
    if (path.isEmpty() || path.startsWith(QLatin1Char('/')) || path.contains(QLatin1Char(':'))
        || path.contains(QLatin1Char('\\')))
        return false;
    for (const QString& part : path.split(QLatin1Char('/'))) {
        if (part.isEmpty() || part == QLatin1String(".") || part == QLatin1String(".."))
            return false;
    }
    return true;
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

QStringList entriesOf(const QString& dir)
{
    QStringList entries = QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    entries.sort();
    return entries;
}

// Contents of the regular files below root (links neither followed nor counted), and the
// targets of the links, both as sorted lists.
void describeTree(const QString& root, QList<QByteArray>* contents, QStringList* links)
{
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        if (info.isSymLink())
            links->append(info.symLinkTarget());
        else if (info.isFile())
            contents->append(readFile(info.filePath()));
    }
    std::sort(contents->begin(), contents->end());
    links->sort();
}

// A scratch area for the repair walk: "outside" holds files that must never change, "tree"
// is rebuilt for every input.
// On a memory file system when there is one: the repair syncs every rename to disk, which
// would otherwise make each input cost a disk flush.
QString scratchTemplate()
{
    const QFileInfo shm(QStringLiteral("/dev/shm"));
    const QString dir = shm.isDir() && shm.isWritable() ? shm.filePath() : QDir::tempPath();
    return dir + QStringLiteral("/corv-fuzz-XXXXXX");
}

struct RepairArea {
    QTemporaryDir base{scratchTemplate()};
    QString outside;
    QString tree;
    UpdateSession session;

    RepairArea()
    {
        outside = base.filePath(QStringLiteral("outside"));
        tree = base.filePath(QStringLiteral("tree"));
        require(base.isValid() && QDir().mkpath(outside), "scratch directory");
        require(writeFile(outside + QStringLiteral("/victim"), "victim")
                    && writeFile(outside + QStringLiteral("/victim.bak"), "victim backup")
                    && writeFile(outside + QStringLiteral("/lonely.bak"), "lonely"),
                "outside files");
    }

    void checkOutside() const
    {
        require(entriesOf(outside) == QStringList({QStringLiteral("lonely.bak"), QStringLiteral("victim"),
                                                    QStringLiteral("victim.bak")}),
                "the repair changed the names outside the installation");
        require(readFile(outside + QStringLiteral("/victim")) == "victim"
                    && readFile(outside + QStringLiteral("/victim.bak")) == "victim backup"
                    && readFile(outside + QStringLiteral("/lonely.bak")) == "lonely",
                "the repair changed files outside the installation");
        require(entriesOf(base.path()) == QStringList({QStringLiteral("outside"), QStringLiteral("tree")}),
                "the repair wrote beside the installation");
    }
};

// Up to 8 path segments of at most 100 bytes, without ".", "..", empty parts or NUL bytes.
QString treePath(const QByteArray& raw)
{
    QStringList parts;
    for (QByteArray part : raw.split('/')) {
        part.replace('\0', QByteArray());
        part = part.left(100);
        if (part.isEmpty() || part == "." || part == "..")
            continue;
        parts.append(QFile::decodeName(part));
        if (parts.size() == 8)
            break;
    }
    return parts.join(QLatin1Char('/'));
}

} // namespace

int fuzzParseManifest(const uint8_t* data, size_t size)
{
    Manifest manifest;
    manifest.fullVersion = QStringLiteral("untouched");
    if (!parseManifest(bytes(data, size), &manifest)) {
        require(manifest.fullVersion == QLatin1String("untouched") && manifest.files.isEmpty(),
                "a rejected manifest changed the record");
        return 0;
    }
    require(!manifest.fullVersion.isEmpty() && !manifest.files.isEmpty(), "an accepted manifest without version or files");
    for (const ManifestFile& file : manifest.files) {
        require(isSafeRelative(file.path), "an accepted manifest with an unsafe path");
        require(safeRelativePath(file.path) == file.path, "an accepted path that is not normalised");
        require(!file.sha256.isEmpty() && file.sha256 == file.sha256.toLower(), "an accepted hash not in lower case");
    }
    return 0;
}

int fuzzSafeRelativePath(const uint8_t* data, size_t size)
{
    const QString path = QString::fromUtf8(bytes(data, size));
    const QString safe = safeRelativePath(path);
    if (safe.isEmpty())
        return 0;
    require(isSafeRelative(safe), "an unsafe path passed");
    require(safeRelativePath(safe) == safe, "the rule is not idempotent");
    const QString root = QStringLiteral("/install/root");
    require(QDir::cleanPath(root + QLatin1Char('/') + safe).startsWith(root + QLatin1Char('/')),
            "a passed path leaves its root");
    return 0;
}

int fuzzReadUpdaterConfig(const uint8_t* data, size_t size)
{
    static QTemporaryDir dir(scratchTemplate());
    require(dir.isValid() && writeFile(dir.filePath(QStringLiteral("updater.conf")), bytes(data, size)),
            "scratch configuration");
    QString manifestUrl;
    QString baseUrl;
    if (readUpdaterConfig(dir.path(), manifestUrl, baseUrl)) {
        require(!manifestUrl.isEmpty() && !baseUrl.isEmpty(), "an accepted configuration without URLs");
        require(baseUrl.endsWith(QLatin1Char('/')) || baseUrl == manifestUrl, "a base URL that is no directory");
    }
    return 0;
}

int fuzzVerifyManifestSignature(const uint8_t* data, size_t size)
{
    const QByteArray input = bytes(data, size);
    const int split = input.indexOf('\0');
    const QByteArray manifest = split < 0 ? QByteArray("{\"fullVersion\":\"1\"}") : input.left(split);
    const QByteArray signature = split < 0 ? input : input.mid(split + 1);
    const bool verified = verifyManifestSignature(manifest, signature);
    require(verifyManifestSignature(manifest, signature) == verified, "the check is not deterministic");
    return 0;
}

int fuzzRepairWalk(const uint8_t* data, size_t size)
{
    static RepairArea area;
    QDir(area.tree).removeRecursively();
    require(QDir().mkpath(area.tree), "tree directory");

    int index = 0;
    for (const QByteArray& line : bytes(data, size).split('\n')) {
        if (++index > 64)
            break;
        if (line.size() < 2)
            continue;
        const QString rel = treePath(line.mid(1));
        if (rel.isEmpty())
            continue;
        // Nothing is created through a link: what the walk may touch stays below the tree.
        QString path = area.tree;
        bool throughLink = false;
        for (const QString& part : rel.split(QLatin1Char('/'))) {
            path += QLatin1Char('/') + part;
            throughLink = throughLink || QFileInfo(path).isSymLink();
        }
        if (throughLink || QFileInfo::exists(path) || !QDir().mkpath(QFileInfo(path).path()))
            continue;
        switch (line.at(0)) {
        case 'f': writeFile(path, "content " + QByteArray::number(index)); break;
        case 'd': QDir().mkpath(path); break;
        case 'l': QFile::link(area.outside, path); break;
        case 'm': QFile::link(area.outside + QStringLiteral("/victim"), path); break;
        default: break;
        }
    }
    // Whatever the tree looks like now (a link may have made a path reach outside), the walk
    // must stay inside it.
    QList<QByteArray> before;
    QStringList linksBefore;
    describeTree(area.tree, &before, &linksBefore);

    area.session.appDir = area.tree;
    repairInterruptedApply(area.session);

    area.checkOutside();
    QList<QByteArray> after;
    QStringList linksAfter;
    describeTree(area.tree, &after, &linksAfter);
    // A link named "*.bak" may be renamed or removed like a file; none may appear.
    for (const QString& target : linksAfter) {
        const int at = linksBefore.indexOf(target);
        require(at >= 0, "the repair created a link");
        linksBefore.removeAt(at);
    }
    // Files are only deleted or renamed: every content left was there before.
    for (const QByteArray& content : after) {
        const int at = before.indexOf(content);
        require(at >= 0, "the repair made up file content");
        before.removeAt(at);
    }
    return 0;
}

namespace {

// The fixed patch source: 8000 bytes of numbered lines ("line 0\n", "line 1\n", ...).
QByteArray fuzzPatchSource()
{
    QByteArray source;
    for (int i = 0; source.size() < 8000; ++i)
        source += "line " + QByteArray::number(i) + '\n';
    return source.left(8000);
}

} // namespace

int fuzzDecodeArtifact(const uint8_t* data, size_t size)
{
    static QTemporaryDir dir(scratchTemplate());
    static const bool sourceWritten = writeFile(dir.filePath(QStringLiteral("source")), fuzzPatchSource());
    require(dir.isValid() && sourceWritten, "scratch directory");
    if (size < 3)
        return 0;
    const qint64 expected = qint64(data[1] | (data[2] << 8)) + 1;
    const QString artifact = dir.filePath(QStringLiteral("artifact.zst"));
    require(writeFile(artifact, bytes(data + 3, size - 3)), "scratch artifact");
    qint64 handedOn = 0;
    QString error;
    const bool decoded = decodeArtifact(artifact, data[0] % 2 ? dir.filePath(QStringLiteral("source")) : QString(),
                                        expected,
                                        [&handedOn, expected](const char*, qint64 length) {
                                            handedOn += length;
                                            require(handedOn <= expected, "more output than the file's size");
                                            return true;
                                        },
                                        &error);
    require(decoded ? handedOn == expected && error.isEmpty() : !error.isEmpty(),
            "a result without its length or without its reason");
    return 0;
}

const FuzzTarget kFuzzTargets[6] = {
    {"manifest", &fuzzParseManifest},
    {"safe_path", &fuzzSafeRelativePath},
    {"config", &fuzzReadUpdaterConfig},
    {"signature", &fuzzVerifyManifestSignature},
    {"repair_walk", &fuzzRepairWalk},
    {"artifact", &fuzzDecodeArtifact},
};
