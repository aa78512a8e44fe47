#include "update/slow_transfer.h"

#include <QNetworkReply>

namespace {
constexpr int kSlowTransferCheckMs = 1000;
}

SlowTransferWatch::SlowTransferWatch(QNetworkReply* reply, std::function<void()> onSlow)
    : QObject(reply), onSlow(std::move(onSlow))
{
    connect(reply, &QNetworkReply::downloadProgress, this, [this](qint64 bytes, qint64) { received = bytes; });
    connect(&ticker, &QTimer::timeout, this, &SlowTransferWatch::check);
    // A finished reply may live on for a while (deleteLater): it is no transfer any more.
    connect(reply, &QNetworkReply::finished, &ticker, &QTimer::stop);
    clock.start();
    samples.append({0, 0});
    ticker.start(kSlowTransferCheckMs);
}

SlowTransferWatch::SlowTransferWatch(QNetworkReply* reply, std::function<void()> onSlow,
                                     std::function<qint64()> received)
    : SlowTransferWatch(reply, std::move(onSlow))
{
    counted = std::move(received);
    samples.first().bytes = this->received = counted();
}

void SlowTransferWatch::check()
{
    const qint64 now = clock.elapsed();
    if (counted)
        received = counted();
    samples.append({now, received});
    // The oldest sample kept is the last one at or before the start of the window.
    while (samples.size() > 2 && samples.at(1).ms <= now - kSlowTransferWindowMs)
        samples.removeFirst();
    if (now < kSlowTransferGraceMs)
        return;
    const Sample& from = samples.first();
    if ((received - from.bytes) * 1000 >= kSlowTransferMinBytesPerSecond * (now - from.ms))
        return;
    ticker.stop();
    onSlow();
}
