#include "support/test_install.h"
#include "support/test_files.h"
#include "support/test_signing.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

#include <openssl/evp.h>

namespace {

QProcessEnvironment withOffscreen(const QProcessEnvironment& env)
{
    QProcessEnvironment result = env;
    if (!result.contains(QStringLiteral("QT_QPA_PLATFORM")))
        result.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    return result;
}

} // namespace

QList<LogEntry> readLogEntries(const QString& logPath)
{
    QList<LogEntry> entries;
    QFile f(logPath);
    if (!f.open(QIODevice::ReadOnly))
        return entries;
    static const QRegularExpression linePattern(QStringLiteral(
        "^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3} \\[([A-Z])\\] \\[([^\\]]*)\\] (.*)$"));
    QList<QByteArray> lines = f.readAll().split('\n');
    // A complete file ends with LF, which leaves one empty piece behind it.
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    for (const QByteArray& raw : lines) {
        const QString line = QString::fromUtf8(raw);
        const QRegularExpressionMatch m = linePattern.match(line);
        LogEntry entry;
        if (m.hasMatch()) {
            entry.level = m.captured(1);
            entry.tag = m.captured(2);
            entry.text = m.captured(3);
        } else {
            entry.text = line;
        }
        entries.append(entry);
    }
    return entries;
}

QStringList logTexts(const QString& logPath)
{
    QStringList texts;
    for (const LogEntry& entry : readLogEntries(logPath))
        texts.append(entry.text);
    return texts;
}

QString sha256Hex(const QByteArray& bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(bytes.constData(), size_t(bytes.size()), digest, &length, EVP_sha256(), nullptr) != 1)
        return QString();
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(digest), int(length)).toHex());
}

QByteArray makeManifestJson(const QString& fullVersion, qint64 buildNumber, const BuildFiles& files,
                            const QString& product, const QString& arch)
{
    QJsonObject root;
    if (buildNumber >= 0)
        root.insert(QStringLiteral("buildNumber"), double(buildNumber));
    root.insert(QStringLiteral("fullVersion"), fullVersion);
    if (!product.isEmpty())
        root.insert(QStringLiteral("product"), product);
    if (!arch.isEmpty())
        root.insert(QStringLiteral("arch"), arch);
    QJsonArray list;
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        QJsonObject entry;
        entry.insert(QStringLiteral("path"), it.key());
        entry.insert(QStringLiteral("size"), double(it.value().size()));
        entry.insert(QStringLiteral("sha256"), sha256Hex(it.value()));
        list.append(entry);
    }
    root.insert(QStringLiteral("files"), list);
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

QString compressedRelPath(const QByteArray& content)
{
    return QStringLiteral(".zstd/") + sha256Hex(content) + QStringLiteral(".zst");
}

QString patchRelPath(const QByteArray& source, const QByteArray& content)
{
    return QStringLiteral(".zstd/") + sha256Hex(source) + QLatin1Char('-') + sha256Hex(content) + QStringLiteral(".zst");
}

QByteArray withArtifacts(const QByteArray& manifestJson, const QString& path, const QByteArray& compressed,
                         const QList<QPair<QByteArray, QByteArray>>& patches)
{
    QJsonObject root = QJsonDocument::fromJson(manifestJson).object();
    QJsonArray files = root.value(QStringLiteral("files")).toArray();
    for (int i = 0; i < files.size(); ++i) {
        QJsonObject entry = files.at(i).toObject();
        if (entry.value(QStringLiteral("path")).toString() != path)
            continue;
        if (!compressed.isEmpty())
            entry.insert(QStringLiteral("zstd"), QJsonObject{{QStringLiteral("size"), double(compressed.size())},
                                                              {QStringLiteral("sha256"), sha256Hex(compressed)}});
        QJsonArray listed;
        for (const auto& patch : patches)
            listed.append(QJsonObject{{QStringLiteral("from"), sha256Hex(patch.first)},
                                      {QStringLiteral("size"), double(patch.second.size())},
                                      {QStringLiteral("sha256"), sha256Hex(patch.second)}});
        if (!listed.isEmpty())
            entry.insert(QStringLiteral("zstdPatches"), listed);
        files[i] = entry;
    }
    root.insert(QStringLiteral("files"), files);
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

bool publishBuild(const QString& serverRoot, const QString& subdir, const BuildFiles& files,
                  const QByteArray& manifestJson)
{
    const QString base = subdir.isEmpty() ? serverRoot : serverRoot + QLatin1Char('/') + subdir;
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        if (!writeFile(base + QLatin1Char('/') + it.key(), it.value()))
            return false;
    }
    const QByteArray signature = signWithKey(manifestJson);
    return !signature.isEmpty() && writeFile(base + QStringLiteral("/manifest.json"), manifestJson)
        && writeFile(base + QStringLiteral("/manifest.json.sig"), signature);
}

TestInstall::TestInstall()
{
    if (!temp.isValid())
        return;
    const QString source = QStringLiteral(CORV_UPDATER_EXE);
    if (QFile::copy(source, exePath()))
        QFile::setPermissions(exePath(), QFileInfo(source).permissions());
}

TestInstall::~TestInstall() = default;

bool TestInstall::isValid() const
{
    return temp.isValid() && QFileInfo(exePath()).isExecutable();
}

QString TestInstall::dir() const
{
    return temp.path();
}

QString TestInstall::path(const QString& relPath) const
{
    return dir() + QLatin1Char('/') + relPath;
}

QString TestInstall::exePath() const
{
    return path(QStringLiteral("updater"));
}

QString TestInstall::logPath() const
{
    return path(QStringLiteral("updater.log"));
}

bool TestInstall::writeFile(const QString& relPath, const QByteArray& bytes)
{
    return ::writeFile(path(relPath), bytes);
}

QByteArray TestInstall::readFile(const QString& relPath) const
{
    return ::readFile(path(relPath));
}

bool TestInstall::exists(const QString& relPath) const
{
    return QFileInfo::exists(path(relPath));
}

bool TestInstall::installBuild(const BuildFiles& files, const QByteArray& manifestJson)
{
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        if (!writeFile(it.key(), it.value()))
            return false;
    }
    return writeFile(QStringLiteral("manifest.json"), manifestJson);
}

bool TestInstall::writeConfig(const QString& manifestUrl, const QString& baseUrl)
{
    QJsonObject config;
    config.insert(QStringLiteral("manifestUrl"), manifestUrl);
    if (!baseUrl.isEmpty())
        config.insert(QStringLiteral("baseUrl"), baseUrl);
    return writeFile(QStringLiteral("updater.conf"), QJsonDocument(config).toJson());
}

QStringList TestInstall::allFiles() const
{
    QStringList files;
    const QDir root(dir());
    QDirIterator it(dir(), QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(root.relativeFilePath(it.next()));
    files.sort();
    return files;
}

// A crashed updater also reports -1: a crash must never pass for a clean exit code.
int TestInstall::run(const QStringList& args, int timeoutMs, const QProcessEnvironment& env)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.setProcessEnvironment(withOffscreen(env));
    process.start(exePath(), args);
    if (!process.waitForStarted(10000))
        return -1;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(10000);
        return -1;
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

// Output goes to the test's own channels so that nothing piles up unread in the parent.
QProcess* TestInstall::start(const QStringList& args, const QProcessEnvironment& env)
{
    auto* process = new QProcess;
    process->setProcessChannelMode(QProcess::ForwardedChannels);
    process->setProcessEnvironment(withOffscreen(env));
    process->start(exePath(), args);
    process->waitForStarted(10000);
    return process;
}
