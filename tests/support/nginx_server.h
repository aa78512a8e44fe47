#pragma once
#include <QList>
#include <QString>
#include <QTemporaryDir>

class QProcess;

// A real nginx serving one directory on 127.0.0.1, run as a child process in the foreground
// with its own prefix, configuration, pid file, temporary directories and logs inside a
// temporary directory. Every request is recorded in its access log. Stopped by the destructor.
class NginxServer {
public:
    struct Request {
        QString method;
        QString path;  // decoded URL path without the leading "/"
        int status = 0;
        QString range;  // the Range header, empty when none was sent
    };

    explicit NginxServer(const QString& rootDir);
    ~NginxServer();
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    // Debian's nginx binary, or empty when it is not installed.
    static QString executable();

    // Starts nginx on a free port and waits until it accepts connections; false with *error
    // (including nginx's own error log) when it could not.
    bool start(QString* error);
    void stop();

    quint16 port() const { return serverPort; }
    // "http://127.0.0.1:<port>/" + path
    QString url(const QString& path = QString()) const;
    // Every request nginx has finished so far, in order.
    QList<Request> requests() const;

private:
    bool startOnPort(quint16 port, QString* error);

    QString root;
    QTemporaryDir prefix;
    QProcess* process = nullptr;
    quint16 serverPort = 0;
};
