// The bounds on response bodies: a whole-body GET refuses more than its maximum, a file fetch
// refuses to let the file grow beyond its expected size, 0 included. Bodies within the bounds
// behave as they always did.
#include "support/test_server.h"
#include "update/http_fetch.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace faults;

Q_DECLARE_METATYPE(TestServer::Rule)

namespace {

QByteArray bytesOf(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char(i * 7 + (i >> 9));
    return bytes;
}

} // namespace

class TestBodyBounds : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void wholeBody_data();
    void wholeBody();
    void fileBody_data();
    void fileBody();

private:
    QTemporaryDir served;
    std::unique_ptr<TestServer> server;
};

void TestBodyBounds::initTestCase()
{
    QVERIFY(served.isValid());
    server = std::make_unique<TestServer>(served.path());
    QVERIFY(server->start());
}

void TestBodyBounds::wholeBody_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<qint64>("maxBody");
    QTest::addColumn<TestServer::Rule>("rule");
    QTest::addColumn<bool>("ok");

    QTest::newRow("exactly the bound") << 1000 << qint64(1000) << TestServer::Rule() << true;
    QTest::newRow("one byte beyond") << 1001 << qint64(1000) << TestServer::Rule() << false;
    QTest::newRow("empty body, bound 0") << 0 << qint64(0) << TestServer::Rule() << true;
    QTest::newRow("one byte, bound 0") << 1 << qint64(0) << TestServer::Rule() << false;
    QTest::newRow("the signature bound") << 65536 << qint64(65536) << TestServer::Rule() << true;
    QTest::newRow("beyond the signature bound") << 65537 << qint64(65536) << TestServer::Rule() << false;
    QTest::newRow("3 MiB within a 3 MiB bound") << (3 << 20) << qint64(3 << 20) << TestServer::Rule() << true;
    TestServer::Rule slowly;
    slowly.chunkBytes = 4000;
    slowly.chunkPauseSeconds = 0.01;
    QTest::newRow("in small pieces, beyond") << 40000 << qint64(39999) << slowly << false;
    QTest::newRow("in small pieces, within") << 40000 << qint64(40000) << slowly << true;
    QTest::newRow("without end") << 10 << qint64(65536) << endless() << false;
    QTest::newRow("without end, manifest bound") << 10 << qint64(16777216) << endless() << false;
}

void TestBodyBounds::wholeBody()
{
    QFETCH(int, size);
    QFETCH(qint64, maxBody);
    QFETCH(TestServer::Rule, rule);
    QFETCH(bool, ok);

    const QByteArray body = bytesOf(size);
    QFile file(served.filePath(QStringLiteral("body.bin")));
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(body) == body.size());
    file.close();
    server->setRule(QStringLiteral("body.bin"), rule);
    const QString url = server->url(QStringLiteral("body.bin"));
    if (!ok)
        QTest::ignoreMessage(QtWarningMsg,
                             qPrintable(QStringLiteral("[Update] GET loi \"%1\" \"body larger than %2 bytes\"").arg(url).arg(maxBody)));

    BoundedNetworkAccessManager network;
    bool fetched = !ok;
    const QByteArray result = httpGet(network, url, fetched, maxBody);
    QCOMPARE(fetched, ok);
    QCOMPARE(result, ok ? body : QByteArray());
}

void TestBodyBounds::fileBody_data()
{
    QTest::addColumn<int>("servedSize");
    QTest::addColumn<int>("alreadyThere");  // bytes of the file on disk before, offset = that
    QTest::addColumn<qint64>("expectedSize");
    QTest::addColumn<TestServer::Rule>("rule");
    QTest::addColumn<bool>("ok");

    TestServer::Rule whole;
    whole.ignoreRange = true;
    QTest::newRow("exactly the size") << 60000 << 0 << qint64(60000) << TestServer::Rule() << true;
    QTest::newRow("one byte more") << 60001 << 0 << qint64(60000) << TestServer::Rule() << false;
    QTest::newRow("resumed to exactly the size") << 60000 << 1000 << qint64(60000) << TestServer::Rule() << true;
    QTest::newRow("resumed beyond the size") << 61000 << 1000 << qint64(60000) << TestServer::Rule() << false;
    QTest::newRow("resume answered whole, exactly the size") << 60000 << 1000 << qint64(60000) << whole << true;
    QTest::newRow("resume answered whole, beyond") << 60001 << 1000 << qint64(60000) << whole << false;
    QTest::newRow("size 0, one byte") << 1 << 0 << qint64(0) << TestServer::Rule() << false;
    QTest::newRow("size 0, empty file") << 0 << 0 << qint64(0) << TestServer::Rule() << true;
    QTest::newRow("size 0, without end") << 10 << 0 << qint64(0) << endless() << false;
    QTest::newRow("without end") << 10 << 0 << qint64(60000) << endless() << false;
    QTest::newRow("without end, resuming") << 60000 << 1000 << qint64(60000) << endless() << false;
}

void TestBodyBounds::fileBody()
{
    QFETCH(int, servedSize);
    QFETCH(int, alreadyThere);
    QFETCH(qint64, expectedSize);
    QFETCH(TestServer::Rule, rule);
    QFETCH(bool, ok);

    const QByteArray body = bytesOf(servedSize);
    QFile source(served.filePath(QStringLiteral("file.bin")));
    QVERIFY(source.open(QIODevice::WriteOnly | QIODevice::Truncate) && source.write(body) == body.size());
    source.close();
    server->setRule(QStringLiteral("file.bin"), rule);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("staged.bin"));
    QFile staged(path);
    QVERIFY(staged.open(QIODevice::WriteOnly) && staged.write(body.left(alreadyThere)) == alreadyThere);
    staged.close();

    const QString url = server->url(QStringLiteral("file.bin"));
    if (!ok)
        QTest::ignoreMessage(QtWarningMsg, qPrintable(QStringLiteral("[Update] GET(file) loi \"%1\" \"file larger than %2 bytes\"")
                                                          .arg(url)
                                                          .arg(expectedSize)));
    BoundedNetworkAccessManager network;
    QCOMPARE(httpGetToFile(network, url, path, alreadyThere, expectedSize), ok);
    QFile result(path);
    QVERIFY(result.open(QIODevice::ReadOnly));
    if (ok) {
        QCOMPARE(result.readAll(), body);
    } else {
        // Nothing beyond the bound reached the disk, and what did is the body's beginning.
        QVERIFY2(result.size() <= expectedSize, qPrintable(QString::number(result.size())));
        if (!rule.endless)
            QVERIFY(body.startsWith(result.readAll()));
    }
}

QTEST_GUILESS_MAIN(TestBodyBounds)
#include "tst_body_bounds.moc"
