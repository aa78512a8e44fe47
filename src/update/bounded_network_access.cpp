#include "update/bounded_network_access.h"

#include <QCoreApplication>
#include <QEvent>
#include <QNetworkReply>
#include <QSemaphore>

#include <memory>

namespace {

const QNetworkRequest::Attribute kReadBufferAttribute = QNetworkRequest::Attribute(QNetworkRequest::User + 1);

// Holds Qt's network thread back from the start of the request that this thread starts while
// the gate watches. Qt 5.15 creates the request's network-thread object here and moves it to
// the network thread before it queues the start (QNetworkReplyHttpImplPrivate::postRequest);
// a call queued to that object while it is being moved goes along with it, ahead of the start.
// The call queued here waits until open(): by then the read-buffer size is queued right
// behind the start, and the network thread handles the two together, before it has sent the
// request, let alone read a byte of the answer.
class NetworkThreadGate : public QObject {
public:
    NetworkThreadGate()
    {
        if (QCoreApplication* app = QCoreApplication::instance())
            app->installEventFilter(this);
    }
    ~NetworkThreadGate() override { open(); }

    void stopWatching()
    {
        if (QCoreApplication* app = QCoreApplication::instance())
            app->removeEventFilter(this);
    }

    void open()
    {
        stopWatching();
        if (!opened) {
            opened = true;
            permit->release();
        }
    }

protected:
    // The object that receives the reply's read-buffer size is the one to hold back. Qt sends
    // ThreadChange to it in this thread just before it moves.
    bool eventFilter(QObject* object, QEvent* event) override
    {
        if (event->type() == QEvent::ThreadChange && !closed
            && object->metaObject()->indexOfSlot("readBufferSizeChanged(qint64)") >= 0) {
            closed = true;
            const std::shared_ptr<QSemaphore> held = permit;
            QMetaObject::invokeMethod(object, [held] { held->acquire(); }, Qt::QueuedConnection);
        }
        return false;
    }

private:
    std::shared_ptr<QSemaphore> permit = std::make_shared<QSemaphore>();
    bool closed = false;
    bool opened = false;
};

} // namespace

void setReadBufferLimit(QNetworkRequest& request, qint64 bytes)
{
    request.setAttribute(kReadBufferAttribute, bytes);
}

QNetworkReply* BoundedNetworkAccessManager::createRequest(Operation op, const QNetworkRequest& request,
                                                          QIODevice* outgoingData)
{
    const QVariant asked = request.attribute(kReadBufferAttribute);
    const qint64 limit = asked.isValid() ? asked.toLongLong() : kDefaultReadBufferBytes;
    NetworkThreadGate gate;
    QNetworkReply* reply = QNetworkAccessManager::createRequest(op, request, outgoingData);
    gate.stopWatching();
    requestStarted(reply);
    reply->setReadBufferSize(limit);
    gate.open();

    // A redirect starts a new request in the network thread, and Qt never hands the size to
    // it. Its start is queued to the reply when redirected() is emitted: it runs here, watched,
    // and gets the size the same way.
    connect(reply, &QNetworkReply::redirected, reply, [reply, limit] {
        NetworkThreadGate redirectGate;
        QCoreApplication::sendPostedEvents(reply, QEvent::MetaCall);
        redirectGate.stopWatching();
        reply->setReadBufferSize(limit);
        redirectGate.open();
    });
    return reply;
}
