#include "update/manifest.h"

#include "base/own_files.h"
#include "update/manifest_signature.h"

#include <QDir>
#include <QHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QPair>
#include <QRegularExpression>
#include <QStringList>
#include <QVector>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// A JSON number truncated toward zero, or `fallback` for any other JSON type. Values beyond
// the 64-bit range saturate instead of overflowing.
qint64 integerOr(const QJsonValue& value, qint64 fallback)
{
    if (!value.isDouble())
        return fallback;
    const double number = std::trunc(value.toDouble());
    if (std::isnan(number))
        return fallback;
    if (number >= 9223372036854775808.0)
        return std::numeric_limits<qint64>::max();
    if (number <= -9223372036854775808.0)
        return std::numeric_limits<qint64>::min();
    return qint64(number);
}

// Device names that Windows resolves in every directory, with or without an extension.
const QStringList kReservedDeviceNames = {
    QStringLiteral("CON"),  QStringLiteral("PRN"),  QStringLiteral("AUX"),  QStringLiteral("NUL"),
    QStringLiteral("COM1"), QStringLiteral("COM2"), QStringLiteral("COM3"), QStringLiteral("COM4"),
    QStringLiteral("COM5"), QStringLiteral("COM6"), QStringLiteral("COM7"), QStringLiteral("COM8"),
    QStringLiteral("COM9"), QStringLiteral("LPT1"), QStringLiteral("LPT2"), QStringLiteral("LPT3"),
    QStringLiteral("LPT4"), QStringLiteral("LPT5"), QStringLiteral("LPT6"), QStringLiteral("LPT7"),
    QStringLiteral("LPT8"), QStringLiteral("LPT9")};

// Characters Windows does not allow in a file name (besides ":" and "\", which the path rule
// already refuses).
const QString kWindowsForbiddenCharacters = QStringLiteral("<>\"|?*");

// Calls `visit` with each name between slashes, empty ones included, until it returns false;
// false then. No list is made: a 16 MiB path of 8 million names cost half a gigabyte as one.
template <typename Visit>
bool everyName(const QString& path, Visit visit)
{
    for (int start = 0;;) {
        const int slash = path.indexOf(QLatin1Char('/'), start);
        if (!visit(path.midRef(start, slash < 0 ? -1 : slash - start)))
            return false;
        if (slash < 0)
            return true;
        start = slash + 1;
    }
}

// Why Windows cannot hold this one name as it is written, or "". Windows drops a trailing dot or
// blank, so "manifest.json." would be the record and "a.dll." a second entry for "a.dll".
QString windowsNameProblem(const QStringRef& name)
{
    for (const QChar c : name) {
        if (c.unicode() < 0x20)
            return QStringLiteral("Windows does not allow control characters in file names");
        if (kWindowsForbiddenCharacters.contains(c))
            return QStringLiteral("Windows does not allow \"%1\" in file names").arg(c);
    }
    if (name.endsWith(QLatin1Char('.')) || name.endsWith(QLatin1Char(' ')))
        return QStringLiteral("Windows drops a trailing dot or blank from file names");
    const QStringRef stemRef = name.left(name.indexOf(QLatin1Char('.')));
    const QString stem = stemRef.size() <= 4 ? stemRef.toString().toUpper() : QString();  // the names have 3 or 4
    if (kReservedDeviceNames.contains(stem))
        return QStringLiteral("\"%1\" is a reserved device name on Windows").arg(stem);
    return QString();
}

bool hasControlCharacter(const QString& text)
{
    return std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x20 || c.unicode() == 0x7f; });
}

// Suffixes the updater gives files of its own beside installed files, in its cache and in staging.
const QStringList kWorkingFileSuffixes = {QStringLiteral(".bak"), QStringLiteral(".new"), QStringLiteral(".part"),
                                          QStringLiteral(".tmp")};

// Every integer up to 2^53 is exact in a JSON number; no file is larger.
constexpr double kMaxFileSize = 9007199254740992.0;

// An entry's "size", truncated toward zero: -1 when it is missing; false when it is not a number,
// negative or beyond 2^53, which no publisher writes and no download could be bounded by.
bool readFileSize(const QJsonObject& entry, qint64* size)
{
    const QJsonValue value = entry.value(QStringLiteral("size"));
    if (value.isUndefined()) {
        *size = -1;
        return true;
    }
    const double number = std::trunc(value.toDouble(-1));
    if (!value.isDouble() || !(number >= 0 && number <= kMaxFileSize))
        return false;
    *size = qint64(number);
    return true;
}

bool isSha256Hex(const QString& text)
{
    static const QRegularExpression hex(QStringLiteral("\\A[0-9a-f]{64}\\z"));
    return hex.match(text).hasMatch();
}

// An artifact entry ("zstd", or an element of "zstdPatches"), or nothing when it cannot serve:
// its hashes name its path, so they must be 64 hex digits, and it must be smaller than the file.
// A bad artifact is only left out: the whole file stays the way to the content.
bool readArtifact(const QJsonValue& value, const ManifestFile& file, bool patch, ManifestArtifact* artifact)
{
    if (!value.isObject())
        return false;
    const QJsonObject entry = value.toObject();
    artifact->size = integerOr(entry.value(QStringLiteral("size")), 0);
    artifact->sha256 = entry.value(QStringLiteral("sha256")).toString().toLower();
    artifact->sourceSha256 = patch ? entry.value(QStringLiteral("from")).toString().toLower() : QString();
    return artifact->size > 0 && artifact->size < file.size && isSha256Hex(artifact->sha256)
           && isSha256Hex(file.sha256) && (!patch || (isSha256Hex(artifact->sourceSha256)
                                                      && artifact->sourceSha256 != file.sha256));
}

QList<ManifestArtifact> readArtifacts(const QJsonObject& entry, const ManifestFile& file)
{
    QList<ManifestArtifact> artifacts;
    ManifestArtifact artifact;
    if (readArtifact(entry.value(QStringLiteral("zstd")), file, false, &artifact))
        artifacts.append(artifact);
    QStringList sources;
    for (const QJsonValue& value : entry.value(QStringLiteral("zstdPatches")).toArray()) {
        if (readArtifact(value, file, true, &artifact) && !sources.contains(artifact.sourceSha256)) {
            sources.append(artifact.sourceSha256);
            artifacts.append(artifact);
        }
    }
    return artifacts;
}

} // namespace

QString artifactPath(const ManifestFile& file, const ManifestArtifact& artifact)
{
    const QString name = artifact.isPatch() ? artifact.sourceSha256 + QLatin1Char('-') + file.sha256 : file.sha256;
    return QLatin1String(kArtifactDir) + QLatin1Char('/') + name + QStringLiteral(".zst");
}

ManifestFile artifactAsFile(const ManifestFile& file, const ManifestArtifact& artifact)
{
    return ManifestFile{artifactPath(file, artifact), artifact.size, artifact.sha256, {}};
}

QString reservedPathReason(const QString& path)
{
    QString problem;
    if (!everyName(path, [&problem](const QStringRef& part) { return (problem = windowsNameProblem(part)).isEmpty(); }))
        return problem;
    if (hasControlCharacter(path))
        return QStringLiteral("control characters are not allowed in paths");
    const QString folded = path.toCaseFolded();
    const QStringRef first = folded.leftRef(folded.indexOf(QLatin1Char('/')));
    const QStringRef last = folded.midRef(folded.lastIndexOf(QLatin1Char('/')) + 1);
    if (first == QLatin1String(".staging") || first == QLatin1String(".update-cache")
        || (first.size() == folded.size() && (first == QLatin1String("manifest.json")
                                              || first == QLatin1String("manifest.json.sig")
                                              || first == QLatin1String("updater.log"))))
        return QStringLiteral("the updater keeps its own files under this name");
    if (first == QLatin1String(kArtifactDir))
        return QStringLiteral("the publisher keeps compressed files and patches under this name");
    for (const QString& suffix : kWorkingFileSuffixes) {
        if (last.endsWith(suffix))
            return QStringLiteral("the updater gives names ending in \"%1\" to files of its own").arg(suffix);
    }
    // A directory named "*.bak" is where an apply moves a directory that the new build replaces by a file.
    if (!everyName(folded, [](const QStringRef& part) { return !part.endsWith(kWorkingFileSuffixes.first()); }))
        return QStringLiteral("the updater gives names ending in \".bak\" to directories of its own");
    return QString();
}

QString pathSetConflict(const QStringList& paths, QString* path)
{
    const auto conflict = [path](const QString& at, const QString& reason) {
        if (path)
            *path = at;
        return reason;
    };
    // Windows compares names without regard to letter case: two such paths are one file there.
    QHash<QString, QString> byFolded;
    for (const QString& each : paths) {
        const QString folded = each.toCaseFolded();
        const auto clash = byFolded.constFind(folded);
        if (clash != byFolded.constEnd())
            return conflict(each, *clash == each ? QStringLiteral("it is listed twice")
                                                 : QStringLiteral("it differs from \"%1\" only in letter case, "
                                                                  "and Windows cannot hold both").arg(*clash));
        byFolded.insert(folded, each);
    }
    // A file is another entry's directory when a path starts with its name and "/". Sorted, the
    // paths that start so stand together, and one binary search finds the first: a deep path
    // costs its length, not its length times its depth (a 16 MiB one took hours before).
    QVector<QPair<QString, QString>> sorted;  // (folded, as listed)
    sorted.reserve(byFolded.size());
    for (auto it = byFolded.cbegin(); it != byFolded.cend(); ++it)
        sorted.append({it.key(), it.value()});
    std::sort(sorted.begin(), sorted.end());
    for (auto it = sorted.cbegin(); it != sorted.cend(); ++it) {
        const QString directory = it->first + QLatin1Char('/');
        const auto next = std::lower_bound(it + 1, sorted.cend(), qMakePair(directory, QString()));
        if (next != sorted.cend() && next->first.startsWith(directory))
            return conflict(next->second, QStringLiteral("\"%1\" is a file, not a directory").arg(it->second));
    }
    return QString();
}

QString safeRelativePath(const QString& path)
{
    if (path.isEmpty())
        return QString();
    QString normalised = path;
    normalised.replace(QLatin1Char('\\'), QLatin1Char('/'));
    // Absolute paths (also //server/share), drive letters, alternate data streams and URLs.
    if (normalised.startsWith(QLatin1Char('/')) || normalised.contains(QLatin1Char(':')))
        return QString();
    QString joined;
    joined.reserve(normalised.size());
    const bool safe = everyName(normalised, [&joined](const QStringRef& part) {
        if (part == QLatin1String("..") || part == QLatin1String("."))
            return false;
        if (!part.isEmpty()) {
            if (!joined.isEmpty())
                joined += QLatin1Char('/');
            joined += part;
        }
        return true;
    });
    return safe && !joined.isEmpty() ? joined : QString();
}

bool parseManifest(const QByteArray& bytes, Manifest* manifest)
{
    if (!manifest)
        return false;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return false;
    const QJsonObject root = document.object();

    Manifest parsed;
    parsed.buildNumber = integerOr(root.value(QStringLiteral("buildNumber")), -1);
    parsed.fullVersion = root.value(QStringLiteral("fullVersion")).toString();
    parsed.product = root.value(QStringLiteral("product")).toString();
    parsed.arch = root.value(QStringLiteral("arch")).toString();

    const QJsonArray files = root.value(QStringLiteral("files")).toArray();
    QStringList paths;
    for (const QJsonValue& element : files) {
        const QJsonObject entry = element.toObject();
        ManifestFile file;
        const QString path = entry.value(QStringLiteral("path")).toString();
        file.sha256 = entry.value(QStringLiteral("sha256")).toString().toLower();
        if (path.isEmpty() || file.sha256.isEmpty())
            continue;
        if (!readFileSize(entry, &file.size))
            return false;
        // One unsafe path rejects the whole manifest: a publisher that emits it is not trusted
        // with the other paths either.
        file.path = safeRelativePath(path);
        if (file.path.isEmpty())
            return false;
        file.artifacts = readArtifacts(entry, file);
        parsed.files.append(file);
        paths.append(file.path);
    }
    if (parsed.fullVersion.isEmpty() || parsed.files.isEmpty() || hasControlCharacter(parsed.fullVersion))
        return false;
    // A build that cannot be applied as one transaction, or that would overwrite the updater's
    // own files, is refused as a whole before anything is fetched.
    for (const QString& path : paths) {
        if (!reservedPathReason(path).isEmpty())
            return false;
    }
    if (!pathSetConflict(paths).isEmpty())
        return false;
    *manifest = parsed;
    return true;
}

QString installedManifestPath(const QString& appDir)
{
    return QDir(appDir).filePath(QStringLiteral("manifest.json"));
}

bool loadInstalledManifest(const QString& appDir, Manifest* manifest)
{
    // The record is the updater's own file: a link, a FIFO or a device in its place is no record,
    // and no record is larger than a manifest the updater would have downloaded.
    QFile file;
    if (!openOwnFile(file, installedManifestPath(appDir), QIODevice::ReadOnly))
        return false;
    const QByteArray bytes = file.read(kMaxManifestBytes + 1);
    return bytes.size() <= kMaxManifestBytes && parseManifest(bytes, manifest);
}
