// The apply session driven in-process: its status texts, the order of its steps as seen on
// disk and in the log, and which installed files it counts as changed.
#include "base/installation_dir.h"
#include "session/apply_session.h"

#include "support/test_files.h"
#include "support/test_install.h"
#include "support/test_server.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString kChecking = QString::fromUtf8("Đang kiểm tra cập nhật…");
const QString kApplying = QString::fromUtf8("Đang áp bản cập nhật…");
const QString kDone = QString::fromUtf8("Cập nhật hoàn tất.");
QString downloading(int count)
{
    return QString::fromUtf8("Đang tải bản cập nhật (%1 tệp)…").arg(count);
}

const QString kOldVersion = QStringLiteral("4.2.0");
const QString kNewVersion = QStringLiteral("4.3.0");

BuildFiles oldBuild()
{
    return {{QStringLiteral("a.txt"), "alpha 1"},
            {QStringLiteral("b.txt"), "bravo"},
            {QStringLiteral("lib/c.dat"), "charlie 1"},
            {QStringLiteral("d.txt"), "delta"}};
}

// Against the old build: a.txt and lib/c.dat changed, e.txt added, b.txt and d.txt equal.
BuildFiles newBuild()
{
    return {{QStringLiteral("a.txt"), "alpha 2"},
            {QStringLiteral("b.txt"), "bravo"},
            {QStringLiteral("lib/c.dat"), "charlie 2"},
            {QStringLiteral("d.txt"), "delta"},
            {QStringLiteral("e.txt"), "echo"}};
}

QStringList requestedPaths(const TestServer& server)
{
    QStringList paths;
    for (const TestServer::Request& request : server.requests())
        paths.append(request.path);
    return paths;
}

// Everything the session reports, status texts and "[Update]" log lines, in one sequence.
QStringList* g_events = nullptr;
QtMessageHandler g_previousHandler = nullptr;

void recordingHandler(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (g_events && text.startsWith(QLatin1String("[Update]")))
        g_events->append(QStringLiteral("log: ") + text);
    if (g_previousHandler)
        g_previousHandler(type, context, text);
}

enum Scenario {
    NoConfiguration,
    SignatureMissing,
    UpToDateByBuild,
    HashesAlreadyMatch,
    OneChanged,
    ThreeChanged,
    DownloadFails,
    ApplyFails,
};

} // namespace

class TestUpdateSession : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void statusTexts_data();
    void statusTexts();
    void stepsHappenInOrder();
    void runsWithoutStatusCallback();
    void leftoverStagingIsRemoved_data();
    void leftoverStagingIsRemoved();
    void changedFiles_data();
    void changedFiles();
    void changedFilesKeepManifestOrder();

private:
    // The hashing tests need no server; starting one costs most of a second.
    bool startServer();
    // A fresh installation directory and server root per test.
    bool prepare(const BuildFiles& installed, const QByteArray& installedManifest);
    void publish(const BuildFiles& files, const QByteArray& manifest);
    void writeConfig();
    QByteArray read(const QString& relPath) const;
    void fillSession(UpdateSession& session, QStringList* statuses);

    QScopedPointer<QTemporaryDir> installDir;
    QScopedPointer<QTemporaryDir> serverDir;
    QScopedPointer<TestServer> server;
};

void TestUpdateSession::initTestCase()
{
    QCoreApplication::setApplicationName(QStringLiteral("tst_update_session"));
}

void TestUpdateSession::init()
{
    installDir.reset(new QTemporaryDir);
    serverDir.reset(new QTemporaryDir);
    QVERIFY(installDir->isValid());
    QVERIFY(serverDir->isValid());
    setInstallationDirForTesting(installDir->path());
}

void TestUpdateSession::cleanup()
{
    setInstallationDirForTesting(QString());
    server.reset();
    serverDir.reset();
    installDir.reset();
}

bool TestUpdateSession::startServer()
{
    server.reset(new TestServer(serverDir->path()));
    return server->start();
}

bool TestUpdateSession::prepare(const BuildFiles& installed, const QByteArray& installedManifest)
{
    const QDir dir(installDir->path());
    for (auto it = installed.cbegin(); it != installed.cend(); ++it) {
        if (!writeFile(dir.filePath(it.key()), it.value()))
            return false;
    }
    return writeFile(dir.filePath(QStringLiteral("manifest.json")), installedManifest);
}

void TestUpdateSession::publish(const BuildFiles& files, const QByteArray& manifest)
{
    QVERIFY(publishBuild(serverDir->path(), QStringLiteral("app"), files, manifest));
}

void TestUpdateSession::writeConfig()
{
    QJsonObject config{{QStringLiteral("manifestUrl"), server->url(QStringLiteral("app/manifest.json"))}};
    QFile f(QDir(installDir->path()).filePath(QStringLiteral("updater.conf")));
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(QJsonDocument(config).toJson());
}

QByteArray TestUpdateSession::read(const QString& relPath) const
{
    return readFile(QDir(installDir->path()).filePath(relPath), QByteArray("<missing>"));
}

void TestUpdateSession::fillSession(UpdateSession& session, QStringList* statuses)
{
    session.appDir = installDir->path();
    session.selfFileName = QStringLiteral("updater");
    if (statuses)
        session.onStatus = [statuses](const QString& text) { statuses->append(text); };
}

void TestUpdateSession::statusTexts_data()
{
    QTest::addColumn<int>("scenario");
    QTest::addColumn<int>("outcome");
    QTest::addColumn<QStringList>("statuses");

    QTest::newRow("no configuration: nothing shown") << int(NoConfiguration) << int(NoConfig) << QStringList();
    QTest::newRow("manifest rejected: only the check")
        << int(SignatureMissing) << int(ManifestRejected) << QStringList{kChecking};
    QTest::newRow("installed build is newer: only the check")
        << int(UpToDateByBuild) << int(UpToDate) << QStringList{kChecking};
    QTest::newRow("every file already current: only the check")
        << int(HashesAlreadyMatch) << int(UpToDate) << QStringList{kChecking};
    QTest::newRow("one changed file")
        << int(OneChanged) << int(Updated) << QStringList{kChecking, downloading(1), kApplying, kDone};
    QTest::newRow("three changed files")
        << int(ThreeChanged) << int(Updated) << QStringList{kChecking, downloading(3), kApplying, kDone};
    QTest::newRow("download fails: no apply status")
        << int(DownloadFails) << int(Failed) << QStringList{kChecking, downloading(3)};
    QTest::newRow("apply fails: no completion status")
        << int(ApplyFails) << int(Failed) << QStringList{kChecking, downloading(3), kApplying};
}

void TestUpdateSession::statusTexts()
{
    QVERIFY(startServer());
    QFETCH(int, scenario);
    QFETCH(int, outcome);
    QFETCH(QStringList, statuses);

    const QByteArray oldManifest = makeManifestJson(kOldVersion, 100, oldBuild());
    const QByteArray newManifest = makeManifestJson(kNewVersion, 101, newBuild());
    QVERIFY(prepare(oldBuild(), oldManifest));
    publish(newBuild(), newManifest);
    if (scenario != NoConfiguration)
        writeConfig();

    switch (scenario) {
    case SignatureMissing:
        QVERIFY(QFile::remove(serverDir->filePath(QStringLiteral("app/manifest.json.sig"))));
        break;
    case UpToDateByBuild:
        QVERIFY(prepare(oldBuild(), makeManifestJson(kOldVersion, 120, oldBuild())));
        break;
    case HashesAlreadyMatch:
        QVERIFY(prepare(newBuild(), oldManifest));
        break;
    case OneChanged: {
        BuildFiles almost = newBuild();
        almost[QStringLiteral("d.txt")] = "delta, locally edited";
        QVERIFY(prepare(almost, oldManifest));
        break;
    }
    case DownloadFails: {
        TestServer::Rule notFound;
        notFound.status = 404;
        server->setRule(QStringLiteral("app/e.txt"), notFound);
        break;
    }
    case ApplyFails:
        // A non-empty directory stands where lib/c.dat should be replaced, and another one
        // where its backup would go: neither the replacement nor the rename can happen.
        QVERIFY(QFile::remove(QDir(installDir->path()).filePath(QStringLiteral("lib/c.dat"))));
        QVERIFY(QDir(installDir->path()).mkpath(QStringLiteral("lib/c.dat/keep")));
        QVERIFY(QDir(installDir->path()).mkpath(QStringLiteral("lib/c.dat.bak/keep")));
        break;
    default:
        break;
    }

    QStringList seen;
    UpdateOutcome result;
    {
        UpdateSession session;
        fillSession(session, &seen);
        result = runUpdateSession(session);
    }
    QCOMPARE(int(result), outcome);
    QCOMPARE(seen, statuses);
}

// Each status text is reported when the steps before it are done and the ones after it have
// not started; the log lines fall between them.
void TestUpdateSession::stepsHappenInOrder()
{
    QVERIFY(startServer());
    QVERIFY(prepare(oldBuild(), makeManifestJson(kOldVersion, 100, oldBuild())));
    // Left behind by a cut-short apply: only the backup of g.txt exists.
    QFile bak(QDir(installDir->path()).filePath(QStringLiteral("g.txt.bak")));
    QVERIFY(bak.open(QIODevice::WriteOnly));
    bak.write("golf");
    bak.close();
    const QByteArray newManifest = makeManifestJson(kNewVersion, 101, newBuild());
    publish(newBuild(), newManifest);
    writeConfig();
    const QDir root(installDir->path());
    QVERIFY(root.mkpath(QStringLiteral(".update-cache/3.9.0/files")));
    QVERIFY(root.mkpath(QStringLiteral(".update-cache/4.3.0/files")));

    QStringList events;
    g_events = &events;
    g_previousHandler = qInstallMessageHandler(recordingHandler);
    UpdateOutcome result;
    {
        UpdateSession session;
        fillSession(session, nullptr);
        session.onStatus = [&](const QString& text) {
            QDir cacheRoot(root.filePath(QStringLiteral(".update-cache")));
            events.append(QStringLiteral("status: %1 | g.txt=%2 requests=%3 staging=%4 cache=%5 a.txt=%6 manifest=%7")
                              .arg(text, QString::fromLatin1(read(QStringLiteral("g.txt"))),
                                   requestedPaths(*server).join(QLatin1Char(',')),
                                   root.exists(QStringLiteral(".staging"))
                                       ? filesBelow(root.filePath(QStringLiteral(".staging"))).join(QLatin1Char(','))
                                       : QStringLiteral("none"),
                                   cacheRoot.exists()
                                       ? cacheRoot.entryList(QDir::Dirs | QDir::NoDotAndDotDot).join(QLatin1Char(','))
                                       : QStringLiteral("none"),
                                   QString::fromLatin1(read(QStringLiteral("a.txt"))),
                                   read(QStringLiteral("manifest.json")) == newManifest ? QStringLiteral("new")
                                                                                        : QStringLiteral("old")));
        };
        result = runUpdateSession(session);
    }
    qInstallMessageHandler(g_previousHandler);
    g_events = nullptr;

    QCOMPARE(int(result), int(Updated));
    const QStringList expected{
        QStringLiteral("log: [Update] CUU duoc file thieu sau lan ap bi cat ngang: \"%1\"")
            .arg(root.filePath(QStringLiteral("g.txt"))),
        QStringLiteral("log: [Update] don .bak: khoi phuc 1 , don rac 0"),
        QStringLiteral("status: ") + kChecking
            + QStringLiteral(" | g.txt=golf requests= staging=none cache=3.9.0,4.3.0 a.txt=alpha 1 manifest=old"),
        QStringLiteral("status: ") + downloading(3)
            + QStringLiteral(" | g.txt=golf requests=app/manifest.json,app/manifest.json.sig staging=none"
                             " cache=4.3.0 a.txt=alpha 1 manifest=old"),
        QStringLiteral("log: [Update] dung 0 / 3 file tu kho tam"),
        QStringLiteral("log: [Update] da tai qua mang 20 byte (ca file: 20 byte)"),
        QStringLiteral("status: ") + kApplying
            + QStringLiteral(" | g.txt=golf requests=app/manifest.json,app/manifest.json.sig,app/a.txt,app/e.txt,"
                             "app/lib/c.dat staging=a.txt,e.txt,lib/c.dat cache=4.3.0 a.txt=alpha 1 manifest=old"),
        QStringLiteral("status: ") + kDone
            + QStringLiteral(" | g.txt=golf requests=app/manifest.json,app/manifest.json.sig,app/a.txt,app/e.txt,"
                             "app/lib/c.dat staging=none cache=none a.txt=alpha 2 manifest=new"),
        QStringLiteral("log: [Update] CAP NHAT THANH CONG -> \"4.3.0\""),
    };
    QCOMPARE(events, expected);
}

void TestUpdateSession::runsWithoutStatusCallback()
{
    QVERIFY(startServer());
    QVERIFY(prepare(oldBuild(), makeManifestJson(kOldVersion, 100, oldBuild())));
    publish(newBuild(), makeManifestJson(kNewVersion, 101, newBuild()));
    writeConfig();

    UpdateSession session;
    fillSession(session, nullptr);
    QVERIFY(!session.onStatus);
    QTest::ignoreMessage(QtInfoMsg, "[Update] CAP NHAT THANH CONG -> \"4.3.0\"");
    QCOMPARE(int(runUpdateSession(session)), int(Updated));
    QCOMPARE(read(QStringLiteral("e.txt")), QByteArray("echo"));
}

void TestUpdateSession::leftoverStagingIsRemoved_data()
{
    QTest::addColumn<int>("scenario");
    QTest::newRow("no configuration") << int(NoConfiguration);
    QTest::newRow("installed build is newer") << int(UpToDateByBuild);
    QTest::newRow("every file already current") << int(HashesAlreadyMatch);
}

// A run killed after its files were moved into place leaves staging behind, and the next run
// finds nothing to download; whatever it decides, it does not keep that directory.
void TestUpdateSession::leftoverStagingIsRemoved()
{
    QVERIFY(startServer());
    QFETCH(int, scenario);
    const QByteArray oldManifest = makeManifestJson(kOldVersion, 100, oldBuild());
    publish(newBuild(), makeManifestJson(kNewVersion, 101, newBuild()));
    if (scenario == HashesAlreadyMatch)
        QVERIFY(prepare(newBuild(), oldManifest));
    else if (scenario == UpToDateByBuild)
        QVERIFY(prepare(oldBuild(), makeManifestJson(kOldVersion, 120, oldBuild())));
    else
        QVERIFY(prepare(oldBuild(), oldManifest));
    if (scenario != NoConfiguration)
        writeConfig();
    QVERIFY(writeFile(QDir(installDir->path()).filePath(QStringLiteral(".staging/lib/c.dat")), "staged earlier"));

    {
        UpdateSession session;
        fillSession(session, nullptr);
        runUpdateSession(session);
    }
    QVERIFY(!QFileInfo::exists(QDir(installDir->path()).filePath(QStringLiteral(".staging"))));
}

void TestUpdateSession::changedFiles_data()
{
    QTest::addColumn<QByteArray>("installed");  // "<missing>" and "<directory>" are special
    QTest::addColumn<QByteArray>("published");
    QTest::addColumn<bool>("changed");

    QByteArray big(3 * 1024 * 1024 + 7, 'x');
    for (int i = 0; i < big.size(); i += 4093)
        big[i] = char('a' + i % 26);
    QByteArray bigLastByte = big;
    bigLastByte[bigLastByte.size() - 1] = 'y';
    QByteArray bigFirstChunk = big;
    bigFirstChunk[262144] = 'z';

    QTest::newRow("identical") << QByteArray("same") << QByteArray("same") << false;
    QTest::newRow("same size, other bytes") << QByteArray("abcd") << QByteArray("abce") << true;
    QTest::newRow("installed is a prefix") << QByteArray("abc") << QByteArray("abcd") << true;
    QTest::newRow("missing") << QByteArray("<missing>") << QByteArray("new") << true;
    QTest::newRow("directory in its place") << QByteArray("<directory>") << QByteArray("new") << true;
    QTest::newRow("empty and published empty") << QByteArray("") << QByteArray("") << false;
    QTest::newRow("empty but published with content") << QByteArray("") << QByteArray("x") << true;
    QTest::newRow("several MB, identical") << big << big << false;
    QTest::newRow("several MB, last byte differs") << bigLastByte << big << true;
    QTest::newRow("several MB, byte after the first 256 KiB differs") << bigFirstChunk << big << true;
}

void TestUpdateSession::changedFiles()
{
    QFETCH(QByteArray, installed);
    QFETCH(QByteArray, published);
    QFETCH(bool, changed);

    const QDir root(installDir->path());
    const QString rel = QStringLiteral("sub/dir/file.bin");
    if (installed == "<directory>") {
        QVERIFY(root.mkpath(rel + QStringLiteral("/inner")));
    } else if (installed != "<missing>") {
        QVERIFY(prepare({{rel, installed}}, QByteArray()));
    }

    Manifest manifest;
    manifest.fullVersion = kNewVersion;
    manifest.files.append(ManifestFile{rel, published.size(), sha256Hex(published)});
    QHash<QString, QString> installedHashes;
    const QList<ManifestFile> result = ::changedFiles(manifest, installDir->path(), &installedHashes);
    QCOMPARE(result.size(), changed ? 1 : 0);
    QCOMPARE(installedHashes.size(), changed ? 1 : 0);
    if (changed) {
        QCOMPARE(result.first().path, rel);
        QCOMPARE(result.first().sha256, sha256Hex(published));
        // The hash pass's own result, for choosing a patch: none for a file that is not there.
        const bool absent = installed == "<missing>" || installed == "<directory>";
        QCOMPARE(installedHashes.value(rel), absent ? QString() : sha256Hex(installed));
    }
}

void TestUpdateSession::changedFilesKeepManifestOrder()
{
    QVERIFY(prepare({{QStringLiteral("z.txt"), "z old"}, {QStringLiteral("m.txt"), "m"},
                     {QStringLiteral("a.txt"), "a old"}},
                    QByteArray()));
    Manifest manifest;
    manifest.fullVersion = kNewVersion;
    for (const auto& entry : {qMakePair(QStringLiteral("z.txt"), QByteArray("z new")),
                              qMakePair(QStringLiteral("m.txt"), QByteArray("m")),
                              qMakePair(QStringLiteral("new/n.txt"), QByteArray("n")),
                              qMakePair(QStringLiteral("a.txt"), QByteArray("a new"))})
        manifest.files.append(ManifestFile{entry.first, 0, sha256Hex(entry.second)});

    QStringList paths;
    for (const ManifestFile& file : ::changedFiles(manifest, installDir->path()))
        paths.append(file.path);
    QCOMPARE(paths, (QStringList{QStringLiteral("z.txt"), QStringLiteral("new/n.txt"), QStringLiteral("a.txt")}));
}

QTEST_GUILESS_MAIN(TestUpdateSession)
#include "tst_apply_session.moc"
