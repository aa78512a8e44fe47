#pragma once
#include "update/bounded_network_access.h"
#include "update/http_fetch.h"

#include <QString>

#include <deque>
#include <map>
#include <memory>

// Requests kept in flight for the files that will be fetched next. A round trip costs as much
// as a small file, so while one file is written and checked, the next files' GETs are already
// under way, at most kFetchAheadRequests at once, and at most kFetchAheadAnswers started and
// not yet asked for. Their outcomes are taken only when each file's turn comes, one after the
// other: log lines, retries and hash checks keep the order of a fetch of one file at a time.
//
// A GET fetched ahead that fails is not reported. Fetching ahead stops for the rest of the run,
// the GETs still under way are let end (their files are kept for their turn), and the file is
// then fetched again, alone, with its own log lines: a server that turns away GETs beyond the
// first one or two of a client (nginx's limit_conn answers 503) or fails now and then is served
// as it was one file at a time, at the price of one more request.
//
// The fetches have a network manager of their own, and no more of them run than Qt opens
// connections to a host: each is on the wire from its start, so its 10 s inactivity limit
// counts from then and never includes a wait in Qt's queue, and a GET that is not fetched ahead
// (a retry, a resume) never waits behind them.
constexpr int kFetchAheadRequests = 6;
constexpr int kFetchAheadAnswers = 64;

class FetchAhead {
public:
    // `network` serves the GETs that were not fetched ahead. Bytes of fetches that are dropped
    // unread go to *droppedBodyBytes: they crossed the wire.
    FetchAhead(BoundedNetworkAccessManager& network, qint64* droppedBodyBytes);
    ~FetchAhead();
    FetchAhead(const FetchAhead&) = delete;
    FetchAhead& operator=(const FetchAhead&) = delete;

    // A GET of url into filePath from its first byte, as httpGetToFile would make it, to start
    // when its turn among the fetches ahead comes. One per path: a second one is not taken, and
    // none once fetching ahead has stopped.
    void add(const QString& url, const QString& filePath, qint64 maxLength, bool staged);
    // httpGetToFile, answered by the fetch added for filePath when it is the same request.
    // Any other request for that path drops the added one first, so that only one GET ever
    // writes the file.
    bool getToFile(const QString& url, const QString& filePath, qint64 offset, qint64 maxLength,
                   qint64* bodyBytes, QString* stagedSha256);
    // Aborts every added fetch and closes its file, before the files are deleted.
    void dropAll();

private:
    struct Ahead {
        QString url;
        qint64 maxLength;
        bool staged;
        std::unique_ptr<FileFetch> fetch;  // null until started
    };
    void startMore();
    void stopAhead();
    void drop(Ahead& ahead);

    BoundedNetworkAccessManager& network;
    BoundedNetworkAccessManager aheadNetwork;
    qint64* droppedBodyBytes;
    FetchGroup group;  // every fetch started here, and those made in a file's turn beside them
    std::map<QString, Ahead> added;  // by file path
    std::deque<QString> notStarted;  // in the order added
    int underWay = 0;  // started and not ended
    int kept = 0;      // started and neither asked for nor dropped
    bool stopped = false;
};
