#include "update/updater_config.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

enum class ConfFile { Written, Missing, Directory };

const QString kUnchangedManifest = QStringLiteral("previous manifest url");
const QString kUnchangedBase = QStringLiteral("previous base url");

} // namespace

Q_DECLARE_METATYPE(ConfFile)

class TestUpdaterConfig : public QObject {
    Q_OBJECT

private slots:
    void readUpdaterConfig_data();
    void readUpdaterConfig();
    void appDirWithTrailingSlash();
};

void TestUpdaterConfig::readUpdaterConfig_data()
{
    QTest::addColumn<ConfFile>("kind");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("expected");
    QTest::addColumn<QString>("manifestUrl");
    QTest::addColumn<QString>("baseUrl");

    const auto file = ConfFile::Written;

    // baseUrl derived from the manifest URL
    QTest::newRow("only manifestUrl: base cut after the last slash")
        << file << QByteArray(R"({"manifestUrl": "https://cdn.example/x/manifest.json"})") << true
        << "https://cdn.example/x/manifest.json" << "https://cdn.example/x/";
    QTest::newRow("nested path keeps every directory")
        << file << QByteArray(R"({"manifestUrl": "http://h:8080/a/app/manifest.json?v=1"})") << true
        << "http://h:8080/a/app/manifest.json?v=1" << "http://h:8080/a/app/";
    QTest::newRow("manifestUrl ending in a slash")
        << file << QByteArray(R"({"manifestUrl": "http://h/dir/"})") << true
        << "http://h/dir/" << "http://h/dir/";
    QTest::newRow("no slash: base is the whole manifestUrl")
        << file << QByteArray(R"({"manifestUrl": "manifest.json"})") << true
        << "manifest.json" << "manifest.json";
    QTest::newRow("only a leading slash: base is the whole manifestUrl")
        << file << QByteArray(R"({"manifestUrl": "/manifest.json"})") << true
        << "/manifest.json" << "/manifest.json";
    QTest::newRow("slash at position 1")
        << file << QByteArray(R"({"manifestUrl": "a/manifest.json"})") << true
        << "a/manifest.json" << "a/";
    QTest::newRow("backslashes are not separators")
        << file << QByteArray(R"({"manifestUrl": "http://h/a\\b\\manifest.json"})") << true
        << "http://h/a\\b\\manifest.json" << "http://h/";
    QTest::newRow("backslashes only: base is the whole manifestUrl")
        << file << QByteArray(R"({"manifestUrl": "C:\\updates\\manifest.json"})") << true
        << "C:\\updates\\manifest.json" << "C:\\updates\\manifest.json";
    QTest::newRow("empty baseUrl is derived")
        << file << QByteArray(R"({"manifestUrl": "http://h/x/m.json", "baseUrl": ""})") << true
        << "http://h/x/m.json" << "http://h/x/";
    QTest::newRow("numeric baseUrl reads as empty and is derived")
        << file << QByteArray(R"({"manifestUrl": "http://h/x/m.json", "baseUrl": 7})") << true
        << "http://h/x/m.json" << "http://h/x/";
    QTest::newRow("object baseUrl reads as empty and is derived")
        << file << QByteArray(R"({"manifestUrl": "http://h/x/m.json", "baseUrl": {"u": "http://b/"}})")
        << true << "http://h/x/m.json" << "http://h/x/";

    // explicit baseUrl
    QTest::newRow("baseUrl without trailing slash gets one")
        << file << QByteArray(R"({"manifestUrl": "http://h/m.json", "baseUrl": "http://cdn/files"})")
        << true << "http://h/m.json" << "http://cdn/files/";
    QTest::newRow("baseUrl with trailing slash is kept")
        << file << QByteArray(R"({"manifestUrl": "http://h/m.json", "baseUrl": "http://cdn/files/"})")
        << true << "http://h/m.json" << "http://cdn/files/";
    QTest::newRow("baseUrl with two trailing slashes is kept")
        << file << QByteArray(R"({"manifestUrl": "http://h/m.json", "baseUrl": "http://cdn/files//"})")
        << true << "http://h/m.json" << "http://cdn/files//";
    QTest::newRow("trailing backslash is not a slash")
        << file << QByteArray(R"({"manifestUrl": "http://h/m.json", "baseUrl": "http://cdn/files\\"})")
        << true << "http://h/m.json" << "http://cdn/files\\/";
    QTest::newRow("baseUrl of one slash")
        << file << QByteArray(R"({"manifestUrl": "http://h/m.json", "baseUrl": "/"})") << true
        << "http://h/m.json" << "/";

    // nothing is trimmed
    QTest::newRow("blanks around manifestUrl are kept")
        << file << QByteArray(R"({"manifestUrl": " http://h/x/m.json "})") << true
        << " http://h/x/m.json " << " http://h/x/";
    QTest::newRow("blank baseUrl is not empty")
        << file << QByteArray(R"({"manifestUrl": "http://h/m.json", "baseUrl": "  "})") << true
        << "http://h/m.json" << "  /";
    QTest::newRow("blank manifestUrl is not empty")
        << file << QByteArray(R"({"manifestUrl": " "})") << true << " " << " ";

    // other keys and values
    QTest::newRow("unknown keys are ignored")
        << file
        << QByteArray(R"({"channel": "beta", "manifestUrl": "http://h/x/m.json", "extra": [1, 2]})")
        << true << "http://h/x/m.json" << "http://h/x/";
    QTest::newRow("non-ASCII URL text survives")
        << file << QByteArray("{\"manifestUrl\": \"http://h/b\xe1\xba\xa3n/m.json\"}") << true
        << QString::fromUtf8("http://h/b\xe1\xba\xa3n/m.json") << QString::fromUtf8("http://h/b\xe1\xba\xa3n/");

    // false results: outputs are assigned from the file before the check
    QTest::newRow("empty manifestUrl, baseUrl taken as read")
        << file << QByteArray(R"({"manifestUrl": "", "baseUrl": "http://cdn/files"})") << false
        << "" << "http://cdn/files";
    QTest::newRow("numeric manifestUrl")
        << file << QByteArray(R"({"manifestUrl": 42, "baseUrl": "http://cdn/"})") << false << ""
        << "http://cdn/";
    QTest::newRow("null manifestUrl") << file << QByteArray(R"({"manifestUrl": null})") << false << ""
                                      << "";
    QTest::newRow("array manifestUrl")
        << file << QByteArray(R"({"manifestUrl": ["http://h/m.json"]})") << false << "" << "";
    QTest::newRow("key names are case-sensitive")
        << file << QByteArray(R"({"ManifestUrl": "http://h/m.json"})") << false << "" << "";
    QTest::newRow("missing manifestUrl") << file << QByteArray(R"({"baseUrl": "http://cdn/"})") << false
                                         << "" << "http://cdn/";
    QTest::newRow("empty file") << file << QByteArray() << false << "" << "";
    QTest::newRow("empty object") << file << QByteArray("{}") << false << "" << "";
    QTest::newRow("array at top level")
        << file << QByteArray(R"([{"manifestUrl": "http://h/m.json"}])") << false << "" << "";
    QTest::newRow("string at top level") << file << QByteArray(R"("http://h/m.json")") << false << ""
                                         << "";
    QTest::newRow("malformed JSON")
        << file << QByteArray(R"({"manifestUrl": "http://h/m.json",)") << false << "" << "";
    QTest::newRow("binary garbage") << file << QByteArray("\x00\xff\xfe{", 4) << false << "" << "";

    // the file does not open: outputs untouched
    QTest::newRow("no updater.conf") << ConfFile::Missing << QByteArray() << false << kUnchangedManifest
                                     << kUnchangedBase;
    QTest::newRow("updater.conf is a directory") << ConfFile::Directory << QByteArray() << false
                                                 << kUnchangedManifest << kUnchangedBase;
}

void TestUpdaterConfig::readUpdaterConfig()
{
    QFETCH(ConfFile, kind);
    QFETCH(QByteArray, content);
    QFETCH(bool, expected);
    QFETCH(QString, manifestUrl);
    QFETCH(QString, baseUrl);

    QTemporaryDir appDir;
    QVERIFY(appDir.isValid());
    const QString confPath = appDir.filePath(QStringLiteral("updater.conf"));
    if (kind == ConfFile::Written) {
        QFile conf(confPath);
        QVERIFY(conf.open(QIODevice::WriteOnly));
        QCOMPARE(conf.write(content), qint64(content.size()));
    } else if (kind == ConfFile::Directory) {
        QVERIFY(QDir().mkpath(confPath));
    }

    QString readManifestUrl = kUnchangedManifest;
    QString readBaseUrl = kUnchangedBase;
    QCOMPARE(::readUpdaterConfig(appDir.path(), readManifestUrl, readBaseUrl), expected);
    QCOMPARE(readManifestUrl, manifestUrl);
    QCOMPARE(readBaseUrl, baseUrl);
}

void TestUpdaterConfig::appDirWithTrailingSlash()
{
    QTemporaryDir appDir;
    QVERIFY(appDir.isValid());
    QFile conf(appDir.filePath(QStringLiteral("updater.conf")));
    QVERIFY(conf.open(QIODevice::WriteOnly));
    conf.write(R"({"manifestUrl": "http://h/x/m.json"})");
    conf.close();

    QString manifestUrl;
    QString baseUrl;
    QVERIFY(::readUpdaterConfig(appDir.path() + QLatin1Char('/'), manifestUrl, baseUrl));
    QCOMPARE(baseUrl, QStringLiteral("http://h/x/"));
}

QTEST_GUILESS_MAIN(TestUpdaterConfig)
#include "tst_updater_config.moc"
