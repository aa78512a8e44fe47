#include "support/nginx_server.h"
#include "support/test_files.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>

namespace {

constexpr int kStartTimeoutMs = 10000;
constexpr int kStopTimeoutMs = 10000;
// Another process may take the port between our probe and nginx's bind: try a few.
constexpr int kPortAttempts = 5;
// nginx outlives a test that crashes or is killed; coreutils' timeout ends it after this long
// at the latest (and passes our own stop signal on to it before that).
const QString kLifetimeLimit = QStringLiteral("900");

// Fields separated by tabs, so that paths with blanks stay one field; escape=none keeps UTF-8
// paths readable.
const char kConfigTemplate[] =
    "daemon off;\n"
    "master_process off;\n"
    "worker_processes 1;\n"
    "pid \"@PREFIX@/nginx.pid\";\n"
    "error_log \"@PREFIX@/error.log\" info;\n"
    "events { worker_connections 64; }\n"
    "http {\n"
    "    types { application/json json; }\n"
    "    default_type application/octet-stream;\n"
    "    log_format corv escape=none '$request_method\t$uri\t$status\t$http_range';\n"
    "    access_log \"@PREFIX@/access.log\" corv;\n"
    "    client_body_temp_path \"@PREFIX@/tmp/body\";\n"
    "    proxy_temp_path \"@PREFIX@/tmp/proxy\";\n"
    "    fastcgi_temp_path \"@PREFIX@/tmp/fastcgi\";\n"
    "    uwsgi_temp_path \"@PREFIX@/tmp/uwsgi\";\n"
    "    scgi_temp_path \"@PREFIX@/tmp/scgi\";\n"
    "    server {\n"
    "        listen 127.0.0.1:@PORT@;\n"
    "        root \"@ROOT@\";\n"
    "        location / { }\n"
    "    }\n"
    "}\n";

quint16 freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

} // namespace

NginxServer::NginxServer(const QString& rootDir)
    : root(QFileInfo(rootDir).absoluteFilePath())
{
}

NginxServer::~NginxServer()
{
    stop();
}

QString NginxServer::executable()
{
    if (QFileInfo(QStringLiteral("/usr/sbin/nginx")).isExecutable())
        return QStringLiteral("/usr/sbin/nginx");
    return QStandardPaths::findExecutable(QStringLiteral("nginx"));
}

bool NginxServer::start(QString* error)
{
    if (executable().isEmpty()) {
        *error = QStringLiteral("nginx is not installed (Debian package nginx-light)");
        return false;
    }
    if (!prefix.isValid() || !QDir().mkpath(prefix.filePath(QStringLiteral("tmp")))) {
        *error = QStringLiteral("cannot create nginx's prefix directory");
        return false;
    }
    for (int attempt = 0; attempt < kPortAttempts; ++attempt) {
        if (startOnPort(freePort(), error))
            return true;
    }
    return false;
}

bool NginxServer::startOnPort(quint16 port, QString* error)
{
    const QString config = prefix.filePath(QStringLiteral("nginx.conf"));
    QByteArray text(kConfigTemplate);
    text.replace("@PREFIX@", prefix.path().toUtf8())
        .replace("@ROOT@", root.toUtf8())
        .replace("@PORT@", QByteArray::number(port));
    QFile file(config);
    if (port == 0 || !file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text) != text.size()) {
        *error = QStringLiteral("cannot write the nginx configuration");
        return false;
    }
    file.close();

    process = new QProcess;
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->start(QStringLiteral("timeout"),
                   {kLifetimeLimit, executable(), QStringLiteral("-p"), prefix.path(), QStringLiteral("-c"), config,
                    QStringLiteral("-e"), prefix.filePath(QStringLiteral("error.log"))});
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < kStartTimeoutMs && process->state() != QProcess::NotRunning) {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        if (socket.waitForConnected(200) && process->state() == QProcess::Running) {
            serverPort = port;
            return true;
        }
        process->waitForFinished(50);
    }
    *error = QStringLiteral("nginx did not start: %1 %2")
                 .arg(QString::fromUtf8(process->readAll()),
                      QString::fromUtf8(readFile(prefix.filePath(QStringLiteral("error.log")))));
    stop();
    return false;
}

void NginxServer::stop()
{
    if (!process)
        return;
    if (process->state() != QProcess::NotRunning) {
        process->terminate();  // SIGTERM, passed on by timeout: nginx's fast shutdown
        if (!process->waitForFinished(kStopTimeoutMs)) {
            process->kill();
            process->waitForFinished(kStopTimeoutMs);
        }
    }
    delete process;
    process = nullptr;
}

QString NginxServer::url(const QString& path) const
{
    return QStringLiteral("http://127.0.0.1:%1/%2").arg(serverPort).arg(path);
}

QList<NginxServer::Request> NginxServer::requests() const
{
    QList<Request> requests;
    const QList<QByteArray> lines = readFile(prefix.filePath(QStringLiteral("access.log"))).split('\n');
    for (const QByteArray& line : lines) {
        const QList<QByteArray> fields = line.split('\t');
        if (fields.size() != 4)
            continue;
        Request request;
        request.method = QString::fromUtf8(fields.at(0));
        request.path = QString::fromUtf8(fields.at(1)).mid(1);
        request.status = fields.at(2).toInt();
        // nginx logs a missing header as "-".
        if (fields.at(3) != "-")
            request.range = QString::fromUtf8(fields.at(3));
        requests.append(request);
    }
    return requests;
}
