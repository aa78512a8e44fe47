#include "support/test_server.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSaveFile>
#include <QTemporaryDir>

namespace {

constexpr int kStartTimeoutMs = 15000;

QJsonObject ruleToJson(const TestServer::Rule& rule, int generation)
{
    return QJsonObject{
        {QStringLiteral("status"), rule.status},
        {QStringLiteral("ignoreRange"), rule.ignoreRange},
        {QStringLiteral("partialWithoutRange"), rule.partialWithoutRange},
        {QStringLiteral("stallBeforeSeconds"), rule.stallBeforeSeconds},
        {QStringLiteral("stallAfterBytes"), double(rule.stallAfterBytes)},
        {QStringLiteral("stallSeconds"), rule.stallSeconds},
        {QStringLiteral("closeAfterBytes"), double(rule.closeAfterBytes)},
        {QStringLiteral("corruptBody"), rule.corruptBody},
        {QStringLiteral("redirectTo"), rule.redirectTo},
        {QStringLiteral("chunkBytes"), double(rule.chunkBytes)},
        {QStringLiteral("chunkPauseSeconds"), rule.chunkPauseSeconds},
        {QStringLiteral("endless"), rule.endless},
        {QStringLiteral("chunked"), rule.chunked},
        {QStringLiteral("gzipBytes"), double(rule.gzipBytes)},
        {QStringLiteral("times"), rule.times},
        {QStringLiteral("generation"), generation},
    };
}

}  // namespace

TestServer::TestServer(const QString& rootDir)
    : root(rootDir), controlTemp(std::make_unique<QTemporaryDir>())
{
    controlDir = controlTemp->path();
    writeRules();
}

TestServer::~TestServer()
{
    if (process) {
        // The server exits when its stdin closes; kill it only if that does not work.
        process->closeWriteChannel();
        if (!process->waitForFinished(5000)) {
            process->kill();
            process->waitForFinished(5000);
        }
        delete process;
    }
}

bool TestServer::start()
{
    if (process)
        return serverPort != 0;
    if (!controlTemp->isValid()) {
        qWarning("TestServer: no control directory");
        return false;
    }
    process = new QProcess;
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process->start(QStringLiteral("python3"),
                   {QStringLiteral(CORV_FAULT_SERVER), QDir(root).absolutePath(), controlDir});
    if (!process->waitForStarted(kStartTimeoutMs)) {
        qWarning() << "TestServer: cannot start python3:" << process->errorString();
        return false;
    }
    while (!process->canReadLine()) {
        if (!process->waitForReadyRead(kStartTimeoutMs)) {
            qWarning() << "TestServer: the server did not report its port";
            return false;
        }
    }
    bool ok = false;
    const uint port = process->readLine().trimmed().toUInt(&ok);
    if (!ok || port == 0 || port > 65535) {
        qWarning() << "TestServer: unexpected port line";
        return false;
    }
    serverPort = quint16(port);
    return true;
}

QString TestServer::url(const QString& path) const
{
    return QStringLiteral("http://127.0.0.1:%1/").arg(serverPort) + path;
}

void TestServer::setRule(const QString& path, const Rule& rule)
{
    rules.insert(path, rule);
    ruleGenerations.insert(path, ++nextGeneration);
    writeRules();
}

void TestServer::clearRules()
{
    rules.clear();
    ruleGenerations.clear();
    writeRules();
}

void TestServer::writeRules() const
{
    QJsonObject all;
    for (auto it = rules.cbegin(); it != rules.cend(); ++it)
        all.insert(it.key(), ruleToJson(it.value(), ruleGenerations.value(it.key())));
    // The server reads the file on every request: replace it in one rename.
    QSaveFile file(controlDir + QStringLiteral("/rules.json"));
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(all).toJson()) < 0
        || !file.commit())
        qWarning() << "TestServer: cannot write rules:" << file.errorString();
}

QList<TestServer::Request> TestServer::requests() const
{
    QList<Request> result;
    QFile log(controlDir + QStringLiteral("/requests.jsonl"));
    if (!log.open(QIODevice::ReadOnly) || !log.seek(requestLogStart))
        return result;
    while (!log.atEnd()) {
        const QByteArray line = log.readLine();
        if (!line.endsWith('\n'))
            break;  // still being written
        const QJsonObject entry = QJsonDocument::fromJson(line).object();
        Request request;
        request.method = entry.value(QStringLiteral("method")).toString();
        request.path = entry.value(QStringLiteral("path")).toString();
        request.target = entry.value(QStringLiteral("target")).toString();
        for (const QJsonValue& header : entry.value(QStringLiteral("headers")).toArray()) {
            const QJsonArray pair = header.toArray();
            request.headers.insert(pair.at(0).toString().toUtf8(), pair.at(1).toString().toUtf8());
        }
        result.append(request);
    }
    return result;
}

QList<TestServer::Request> TestServer::requestsFor(const QString& path) const
{
    QList<Request> result;
    for (const Request& request : requests()) {
        if (request.path == path || request.path.section(QLatin1Char('?'), 0, 0) == path)
            result.append(request);
    }
    return result;
}

void TestServer::clearRequests()
{
    requestLogStart = QFileInfo(controlDir + QStringLiteral("/requests.jsonl")).size();
}
