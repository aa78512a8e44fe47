#pragma once
#include <QByteArray>
#include <QNetworkRequest>
#include <QString>

class QNetworkAccessManager;
class QNetworkReply;

constexpr int kHttpInactivityTimeoutMs = 10000;
constexpr qint64 kHttpReadChunkBytes = 262144;
// Unread bytes a file download may hold in memory before Qt stops reading the socket.
constexpr qint64 kHttpFileReadBufferBytes = 4 * kHttpReadChunkBytes;

// The one request shape of the updater: tolerant URL parsing, redirects followed unless they
// go from HTTPS to HTTP, never answered from a cache, no headers of its own.
QNetworkRequest makeUpdateRequest(const QString& url);
// Lifts Qt's own "network not accessible" refusal before a request is sent.
void ensureNetworkAccessible(QNetworkAccessManager& network);

// Blocking GETs: each runs a nested event loop until the reply finishes or 10 s pass without
// progress. A body of more than maxBodyBytes (when it is 0 or more) is aborted and fails the
// GET like a network error: a server that sends without end cannot fill the memory.
QByteArray httpGet(QNetworkAccessManager& network, const QString& url, bool& ok,
                   qint64 maxBodyBytes = -1);
QByteArray httpGetWithRetry(QNetworkAccessManager& network, const QString& url, bool& ok,
                            qint64 maxBodyBytes = -1);
// The bound on a document body held in memory, shared by the blocking GETs and the prefetcher:
// limitBodySize lets Qt read no further than one read chunk beyond maxBytes, bodyExceedsLimit
// tells from the announced length or the bytes already there that the body is beyond it, and
// bodyTooLargeText is the failure's text in the log.
void limitBodySize(QNetworkReply& reply, qint64 maxBytes);
bool bodyExceedsLimit(const QNetworkReply& reply, qint64 maxBytes);
QString bodyTooLargeText(qint64 maxBytes);
// Streams the body into filePath. offset > 0 asks for "Range: bytes=offset-": a 206 answer
// is appended, a 200 answer rewrites the file from byte 0. With expectedSize > 0 the transfer
// is aborted and fails as soon as the file would grow beyond that many bytes.
bool httpGetToFile(QNetworkAccessManager& network, const QString& url, const QString& filePath,
                   qint64 offset, qint64 expectedSize = 0);
