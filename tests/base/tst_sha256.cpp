#include "base/sha256.h"

#include "support/test_files.h"

#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// Deterministic, non-repeating content so that a chunking fault cannot cancel out.
QByteArray patternBytes(int length)
{
    QByteArray bytes(length, Qt::Uninitialized);
    quint32 state = 2463534242u;
    for (int i = 0; i < length; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = char(state & 0xff);
    }
    return bytes;
}

// Qt's own SHA-256 serves as an implementation independent of the one under test.
QString referenceHex(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

} // namespace

class TestSha256 : public QObject {
    Q_OBJECT

private slots:
    void knownVectors_data();
    void knownVectors();
    void incrementalEqualsOneShot_data();
    void incrementalEqualsOneShot();
    void resultCanBeTakenMidway();
    void fileHash_data();
    void fileHash();
    void unreadableFileGivesEmpty_data();
    void unreadableFileGivesEmpty();
};

void TestSha256::knownVectors_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QString>("expected");
    QTest::newRow("empty") << QByteArray()
                           << "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
    QTest::newRow("abc") << QByteArray("abc")
                         << "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    QTest::newRow("two blocks")
        << QByteArray("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")
        << "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1";
    QTest::newRow("million a") << QByteArray(1000000, 'a')
                               << "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
}

void TestSha256::knownVectors()
{
    QFETCH(QByteArray, input);
    QFETCH(QString, expected);
    Sha256 hash;
    hash.addData(input);
    QCOMPARE(hash.hexResult(), expected);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("vector.bin"));
    QVERIFY(writeFile(path, input));
    QCOMPARE(sha256OfFile(path), expected);
}

void TestSha256::incrementalEqualsOneShot_data()
{
    QTest::addColumn<int>("total");
    QTest::addColumn<int>("piece");
    QTest::newRow("byte by byte") << 200 << 1;
    QTest::newRow("63-byte pieces, across block edges") << 1000 << 63;
    QTest::newRow("exact 64-byte blocks") << 640 << 64;
    QTest::newRow("65-byte pieces") << 1000 << 65;
    QTest::newRow("large pieces, short tail") << 3 * 1024 * 1024 + 7 << 1024 * 1024;
}

void TestSha256::incrementalEqualsOneShot()
{
    QFETCH(int, total);
    QFETCH(int, piece);
    const QByteArray data = patternBytes(total);
    Sha256 oneShot;
    oneShot.addData(data);
    Sha256 pieces;
    for (int at = 0; at < total; at += piece)
        pieces.addData(data.constData() + at, qMin(piece, total - at));
    QCOMPARE(pieces.hexResult(), oneShot.hexResult());
    QCOMPARE(oneShot.hexResult(), referenceHex(data));
}

void TestSha256::resultCanBeTakenMidway()
{
    // Zero-length additions change nothing; taking a result does not end the digest.
    Sha256 hash;
    hash.addData("ab", 2);
    hash.addData("", 0);
    QCOMPARE(hash.hexResult(), referenceHex("ab"));
    hash.addData("c", 1);
    QCOMPARE(hash.hexResult(), QStringLiteral("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    QCOMPARE(hash.hexResult(), QStringLiteral("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
}

void TestSha256::fileHash_data()
{
    QTest::addColumn<int>("size");
    const int mib = 1024 * 1024;
    QTest::newRow("one byte") << 1;
    QTest::newRow("one byte under a chunk") << mib - 1;
    QTest::newRow("exactly one chunk") << mib;
    QTest::newRow("one byte over a chunk") << mib + 1;
    QTest::newRow("several chunks and a tail") << 5 * mib + 12345;
}

void TestSha256::fileHash()
{
    QFETCH(int, size);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("data.bin"));
    const QByteArray data = patternBytes(size);
    QVERIFY(writeFile(path, data));
    const QString hex = sha256OfFile(path);
    QCOMPARE(hex, referenceHex(data));
    QCOMPARE(hex, hex.toLower());
}

void TestSha256::unreadableFileGivesEmpty_data()
{
    QTest::addColumn<QString>("relativePath");
    QTest::newRow("missing file") << "missing.bin";
    QTest::newRow("missing directory") << "no/such/dir/file.bin";
    QTest::newRow("a directory") << "subdir";
}

void TestSha256::unreadableFileGivesEmpty()
{
    QFETCH(QString, relativePath);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("subdir")));
    const QString hex = sha256OfFile(dir.filePath(relativePath));
    QVERIFY2(hex.isEmpty(), qPrintable(hex));
}

QTEST_GUILESS_MAIN(TestSha256)
#include "tst_sha256.moc"
