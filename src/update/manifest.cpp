#include "update/manifest.h"

#include <QDir>
#include <QHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QRegularExpression>
#include <QStringList>

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
    if (hasControlCharacter(path))
        return QStringLiteral("control characters are not allowed in paths");
    const QStringList parts = path.toCaseFolded().split(QLatin1Char('/'));
    if (parts.first() == QLatin1String(".staging") || parts.first() == QLatin1String(".update-cache")
        || (parts.size() == 1 && (parts.first() == QLatin1String("manifest.json")
                                  || parts.first() == QLatin1String("manifest.json.sig")
                                  || parts.first() == QLatin1String("updater.log"))))
        return QStringLiteral("the updater keeps its own files under this name");
    if (parts.first() == QLatin1String(kArtifactDir))
        return QStringLiteral("the publisher keeps compressed files and patches under this name");
    for (const QString& suffix : kWorkingFileSuffixes) {
        if (parts.last().endsWith(suffix))
            return QStringLiteral("the updater gives names ending in \"%1\" to files of its own").arg(suffix);
    }
    // A directory named "*.bak" is where an apply moves a directory that the new build replaces by a file.
    for (const QString& part : parts) {
        if (part.endsWith(kWorkingFileSuffixes.first()))
            return QStringLiteral("the updater gives names ending in \".bak\" to directories of its own");
    }
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
    for (const QString& each : paths) {
        const QString folded = each.toCaseFolded();
        for (int slash = folded.indexOf(QLatin1Char('/')); slash > 0; slash = folded.indexOf(QLatin1Char('/'), slash + 1)) {
            const auto file = byFolded.constFind(folded.left(slash));
            if (file != byFolded.constEnd())
                return conflict(each, QStringLiteral("\"%1\" is a file, not a directory").arg(*file));
        }
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
    const QStringList parts = normalised.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (parts.isEmpty())
        return QString();
    for (const QString& part : parts) {
        if (part == QLatin1String("..") || part == QLatin1String("."))
            return QString();
    }
    return parts.join(QLatin1Char('/'));
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
    QFile file(installedManifestPath(appDir));
    if (!file.open(QIODevice::ReadOnly))
        return false;
    return parseManifest(file.readAll(), manifest);
}
