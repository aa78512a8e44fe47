#pragma once
#include "update/bounded_network_access.h"
#include "update/manifest.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QNetworkRequest>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>

class QNetworkAccessManager;
class QNetworkReply;
struct FileSink;

constexpr int kHttpInactivityTimeoutMs = 10000;
constexpr qint64 kHttpReadChunkBytes = 262144;

// The one request shape of the updater: tolerant URL parsing, redirects followed unless they
// go from HTTPS to HTTP, never answered from a cache, and "Accept-Encoding: identity" as its
// only header. Without that header Qt asks for gzip and inflates the body before any size
// check could see it; with it Qt leaves the body as it comes.
QNetworkRequest makeUpdateRequest(const QString& url);
// The Content-Encoding of a body that is refused ("gzip", ...), or empty for a plain body, and
// the refusal's text in the log.
QByteArray refusedContentEncoding(const QNetworkReply& reply);
QString refusedEncodingText(const QByteArray& encoding);
// Lifts Qt's own "network not accessible" refusal before a request is sent.
void ensureNetworkAccessible(QNetworkAccessManager& network);

// Blocking GETs: each runs a nested event loop until the reply finishes, 10 s pass without
// progress, or the transfer is too slow (update/slow_transfer.h). A body of more than
// maxBodyBytes, or one with a Content-Encoding, fails the GET like a network error: a server
// that sends without end cannot fill the memory.
QByteArray httpGet(BoundedNetworkAccessManager& network, const QString& url, bool& ok, qint64 maxBodyBytes);
QByteArray httpGetWithRetry(BoundedNetworkAccessManager& network, const QString& url, bool& ok,
                            qint64 maxBodyBytes);
// The bound on a document body held in memory, shared by the blocking GETs and the prefetcher:
// limitBodySize lets Qt read no further than one read chunk beyond maxBytes, and bodyRefusal
// gives the reason to refuse the body as soon as it is known (a Content-Encoding, or more than
// maxBytes announced or already there), the text that goes into the log, or "" while the body
// is acceptable.
void limitBodySize(QNetworkRequest& request, qint64 maxBytes);
QString bodyRefusal(const QNetworkReply& reply, qint64 maxBytes);
// Streams the body into filePath. offset > 0 asks for "Range: bytes=offset-": a 206 answer
// is appended, a 200 answer rewrites the file from byte 0. The transfer is aborted and fails as
// soon as the file would grow beyond maxLength bytes (0: only an empty body is accepted).
// bodyBytes, when given, grows by the body bytes read from the server, failed transfers
// included: what the file cost on the wire. stagedSha256, when given, makes the file one that is
// moved into place as it is: it is synced to disk before it is closed, and stagedSha256 receives
// the SHA-256 of its whole content, hashed on the way (or "" when the body was appended to bytes
// already there: the caller hashes the file then).
bool httpGetToFile(BoundedNetworkAccessManager& network, const QString& url, const QString& filePath,
                   qint64 offset, qint64 maxLength = kUnsizedFileLimit, qint64* bodyBytes = nullptr,
                   QString* stagedSha256 = nullptr);

// File GETs that share one link: the body bytes of all of them, and the time since the last.
struct FetchGroup {
    qint64 bodyBytes = 0;
    QElapsedTimer sinceProgress;  // invalid until the first byte
};

// One file GET of httpGetToFile, under way from its construction: its body goes to the file
// whenever the event loop runs, 10 s without progress abort it from then on, and the file is
// closed (synced first when `staged`) as soon as the reply ends. wait() blocks until then and
// reports the outcome, its log line included, as httpGetToFile does: a fetch started early
// reports in the order it is waited for. Destroyed before it ended, it aborts the request and
// closes the file.
class FileFetch {
public:
    FileFetch(BoundedNetworkAccessManager& network, const QString& url, const QString& filePath, qint64 offset,
              qint64 maxLength, bool staged);
    ~FileFetch();
    FileFetch(const FileFetch&) = delete;
    FileFetch& operator=(const FileFetch&) = delete;

    bool wait(qint64* bodyBytes, QString* stagedSha256);
    // The same, reporting nothing: whether the file is complete.
    bool waitQuietly();
    bool hasEnded() const { return ended; }
    qint64 bodyBytesRead() const;
    // Fetches that share the link: each adds its body bytes to the group, a wait for one of them
    // judges the pace by the group's sum, and none is aborted as silent while the group moves.
    // On a thin link one answer may wait behind the others' bytes for longer than the inactivity
    // limit: the link is neither slow nor silent while the group as a whole moves.
    void shareProgress(FetchGroup* shared);
    // Called once, when the reply has ended and the file is closed.
    std::function<void()> onEnded;

private:
    void end();

    QString url;
    bool staged;
    QNetworkReply* reply = nullptr;
    std::unique_ptr<FileSink> sink;
    QTimer inactivity;
    QObject context;  // receiver of the reply's signals: gone with this fetch
    bool ended = false;
    bool succeeded = false;
    bool tooSlow = false;
    QString failure;  // the reason for the log line of a failed GET
};
