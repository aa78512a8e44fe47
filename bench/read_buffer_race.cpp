// When does a reply's read-buffer size take hold? The prefetcher sets it right after get(), but
// Qt sends a GET on a kept-alive connection from its network thread as soon as get() posts it,
// and the size follows through a second queued call. This program waits a given time between
// get() and setReadBufferSize(), reads nothing for half a second and prints what Qt buffered.
//
//   read_buffer_race [delay-us ...]    (default 0 500 2000 10000; 3 trials each)
//
// The server is a loopback HTTP/1.1 server in a thread of this process: "/small" is 2 bytes,
// "/big" is 4 MiB, every connection is kept alive.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <cstdio>

namespace {

constexpr qint64 kBigBytes = 4 * 1024 * 1024;
constexpr qint64 kReadBufferBytes = 256 * 1024;

void serve(QTcpSocket* socket)
{
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket] {
        while (socket->canReadLine()) {
            const QByteArray line = socket->readLine();
            if (line.startsWith("GET ")) {
                socket->setProperty("path", line.split(' ').value(1));
            } else if (line == "\r\n") {
                const QByteArray body(socket->property("path").toByteArray() == "/big" ? kBigBytes : 2, 'x');
                socket->write("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size())
                              + "\r\n\r\n" + body);
            }
        }
    });
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
}

void waitFor(QNetworkReply* reply)
{
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
}

// One trial: bytes Qt holds for the unread reply after half a second, and whether it finished.
QPair<qint64, bool> trial(quint16 port, unsigned long delayUs)
{
    QNetworkAccessManager network;
    const QString base = QStringLiteral("http://127.0.0.1:%1/").arg(port);
    QNetworkReply* small = network.get(QNetworkRequest(QUrl(base + QStringLiteral("small"))));
    waitFor(small);  // the connection is now open and kept alive
    small->deleteLater();

    QNetworkReply* big = network.get(QNetworkRequest(QUrl(base + QStringLiteral("big"))));
    QThread::usleep(delayUs);
    big->setReadBufferSize(kReadBufferBytes);
    QEventLoop idle;
    QTimer::singleShot(500, &idle, &QEventLoop::quit);
    idle.exec();
    const QPair<qint64, bool> result(big->bytesAvailable(), big->isFinished());
    big->abort();
    big->deleteLater();
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QThread serverThread;
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    server.moveToThread(&serverThread);
    QObject::connect(&server, &QTcpServer::newConnection, &server, [&server] {
        while (QTcpSocket* socket = server.nextPendingConnection())
            serve(socket);
    });
    serverThread.start();

    QList<unsigned long> delays;
    for (int i = 1; i < argc; ++i)
        delays.append(QByteArray(argv[i]).toULong());
    if (delays.isEmpty())
        delays = {0, 500, 2000, 10000};

    std::printf("delay between get() and setReadBufferSize(%lld) | buffered after 0.5 s, of %lld bytes\n",
                kReadBufferBytes, kBigBytes);
    for (unsigned long delay : delays) {
        std::printf("%6lu us |", delay);
        for (int i = 0; i < 3; ++i) {
            const auto [buffered, finished] = trial(server.serverPort(), delay);
            std::printf(" %8lld%s", static_cast<long long>(buffered), finished ? " (finished)" : "");
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    serverThread.quit();
    serverThread.wait();
    return 0;
}
