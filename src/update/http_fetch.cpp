#include "update/http_fetch.h"

#include "base/own_files.h"

#include <QDebug>
#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>
#include <QUrl>

namespace {

constexpr int kMaxGetAttempts = 2;

// The body of one file fetch on its way to disk. The file is opened only once the status
// is known, so an error answer never creates or truncates anything.
struct FileSink {
    QNetworkReply* reply;
    QFile file;
    qint64 offset;
    qint64 maxLength;    // the file may not grow beyond this; 0 or less: no bound
    qint64 length = 0;   // bytes the file holds
    qint64 received = 0; // body bytes of this response written to the file
    bool opened = false;
    bool writeFailed = false;
    bool tooLarge = false;

    FileSink(QNetworkReply* reply, const QString& filePath, qint64 offset, qint64 maxLength)
        : reply(reply), file(filePath), offset(offset), maxLength(maxLength)
    {
    }

    void fail()
    {
        writeFailed = true;
        reply->abort();
    }

    void drain()
    {
        // After a failed open or write, or too many bytes, nothing more goes to the file.
        if (writeFailed || tooLarge)
            return;
        if (!opened) {
            const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
            QIODevice::OpenMode mode;
            if (status == 200)  // the whole body: a server that ignored Range restarts the file
                mode = QIODevice::WriteOnly | QIODevice::Truncate;
            else if (status == 206)
                mode = offset > 0 ? QIODevice::WriteOnly | QIODevice::Append
                                  : QIODevice::WriteOnly | QIODevice::Truncate;
            else
                return;
            // Unbuffered, so that a full disk shows up as a short write right here.
            if (!openOwnFile(file, file.fileName(), mode | QIODevice::Unbuffered)) {
                fail();
                return;
            }
            opened = true;
            length = file.size();
        }
        while (reply->bytesAvailable() > 0) {
            const QByteArray chunk = reply->read(kHttpReadChunkBytes);
            if (chunk.isEmpty())
                return;
            if (maxLength > 0 && length + chunk.size() > maxLength) {
                tooLarge = true;
                reply->abort();
                return;
            }
            if (file.write(chunk) < chunk.size()) {
                fail();
                return;
            }
            length += chunk.size();
            received += chunk.size();
        }
    }

    // Qt now and then ends a response that the server cut off without reporting an error; the
    // announced length tells such a short body from a complete one.
    bool endedShort() const
    {
        const QVariant announced = reply->header(QNetworkRequest::ContentLengthHeader);
        return opened && announced.isValid() && received < announced.toLongLong();
    }
};

// Runs a nested event loop until the reply finishes; the timer aborts the reply after
// kHttpInactivityTimeoutMs without progress (the caller restarts it on every sign of it).
void waitForReply(QNetworkReply* reply, QTimer& inactivity)
{
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    inactivity.setSingleShot(true);
    QObject::connect(&inactivity, &QTimer::timeout, reply, &QNetworkReply::abort);
    inactivity.start(kHttpInactivityTimeoutMs);
    if (!reply->isFinished())
        loop.exec();
}

}  // namespace

QNetworkRequest makeUpdateRequest(const QString& url)
{
    QNetworkRequest request(QUrl(url, QUrl::TolerantMode));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    return request;
}

void ensureNetworkAccessible(QNetworkAccessManager& network)
{
    // Qt 5.15 deprecates network accessibility but still refuses requests while it believes
    // the network is down.
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    if (network.networkAccessible() != QNetworkAccessManager::Accessible)
        network.setNetworkAccessible(QNetworkAccessManager::Accessible);
    QT_WARNING_POP
}

void limitBodySize(QNetworkReply& reply, qint64 maxBytes)
{
    // Qt stops reading from the socket shortly before this much waits unread, so a body beyond
    // the bound never piles up in memory; one read chunk of room makes sure that the byte
    // beyond the bound arrives.
    reply.setReadBufferSize(maxBytes + kHttpReadChunkBytes);
}

bool bodyExceedsLimit(const QNetworkReply& reply, qint64 maxBytes)
{
    // The announced length alone may refuse the body before it comes.
    const qint64 announced = reply.header(QNetworkRequest::ContentLengthHeader).toLongLong();
    return qMax(reply.bytesAvailable(), announced) > maxBytes;
}

QString bodyTooLargeText(qint64 maxBytes)
{
    return QStringLiteral("body larger than %1 bytes").arg(maxBytes);
}

QByteArray httpGet(QNetworkAccessManager& network, const QString& url, bool& ok, qint64 maxBodyBytes)
{
    ok = false;
    ensureNetworkAccessible(network);
    QNetworkReply* reply = network.get(makeUpdateRequest(url));
    QTimer inactivity;
    QObject::connect(reply, &QNetworkReply::downloadProgress, &inactivity,
                     [&inactivity] { inactivity.start(kHttpInactivityTimeoutMs); });
    bool tooLarge = false;
    if (maxBodyBytes >= 0) {
        limitBodySize(*reply, maxBodyBytes);
        QObject::connect(reply, &QNetworkReply::readyRead, reply, [reply, maxBodyBytes, &tooLarge] {
            if (!tooLarge && bodyExceedsLimit(*reply, maxBodyBytes)) {
                tooLarge = true;
                reply->abort();
            }
        });
    }
    waitForReply(reply, inactivity);

    QByteArray body;
    if (tooLarge) {
        qWarning() << "[Update] GET loi" << url << bodyTooLargeText(maxBodyBytes);
    } else if (reply->error() != QNetworkReply::NoError) {
        qWarning() << "[Update] GET loi" << url << reply->errorString();
    } else {
        body = reply->readAll();
        ok = true;
    }
    reply->deleteLater();
    return body;
}

QByteArray httpGetWithRetry(QNetworkAccessManager& network, const QString& url, bool& ok, qint64 maxBodyBytes)
{
    for (int attempt = 1; attempt <= kMaxGetAttempts; ++attempt) {
        const QByteArray body = httpGet(network, url, ok, maxBodyBytes);
        if (ok)
            return body;
        if (attempt < kMaxGetAttempts)
            qWarning() << "[Update] thu lai GET" << url << "lan" << attempt + 1;
    }
    ok = false;
    return QByteArray();
}

bool httpGetToFile(QNetworkAccessManager& network, const QString& url, const QString& filePath,
                   qint64 offset, qint64 expectedSize)
{
    QNetworkRequest request = makeUpdateRequest(url);
    if (offset > 0)
        request.setRawHeader("Range", "bytes=" + QByteArray::number(offset) + '-');
    ensureNetworkAccessible(network);
    QNetworkReply* reply = network.get(request);
    // Back-pressure: Qt stops reading from the socket while this much waits unread, so a slow
    // disk or a busy GUI thread never lets the body pile up in memory.
    reply->setReadBufferSize(kHttpFileReadBufferBytes);
    FileSink sink(reply, filePath, offset, expectedSize);
    QTimer inactivity;
    QObject::connect(reply, &QNetworkReply::readyRead, &inactivity, [&inactivity, &sink] {
        inactivity.start(kHttpInactivityTimeoutMs);
        sink.drain();
    });
    waitForReply(reply, inactivity);
    // Data that came with the finished signal, or the open of an empty successful body.
    sink.drain();

    const bool networkError = reply->error() != QNetworkReply::NoError;
    const bool endedShort = !networkError && sink.endedShort();
    const bool failed = sink.tooLarge || networkError || endedShort;
    if (sink.tooLarge)
        qWarning() << "[Update] GET(file) loi" << url << QStringLiteral("file larger than %1 bytes").arg(expectedSize);
    else if (endedShort)
        qWarning() << "[Update] GET(file) loi" << url
                   << QStringLiteral("body ended after %1 of %2 bytes")
                          .arg(sink.received)
                          .arg(reply->header(QNetworkRequest::ContentLengthHeader).toLongLong());
    else if (failed)
        qWarning() << "[Update] GET(file) loi" << url << reply->errorString();
    reply->deleteLater();
    if (sink.opened) {
        if (!sink.file.flush())
            sink.writeFailed = true;
        sink.file.close();
    }
    return !failed && sink.opened && !sink.writeFailed;
}
