#include "update/fetch_ahead.h"

#include "base/network_guard.h"

FetchAhead::FetchAhead(BoundedNetworkAccessManager& network, qint64* droppedBodyBytes)
    : network(network), droppedBodyBytes(droppedBodyBytes)
{
    // Guarded like the session's own manager: Qt's belief that the network is gone refuses nothing.
    forceNetworkAccessible(&aheadNetwork);
}

FetchAhead::~FetchAhead()
{
    dropAll();
}

void FetchAhead::add(const QString& url, const QString& filePath, qint64 maxLength, bool staged)
{
    if (stopped || !added.emplace(filePath, Ahead{url, maxLength, staged, nullptr}).second)
        return;
    notStarted.push_back(filePath);
    startMore();
}

void FetchAhead::startMore()
{
    while (underWay < kFetchAheadRequests && kept < kFetchAheadAnswers && !notStarted.empty()) {
        const auto it = added.find(notStarted.front());
        notStarted.pop_front();
        if (it == added.end() || it->second.fetch)
            continue;  // asked for, or dropped, before its turn
        Ahead& ahead = it->second;
        ahead.fetch = std::make_unique<FileFetch>(aheadNetwork, ahead.url, it->first, 0, ahead.maxLength, ahead.staged);
        ahead.fetch->shareProgress(&group);
        ++underWay;
        ++kept;
        ahead.fetch->onEnded = [this] {
            --underWay;
            startMore();
        };
    }
}

void FetchAhead::drop(Ahead& ahead)
{
    if (!ahead.fetch)
        return;
    --kept;
    if (!ahead.fetch->hasEnded())
        --underWay;
    if (droppedBodyBytes)
        *droppedBodyBytes += ahead.fetch->bodyBytesRead();
    ahead.fetch.reset();
}

bool FetchAhead::getToFile(const QString& url, const QString& filePath, qint64 offset, qint64 maxLength,
                           qint64* bodyBytes, QString* stagedSha256)
{
    const auto it = added.find(filePath);
    if (it != added.end()) {
        Ahead ahead = std::move(it->second);
        added.erase(it);
        if (ahead.fetch && ahead.url == url && offset == 0 && ahead.maxLength == maxLength
            && ahead.staged == (stagedSha256 != nullptr)) {
            --kept;
            startMore();
            if (ahead.fetch->waitQuietly())
                return ahead.fetch->wait(bodyBytes, stagedSha256);
            // Whatever turned it away is met again below, alone.
            if (droppedBodyBytes)
                *droppedBodyBytes += ahead.fetch->bodyBytesRead();
            stopAhead();
        } else {
            drop(ahead);
            startMore();
        }
    }
    // It shares the link with the fetches ahead, and is judged with them.
    FileFetch fetch(network, url, filePath, offset, maxLength, stagedSha256 != nullptr);
    fetch.shareProgress(&group);
    return fetch.wait(bodyBytes, stagedSha256);
}

void FetchAhead::stopAhead()
{
    stopped = true;
    notStarted.clear();
    // The GETs under way run to their end and are kept for their turn. Dropped, they would still
    // count against a server's limit of answers at once until it noticed, and could turn the
    // lone GET that follows away as busy.
    for (auto& entry : added) {
        if (entry.second.fetch && !entry.second.fetch->hasEnded())
            entry.second.fetch->waitQuietly();
    }
}

void FetchAhead::dropAll()
{
    notStarted.clear();
    for (auto& entry : added)
        drop(entry.second);
    added.clear();
}
