#pragma once
#include "update/bounded_network_access.h"
#include "update/manifest.h"

#include <QByteArray>
#include <QNetworkRequest>
#include <QString>

class QNetworkAccessManager;
class QNetworkReply;

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
