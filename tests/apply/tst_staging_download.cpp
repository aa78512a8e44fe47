#include "apply/artifact_decoder.h"
#include "base/installation_dir.h"
#include "apply/staging_download.h"
#include "apply/update_cache.h"
#include "support/log_capture.h"
#include "support/test_files.h"
#include "support/test_install.h"
#include "support/test_server.h"
#include "update/manifest.h"
#include "update/update_session.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QByteArray kMissing("<missing>");
const QString kVersion = QStringLiteral("5.2.0 (rc)");

// Bytes that differ from position to position, so a resume from the wrong offset shows.
QByteArray patterned(int size, char seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 31 + seed) % 251);
    return bytes;
}

// The line that ends a staging download: the body bytes it took from the network, and what the
// changed files are whole.
QString wireLine(qint64 wire, qint64 whole)
{
    return QStringLiteral("I [Update] da tai qua mang %1 byte (ca file: %2 byte)").arg(wire).arg(whole);
}

ManifestFile entryFor(const QString& path, const QByteArray& content)
{
    return {path, content.size(), sha256Hex(content), {}};
}

// Lines of text with numbers in them: compressible, and a patch between two versions is small.
QByteArray textLines(int lines, int edition)
{
    QByteArray text;
    for (int i = 0; i < lines; ++i)
        text += "line " + QByteArray::number(i) + " value " + QByteArray::number((i * 7919 + (i % 97 == 0 ? edition : 0)) % 100003) + '\n';
    return text;
}

} // namespace

class StagingDownloadTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void finishedCacheFilesCounted();
    void failedCacheCopyFallsThroughToDownload();
    void partialFile_data();
    void partialFile();
    void resumeFailureStartsOver();
    void mismatchTwiceGivesUp();
    void downloadFailureDeletesStaging();
    void leftoverStagingEmptiedFirst();
    void emptyList();
    void hostilePathIsRefused_data();
    void hostilePathIsRefused();
    void decodeArtifact_data();
    void decodeArtifact();
    void smallerTransfers_data();
    void smallerTransfers();

private:
    QString serve(const QString& relPath, const QByteArray& content);
    QString cached(const QString& relPath) const { return cacheFilePath(kVersion, relPath); }
    QString staging() const { return install->path() + QStringLiteral("/.staging"); }
    // The log without the fetch layer's own lines, whose error texts are the network library's.
    static QStringList stagingLines(const LogCapture& capture)
    {
        QStringList lines = capture.lines();
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const QString& l) { return l.startsWith(QLatin1String("W [Update] GET")); }),
                    lines.end());
        return lines;
    }
    bool run(const QList<ManifestFile>& changed, QList<StagedFile>& staged)
    {
        return downloadToStaging(*session, changed, server->url(QStringLiteral("b/")), kVersion, staged);
    }

    std::unique_ptr<QTemporaryDir> install;
    std::unique_ptr<QTemporaryDir> serverRoot;
    std::unique_ptr<TestServer> server;
    std::unique_ptr<UpdateSession> session;
};

void StagingDownloadTest::init()
{
    install = std::make_unique<QTemporaryDir>();
    serverRoot = std::make_unique<QTemporaryDir>();
    QVERIFY(install->isValid() && serverRoot->isValid());
    setInstallationDirForTesting(install->path());
    server = std::make_unique<TestServer>(serverRoot->path());
    QVERIFY(server->start());
    session = std::make_unique<UpdateSession>();
    session->appDir = install->path();
    session->selfFileName = QStringLiteral("updater");
}

void StagingDownloadTest::cleanup()
{
    session.reset();
    server.reset();
    setInstallationDirForTesting(QString());
    serverRoot.reset();
    install.reset();
}

QString StagingDownloadTest::serve(const QString& relPath, const QByteArray& content)
{
    writeFile(serverRoot->path() + QStringLiteral("/b/") + relPath, content);
    return QStringLiteral("b/") + relPath;
}

void StagingDownloadTest::finishedCacheFilesCounted()
{
    QList<ManifestFile> changed;
    QStringList fromServer;
    for (int i = 0; i < 5; ++i) {
        const QString path = QStringLiteral("dir%1/file%1.bin").arg(i);
        const QByteArray content = patterned(3000 + i, char(i));
        changed.append(entryFor(path, content));
        if (i % 2 == 0)
            QVERIFY(writeFile(cached(path), content));
        else
            fromServer.append(serve(path, content));
    }
    // A finished cache file with the wrong content is not taken.
    QVERIFY(writeFile(cached(changed[1].path), patterned(3001, 'x')));

    LogCapture capture;
    QList<StagedFile> staged;
    QVERIFY(run(changed, staged));
    QCOMPARE(capture.lines(), (QStringList{"I [Update] dung 3 / 5 file tu kho tam", wireLine(3001 + 3003, 15010)}));
    QCOMPARE(staged.size(), 5);
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(staged[i].relPath, changed[i].path);
        QCOMPARE(staged[i].stagedPath, staging() + QLatin1Char('/') + changed[i].path);
        QCOMPARE(sha256Hex(readFile(staged[i].stagedPath, kMissing)), changed[i].sha256);
    }
    QStringList requested;
    for (const TestServer::Request& request : server->requests())
        requested.append(request.path);
    QCOMPARE(requested, fromServer);
    // The cache is only read.
    QVERIFY(QFileInfo::exists(cached(changed[0].path)));
}

void StagingDownloadTest::failedCacheCopyFallsThroughToDownload()
{
    // The first entry makes "d" a directory in staging, so the finished cache file of the
    // second entry "d" cannot be copied there.
    const QByteArray inner = patterned(500, 'i');
    const QByteArray d = patterned(600, 'd');
    serve(QStringLiteral("d/x.dll"), inner);
    QVERIFY(writeFile(cached(QStringLiteral("d")), d));

    LogCapture capture;
    QList<StagedFile> staged;
    QVERIFY(!run({entryFor(QStringLiteral("d/x.dll"), inner), entryFor(QStringLiteral("d"), d)}, staged));
    QCOMPARE(stagingLines(capture), (QStringList{"W [Update] khong chep duoc tu kho tam \"d\" -> tai lai",
                                                 "W [Update] tai \"d\" that bai -> huy, chay ban hien tai"}));
    QCOMPARE(server->requestsFor(QStringLiteral("b/d")).size(), 1);
    QCOMPARE(readFile(cached(QStringLiteral("d")), kMissing), d);
}

void StagingDownloadTest::partialFile_data()
{
    QTest::addColumn<QString>("part");          // "good" (a true prefix), "bad" (wrong bytes), "full", "over", "empty"
    QTest::addColumn<int>("partBytes");
    QTest::addColumn<qint64>("manifestSize");   // -2: the true size
    QTest::addColumn<bool>("ignoreRange");
    QTest::addColumn<QStringList>("ranges");    // Range header of each request, "" for none
    QTest::addColumn<bool>("partKept");
    QTest::addColumn<QStringList>("log");

    const QString resumed = QStringLiteral("I [Update] \"big.bin\" noi tiep tu kho tam: 1000 byte");
    // The summary and the bytes over the wire.
    const auto summary = [](qint64 wire, qint64 whole) {
        return QStringList{QStringLiteral("I [Update] dung 0 / 1 file tu kho tam"), wireLine(wire, whole)};
    };
    const QString mismatch = QStringLiteral("W [Update] hash lech \"big.bin\" -> bo phan da co, tai lai tu dau");
    QTest::newRow("good partial resumed") << "good" << 1000 << qint64(-2) << false << QStringList{"bytes=1000-"}
                                          << true << QStringList{resumed} + summary(49000, 50000);
    QTest::newRow("no size (-1) resumes any partial") << "good" << 1000 << qint64(-1) << false
                                                       << QStringList{"bytes=1000-"} << true
                                                       << QStringList{resumed} + summary(49000, 0);
    QTest::newRow("empty partial not resumed") << "empty" << 0 << qint64(-2) << false << QStringList{""} << true
                                               << summary(50000, 50000);
    QTest::newRow("partial as large as the file not resumed")
        << "full" << 50000 << qint64(-2) << false << QStringList{""} << true << summary(50000, 50000);
    QTest::newRow("partial larger than the file not resumed")
        << "over" << 50001 << qint64(-2) << false << QStringList{""} << true << summary(50000, 50000);
    QTest::newRow("server ignoring the range restarts the file")
        << "good" << 1000 << qint64(-2) << true << QStringList{"bytes=1000-"} << true
        << QStringList{resumed} + summary(50000, 50000);
    QTest::newRow("wrong bytes in the partial: it is deleted")
        << "bad" << 1000 << qint64(-2) << false << QStringList{"bytes=1000-", ""} << false
        << QStringList{resumed, mismatch} + summary(49000 + 50000, 50000);
}

void StagingDownloadTest::partialFile()
{
    QFETCH(QString, part);
    QFETCH(int, partBytes);
    QFETCH(qint64, manifestSize);
    QFETCH(bool, ignoreRange);
    QFETCH(QStringList, ranges);
    QFETCH(bool, partKept);
    QFETCH(QStringList, log);
    const QByteArray content = patterned(50000, 'p');
    const QString urlPath = serve(QStringLiteral("big.bin"), content);
    ManifestFile entry = entryFor(QStringLiteral("big.bin"), content);
    if (manifestSize != -2)
        entry.size = manifestSize;
    QByteArray partContent = content.left(partBytes);
    if (part == QLatin1String("bad"))
        partContent = patterned(partBytes, 'q');
    if (part == QLatin1String("over"))
        partContent = content + 'x';
    const QString partPath = cachePartPath(kVersion, entry.path);
    QVERIFY(writeFile(partPath, partContent));
    TestServer::Rule rule;
    rule.ignoreRange = ignoreRange;
    server->setRule(urlPath, rule);

    LogCapture capture;
    QList<StagedFile> staged;
    QVERIFY(run({entry}, staged));
    QCOMPARE(capture.lines(), log);
    QCOMPARE(staged.size(), 1);
    QCOMPARE(readFile(staged[0].stagedPath, kMissing), content);
    QStringList sent;
    for (const TestServer::Request& request : server->requestsFor(urlPath))
        sent.append(QString::fromLatin1(request.headers.value("range")));
    QCOMPARE(sent, ranges);
    // The partial file is copied, never completed in place.
    QCOMPARE(readFile(partPath, kMissing), partKept ? partContent : kMissing);
}

void StagingDownloadTest::resumeFailureStartsOver()
{
    const QByteArray content = patterned(20000, 'r');
    const QString urlPath = serve(QStringLiteral("lib/r.dll"), content);
    const ManifestFile entry = entryFor(QStringLiteral("lib/r.dll"), content);
    QVERIFY(writeFile(cachePartPath(kVersion, entry.path), content.left(1000)));
    TestServer::Rule rule;
    rule.status = 500;
    rule.times = 1;
    server->setRule(urlPath, rule);

    LogCapture capture;
    QList<StagedFile> staged;
    QVERIFY(run({entry}, staged));
    QCOMPARE(stagingLines(capture),
             (QStringList{"I [Update] \"lib/r.dll\" noi tiep tu kho tam: 1000 byte",
                          "W [Update] tai tiep \"lib/r.dll\" that bai -> thu lai tu dau",
                          "I [Update] dung 0 / 1 file tu kho tam", wireLine(20000, 20000)}));
    QCOMPARE(readFile(staged[0].stagedPath, kMissing), content);
    QCOMPARE(server->requestsFor(urlPath).size(), 2);
    QCOMPARE(server->requestsFor(urlPath).at(1).headers.value("range"), QByteArray());
}

void StagingDownloadTest::mismatchTwiceGivesUp()
{
    const QByteArray content = patterned(8000, 'm');
    const QString good = serve(QStringLiteral("good.dll"), content);
    const QString urlPath = serve(QStringLiteral("sub/x.dll"), content);
    TestServer::Rule rule;
    rule.corruptBody = true;
    server->setRule(urlPath, rule);
    // The cache's partial file of a file whose hash fails is removed, whatever its size.
    const QString partPath = cachePartPath(kVersion, QStringLiteral("sub/x.dll"));
    QVERIFY(writeFile(partPath, patterned(8000, 'z')));

    LogCapture capture;
    QList<StagedFile> staged;
    QVERIFY(!run({entryFor(QStringLiteral("good.dll"), content), entryFor(QStringLiteral("sub/x.dll"), content)}, staged));
    QCOMPARE(capture.lines(), (QStringList{"W [Update] hash lech \"sub/x.dll\" -> bo phan da co, tai lai tu dau",
                                           "W [Update] hash van lech \"sub/x.dll\" -> huy"}));
    QCOMPARE(server->requestsFor(urlPath).size(), 2);
    QVERIFY(!QFileInfo::exists(staging()));
    QVERIFY(!QFileInfo::exists(partPath));
    QCOMPARE(staged.size(), 1);

    // Recovered on the second download: the line of the mismatch, then success.
    rule.times = 1;
    server->setRule(urlPath, rule);
    capture.clear();
    staged.clear();
    QVERIFY(run({entryFor(QStringLiteral("sub/x.dll"), content)}, staged));
    QCOMPARE(capture.lines(), (QStringList{"W [Update] hash lech \"sub/x.dll\" -> bo phan da co, tai lai tu dau",
                                           "I [Update] dung 0 / 1 file tu kho tam", wireLine(16000, 8000)}));
    QCOMPARE(readFile(staged[0].stagedPath, kMissing), content);
}

void StagingDownloadTest::downloadFailureDeletesStaging()
{
    const QByteArray a = patterned(1000, 'a');
    serve(QStringLiteral("a.dll"), a);
    const ManifestFile missing{QStringLiteral("b.dll"), 10, sha256Hex("0123456789")};
    QVERIFY(writeFile(cachePartPath(kVersion, QStringLiteral("c.dll")), "kept"));

    LogCapture capture;
    QList<StagedFile> staged;
    QVERIFY(!run({entryFor(QStringLiteral("a.dll"), a), missing, {QStringLiteral("c.dll"), 4, sha256Hex("kept")}},
                 staged));
    QCOMPARE(stagingLines(capture), QStringList{"W [Update] tai \"b.dll\" that bai -> huy, chay ban hien tai"});
    QVERIFY(!QFileInfo::exists(staging()));
    QCOMPARE(server->requestsFor(QStringLiteral("b/c.dll")).size(), 0);
    QCOMPARE(readFile(cachePartPath(kVersion, QStringLiteral("c.dll")), kMissing), QByteArray("kept"));
}

void StagingDownloadTest::leftoverStagingEmptiedFirst()
{
    const QByteArray content = patterned(4000, 'l');
    QVERIFY(writeFile(staging() + QStringLiteral("/stale/old.dll"), "from a crashed run"));
    QVERIFY(writeFile(staging() + QStringLiteral("/x.dll"), content));  // even a correct file is not reused
    serve(QStringLiteral("x.dll"), content);

    QList<StagedFile> staged;
    QVERIFY(run({entryFor(QStringLiteral("x.dll"), content)}, staged));
    QCOMPARE(filesBelow(staging()), QStringList{"x.dll"});
    QCOMPARE(server->requestsFor(QStringLiteral("b/x.dll")).size(), 1);
}

void StagingDownloadTest::emptyList()
{
    QVERIFY(writeFile(staging() + QStringLiteral("/old.dll"), "old"));
    LogCapture capture;
    QList<StagedFile> staged;
    QVERIFY(run({}, staged));
    QCOMPARE(capture.lines(), (QStringList{"I [Update] dung 0 / 0 file tu kho tam", wireLine(0, 0)}));
    QVERIFY(QFileInfo(staging()).isDir());
    QCOMPARE(filesBelow(staging()), QStringList());
    QVERIFY(staged.isEmpty());
    QVERIFY(server->requests().isEmpty());
}

void StagingDownloadTest::hostilePathIsRefused_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("parent") << "../evil.dll";
    QTest::newRow("inner parent") << "a/../../evil.dll";
    QTest::newRow("absolute") << "/evil.dll";
}

void StagingDownloadTest::hostilePathIsRefused()
{
    QFETCH(QString, path);
    LogCapture capture;
    QList<StagedFile> staged;
    QVERIFY(!run({{path, 4, sha256Hex("evil")}}, staged));
    QCOMPARE(capture.lines(), QStringList{"W [Update] tai \"" + path + "\" that bai -> huy, chay ban hien tai"});
    QVERIFY(!QFileInfo::exists(install->path() + QStringLiteral("/evil.dll")));
    QVERIFY(!QFileInfo::exists(QStringLiteral("/evil.dll")));
    QVERIFY(server->requests().isEmpty());
}

void StagingDownloadTest::decodeArtifact_data()
{
    QTest::addColumn<QString>("artifact");  // how it is made from the new file: "compressed", "patch",
                                            // "wide window", "not zstd", "missing", with "+" changes:
                                            // "+half" (cut), "+x" (a byte more), "+twice", "+flip"
    QTest::addColumn<QString>("source");    // what it is decoded against: "none", "old", "other", "huge"
    QTest::addColumn<int>("sizeOffset");    // added to the new file's size as the expected size
    QTest::addColumn<QString>("error");     // "" when it decodes to the new file

    QTest::newRow("compressed file") << "compressed" << "none" << 0 << "";
    QTest::newRow("patch against the installed file") << "patch" << "old" << 0 << "";
    QTest::newRow("patch against another file") << "patch" << "other" << 0
                                                 << "zstd: Restored data doesn't match checksum";
    QTest::newRow("patch without its source") << "patch" << "none" << 0 << "zstd: Data corruption detected";
    QTest::newRow("source beyond the patch limit") << "patch" << "huge" << 0 << "file goc lon qua 83886080 byte";
    QTest::newRow("a byte more than the file") << "compressed" << "none" << -1 << "giai ra qua 199999 byte";
    QTest::newRow("a byte less than the file") << "compressed" << "none" << 1 << "giai ra 200000 / 200001 byte";
    QTest::newRow("truncated") << "compressed+half" << "none" << 0 << "zstd: frame bi cat ngang";
    QTest::newRow("a byte after the frame") << "compressed+x" << "none" << 0 << "du lieu thua sau frame zstd";
    QTest::newRow("a second frame") << "compressed+twice" << "none" << 0 << "du lieu thua sau frame zstd";
    QTest::newRow("one byte changed") << "compressed+flip" << "none" << 0 << "zstd: Restored data doesn't match checksum";
    QTest::newRow("window beyond the limit") << "wide window" << "none" << 0
                                             << "zstd: Frame requires too much memory for decoding";
    QTest::newRow("not zstd") << "not zstd" << "none" << 0 << "zstd: Unknown frame descriptor";
    QTest::newRow("missing") << "missing" << "none" << 0 << "khong mo duoc %1/artifact.zst";
}

void StagingDownloadTest::decodeArtifact()
{
    QFETCH(QString, artifact);
    QFETCH(QString, source);
    QFETCH(int, sizeOffset);
    QFETCH(QString, error);
    const QString dir = install->path();
    const QByteArray oldFile = textLines(10000, 1).left(200000);
    const QByteArray newFile = textLines(10000, 2).left(200000);
    QCOMPARE(newFile.size(), 200000);
    QVERIFY(writeFile(dir + QStringLiteral("/old"), oldFile));
    QVERIFY(writeFile(dir + QStringLiteral("/new"), newFile));
    QVERIFY(writeFile(dir + QStringLiteral("/other"), textLines(10000, 3).left(200000)));
    QFile huge(dir + QStringLiteral("/huge"));
    QVERIFY(huge.open(QIODevice::WriteOnly) && huge.resize(kPatchMaxFileBytes + 1));  // sparse
    huge.close();

    const QString path = dir + QStringLiteral("/artifact.zst");
    const QString kind = artifact.section(QLatin1Char('+'), 0, 0);
    QByteArray bytes;
    // Made once: the rows change copies of them.
    static const QByteArray compressed = zstdCompressed(newFile);
    static const QByteArray patch = zstdPatch(oldFile, newFile);
    if (kind == QLatin1String("compressed"))
        bytes = compressed;
    else if (kind == QLatin1String("patch"))
        bytes = patch;
    else if (kind == QLatin1String("wide window"))  // from a pipe: no size to shrink the window to
        bytes = runZstd({QStringLiteral("--long=28")}, newFile, QByteArray(), true);
    else if (kind == QLatin1String("not zstd"))
        bytes = patterned(5000, 'z');
    if (kind != QLatin1String("missing")) {
        QVERIFY2(!bytes.isEmpty(), "the zstd tool (Debian package zstd) must be installed");
        QVERIFY(kind != QLatin1String("patch") || bytes.size() < 20000);  // a real patch, not the whole file
    }
    if (artifact.endsWith(QLatin1String("+half")))
        bytes.truncate(bytes.size() / 2);
    if (artifact.endsWith(QLatin1String("+x")))
        bytes += 'x';
    if (artifact.endsWith(QLatin1String("+twice")))
        bytes += bytes;
    if (artifact.endsWith(QLatin1String("+flip")))
        bytes[bytes.size() / 2] = char(bytes.at(bytes.size() / 2) ^ 0x10);
    if (kind == QLatin1String("missing"))
        QFile::remove(path);
    else
        QVERIFY(writeFile(path, bytes));

    const QString sourcePath = source == QLatin1String("none") ? QString() : dir + QLatin1Char('/') + source;
    const QString output = dir + QStringLiteral("/decoded");
    QString failure;
    const bool decoded = decodeArtifactToFile(path, sourcePath, output, newFile.size() + sizeOffset, &failure);
    QCOMPARE(failure, error.contains(QLatin1String("%1")) ? error.arg(dir) : error);
    QCOMPARE(decoded, error.isEmpty());
    if (decoded)
        QCOMPARE(readFile(output, kMissing), newFile);
}

void StagingDownloadTest::smallerTransfers_data()
{
    QTest::addColumn<QString>("installed");  // "old" (the patch's source), "other", "none"
    QTest::addColumn<QString>("cache");      // "", "patch" (finished), "patch part" (first 100 bytes),
                                             // "bad compressed part" (100 wrong bytes)
    QTest::addColumn<QStringList>("requests");  // paths asked for: "patch", "compressed", "file"
    QTest::addColumn<QStringList>("log");       // %1 patch size, %2 compressed size, %3 wire bytes

    const QString patch = QStringLiteral("I [Update] \"lib/t.txt\" tai patch %1 byte thay vi 200000 byte");
    const QString compressed = QStringLiteral("I [Update] \"lib/t.txt\" tai ban nen %2 byte thay vi 200000 byte");
    const QString summary = QStringLiteral("I [Update] dung 0 / 1 file tu kho tam");
    const QString wire = QStringLiteral("I [Update] da tai qua mang %3 byte (ca file: 200000 byte)");
    QTest::newRow("the patch for the installed content") << "old" << "" << QStringList{"patch"}
                                                         << QStringList{patch, summary, wire};
    QTest::newRow("no patch for other installed content: the compressed file")
        << "other" << "" << QStringList{"compressed"} << QStringList{compressed, summary, wire};
    QTest::newRow("nothing installed: the compressed file") << "none" << "" << QStringList{"compressed"}
                                                             << QStringList{compressed, summary, wire};
    QTest::newRow("a finished patch in the cache: nothing requested")
        << "old" << "patch" << QStringList{}
        << QStringList{patch, QStringLiteral("I [Update] dung 1 / 1 file tu kho tam"), wire};
    QTest::newRow("a partial patch in the cache is resumed")
        << "old" << "patch part" << QStringList{"patch"}
        << QStringList{patch, QStringLiteral("I [Update] \"%4\" noi tiep tu kho tam: 100 byte"), summary, wire};
    QTest::newRow("a partial compressed file with wrong bytes: deleted, then the whole file")
        << "none" << "bad compressed part" << QStringList{"compressed", "file"}
        << QStringList{compressed, QStringLiteral("I [Update] \"%5\" noi tiep tu kho tam: 100 byte"),
                       QStringLiteral("W [Update] ban nen cho \"lib/t.txt\" hong (hash lech) -> tai ca file"), summary, wire};
}

void StagingDownloadTest::smallerTransfers()
{
    QFETCH(QString, installed);
    QFETCH(QString, cache);
    QFETCH(QStringList, requests);
    QFETCH(QStringList, log);
    const QByteArray oldFile = textLines(10000, 1).left(200000);
    const QByteArray newFile = textLines(10000, 2).left(200000);
    static const QByteArray compressed = zstdCompressed(newFile);
    static const QByteArray patch = zstdPatch(oldFile, newFile);
    QVERIFY(!compressed.isEmpty() && !patch.isEmpty());
    const QString path = QStringLiteral("lib/t.txt");
    QMap<QString, QString> urlPaths{{QStringLiteral("file"), serve(path, newFile)},
                                    {QStringLiteral("compressed"), serve(compressedRelPath(newFile), compressed)},
                                    {QStringLiteral("patch"), serve(patchRelPath(oldFile, newFile), patch)}};
    const QByteArray installedBytes = installed == QLatin1String("old") ? oldFile : textLines(10000, 3).left(200000);
    if (installed != QLatin1String("none"))
        QVERIFY(writeFile(install->path() + QLatin1Char('/') + path, installedBytes));
    if (cache == QLatin1String("patch"))
        QVERIFY(writeFile(cached(patchRelPath(oldFile, newFile)), patch));
    if (cache == QLatin1String("patch part"))
        QVERIFY(writeFile(cachePartPath(kVersion, patchRelPath(oldFile, newFile)), patch.left(100)));
    const QString badPart = cachePartPath(kVersion, compressedRelPath(newFile));
    if (cache == QLatin1String("bad compressed part"))
        QVERIFY(writeFile(badPart, patterned(100, 'b')));

    ManifestFile entry = entryFor(path, newFile);
    const QByteArray manifest = withArtifacts(makeManifestJson(kVersion, 2, {{path, newFile}}), path, compressed,
                                              {{oldFile, patch}});
    Manifest parsed;
    QVERIFY(parseManifest(manifest, &parsed));
    entry = parsed.files.constFirst();
    QHash<QString, QString> installedHashes;
    if (installed != QLatin1String("none"))
        installedHashes.insert(path, sha256Hex(installedBytes));

    qint64 wire = 0;
    for (const QString& request : requests) {
        const qint64 full = request == QLatin1String("patch") ? patch.size()
                            : request == QLatin1String("compressed") ? compressed.size() : newFile.size();
        wire += full - (cache.endsWith(QLatin1String("part")) && request != QLatin1String("file") ? 100 : 0);
    }
    QStringList expected;
    for (const QString& line : log)
        expected << QString(line).replace(QLatin1String("%1"), QString::number(patch.size()))
                        .replace(QLatin1String("%2"), QString::number(compressed.size()))
                        .replace(QLatin1String("%3"), QString::number(wire))
                        .replace(QLatin1String("%4"), patchRelPath(oldFile, newFile))
                        .replace(QLatin1String("%5"), compressedRelPath(newFile));

    LogCapture capture;
    QList<StagedFile> staged;
    QVERIFY(downloadToStaging(*session, {entry}, server->url(QStringLiteral("b/")), kVersion, staged, installedHashes));
    QCOMPARE(stagingLines(capture), expected);
    QCOMPARE(staged.size(), 1);
    QCOMPARE(readFile(staged[0].stagedPath, kMissing), newFile);
    QStringList asked;
    for (const TestServer::Request& request : server->requests())
        asked << urlPaths.key(request.path, request.path);
    QCOMPARE(asked, requests);
    // Staging holds the file alone; a partial artifact whose bytes were wrong is gone.
    QCOMPARE(filesBelow(staging()), QStringList{path});
    if (cache == QLatin1String("bad compressed part"))
        QVERIFY(!QFileInfo::exists(badPart));
}

QTEST_GUILESS_MAIN(StagingDownloadTest)
#include "tst_staging_download.moc"
