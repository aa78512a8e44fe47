// When does a reply's read-buffer size take hold? Qt sends a GET on a kept-alive connection
// from its network thread as soon as get() has queued it there, and a size set on the reply
// after get() follows through a second queued call. This program lets the requesting thread
// lose a given time between the two, reads nothing for half a second and prints what Qt
// buffered, for two ways of setting the size:
//   - after get(): setReadBufferSize() on the returned reply, after the delay;
//   - BoundedNetworkAccessManager: the updater's manager, which waits out the same delay in
//     the middle of its own hand-over (requestStarted()), while it holds the network thread.
//
//   read_buffer_race [delay-us ...]    (default 0 500 2000 10000; 5 trials each)
//
// The server is a loopback HTTP/1.1 server in a thread of this process: "/small" is 2 bytes,
// "/big" is 4 MiB, every connection is kept alive.
#include "update/bounded_network_access.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QNetworkReply>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <cstdio>

namespace {

constexpr qint64 kBigBytes = 4 * 1024 * 1024;
constexpr qint64 kReadBufferBytes = 256 * 1024;
constexpr int kTrials = 5;

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

// The updater's manager, losing the CPU for delayUs where the race would be.
class DelayedManager : public BoundedNetworkAccessManager {
public:
    unsigned long delayUs = 0;

protected:
    void requestStarted(QNetworkReply*) override { QThread::usleep(delayUs); }
};

// One trial: bytes Qt holds for the unread reply after half a second, and whether it finished.
QPair<qint64, bool> trial(quint16 port, unsigned long delayUs, bool bounded)
{
    QNetworkAccessManager plain;
    DelayedManager updaters;
    QNetworkAccessManager& network = bounded ? static_cast<QNetworkAccessManager&>(updaters) : plain;
    const QString base = QStringLiteral("http://127.0.0.1:%1/").arg(port);
    QNetworkReply* small = network.get(QNetworkRequest(QUrl(base + QStringLiteral("small"))));
    waitFor(small);  // the connection is now open and kept alive
    small->deleteLater();

    QNetworkRequest request(QUrl(base + QStringLiteral("big")));
    QNetworkReply* big = nullptr;
    if (bounded) {
        setReadBufferLimit(request, kReadBufferBytes);
        updaters.delayUs = delayUs;
        big = network.get(request);
    } else {
        big = network.get(request);
        QThread::usleep(delayUs);
        big->setReadBufferSize(kReadBufferBytes);
    }
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

    std::printf("delay before the size reaches Qt (read buffer %lld) | buffered after 0.5 s, of %lld bytes\n",
                kReadBufferBytes, kBigBytes);
    for (unsigned long delay : delays) {
        for (bool bounded : {false, true}) {
            std::printf("%6lu us, %-27s |", delay, bounded ? "BoundedNetworkAccessManager" : "after get()");
            for (int i = 0; i < kTrials; ++i) {
                const auto [buffered, finished] = trial(server.serverPort(), delay, bounded);
                std::printf(" %8lld%s", static_cast<long long>(buffered), finished ? "*" : "");
            }
            std::printf("\n");
            std::fflush(stdout);
        }
    }
    std::printf("* the reply had finished: the whole body was read without a limit\n");
    serverThread.quit();
    serverThread.wait();
    return 0;
}
