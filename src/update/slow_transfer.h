#pragma once
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <QVector>

#include <functional>

class QNetworkReply;

// A transfer that keeps sending, but too little, ends like a stall: once it has run for
// kSlowTransferGraceMs, whenever the bytes it received over the last kSlowTransferWindowMs
// (or since its start, when that is shorter) average less than kSlowTransferMinBytesPerSecond.
// A server that drips one byte every few seconds would otherwise never trip an inactivity
// timer and hold a run, and the updater lock, without end.
constexpr int kSlowTransferWindowMs = 60000;
constexpr int kSlowTransferGraceMs = 30000;
constexpr qint64 kSlowTransferMinBytesPerSecond = 1024;

// Watches the bytes `reply` receives and calls onSlow once, when the transfer is too slow,
// until the reply finishes. A child of the reply: it ends with it.
class SlowTransferWatch : public QObject {
public:
    SlowTransferWatch(QNetworkReply* reply, std::function<void()> onSlow);
    // The same, counting the bytes `received` gives at each check rather than the reply's own.
    SlowTransferWatch(QNetworkReply* reply, std::function<void()> onSlow, std::function<qint64()> received);

private:
    struct Sample {
        qint64 ms;
        qint64 bytes;
    };
    void check();

    std::function<void()> onSlow;
    std::function<qint64()> counted;  // when set, polled at each check
    QElapsedTimer clock;
    QTimer ticker;
    qint64 received = 0;
    QVector<Sample> samples;  // one a second, reaching back just over the window
};
