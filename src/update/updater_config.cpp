#include "update/updater_config.h"

#include "base/own_files.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

constexpr qint64 kMaxConfigBytes = 65536;

} // namespace

bool readUpdaterConfig(const QString& appDir, QString& manifestUrl, QString& baseUrl)
{
    QFile file;
    if (!openRegularFile(file, QDir(appDir).filePath(QStringLiteral("updater.conf"))))
        return false;
    // A real configuration is a few hundred bytes; more is not read at all.
    const QByteArray bytes = file.read(kMaxConfigBytes + 1);
    if (bytes.size() > kMaxConfigBytes)
        return false;

    // Malformed JSON or a top level that is not an object leaves an empty object: both keys
    // then read as empty and the check below fails.
    const QJsonObject config = QJsonDocument::fromJson(bytes).object();
    manifestUrl = config.value(QStringLiteral("manifestUrl")).toString();
    baseUrl = config.value(QStringLiteral("baseUrl")).toString();
    if (manifestUrl.isEmpty())
        return false;

    if (!baseUrl.isEmpty()) {
        if (!baseUrl.endsWith(QLatin1Char('/')))
            baseUrl += QLatin1Char('/');
        return true;
    }
    // Files are published beside the manifest. A URL without a usable slash is taken over whole.
    const int lastSlash = manifestUrl.lastIndexOf(QLatin1Char('/'));
    baseUrl = lastSlash < 1 ? manifestUrl : manifestUrl.left(lastSlash + 1);
    return true;
}
