#include "update/manifest.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QStringList>

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

} // namespace

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
        parsed.files.append(file);
    }
    if (parsed.fullVersion.isEmpty() || parsed.files.isEmpty())
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
