#include "update/http_fetch.h"

#include "base/own_files.h"
#include "base/sha256.h"
#include "update/slow_transfer.h"

#include <QDebug>
#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>
#include <QUrl>

#include <memory>

namespace {
constexpr int kMaxGetAttempts = 2;
}  // namespace

// The body of one file fetch on its way to disk. The file is opened only once the status
// is known, so an error answer never creates or truncates anything.
struct FileSink {
    QNetworkReply* reply;
    QFile file;
    qint64 offset;
    qint64 maxLength;    // the file may not grow beyond this
    qint64 length = 0;   // bytes the file holds
    qint64 received = 0; // body bytes of this response written to the file
    qint64 read = 0;     // body bytes taken from the reply, also those refused
    QByteArray encoding; // a refused Content-Encoding
    Sha256 hash;         // of everything written, when the file was started from byte 0
    FetchGroup* group = nullptr;
    bool fromStart = false;
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
        // After a failed open or write, too many bytes or a refused encoding, nothing more goes
        // to the file.
        if (writeFailed || tooLarge || !encoding.isEmpty())
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
            encoding = refusedContentEncoding(*reply);
            if (!encoding.isEmpty()) {
                reply->abort();
                return;
            }
            // Unbuffered, so that a full disk shows up as a short write right here.
            if (!openOwnFile(file, file.fileName(), mode | QIODevice::Unbuffered)) {
                fail();
                return;
            }
            opened = true;
            length = file.size();
            fromStart = length == 0;
        }
        while (reply->bytesAvailable() > 0) {
            const QByteArray chunk = reply->read(kHttpReadChunkBytes);
            if (chunk.isEmpty())
                return;
            read += chunk.size();
            if (group) {
                group->bodyBytes += chunk.size();
                group->sinceProgress.start();
            }
            if (length + chunk.size() > maxLength) {
                tooLarge = true;
                reply->abort();
                return;
            }
            if (file.write(chunk) < chunk.size()) {
                fail();
                return;
            }
            hash.addData(chunk);
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

namespace {

// The timer aborts the reply after kHttpInactivityTimeoutMs without progress, counted from now;
// the caller restarts it on every sign of progress.
void armInactivity(QNetworkReply* reply, QTimer& inactivity)
{
    inactivity.setSingleShot(true);
    QObject::connect(&inactivity, &QTimer::timeout, reply, &QNetworkReply::abort);
    inactivity.start(kHttpInactivityTimeoutMs);
}

void logTooSlow(const QString& url)
{
    qWarning() << "[Update] tai qua cham (duoi" << kSlowTransferMinBytesPerSecond << "byte/giay)" << url;
}

// Runs a nested event loop until the reply finishes; a transfer that stays too slow meanwhile
// is aborted, with a line of its own (or, with `tooSlow`, noted there for a line later).
// `received`, when given, counts the bytes that make the pace instead of the reply's own.
void waitForReply(QNetworkReply* reply, const QString& url, std::function<qint64()> received = {},
                  bool* tooSlow = nullptr)
{
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    const auto onSlow = [reply, url, tooSlow] {
        if (tooSlow)
            *tooSlow = true;
        else
            logTooSlow(url);
        reply->abort();
    };
    if (received)
        new SlowTransferWatch(reply, onSlow, std::move(received));
    else
        new SlowTransferWatch(reply, onSlow);
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
    // Set here, the header also keeps Qt from inflating anything (qhttpnetworkconnection.cpp
    // adds "gzip, deflate" and decompresses only when the request names no encoding).
    request.setRawHeader("Accept-Encoding", "identity");
    return request;
}

QByteArray refusedContentEncoding(const QNetworkReply& reply)
{
    const QByteArray encoding = reply.rawHeader("Content-Encoding").trimmed().toLower();
    return encoding == "identity" ? QByteArray() : encoding;
}

QString refusedEncodingText(const QByteArray& encoding)
{
    return QStringLiteral("Content-Encoding %1 not accepted").arg(QString::fromLatin1(encoding));
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

void limitBodySize(QNetworkRequest& request, qint64 maxBytes)
{
    // Qt stops reading from the socket once this much waits unread, so a body beyond the bound
    // never piles up in memory; one read chunk of room makes sure that the byte beyond the
    // bound arrives.
    setReadBufferLimit(request, maxBytes + kHttpReadChunkBytes);
}

QString bodyRefusal(const QNetworkReply& reply, qint64 maxBytes)
{
    const QByteArray encoding = refusedContentEncoding(reply);
    if (!encoding.isEmpty())
        return refusedEncodingText(encoding);
    // The announced length alone may refuse the body before it comes.
    const qint64 announced = reply.header(QNetworkRequest::ContentLengthHeader).toLongLong();
    if (qMax(reply.bytesAvailable(), announced) > maxBytes)
        return QStringLiteral("body larger than %1 bytes").arg(maxBytes);
    return QString();
}

QByteArray httpGet(BoundedNetworkAccessManager& network, const QString& url, bool& ok, qint64 maxBodyBytes)
{
    ok = false;
    ensureNetworkAccessible(network);
    QNetworkRequest request = makeUpdateRequest(url);
    limitBodySize(request, maxBodyBytes);
    QNetworkReply* reply = network.get(request);
    QTimer inactivity;
    QObject::connect(reply, &QNetworkReply::downloadProgress, &inactivity,
                     [&inactivity] { inactivity.start(kHttpInactivityTimeoutMs); });
    // Why the body is refused, once it is: an encoding, or more bytes than the bound.
    QString refusal;
    auto judge = [reply, maxBodyBytes, &refusal] {
        if (refusal.isEmpty()) {
            refusal = bodyRefusal(*reply, maxBodyBytes);
            if (!refusal.isEmpty())
                reply->abort();
        }
    };
    QObject::connect(reply, &QNetworkReply::readyRead, reply, judge);
    armInactivity(reply, inactivity);
    waitForReply(reply, url);
    // An empty body raises no readyRead.
    if (reply->error() == QNetworkReply::NoError)
        judge();

    QByteArray body;
    if (!refusal.isEmpty()) {
        qWarning() << "[Update] GET loi" << url << refusal;
    } else if (reply->error() != QNetworkReply::NoError) {
        qWarning() << "[Update] GET loi" << url << reply->errorString();
    } else {
        body = reply->readAll();
        ok = true;
    }
    reply->deleteLater();
    return body;
}

QByteArray httpGetWithRetry(BoundedNetworkAccessManager& network, const QString& url, bool& ok, qint64 maxBodyBytes)
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

FileFetch::FileFetch(BoundedNetworkAccessManager& network, const QString& url, const QString& filePath,
                     qint64 offset, qint64 maxLength, bool staged)
    : url(url), staged(staged)
{
    QNetworkRequest request = makeUpdateRequest(url);
    if (offset > 0)
        request.setRawHeader("Range", "bytes=" + QByteArray::number(offset) + '-');
    ensureNetworkAccessible(network);
    // Back-pressure: the manager's read buffer (kDefaultReadBufferBytes) stops Qt reading from
    // the socket while that much waits unread, so a slow disk or a busy GUI thread never lets
    // the body pile up in memory.
    reply = network.get(request);
    sink = std::make_unique<FileSink>(reply, filePath, offset, maxLength);
    QObject::connect(reply, &QNetworkReply::readyRead, &context, [this] {
        inactivity.start(kHttpInactivityTimeoutMs);
        sink->drain();
    });
    QObject::connect(reply, &QNetworkReply::finished, &context, [this] { end(); });
    // Silent only when the whole group has been: otherwise wait out the rest of the limit.
    inactivity.setSingleShot(true);
    QObject::connect(&inactivity, &QTimer::timeout, &context, [this] {
        const FetchGroup* group = sink->group;
        const qint64 quiet = group && group->sinceProgress.isValid() ? group->sinceProgress.elapsed()
                                                                     : kHttpInactivityTimeoutMs;
        if (quiet < kHttpInactivityTimeoutMs)
            inactivity.start(int(kHttpInactivityTimeoutMs - quiet));
        else
            reply->abort();
    });
    inactivity.start(kHttpInactivityTimeoutMs);
}

FileFetch::~FileFetch()
{
    if (!ended) {
        QObject::disconnect(reply, nullptr, &context, nullptr);
        reply->abort();
        sink->file.close();
        reply->deleteLater();
    }
}

void FileFetch::end()
{
    // Data that came with the finished signal, or the open of an empty successful body.
    sink->drain();
    const bool networkError = reply->error() != QNetworkReply::NoError;
    if (sink->tooLarge)
        failure = QStringLiteral("file larger than %1 bytes").arg(sink->maxLength);
    else if (!sink->encoding.isEmpty())
        failure = refusedEncodingText(sink->encoding);
    else if (!networkError && sink->endedShort())
        failure = QStringLiteral("body ended after %1 of %2 bytes")
                      .arg(sink->received)
                      .arg(reply->header(QNetworkRequest::ContentLengthHeader).toLongLong());
    else if (networkError)
        failure = reply->errorString();
    const bool failed = !failure.isEmpty();
    if (sink->opened) {
        // A staged file's data is on disk before any name in the installation can point at it.
        if (!(staged && !failed ? syncWrittenFile(sink->file) : sink->file.flush()))
            sink->writeFailed = true;
        sink->file.close();
    }
    succeeded = !failed && sink->opened && !sink->writeFailed;
    // An answer kept until its file's turn holds no reply, socket buffer or open file.
    QObject::disconnect(reply, nullptr, &context, nullptr);
    reply->deleteLater();
    ended = true;
    if (onEnded)
        onEnded();
}

bool FileFetch::waitQuietly()
{
    if (!ended)
        waitForReply(reply, url, sink->group ? std::function<qint64()>([this] { return sink->group->bodyBytes; })
                                             : std::function<qint64()>(), &tooSlow);
    return succeeded;
}

bool FileFetch::wait(qint64* bodyBytes, QString* stagedSha256)
{
    waitQuietly();
    if (tooSlow)
        logTooSlow(url);
    if (!failure.isEmpty())
        qWarning() << "[Update] GET(file) loi" << url << failure;
    if (bodyBytes)
        *bodyBytes += sink->read;
    if (stagedSha256)
        *stagedSha256 = sink->fromStart ? sink->hash.hexResult() : QString();
    return succeeded;
}

qint64 FileFetch::bodyBytesRead() const
{
    return sink->read;
}

void FileFetch::shareProgress(FetchGroup* shared)
{
    sink->group = shared;
}

bool httpGetToFile(BoundedNetworkAccessManager& network, const QString& url, const QString& filePath,
                   qint64 offset, qint64 maxLength, qint64* bodyBytes, QString* stagedSha256)
{
    return FileFetch(network, url, filePath, offset, maxLength, stagedSha256 != nullptr).wait(bodyBytes, stagedSha256);
}
