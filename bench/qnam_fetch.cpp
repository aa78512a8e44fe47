// The floor under the updater's download of many small files: Qt's network access manager alone,
// fetching a list of URLs into memory and dropping each body, with nothing written, hashed or
// logged. The requests are the updater's own (makeUpdateRequest). It keeps a given number of GETs
// in flight (the manager opens up to six connections to one server) and prints the wall time and
// the CPU time of the process and of its busiest other thread, Qt's network thread.
//
//   qnam_fetch URL-LIST [in-flight]    (default 6; URL-LIST has one URL a line)
#include "update/http_fetch.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QStringList>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace {

// CPU seconds of one thread of this process, from /proc.
double threadCpuSeconds(const QString& task)
{
    QFile stat(QStringLiteral("/proc/self/task/%1/stat").arg(task));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) / 100.0;  // utime, stime
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: qnam_fetch URL-LIST [in-flight]\n");
        return 2;
    }
    QFile list(QString::fromLocal8Bit(argv[1]));
    if (!list.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s\n", argv[1]);
        return 2;
    }
    QStringList urls;
    for (const QByteArray& line : list.readAll().split('\n'))
        if (!line.trimmed().isEmpty())
            urls << QString::fromUtf8(line.trimmed());
    const int inFlight = argc > 2 ? QByteArray(argv[2]).toInt() : 6;

    QNetworkAccessManager network;
    int next = 0, finished = 0, failed = 0;
    qint64 bytes = 0;
    std::function<void()> send = [&] {
        QNetworkReply* reply = network.get(makeUpdateRequest(urls.at(next++)));
        QObject::connect(reply, &QNetworkReply::readyRead, reply, [reply, &bytes] { bytes += reply->readAll().size(); });
        QObject::connect(reply, &QNetworkReply::finished, reply, [&, reply] {
            bytes += reply->readAll().size();
            failed += reply->error() != QNetworkReply::NoError;
            reply->deleteLater();
            if (++finished == urls.size())
                app.quit();
            else if (next < urls.size())
                send();
        });
    };
    QElapsedTimer wall;
    wall.start();
    for (int i = 0; i < inFlight && next < urls.size(); ++i)
        send();
    if (!urls.isEmpty())
        app.exec();
    const double seconds = wall.nsecsElapsed() / 1e9;

    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    const double cpu = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec
        + usage.ru_stime.tv_usec / 1e6;
    double busiestOther = 0;
    const QString self = QString::number(QCoreApplication::applicationPid());
    for (const QString& task : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        if (task != self)
            busiestOther = std::max(busiestOther, threadCpuSeconds(task));
    std::printf("{\"files\": %d, \"failed\": %d, \"bytes\": %lld, \"in_flight\": %d, \"wall\": %.4f, "
                "\"cpu\": %.3f, \"main_thread_cpu\": %.3f, \"network_thread_cpu\": %.3f}\n",
                finished, failed, bytes, inFlight, seconds, cpu, threadCpuSeconds(self), busiestOther);
    return failed ? 1 : 0;
}
