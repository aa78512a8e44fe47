#include "support/log_capture.h"
#include "support/test_files.h"
#include "support/test_server.h"
#include "update/http_fetch.h"
#include "update/manifest_signature.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <optional>

namespace {

QByteArray randomBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(size);
    for (char& byte : bytes)
        byte = char(generator.bounded(256));
    return bytes;
}

}  // namespace

class HttpFetchTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void requestShape_data();
    void requestShape();

    void getReturnsBody();
    void getEmptyBodyIsSuccess();
    void getErrorStatus_data();
    void getErrorStatus();
    void getConnectionClosed();
    void getFollowsRedirect();
    void getForcesNetworkAccessible();

    void retry_data();
    void retry();

    void fileResume_data();
    void fileResume();
    void fileErrorStatus_data();
    void fileErrorStatus();
    void fileConnectionClosed_data();
    void fileConnectionClosed();
    void fileCannotBeOpened();
    void fileLargeBody();
    void fileEmptyBody();
    void fileFollowsRedirect();
    void fileForcesNetworkAccessible();
    void fileDiskFull();

private:
    QString target(const QString& name) const { return work->filePath(name); }
    QString serverError(const QString& path, const QString& reason) const
    {
        return QStringLiteral("Error transferring %1 - server replied: %2")
            .arg(server->url(path), reason);
    }

    QTemporaryDir root;
    std::unique_ptr<QTemporaryDir> work;  // fresh for every test
    std::unique_ptr<TestServer> server;
    QByteArray body;  // "body.bin"
    QByteArray big;   // "big.bin", several read chunks long
    // Every message written while a test runs, exactly as the log file would get its text.
    std::optional<LogCapture> capture;
};

void HttpFetchTest::initTestCase()
{
    QVERIFY(root.isValid());
    body = randomBytes(5000);
    big = randomBytes(3 * 1024 * 1024 + 17);
    QVERIFY(writeFile(root.filePath("body.bin"), body));
    QVERIFY(writeFile(root.filePath("big.bin"), big));
    QVERIFY(writeFile(root.filePath("empty.bin"), QByteArray()));
    QVERIFY(QDir(root.path()).mkpath("dir with space"));
    QVERIFY(writeFile(root.filePath("dir with space/a b.bin"), body.left(300)));
    server = std::make_unique<TestServer>(root.path());
    QVERIFY(server->start());
}

void HttpFetchTest::init()
{
    server->clearRules();
    server->clearRequests();
    work = std::make_unique<QTemporaryDir>();
    QVERIFY(work->isValid());
    capture.emplace();
}

void HttpFetchTest::cleanup()
{
    capture.reset();
}

void HttpFetchTest::requestShape_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain") << "http://example.test/c/bin/core.dll"
                           << "http://example.test/c/bin/core.dll";
    QTest::newRow("space") << "http://example.test/c/dir with space/a b.bin"
                           << "http://example.test/c/dir%20with%20space/a%20b.bin";
    QTest::newRow("stray percent") << "http://example.test/100%.bin"
                                   << "http://example.test/100%25.bin";
    QTest::newRow("https") << "https://example.test/m.json" << "https://example.test/m.json";
}

void HttpFetchTest::requestShape()
{
    QFETCH(QString, url);
    QFETCH(QString, expected);
    const QNetworkRequest request = makeUpdateRequest(url);
    QVERIFY(request.url().isValid());
    QCOMPARE(request.url().toString(QUrl::FullyEncoded), expected);
    QCOMPARE(request.attribute(QNetworkRequest::RedirectPolicyAttribute).toInt(),
             int(QNetworkRequest::NoLessSafeRedirectPolicy));
    QCOMPARE(request.attribute(QNetworkRequest::CacheLoadControlAttribute).toInt(),
             int(QNetworkRequest::AlwaysNetwork));
    // Its one header keeps Qt from asking for gzip and inflating the body on its own.
    QCOMPARE(request.rawHeaderList(), QList<QByteArray>{"Accept-Encoding"});
    QCOMPARE(request.rawHeader("Accept-Encoding"), QByteArray("identity"));
}

void HttpFetchTest::getReturnsBody()
{
    BoundedNetworkAccessManager network;
    bool ok = false;
    QCOMPARE(httpGet(network, server->url("body.bin"), ok, kMaxManifestBytes), body);
    QVERIFY(ok);
    // A path with blanks is sent encoded and reaches the file.
    QCOMPARE(httpGet(network, server->url("dir with space/a b.bin"), ok, kMaxManifestBytes), body.left(300));
    QVERIFY(ok);

    const auto requests = server->requests();
    QCOMPARE(requests.size(), 2);
    QCOMPARE(requests.at(0).method, QString("GET"));
    QVERIFY(!requests.at(0).headers.contains("range"));
    QVERIFY(!requests.at(0).headers.contains("authorization"));
    QCOMPARE(requests.at(0).headers.value("accept-encoding"), QByteArray("identity"));
    QCOMPARE(requests.at(1).target, QString("/dir%20with%20space/a%20b.bin"));
    QCOMPARE(capture->warnings(), QStringList());
}

void HttpFetchTest::getEmptyBodyIsSuccess()
{
    BoundedNetworkAccessManager network;
    bool ok = false;
    QCOMPARE(httpGet(network, server->url("empty.bin"), ok, kMaxManifestBytes), QByteArray());
    QVERIFY(ok);
    QCOMPARE(capture->warnings(), QStringList());
}

void HttpFetchTest::getErrorStatus_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("reason");
    QTest::newRow("403") << 403 << "Forbidden";
    QTest::newRow("404") << 404 << "Not Found";
    QTest::newRow("500") << 500 << "Internal Server Error";
    QTest::newRow("503") << 503 << "Service Unavailable";
}

void HttpFetchTest::getErrorStatus()
{
    QFETCH(int, status);
    QFETCH(QString, reason);
    TestServer::Rule rule;
    rule.status = status;
    server->setRule("body.bin", rule);

    BoundedNetworkAccessManager network;
    bool ok = true;  // must be reset by the call
    QCOMPARE(httpGet(network, server->url("body.bin"), ok, kMaxManifestBytes), QByteArray());
    QVERIFY(!ok);
    QCOMPARE(capture->warnings(),
             QStringList{QStringLiteral("[Update] GET loi \"%1\" \"%2\"")
                             .arg(server->url("body.bin"), serverError("body.bin", reason))});
    QCOMPARE(server->requests().size(), 1);
}

void HttpFetchTest::getConnectionClosed()
{
    TestServer::Rule rule;
    rule.closeAfterBytes = 1234;
    server->setRule("body.bin", rule);
    BoundedNetworkAccessManager network;
    bool ok = true;
    QCOMPARE(httpGet(network, server->url("body.bin"), ok, kMaxManifestBytes), QByteArray());
    QVERIFY(!ok);
    QCOMPARE(capture->warnings(),
             QStringList{QStringLiteral("[Update] GET loi \"%1\" \"Connection closed\"")
                             .arg(server->url("body.bin"))});
}

void HttpFetchTest::getFollowsRedirect()
{
    TestServer::Rule rule;
    rule.redirectTo = "body.bin";
    server->setRule("moved.json", rule);
    BoundedNetworkAccessManager network;
    bool ok = false;
    QCOMPARE(httpGet(network, server->url("moved.json"), ok, kMaxManifestBytes), body);
    QVERIFY(ok);
    QCOMPARE(server->requestsFor("body.bin").size(), 1);
    QCOMPARE(capture->warnings(), QStringList());
}

void HttpFetchTest::getForcesNetworkAccessible()
{
    BoundedNetworkAccessManager network;
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    network.setNetworkAccessible(QNetworkAccessManager::NotAccessible);
    bool ok = false;
    QCOMPARE(httpGet(network, server->url("body.bin"), ok, kMaxManifestBytes), body);
    QVERIFY(ok);
    QCOMPARE(network.networkAccessible(), QNetworkAccessManager::Accessible);
    QT_WARNING_POP
}

void HttpFetchTest::retry_data()
{
    QTest::addColumn<int>("status");  // 0: no misbehaviour
    QTest::addColumn<int>("times");
    QTest::addColumn<bool>("expectOk");
    QTest::addColumn<int>("expectRequests");
    QTest::addColumn<QStringList>("expectWarnings");  // %1 url, %2 error text of a 500

    const QString getError = QStringLiteral("[Update] GET loi \"%1\" \"%2\"");
    const QString retryLine = QStringLiteral("[Update] thu lai GET \"%1\" lan 2");
    QTest::newRow("first succeeds") << 0 << -1 << true << 1 << QStringList();
    QTest::newRow("second succeeds") << 500 << 1 << true << 2
                                     << QStringList{getError, retryLine};
    QTest::newRow("both fail") << 500 << -1 << false << 2
                               << QStringList{getError, retryLine, getError};
    QTest::newRow("three failures, two attempts") << 500 << 3 << false << 2
                                                  << QStringList{getError, retryLine, getError};
}

void HttpFetchTest::retry()
{
    QFETCH(int, status);
    QFETCH(int, times);
    QFETCH(bool, expectOk);
    QFETCH(int, expectRequests);
    QFETCH(QStringList, expectWarnings);
    if (status) {
        TestServer::Rule rule;
        rule.status = status;
        rule.times = times;
        server->setRule("manifest.json", rule);
    }
    QVERIFY(writeFile(root.filePath("manifest.json"), "{\"fullVersion\":\"5.0.153\"}"));

    BoundedNetworkAccessManager network;
    bool ok = !expectOk;
    const QByteArray result = httpGetWithRetry(network, server->url("manifest.json"), ok, kMaxManifestBytes);
    QCOMPARE(ok, expectOk);
    QCOMPARE(result, expectOk ? QByteArray("{\"fullVersion\":\"5.0.153\"}") : QByteArray());
    QCOMPARE(server->requests().size(), expectRequests);

    const QString url = server->url("manifest.json");
    const QString error = serverError("manifest.json", "Internal Server Error");
    QStringList expected;
    for (const QString& line : expectWarnings)
        expected.append(line.contains("%2") ? line.arg(url, error) : line.arg(url));
    QCOMPARE(capture->warnings(), expected);
}

void HttpFetchTest::fileResume_data()
{
    QTest::addColumn<QByteArray>("before");  // null: no file yet
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<bool>("ignoreRange");
    QTest::addColumn<bool>("partialWithoutRange");
    QTest::addColumn<QByteArray>("range");  // empty: no Range header at all
    QTest::addColumn<QByteArray>("after");

    // Stale bytes that differ from the body, so that appending and restarting can be told apart.
    const QByteArray stale(1000, 'x');
    const QByteArray longStale(7000, 'y');
    QTest::newRow("new file") << QByteArray() << qint64(0) << false << false << QByteArray()
                              << body;
    QTest::newRow("offset 0 truncates") << longStale << qint64(0) << false << false
                                        << QByteArray() << body;
    QTest::newRow("negative offset") << longStale << qint64(-5) << false << false << QByteArray()
                                     << body;
    QTest::newRow("206 appends") << stale << qint64(1000) << false << false
                                 << QByteArray("bytes=1000-") << stale + body.mid(1000);
    QTest::newRow("200 restarts") << stale << qint64(1000) << true << false
                                  << QByteArray("bytes=1000-") << body;
    QTest::newRow("206 without range truncates") << longStale << qint64(0) << false << true
                                                 << QByteArray() << body;
    QTest::newRow("last byte") << body.left(4999) << qint64(4999) << false << false
                               << QByteArray("bytes=4999-") << body;
}

void HttpFetchTest::fileResume()
{
    QFETCH(QByteArray, before);
    QFETCH(qint64, offset);
    QFETCH(bool, ignoreRange);
    QFETCH(bool, partialWithoutRange);
    QFETCH(QByteArray, range);
    QFETCH(QByteArray, after);
    TestServer::Rule rule;
    rule.ignoreRange = ignoreRange;
    rule.partialWithoutRange = partialWithoutRange;
    server->setRule("body.bin", rule);
    const QString path = target("body.bin");
    if (!before.isNull())
        QVERIFY(writeFile(path, before));

    BoundedNetworkAccessManager network;
    QVERIFY(httpGetToFile(network, server->url("body.bin"), path, offset));
    QCOMPARE(readFile(path), after);

    const auto requests = server->requests();
    QCOMPARE(requests.size(), 1);
    QCOMPARE(requests.at(0).headers.contains("range"), !range.isEmpty());
    QCOMPARE(requests.at(0).headers.value("range"), range);
    QCOMPARE(capture->warnings(), QStringList());
}

void HttpFetchTest::fileErrorStatus_data()
{
    QTest::addColumn<int>("status");        // 0: the server's own answer
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<bool>("partialExists");
    QTest::addColumn<QString>("reason");    // empty: Qt reports no error, nothing is logged

    QTest::newRow("404, no file") << 404 << qint64(0) << false << "Not Found";
    QTest::newRow("404 keeps partial") << 404 << qint64(1000) << true << "Not Found";
    QTest::newRow("500 keeps partial") << 500 << qint64(1000) << true << "Internal Server Error";
    QTest::newRow("416 past the end") << 0 << qint64(5000) << true
                                      << "Requested Range Not Satisfiable";
    QTest::newRow("304 without error") << 304 << qint64(0) << false << QString();
    QTest::newRow("304 keeps partial") << 304 << qint64(1000) << true << QString();
}

void HttpFetchTest::fileErrorStatus()
{
    QFETCH(int, status);
    QFETCH(qint64, offset);
    QFETCH(bool, partialExists);
    QFETCH(QString, reason);
    if (status) {
        TestServer::Rule rule;
        rule.status = status;
        server->setRule("body.bin", rule);
    }
    const QString path = target("body.bin");
    const QByteArray partial = body.left(int(offset));
    if (partialExists)
        QVERIFY(writeFile(path, partial));

    BoundedNetworkAccessManager network;
    QVERIFY(!httpGetToFile(network, server->url("body.bin"), path, offset));
    // The file is never opened: neither created nor truncated nor appended to.
    QCOMPARE(QFile::exists(path), partialExists);
    if (partialExists)
        QCOMPARE(readFile(path), partial);
    QStringList expected;
    if (!reason.isEmpty())
        expected.append(QStringLiteral("[Update] GET(file) loi \"%1\" \"%2\"")
                            .arg(server->url("body.bin"), serverError("body.bin", reason)));
    QCOMPARE(capture->warnings(), expected);
}

void HttpFetchTest::fileConnectionClosed_data()
{
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<qint64>("closeAfter");
    QTest::newRow("fresh") << qint64(0) << qint64(1234);
    QTest::newRow("resumed") << qint64(1000) << qint64(500);
    QTest::newRow("before any byte") << qint64(0) << qint64(0);
}

void HttpFetchTest::fileConnectionClosed()
{
    QFETCH(qint64, offset);
    QFETCH(qint64, closeAfter);
    TestServer::Rule rule;
    rule.closeAfterBytes = closeAfter;
    server->setRule("body.bin", rule);
    const QString path = target("body.bin");
    if (offset > 0)
        QVERIFY(writeFile(path, body.left(int(offset))));

    BoundedNetworkAccessManager network;
    QVERIFY(!httpGetToFile(network, server->url("body.bin"), path, offset));
    // What arrived stays: the caller resumes from the file's size.
    QCOMPARE(readFile(path), body.left(int(offset + closeAfter)));
    // Qt reports the cut as an error, or now and then ends the reply without one; then the
    // announced length gives the short body away.
    const QString line = QStringLiteral("[Update] GET(file) loi \"%1\" \"%2\"").arg(server->url("body.bin"));
    const QStringList reported = capture->warnings();
    const QStringList closed{line.arg(QStringLiteral("Connection closed"))};
    const QStringList endedShort{line.arg(QStringLiteral("body ended after %1 of %2 bytes")
                                              .arg(closeAfter)
                                              .arg(body.size() - offset))};
    if (reported != endedShort)
        QCOMPARE(reported, closed);
}

void HttpFetchTest::fileCannotBeOpened()
{
    const QString path = target("missing-dir/body.bin");
    BoundedNetworkAccessManager network;
    QVERIFY(!httpGetToFile(network, server->url("body.bin"), path, 0));
    QVERIFY(!QFile::exists(path));
    QCOMPARE(capture->warnings(),
             QStringList{QStringLiteral("[Update] GET(file) loi \"%1\" \"Operation canceled\"")
                             .arg(server->url("body.bin"))});
}

void HttpFetchTest::fileLargeBody()
{
    // Sent in uneven pieces so that reads of 256 KiB meet partial buffers.
    TestServer::Rule rule;
    rule.chunkBytes = 100003;
    server->setRule("big.bin", rule);
    BoundedNetworkAccessManager network;
    const QString path = target("big.bin");
    QVERIFY(httpGetToFile(network, server->url("big.bin"), path, 0));
    QCOMPARE(QFileInfo(path).size(), qint64(big.size()));
    QVERIFY(readFile(path) == big);
    QCOMPARE(capture->warnings(), QStringList());
}

void HttpFetchTest::fileEmptyBody()
{
    const QString path = target("empty.bin");
    QVERIFY(writeFile(path, "left over"));
    BoundedNetworkAccessManager network;
    QVERIFY(httpGetToFile(network, server->url("empty.bin"), path, 0));
    QVERIFY(QFile::exists(path));
    QCOMPARE(QFileInfo(path).size(), qint64(0));
    // A missing file is created for an empty body too.
    const QString fresh = target("fresh-empty.bin");
    QVERIFY(httpGetToFile(network, server->url("empty.bin"), fresh, 0));
    QVERIFY(QFile::exists(fresh));
    QCOMPARE(capture->warnings(), QStringList());
}

void HttpFetchTest::fileFollowsRedirect()
{
    TestServer::Rule rule;
    rule.redirectTo = server->url("body.bin");
    server->setRule("files/old.bin", rule);
    const QString path = target("body.bin");
    BoundedNetworkAccessManager network;
    QVERIFY(httpGetToFile(network, server->url("files/old.bin"), path, 0));
    QCOMPARE(readFile(path), body);
    QCOMPARE(capture->warnings(), QStringList());
}

void HttpFetchTest::fileForcesNetworkAccessible()
{
    BoundedNetworkAccessManager network;
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    network.setNetworkAccessible(QNetworkAccessManager::NotAccessible);
    const QString path = target("body.bin");
    QVERIFY(httpGetToFile(network, server->url("body.bin"), path, 0));
    QCOMPARE(readFile(path), body);
    QCOMPARE(network.networkAccessible(), QNetworkAccessManager::Accessible);
    QT_WARNING_POP
}

void HttpFetchTest::fileDiskFull()
{
    const QString mountPoint = target("small-disk");
    QVERIFY(QDir().mkpath(mountPoint));
    QProcess mount;
    mount.start("mount", {"-t", "tmpfs", "-o", "size=1m", "tmpfs", mountPoint});
    if (!mount.waitForFinished(10000) || mount.exitStatus() != QProcess::NormalExit
        || mount.exitCode() != 0)
        QSKIP("a full disk is simulated with a 1 MiB tmpfs, which needs root and mount rights");
    const auto unmount = qScopeGuard([&] { QProcess::execute("umount", {mountPoint}); });

    // Another file takes an uneven share, so the disk fills up in the middle of a write.
    QVERIFY(writeFile(mountPoint + "/other.bin", QByteArray(100000, 'o')));
    const QString path = mountPoint + "/big.bin";
    BoundedNetworkAccessManager network;
    QVERIFY(!httpGetToFile(network, server->url("big.bin"), path, 0));
    const QByteArray written = readFile(path);
    QVERIFY(written.size() <= 1024 * 1024);
    QVERIFY(big.startsWith(written));
    QCOMPARE(capture->warnings(),
             QStringList{QStringLiteral("[Update] GET(file) loi \"%1\" \"Operation canceled\"")
                             .arg(server->url("big.bin"))});
}

QTEST_GUILESS_MAIN(HttpFetchTest)
#include "tst_http_fetch.moc"
