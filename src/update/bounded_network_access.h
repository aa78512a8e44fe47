#pragma once
#include <QNetworkAccessManager>
#include <QNetworkRequest>

// The network access manager of a run. Every reply it creates has a read-buffer size, and that
// size is in force before Qt can read the first byte of the body, also after a redirect: no
// body, endless or not, can pile up in memory beyond it.
//
// Why a manager of its own: QNetworkReply::setReadBufferSize() reaches Qt's network thread as
// a queued call that follows the queued start of the request, and the network thread ignores
// it while the request has not started (Qt 5.15, QHttpThreadDelegate::readBufferSizeChanged).
// Set after get(), the size therefore arrives whenever this thread gets to it: a thread that
// loses the CPU right after get() lets the network thread read without any limit meanwhile.
// This manager holds the network thread back, at the request's own place in its event queue,
// until the size has been queued behind the start.
class BoundedNetworkAccessManager : public QNetworkAccessManager {
    Q_OBJECT
public:
    using QNetworkAccessManager::QNetworkAccessManager;

protected:
    QNetworkReply* createRequest(Operation op, const QNetworkRequest& request, QIODevice* outgoingData) override;
    // Called between the start of a request and the hand-over of its read-buffer size; the
    // read_buffer_race bench waits here to show that the network thread waits too.
    virtual void requestStarted(QNetworkReply*) {}
};

// The unread bytes a reply may hold. Without it a reply holds at most kDefaultReadBufferBytes.
void setReadBufferLimit(QNetworkRequest& request, qint64 bytes);
constexpr qint64 kDefaultReadBufferBytes = 1048576;
