#include "support/test_server.h"

#include <QElapsedTimer>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

// The fault server's behaviours that the network suites rely on, seen through a plain
// QNetworkAccessManager.
class TestServerTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void rangeRequests_data();
    void rangeRequests();
    void statusRule_data();
    void statusRule();
    void ignoreRangeSendsWholeFile();
    void partialWithoutRange();
    void requestIsRecordedBeforeTheAnswer();
    void ruleAppliesToFirstRequestsOnly();
    void closeAfterBytesCutsTheBody();
    void stallInTheMiddleOfTheBody();
    void corruptBodyKeepsLength();
    void redirectIsFollowed();
    void endlessBodyKeepsComing();
    void serverExitsWhenStdinCloses();
    void startFailsWithoutPython();

private:
    struct Answer {
        int status = 0;
        QNetworkReply::NetworkError error = QNetworkReply::NoError;
        QByteArray contentRange;
        QByteArray body;
    };
    Answer get(const QString& path, const QByteArray& range = QByteArray());
    std::unique_ptr<QNetworkReply> send(const QString& path, const QByteArray& range = QByteArray());

    QTemporaryDir root;
    QByteArray content;  // served as "data.bin"
    std::unique_ptr<TestServer> server;
    QNetworkAccessManager network;
};

void TestServerTest::initTestCase()
{
    QVERIFY(root.isValid());
    for (int i = 0; i < 5000; ++i)
        content.append(char(i * 7 + i / 256));
    QFile file(root.filePath("data.bin"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
    file.close();
    server = std::make_unique<TestServer>(root.path());
    QVERIFY(server->start());
    QVERIFY(server->port() != 0);
}

void TestServerTest::init()
{
    server->clearRules();
    server->clearRequests();
}

std::unique_ptr<QNetworkReply> TestServerTest::send(const QString& path, const QByteArray& range)
{
    QNetworkRequest request(QUrl(server->url(path)));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    if (!range.isEmpty())
        request.setRawHeader("Range", range);
    return std::unique_ptr<QNetworkReply>(network.get(request));
}

TestServerTest::Answer TestServerTest::get(const QString& path, const QByteArray& range)
{
    const auto reply = send(path, range);
    QSignalSpy finished(reply.get(), &QNetworkReply::finished);
    if (!reply->isFinished())
        finished.wait(20000);
    Answer answer;
    answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    answer.error = reply->error();
    answer.contentRange = reply->rawHeader("Content-Range");
    answer.body = reply->readAll();
    return answer;
}

void TestServerTest::rangeRequests_data()
{
    QTest::addColumn<QByteArray>("range");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("contentRange");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("length");

    QTest::newRow("no range") << QByteArray() << 200 << QByteArray() << 0 << 5000;
    QTest::newRow("open from 0") << QByteArray("bytes=0-") << 206 << QByteArray("bytes 0-4999/5000")
                                 << 0 << 5000;
    QTest::newRow("open from 1000") << QByteArray("bytes=1000-") << 206
                                    << QByteArray("bytes 1000-4999/5000") << 1000 << 4000;
    QTest::newRow("closed") << QByteArray("bytes=10-19") << 206 << QByteArray("bytes 10-19/5000")
                            << 10 << 10;
    QTest::newRow("end past size") << QByteArray("bytes=4990-9999") << 206
                                   << QByteArray("bytes 4990-4999/5000") << 4990 << 10;
    QTest::newRow("suffix") << QByteArray("bytes=-100") << 206 << QByteArray("bytes 4900-4999/5000")
                            << 4900 << 100;
    QTest::newRow("last byte") << QByteArray("bytes=4999-") << 206
                               << QByteArray("bytes 4999-4999/5000") << 4999 << 1;
    QTest::newRow("at size") << QByteArray("bytes=5000-") << 416 << QByteArray("bytes */5000") << 0
                             << -1;
    QTest::newRow("past size") << QByteArray("bytes=7000-") << 416 << QByteArray("bytes */5000")
                               << 0 << -1;
}

void TestServerTest::rangeRequests()
{
    QFETCH(QByteArray, range);
    QFETCH(int, status);
    QFETCH(QByteArray, contentRange);
    QFETCH(int, first);
    QFETCH(int, length);

    const Answer answer = get("data.bin", range);
    QCOMPARE(answer.status, status);
    QCOMPARE(answer.contentRange, contentRange);
    if (length >= 0) {
        QCOMPARE(answer.error, QNetworkReply::NoError);
        QCOMPARE(answer.body, content.mid(first, length));
    } else {
        QVERIFY(answer.error != QNetworkReply::NoError);
    }
    const auto recorded = server->requests();
    QCOMPARE(recorded.size(), 1);
    QCOMPARE(recorded.at(0).method, QString("GET"));
    QCOMPARE(recorded.at(0).path, QString("data.bin"));
    QCOMPARE(recorded.at(0).headers.contains("range"), !range.isEmpty());
    QCOMPARE(recorded.at(0).headers.value("range"), range);
}

void TestServerTest::statusRule_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QNetworkReply::NetworkError>("error");
    QTest::newRow("404") << 404 << QNetworkReply::ContentNotFoundError;
    QTest::newRow("416") << 416 << QNetworkReply::UnknownContentError;
    QTest::newRow("500") << 500 << QNetworkReply::InternalServerError;
    QTest::newRow("503") << 503 << QNetworkReply::ServiceUnavailableError;
    QTest::newRow("304") << 304 << QNetworkReply::NoError;
}

void TestServerTest::statusRule()
{
    QFETCH(int, status);
    QFETCH(QNetworkReply::NetworkError, error);
    TestServer::Rule rule;
    rule.status = status;
    server->setRule("data.bin", rule);
    const Answer answer = get("data.bin");
    QCOMPARE(answer.status, status);
    QCOMPARE(answer.error, error);
    // The rule is tied to its path; other files are served normally.
    QCOMPARE(get("missing.bin").status, 404);
}

void TestServerTest::ignoreRangeSendsWholeFile()
{
    TestServer::Rule rule;
    rule.ignoreRange = true;
    server->setRule("data.bin", rule);
    const Answer answer = get("data.bin", "bytes=1000-");
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.contentRange, QByteArray());
    QCOMPARE(answer.body, content);
    QCOMPARE(server->requestsFor("data.bin").at(0).headers.value("range"), QByteArray("bytes=1000-"));
}

void TestServerTest::partialWithoutRange()
{
    TestServer::Rule rule;
    rule.partialWithoutRange = true;
    server->setRule("data.bin", rule);
    const Answer answer = get("data.bin");
    QCOMPARE(answer.status, 206);
    QCOMPARE(answer.contentRange, QByteArray("bytes 0-4999/5000"));
    QCOMPARE(answer.body, content);
    // A request that does ask for a range still gets exactly that range.
    QCOMPARE(get("data.bin", "bytes=4000-").body, content.mid(4000));
}

void TestServerTest::requestIsRecordedBeforeTheAnswer()
{
    TestServer::Rule rule;
    rule.stallBeforeSeconds = 3;
    server->setRule("data.bin", rule);
    const auto reply = send("data.bin", "bytes=42-");
    QTRY_COMPARE_WITH_TIMEOUT(server->requests().size(), 1, 2500);
    QVERIFY(!reply->isFinished());
    const TestServer::Request recorded = server->requests().at(0);
    QCOMPARE(recorded.headers.value("range"), QByteArray("bytes=42-"));
    QCOMPARE(recorded.headers.value("host"), QString("127.0.0.1:%1").arg(server->port()).toUtf8());
    QTRY_VERIFY_WITH_TIMEOUT(reply->isFinished(), 10000);
    QCOMPARE(reply->readAll(), content.mid(42));
}

void TestServerTest::ruleAppliesToFirstRequestsOnly()
{
    TestServer::Rule rule;
    rule.status = 500;
    rule.times = 2;
    server->setRule("data.bin", rule);
    QCOMPARE(get("data.bin").status, 500);
    QCOMPARE(get("data.bin").status, 500);
    QCOMPARE(get("data.bin").status, 200);
    QCOMPARE(get("data.bin").status, 200);
    // Setting the rule again starts a new count.
    rule.times = 1;
    server->setRule("data.bin", rule);
    QCOMPARE(get("data.bin").status, 500);
    QCOMPARE(get("data.bin").status, 200);
    QCOMPARE(server->requestsFor("data.bin").size(), 6);
}

void TestServerTest::closeAfterBytesCutsTheBody()
{
    TestServer::Rule rule;
    rule.closeAfterBytes = 1234;
    server->setRule("data.bin", rule);
    const Answer answer = get("data.bin");
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.error, QNetworkReply::RemoteHostClosedError);
    QCOMPARE(answer.body, content.left(1234));
    // The next connection is served normally.
    server->clearRules();
    QCOMPARE(get("data.bin").body, content);
}

void TestServerTest::stallInTheMiddleOfTheBody()
{
    TestServer::Rule rule;
    rule.stallAfterBytes = 100;
    rule.stallSeconds = 2;
    server->setRule("data.bin", rule);
    const auto reply = send("data.bin");
    QTRY_COMPARE_WITH_TIMEOUT(reply->bytesAvailable(), qint64(100), 1500);
    QVERIFY(!reply->isFinished());
    QTRY_VERIFY_WITH_TIMEOUT(reply->isFinished(), 10000);
    QCOMPARE(reply->error(), QNetworkReply::NoError);
    QCOMPARE(reply->readAll(), content);
}

void TestServerTest::corruptBodyKeepsLength()
{
    TestServer::Rule rule;
    rule.corruptBody = true;
    server->setRule("data.bin", rule);
    const QByteArray body = get("data.bin", "bytes=1000-").body;
    QCOMPARE(body.size(), 4000);
    for (int i = 0; i < body.size(); ++i)
        QVERIFY(body.at(i) != content.at(1000 + i));
}

void TestServerTest::redirectIsFollowed()
{
    TestServer::Rule rule;
    rule.redirectTo = "data.bin";
    server->setRule("old/place.bin", rule);
    const Answer answer = get("old/place.bin");
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.body, content);
    // Qt now and then sends a request that gets redirected twice on the same connection, so
    // only the order and the one request for the target are certain.
    const auto recorded = server->requests();
    QVERIFY(recorded.size() >= 2);
    QCOMPARE(recorded.first().path, QString("old/place.bin"));
    QCOMPARE(recorded.last().path, QString("data.bin"));
    QCOMPARE(server->requestsFor("data.bin").size(), 1);
}

void TestServerTest::endlessBodyKeepsComing()
{
    TestServer::Rule rule;
    rule.endless = true;
    server->setRule("data.bin", rule);
    const auto reply = send("data.bin");
    reply->setReadBufferSize(65536);
    qint64 received = 0;
    connect(reply.get(), &QIODevice::readyRead, this,
            [&]() { received += reply->readAll().size(); });
    QTRY_VERIFY_WITH_TIMEOUT(received > 4 * 1024 * 1024, 20000);
    QVERIFY(!reply->isFinished());
    reply->abort();
}

void TestServerTest::serverExitsWhenStdinCloses()
{
    QTemporaryDir control;
    QProcess process;
    process.start("python3", {CORV_FAULT_SERVER, root.path(), control.path()});
    QVERIFY(process.waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(process.canReadLine() || process.waitForReadyRead(100), 10000);
    QVERIFY(process.readLine().trimmed().toUInt() > 0);
    process.closeWriteChannel();
    QVERIFY(process.waitForFinished(5000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
}

void TestServerTest::startFailsWithoutPython()
{
    QTemporaryDir emptyBin;
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", emptyBin.path().toLocal8Bit());
    TestServer noPython(root.path());
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^TestServer: cannot start python3"));
    const bool started = noPython.start();
    qputenv("PATH", path);
    QVERIFY(!started);
}

QTEST_GUILESS_MAIN(TestServerTest)
#include "tst_test_server.moc"
