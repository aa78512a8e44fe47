#include "support/log_capture.h"
#include "support/test_server.h"
#include "update/http_fetch.h"
#include "update/manifest_signature.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <optional>

namespace {

constexpr int kChunk = 1000;

}  // namespace

// The 10 s inactivity limit of the blocking fetches, against a server that pauses between the
// pieces of a 3000-byte body. These cases wait for real, so they live apart from the rest.
class HttpTimeoutTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void inactivity_data();
    void inactivity();

private:
    QTemporaryDir root;
    std::unique_ptr<TestServer> server;
    QByteArray body;
    // Every message written while a test runs, exactly as the log file would get its text.
    std::optional<LogCapture> capture;
};

void HttpTimeoutTest::initTestCase()
{
    QVERIFY(root.isValid());
    for (int i = 0; i < 3 * kChunk; ++i)
        body.append(char('a' + i % 26));
    QFile file(root.filePath("slow.bin"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(body), qint64(body.size()));
    file.close();
    server = std::make_unique<TestServer>(root.path());
    QVERIFY(server->start());
}

void HttpTimeoutTest::init()
{
    capture.emplace();
}

void HttpTimeoutTest::cleanup()
{
    capture.reset();
}

void HttpTimeoutTest::inactivity_data()
{
    QTest::addColumn<bool>("toFile");
    QTest::addColumn<double>("pauseSeconds");
    QTest::addColumn<bool>("expectOk");
    // Two pauses of 9 s: 18 s in all, so only a timer restarted on progress lets it through.
    QTest::newRow("memory, 9 s pauses") << false << 9.0 << true;
    QTest::newRow("memory, 11 s pause") << false << 11.0 << false;
    QTest::newRow("file, 9 s pauses") << true << 9.0 << true;
    QTest::newRow("file, 11 s pause") << true << 11.0 << false;
}

void HttpTimeoutTest::inactivity()
{
    QFETCH(bool, toFile);
    QFETCH(double, pauseSeconds);
    QFETCH(bool, expectOk);
    TestServer::Rule rule;
    rule.chunkBytes = kChunk;
    rule.chunkPauseSeconds = pauseSeconds;
    server->setRule("slow.bin", rule);
    const QString url = server->url("slow.bin");

    BoundedNetworkAccessManager network;
    QTemporaryDir work;
    const QString path = work.filePath("slow.bin");
    bool ok = false;
    if (toFile) {
        ok = httpGetToFile(network, url, path, 0);
    } else {
        const QByteArray result = httpGet(network, url, ok, kMaxManifestBytes);
        QCOMPARE(result, expectOk ? body : QByteArray());
    }
    QCOMPARE(ok, expectOk);

    QStringList expected;
    if (!expectOk) {
        expected.append(QStringLiteral("[Update] %1 \"%2\" \"Operation canceled\"")
                            .arg(toFile ? "GET(file) loi" : "GET loi", url));
    }
    QCOMPARE(capture->warnings(), expected);
    if (toFile) {
        // An aborted transfer keeps what it had received: the first piece.
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), expectOk ? body : body.left(kChunk));
    }
}

QTEST_GUILESS_MAIN(HttpTimeoutTest)
#include "tst_http_timeout.moc"
