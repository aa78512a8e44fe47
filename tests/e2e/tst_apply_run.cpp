// The real updater executable in apply mode, copied into a temporary installation and run
// against the test server: for every outcome, what ends up on disk and in updater.log.
#include "support/test_install.h"
#include "support/test_server.h"
#include "support/test_signing.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QtTest>

namespace {

const QString kOldVersion = QStringLiteral("4.2.0");
const QString kNewVersion = QStringLiteral("4.3.0-beta");

BuildFiles oldBuild()
{
    return {{QStringLiteral("a.txt"), "alpha 1"},
            {QStringLiteral("b.txt"), "bravo"},
            {QStringLiteral("d.txt"), "delta"},
            {QStringLiteral("lib/c.dat"), "charlie 1"}};
}

// Against the old build: a.txt and lib/c.dat changed, e.txt added, b.txt and d.txt equal.
// In manifest order the changed files are a.txt, e.txt, lib/c.dat.
BuildFiles newBuild()
{
    return {{QStringLiteral("a.txt"), "alpha 2"},
            {QStringLiteral("b.txt"), "bravo"},
            {QStringLiteral("d.txt"), "delta"},
            {QStringLiteral("e.txt"), "echo"},
            {QStringLiteral("lib/c.dat"), "charlie 2"}};
}

// A manifest with an explicit build number, negative ones included.
QByteArray manifestWithBuildNumber(const QString& version, qint64 buildNumber, const BuildFiles& files)
{
    QJsonObject root = QJsonDocument::fromJson(makeManifestJson(version, -1, files)).object();
    root.insert(QStringLiteral("buildNumber"), double(buildNumber));
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

// An expected log line is exact, except that "*" stands for any text (the network library's
// error texts, operating-system error codes, absolute paths).
bool lineMatches(const QString& expected, const QString& actual)
{
    QStringList pieces = expected.split(QLatin1Char('*'));
    for (QString& piece : pieces)
        piece = QRegularExpression::escape(piece);
    const QRegularExpression pattern(QStringLiteral("\\A") + pieces.join(QStringLiteral(".*")) + QStringLiteral("\\z"),
                                     QRegularExpression::DotMatchesEverythingOption);
    return pattern.match(actual).hasMatch();
}

bool linesMatch(const QStringList& expected, const QStringList& actual)
{
    if (expected.size() != actual.size())
        return false;
    for (int i = 0; i < expected.size(); ++i) {
        if (!lineMatches(expected.at(i), actual.at(i)))
            return false;
    }
    return true;
}

QString describeLines(const QStringList& expected, const QStringList& actual)
{
    return QStringLiteral("\nexpected:\n  ") + expected.join(QStringLiteral("\n  ")) + QStringLiteral("\nactual:\n  ")
        + actual.join(QStringLiteral("\n  "));
}

// The session's own lines; the network guard's "[bearer]" lines depend on the machine.
QStringList updateLines(const TestInstall& install)
{
    QStringList lines;
    for (const QString& text : install.logTexts()) {
        if (text.startsWith(QLatin1String("[Update]")))
            lines.append(text);
    }
    return lines;
}

#define COMPARE_LINES(actual, expected)                                                                \
    do {                                                                                               \
        const QStringList actualLines_ = (actual);                                                     \
        const QStringList expectedLines_ = (expected);                                                 \
        QVERIFY2(linesMatch(expectedLines_, actualLines_), qPrintable(describeLines(expectedLines_, actualLines_))); \
    } while (false)

// One published build on the test server and one installation.
struct Site {
    TestInstall install;
    QTemporaryDir serverDir;
    TestServer server;

    Site() : server(serverDir.path()) {}
    bool start() { return install.isValid() && serverDir.isValid() && server.start(); }
    QString manifestUrl() const { return server.url(QStringLiteral("app/manifest.json")); }
    QString fileUrl(const QString& relPath) const { return server.url(QStringLiteral("app/") + relPath); }
    bool publish(const BuildFiles& files, const QByteArray& manifest)
    {
        return publishBuild(serverDir.path(), QStringLiteral("app"), files, manifest);
    }
    QString servedPath(const QString& relPath) const { return serverDir.filePath(QStringLiteral("app/") + relPath); }
    QStringList requestedPaths() const
    {
        QStringList paths;
        for (const TestServer::Request& request : server.requests())
            paths.append(request.path);
        return paths;
    }
    // Files of the installation outside the update cache.
    QStringList installedFiles() const
    {
        QStringList files;
        for (const QString& file : install.allFiles()) {
            if (!file.startsWith(QLatin1String(".update-cache/")))
                files.append(file);
        }
        return files;
    }
};

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

QStringList withRunFiles(QStringList files, bool config, bool manifest)
{
    files << QStringLiteral("updater") << QStringLiteral("updater.log");
    if (config)
        files << QStringLiteral("updater.conf");
    if (manifest)
        files << QStringLiteral("manifest.json");
    return sorted(files);
}

QStringList files(std::initializer_list<const char*> names)
{
    QStringList list;
    for (const char* name : names)
        list.append(QString::fromLatin1(name));
    return list;
}

enum Scenario {
    NoConfiguration,
    ManifestUnreachable,
    ManifestNotFound,
    SignatureMissing,
    SignatureWrong,
    ForeignProduct,
    ForeignArch,
    HostilePath,
    InstalledBuildNewer,
    SameBuildNumber,
    SameVersionNoBuildNumbers,
    SameVersionInstalledWithoutBuildNumber,
    NegativeInstalledBuildSameVersion,
    NegativeRemoteBuild,
    SameVersionLowerBuild,
    VersionDiffersInCase,
    HashesAlreadyMatch,
    InstalledManifestMissing,
    InstalledManifestCorrupt,
    ThreeChanged,
    OneFromCache,
    DownloadFails,
};

enum FilesAfter { KeepOld, KeepNew, BecomeNew };
enum ManifestAfter { ManifestUnchanged, ManifestPublished };
enum CacheAfter { CacheUntouched, CachePruned, CacheCleared };

const char kUpdated[] = "[Update] CAP NHAT THANH CONG -> \"4.3.0-beta\"";
const char kUpToDate[] = "[Update] da moi nhat: \"4.3.0-beta\"";
const char kHashesMatch[] = "[Update] hash khop het, dong bo manifest -> \"4.3.0-beta\"";

} // namespace

class TestApplyRun : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void outcomes_data();
    void outcomes();
    void failedApplyRollsBack_data();
    void failedApplyRollsBack();
    void ownExecutableIsWrittenBeside_data();
    void ownExecutableIsWrittenBeside();
    void interruptedApplyRepairedWithoutConfig();

private:
    QTemporaryDir runtimeDir;
};

void TestApplyRun::initTestCase()
{
    // A lock namespace of this suite's own, inherited by every updater it starts.
    QVERIFY(runtimeDir.isValid());
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir.path()));
}

void TestApplyRun::outcomes_data()
{
    QTest::addColumn<int>("scenario");
    QTest::addColumn<QStringList>("log");       // "{base}" stands for the published build's URL
    QTest::addColumn<QStringList>("requests");  // paths on the server, in order
    QTest::addColumn<int>("filesAfter");
    QTest::addColumn<int>("manifestAfter");
    QTest::addColumn<int>("cacheAfter");

    const QString manifest = QStringLiteral("app/manifest.json");
    const QString sig = QStringLiteral("app/manifest.json.sig");
    const QStringList trusted{manifest, sig};
    const QStringList threeFiles{manifest, sig, QStringLiteral("app/a.txt"), QStringLiteral("app/e.txt"),
                                 QStringLiteral("app/lib/c.dat")};
    // The three changed files (20 bytes in all) come whole over the wire.
    const QStringList updated{QStringLiteral("[Update] dung 0 / 3 file tu kho tam"),
                              QStringLiteral("[Update] da tai qua mang 20 byte (ca file: 20 byte)"), QLatin1String(kUpdated)};

    QTest::newRow("0 no updater.conf") << int(NoConfiguration)
                                       << QStringList{QStringLiteral("[Update] khong co updater.conf -> bo qua update")}
                                       << QStringList() << int(KeepOld) << int(ManifestUnchanged) << int(CacheUntouched);

    const QString refusedUrl = QStringLiteral("http://127.0.0.1:1/app/manifest.json");
    QTest::newRow("1 manifest unreachable")
        << int(ManifestUnreachable)
        << QStringList{QStringLiteral("[Update] GET loi \"%1\" *").arg(refusedUrl),
                       QStringLiteral("[Update] thu lai GET \"%1\" lan 2").arg(refusedUrl),
                       QStringLiteral("[Update] GET loi \"%1\" *").arg(refusedUrl),
                       QStringLiteral("[Update] tai manifest that bai -> chay ban hien tai")}
        << QStringList() << int(KeepOld) << int(ManifestUnchanged) << int(CacheUntouched);
    QTest::newRow("1 manifest not found")
        << int(ManifestNotFound)
        << QStringList{QStringLiteral("[Update] GET loi \"{base}manifest.json\" *"),
                       QStringLiteral("[Update] thu lai GET \"{base}manifest.json\" lan 2"),
                       QStringLiteral("[Update] GET loi \"{base}manifest.json\" *"),
                       QStringLiteral("[Update] tai manifest that bai -> chay ban hien tai")}
        << QStringList{manifest, manifest} << int(KeepOld) << int(ManifestUnchanged) << int(CacheUntouched);
    QTest::newRow("1 signature missing")
        << int(SignatureMissing)
        << QStringList{QStringLiteral("[Update] GET loi \"{base}manifest.json.sig\" *"),
                       QStringLiteral("[Update] thu lai GET \"{base}manifest.json.sig\" lan 2"),
                       QStringLiteral("[Update] GET loi \"{base}manifest.json.sig\" *"),
                       QStringLiteral("[Update] tai .sig that bai -> chay ban hien tai")}
        << QStringList{manifest, sig, sig} << int(KeepOld) << int(ManifestUnchanged) << int(CacheUntouched);
    QTest::newRow("1 signature over other bytes")
        << int(SignatureWrong)
        << QStringList{QStringLiteral("[Update] CHU KY MANIFEST SAI -> KHONG ap, chay ban hien tai")} << trusted
        << int(KeepOld) << int(ManifestUnchanged) << int(CacheUntouched);
    QTest::newRow("1 other product")
        << int(ForeignProduct)
        << QStringList{QStringLiteral(
               "[Update] MANIFEST KHONG DANH CHO BAN NAY: product=Pendrovia (can Corvanta) -> KHONG ap, chay ban hien tai")}
        << trusted << int(KeepOld) << int(ManifestUnchanged) << int(CacheUntouched);
    QTest::newRow("1 other architecture")
        << int(ForeignArch)
        << QStringList{
               QStringLiteral("[Update] MANIFEST KHONG DANH CHO BAN NAY: arch=arm64 (can x64) -> KHONG ap, chay ban hien tai")}
        << trusted << int(KeepOld) << int(ManifestUnchanged) << int(CacheUntouched);
    QTest::newRow("1 hostile path among good ones")
        << int(HostilePath) << QStringList{QStringLiteral("[Update] manifest hong")} << trusted << int(KeepOld)
        << int(ManifestUnchanged) << int(CacheUntouched);

    QTest::newRow("2 installed build 120, published 119")
        << int(InstalledBuildNewer) << QStringList{QLatin1String(kUpToDate)} << trusted << int(KeepOld)
        << int(ManifestUnchanged) << int(CacheCleared);
    QTest::newRow("2 same build number, other version")
        << int(SameBuildNumber) << QStringList{QLatin1String(kUpToDate)} << trusted << int(KeepOld)
        << int(ManifestUnchanged) << int(CacheCleared);
    QTest::newRow("2 same version, no build numbers")
        << int(SameVersionNoBuildNumbers) << QStringList{QLatin1String(kUpToDate)} << trusted << int(KeepOld)
        << int(ManifestUnchanged) << int(CacheCleared);
    QTest::newRow("2 same version, only the published build number known")
        << int(SameVersionInstalledWithoutBuildNumber) << QStringList{QLatin1String(kUpToDate)} << trusted
        << int(KeepOld) << int(ManifestUnchanged) << int(CacheCleared);
    QTest::newRow("2 installed build -5 counts as unknown, same version")
        << int(NegativeInstalledBuildSameVersion) << QStringList{QLatin1String(kUpToDate)} << trusted << int(KeepOld)
        << int(ManifestUnchanged) << int(CacheCleared);
    QTest::newRow("2 all hashes match")
        << int(HashesAlreadyMatch) << QStringList{QLatin1String(kHashesMatch)} << trusted << int(KeepNew)
        << int(ManifestPublished) << int(CacheCleared);
    QTest::newRow("2 installed manifest deleted, files current")
        << int(InstalledManifestMissing) << QStringList{QLatin1String(kHashesMatch)} << trusted << int(KeepNew)
        << int(ManifestPublished) << int(CacheCleared);

    QTest::newRow("3 three changed files") << int(ThreeChanged) << updated << threeFiles << int(BecomeNew)
                                           << int(ManifestPublished) << int(CacheCleared);
    QTest::newRow("3 published build -1 counts as unknown, installed 200")
        << int(NegativeRemoteBuild) << updated << threeFiles << int(BecomeNew) << int(ManifestPublished)
        << int(CacheCleared);
    QTest::newRow("3 same version but lower installed build")
        << int(SameVersionLowerBuild) << updated << threeFiles << int(BecomeNew) << int(ManifestPublished)
        << int(CacheCleared);
    QTest::newRow("3 versions differ only in letter case")
        << int(VersionDiffersInCase) << updated << threeFiles << int(BecomeNew) << int(ManifestPublished)
        << int(CacheCleared);
    QTest::newRow("3 installed manifest corrupt")
        << int(InstalledManifestCorrupt) << updated << threeFiles << int(BecomeNew) << int(ManifestPublished)
        << int(CacheCleared);
    QTest::newRow("3 one changed file taken from the cache")
        << int(OneFromCache)
        << QStringList{QStringLiteral("[Update] dung 1 / 3 file tu kho tam"),
                       QStringLiteral("[Update] da tai qua mang 16 byte (ca file: 20 byte)"), QLatin1String(kUpdated)}
        << QStringList{manifest, sig, QStringLiteral("app/a.txt"), QStringLiteral("app/lib/c.dat")} << int(BecomeNew)
        << int(ManifestPublished) << int(CacheCleared);

    QTest::newRow("4 one file answers 404")
        << int(DownloadFails)
        << QStringList{QStringLiteral("[Update] GET(file) loi \"{base}e.txt\" *"),
                       QStringLiteral("[Update] tai \"e.txt\" that bai -> huy, chay ban hien tai")}
        << QStringList{manifest, sig, QStringLiteral("app/a.txt"), QStringLiteral("app/e.txt")} << int(KeepOld)
        << int(ManifestUnchanged) << int(CachePruned);
}

void TestApplyRun::outcomes()
{
    QFETCH(int, scenario);
    QFETCH(QStringList, log);
    QFETCH(QStringList, requests);
    QFETCH(int, filesAfter);
    QFETCH(int, manifestAfter);
    QFETCH(int, cacheAfter);

    Site site;
    QVERIFY(site.start());
    TestInstall& install = site.install;

    BuildFiles installed = oldBuild();
    QByteArray installedManifest = makeManifestJson(kOldVersion, 100, oldBuild());
    BuildFiles published = newBuild();
    QByteArray publishedManifest = makeManifestJson(kNewVersion, 101, newBuild());
    bool writeConfig = true;
    bool keepInstalledManifest = true;
    QString outsideName;

    switch (scenario) {
    case NoConfiguration:
        writeConfig = false;
        break;
    case ForeignProduct:
        publishedManifest = makeManifestJson(kNewVersion, 101, published, QStringLiteral("Pendrovia"));
        break;
    case ForeignArch:
        publishedManifest = makeManifestJson(kNewVersion, 101, published, QStringLiteral("Corvanta"), QStringLiteral("arm64"));
        break;
    case HostilePath:
        // Resolved against the installation it would land beside it, in the shared parent.
        outsideName = QFileInfo(install.dir()).fileName() + QStringLiteral("-outside.txt");
        published.insert(QStringLiteral("../") + outsideName, "planted");
        publishedManifest = makeManifestJson(kNewVersion, 101, published);
        break;
    case InstalledBuildNewer:
        installedManifest = makeManifestJson(kOldVersion, 120, oldBuild());
        publishedManifest = makeManifestJson(kNewVersion, 119, published);
        break;
    case SameBuildNumber:
        installedManifest = makeManifestJson(kOldVersion, 101, oldBuild());
        break;
    case SameVersionNoBuildNumbers:
        installedManifest = makeManifestJson(kNewVersion, -1, oldBuild());
        publishedManifest = makeManifestJson(kNewVersion, -1, published);
        break;
    case SameVersionInstalledWithoutBuildNumber:
        installedManifest = makeManifestJson(kNewVersion, -1, oldBuild());
        break;
    case NegativeInstalledBuildSameVersion:
        installedManifest = manifestWithBuildNumber(kNewVersion, -5, oldBuild());
        break;
    case NegativeRemoteBuild:
        installedManifest = makeManifestJson(kOldVersion, 200, oldBuild());
        publishedManifest = manifestWithBuildNumber(kNewVersion, -1, published);
        break;
    case SameVersionLowerBuild:
        installedManifest = makeManifestJson(kNewVersion, 100, oldBuild());
        break;
    case VersionDiffersInCase:
        installedManifest = makeManifestJson(QStringLiteral("4.3.0-BETA"), -1, oldBuild());
        publishedManifest = makeManifestJson(kNewVersion, -1, published);
        break;
    case HashesAlreadyMatch:
        installed = newBuild();
        break;
    case InstalledManifestMissing:
        installed = newBuild();
        keepInstalledManifest = false;
        break;
    case InstalledManifestCorrupt:
        installedManifest = "{\"fullVersion\": \"4.2.0\", \"files\": [";
        break;
    default:
        break;
    }

    QVERIFY(install.installBuild(installed, installedManifest));
    if (!keepInstalledManifest)
        QVERIFY(QFile::remove(install.path(QStringLiteral("manifest.json"))));
    QVERIFY(site.publish(scenario == HostilePath ? newBuild() : published, publishedManifest));
    if (scenario == HostilePath) {
        QFile planted(site.serverDir.filePath(outsideName));
        QVERIFY(planted.open(QIODevice::WriteOnly));
        planted.write("planted");
    }
    if (writeConfig) {
        QVERIFY(install.writeConfig(scenario == ManifestUnreachable ? QStringLiteral("http://127.0.0.1:1/app/manifest.json")
                                                                  : site.manifestUrl()));
    }
    // What an earlier prefetch left: another build's directory and one of the published build.
    QVERIFY(install.writeFile(QStringLiteral(".update-cache/3.9.0/files/old.bin"), "old build"));
    QVERIFY(install.writeFile(QStringLiteral(".update-cache/4.3.0-beta/files/unrelated.bin"), "kept while 4.3.0 is current"));

    switch (scenario) {
    case ManifestNotFound: {
        TestServer::Rule notFound;
        notFound.status = 404;
        site.server.setRule(QStringLiteral("app/manifest.json"), notFound);
        break;
    }
    case SignatureMissing:
        QVERIFY(QFile::remove(site.servedPath(QStringLiteral("manifest.json.sig"))));
        break;
    case SignatureWrong: {
        QFile sigFile(site.servedPath(QStringLiteral("manifest.json.sig")));
        QVERIFY(sigFile.open(QIODevice::WriteOnly | QIODevice::Truncate));
        sigFile.write(signWithKey(publishedManifest + ' '));
        break;
    }
    case OneFromCache:
        QVERIFY(install.writeFile(QStringLiteral(".update-cache/4.3.0-beta/files/e.txt"), "echo"));
        break;
    case DownloadFails: {
        TestServer::Rule notFound;
        notFound.status = 404;
        site.server.setRule(QStringLiteral("app/e.txt"), notFound);
        break;
    }
    default:
        break;
    }
    const QByteArray manifestBefore = install.readFile(QStringLiteral("manifest.json"));

    QCOMPARE(install.run(), 0);

    for (QString& line : log)
        line.replace(QLatin1String("{base}"), site.fileUrl(QString()));
    COMPARE_LINES(updateLines(install), log);
    QCOMPARE(site.requestedPaths(), requests);

    // Installed files: exactly the expected build, nothing staged or backed up left over.
    const BuildFiles expectedFiles = filesAfter == KeepOld ? oldBuild() : newBuild();
    QStringList expectedNames = expectedFiles.keys();
    QCOMPARE(site.installedFiles(),
             withRunFiles(expectedNames, writeConfig, keepInstalledManifest || manifestAfter == ManifestPublished));
    for (auto it = expectedFiles.cbegin(); it != expectedFiles.cend(); ++it)
        QCOMPARE(install.readFile(it.key()), it.value());
    QVERIFY(!install.exists(QStringLiteral(".staging")));

    if (manifestAfter == ManifestPublished)
        QCOMPARE(install.readFile(QStringLiteral("manifest.json")), publishedManifest);
    else
        QCOMPARE(install.readFile(QStringLiteral("manifest.json")), manifestBefore);

    switch (cacheAfter) {
    case CacheUntouched:
        QCOMPARE(install.readFile(QStringLiteral(".update-cache/3.9.0/files/old.bin")), QByteArray("old build"));
        QVERIFY(install.exists(QStringLiteral(".update-cache/4.3.0-beta/files/unrelated.bin")));
        break;
    case CachePruned:
        QVERIFY(!install.exists(QStringLiteral(".update-cache/3.9.0")));
        QVERIFY(install.exists(QStringLiteral(".update-cache/4.3.0-beta/files/unrelated.bin")));
        break;
    case CacheCleared:
        QVERIFY(!install.exists(QStringLiteral(".update-cache")));
        break;
    }

    if (!outsideName.isEmpty())
        QVERIFY(!QFileInfo::exists(QFileInfo(install.dir()).dir().filePath(outsideName)));
}

// The third of five files cannot be replaced: a non-empty directory stands at its name and
// another at its backup name, so neither the replacement nor the rename to ".bak" succeeds.
void TestApplyRun::failedApplyRollsBack_data()
{
    QTest::addColumn<bool>("secondIsNew");
    QTest::newRow("first two replaced") << false;
    QTest::newRow("first replaced, second added") << true;
}

void TestApplyRun::failedApplyRollsBack()
{
    QFETCH(bool, secondIsNew);

    Site site;
    QVERIFY(site.start());
    TestInstall& install = site.install;

    BuildFiles installed{{QStringLiteral("a.dat"), "A1"}, {QStringLiteral("d.dat"), "D1"}, {QStringLiteral("e.dat"), "E1"}};
    if (!secondIsNew)
        installed.insert(QStringLiteral("b.dat"), "B1");
    const QByteArray installedManifest = makeManifestJson(QStringLiteral("7.0"), 6, installed);
    const BuildFiles published{{QStringLiteral("a.dat"), "A2"},
                               {QStringLiteral("b.dat"), "B2"},
                               {QStringLiteral("c.dat"), "C2"},
                               {QStringLiteral("d.dat"), "D2"},
                               {QStringLiteral("e.dat"), "E2"}};
    const QByteArray publishedManifest = makeManifestJson(QStringLiteral("7.1"), 7, published);
    QVERIFY(install.installBuild(installed, installedManifest));
    // c.dat is a directory that the new build makes a file, and a directory of the user's blocks
    // the name it would be moved aside to.
    QVERIFY(install.writeFile(QStringLiteral("c.dat/inside.txt"), "a directory, not a file"));
    QVERIFY(install.writeFile(QStringLiteral("c.dat.bak/inside.txt"), "in the way of the backup"));
    QVERIFY(install.writeFile(QStringLiteral(".update-cache/7.1/state.json"), "{}"));
    QVERIFY(site.publish(published, publishedManifest));
    QVERIFY(install.writeConfig(site.manifestUrl()));

    QCOMPARE(install.run(), 0);

    COMPARE_LINES(updateLines(install),
                  (QStringList{QStringLiteral("[Update] dung 0 / 5 file tu kho tam"),
                               QStringLiteral("[Update] da tai qua mang 10 byte (ca file: 10 byte)"),
                               QStringLiteral("[Update] them moi \"c.dat\" that bai, GetLastError= 183"),
                               QStringLiteral("[Update] ap that bai -> ROLLBACK")}));
    QCOMPARE(site.requestedPaths(),
             (QStringList{QStringLiteral("app/manifest.json"), QStringLiteral("app/manifest.json.sig"),
                          QStringLiteral("app/a.dat"), QStringLiteral("app/b.dat"), QStringLiteral("app/c.dat"),
                          QStringLiteral("app/d.dat"), QStringLiteral("app/e.dat")}));
    // Replaced files are back from their backups, an added file is gone, d.dat and e.dat were
    // never touched.
    QStringList expectedNames = files({"a.dat", "c.dat.bak/inside.txt", "c.dat/inside.txt", "d.dat", "e.dat"});
    if (!secondIsNew)
        expectedNames.append(QStringLiteral("b.dat"));
    QCOMPARE(site.installedFiles(), withRunFiles(expectedNames, true, true));
    QCOMPARE(install.readFile(QStringLiteral("a.dat")), QByteArray("A1"));
    if (!secondIsNew)
        QCOMPARE(install.readFile(QStringLiteral("b.dat")), QByteArray("B1"));
    QCOMPARE(install.readFile(QStringLiteral("d.dat")), QByteArray("D1"));
    QCOMPARE(install.readFile(QStringLiteral("e.dat")), QByteArray("E1"));
    QCOMPARE(install.readFile(QStringLiteral("c.dat/inside.txt")), QByteArray("a directory, not a file"));
    QCOMPARE(install.readFile(QStringLiteral("manifest.json")), installedManifest);
    QVERIFY(!install.exists(QStringLiteral(".staging")));
    QCOMPARE(install.readFile(QStringLiteral(".update-cache/7.1/state.json")), QByteArray("{}"));

    // Once the obstacle is gone, the next run completes the update.
    QVERIFY(QDir(install.path(QStringLiteral("c.dat"))).removeRecursively());
    QVERIFY(QDir(install.path(QStringLiteral("c.dat.bak"))).removeRecursively());
    QCOMPARE(install.run(), 0);
    QCOMPARE(updateLines(install).last(), QStringLiteral("[Update] CAP NHAT THANH CONG -> \"7.1\""));
    for (auto it = published.cbegin(); it != published.cend(); ++it)
        QCOMPARE(install.readFile(it.key()), it.value());
    QCOMPARE(install.readFile(QStringLiteral("manifest.json")), publishedManifest);
}

void TestApplyRun::ownExecutableIsWrittenBeside_data()
{
    QTest::addColumn<QString>("manifestPath");
    QTest::newRow("same name") << QStringLiteral("updater");
    QTest::newRow("upper case") << QStringLiteral("UPDATER");
    QTest::newRow("mixed case") << QStringLiteral("Updater");
}

// The running updater is never replaced: its new version is left beside it as ".new". The
// same name inside a sub-directory is an ordinary file of the application.
void TestApplyRun::ownExecutableIsWrittenBeside()
{
    QFETCH(QString, manifestPath);

    Site site;
    QVERIFY(site.start());
    TestInstall& install = site.install;
    const QByteArray runningExe = install.readFile(QStringLiteral("updater"));
    QVERIFY(!runningExe.isEmpty());

    const BuildFiles installed{{QStringLiteral("tools/updater"), "tool 1"}, {QStringLiteral("x.txt"), "x1"}};
    const BuildFiles published{{manifestPath, "the next updater"},
                               {QStringLiteral("tools/updater"), "tool 2"},
                               {QStringLiteral("x.txt"), "x2"}};
    const QByteArray publishedManifest = makeManifestJson(QStringLiteral("5.1"), 51, published);
    QVERIFY(install.installBuild(installed, makeManifestJson(QStringLiteral("5.0"), 50, installed)));
    QVERIFY(site.publish(published, publishedManifest));
    QVERIFY(install.writeConfig(site.manifestUrl()));

    QCOMPARE(install.run(), 0);

    COMPARE_LINES(updateLines(install), (QStringList{QStringLiteral("[Update] dung 0 / 3 file tu kho tam"),
                                                     QStringLiteral("[Update] da tai qua mang 24 byte (ca file: 24 byte)"),
                                                     QStringLiteral("[Update] CAP NHAT THANH CONG -> \"5.1\"")}));
    QCOMPARE(install.readFile(QStringLiteral("updater")), runningExe);
    QCOMPARE(install.readFile(manifestPath + QStringLiteral(".new")), QByteArray("the next updater"));
    QCOMPARE(install.readFile(QStringLiteral("tools/updater")), QByteArray("tool 2"));
    QCOMPARE(install.readFile(QStringLiteral("x.txt")), QByteArray("x2"));
    QCOMPARE(site.installedFiles(),
             withRunFiles(QStringList{manifestPath + QStringLiteral(".new"), QStringLiteral("tools/updater"),
                                      QStringLiteral("x.txt")},
                          true, true));
    QCOMPARE(install.readFile(QStringLiteral("manifest.json")), publishedManifest);
}

// A file that exists only as its backup gets its name back, a backup beside its file is
// removed, and all that happens before the missing configuration ends the run.
void TestApplyRun::interruptedApplyRepairedWithoutConfig()
{
    Site site;
    QVERIFY(site.start());
    TestInstall& install = site.install;
    QVERIFY(install.writeFile(QStringLiteral("lib/core.dll.bak"), "old core"));
    QVERIFY(install.writeFile(QStringLiteral("data.bin"), "new data"));
    QVERIFY(install.writeFile(QStringLiteral("data.bin.bak"), "old data"));

    QCOMPARE(install.run(), 0);

    COMPARE_LINES(updateLines(install),
                  (QStringList{QStringLiteral("[Update] CUU duoc file thieu sau lan ap bi cat ngang: \"*/lib/core.dll\""),
                               QStringLiteral("[Update] don .bak: khoi phuc 1 , don rac 1"),
                               QStringLiteral("[Update] khong co updater.conf -> bo qua update")}));
    QCOMPARE(site.installedFiles(), withRunFiles(files({"data.bin", "lib/core.dll"}), false, false));
    QCOMPARE(install.readFile(QStringLiteral("lib/core.dll")), QByteArray("old core"));
    QCOMPARE(install.readFile(QStringLiteral("data.bin")), QByteArray("new data"));
    QVERIFY(site.requestedPaths().isEmpty());
}

QTEST_GUILESS_MAIN(TestApplyRun)
#include "tst_apply_run.moc"
