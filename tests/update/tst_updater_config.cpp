// updater.conf: which URLs a configuration gives, and which configurations give none.
#include "update/updater_config.h"

#include <QTemporaryDir>
#include <QtTest>

class TestUpdaterConfig : public QObject {
    Q_OBJECT
private slots:
    void read_data();
    void read();
};

void TestUpdaterConfig::read_data()
{
    QTest::addColumn<QByteArray>("conf");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QString>("manifestUrl");  // the outputs afterwards; "-" left as they were
    QTest::addColumn<QString>("baseUrl");
    const auto row = [](const char* name, const QByteArray& conf, bool ok, const QString& manifest, const QString& base) {
        QTest::newRow(name) << conf << ok << manifest << base;
    };
    row("base cut after the last slash", R"({"manifestUrl": "https://cdn/x/manifest.json"})", true,
        "https://cdn/x/manifest.json", "https://cdn/x/");
    row("no slash: base is the whole URL", R"({"manifestUrl": "manifest.json"})", true, "manifest.json", "manifest.json");
    row("slash only at 0: base is the whole URL", R"({"manifestUrl": "/m.json"})", true, "/m.json", "/m.json");
    row("slash at 1", R"({"manifestUrl": "a/m.json"})", true, "a/m.json", "a/");
    row("backslashes are no separators", R"({"manifestUrl": "http://h/a\\b\\m.json"})", true, "http://h/a\\b\\m.json",
        "http://h/");
    row("empty baseUrl derived", R"({"manifestUrl": "http://h/x/m.json", "baseUrl": ""})", true, "http://h/x/m.json",
        "http://h/x/");
    row("baseUrl gets a slash", R"({"manifestUrl": "m", "baseUrl": "http://cdn/files"})", true, "m", "http://cdn/files/");
    row("baseUrl with a slash kept", R"({"manifestUrl": "m", "baseUrl": "http://cdn/f/"})", true, "m", "http://cdn/f/");
    row("trailing backslash is no slash", R"({"manifestUrl": "m", "baseUrl": "b\\"})", true, "m", "b\\/");
    row("nothing trimmed", R"({"manifestUrl": " http://h/x/m ", "baseUrl": " "})", true, " http://h/x/m ", " /");
    row("64 KiB", R"({"manifestUrl": "http://h/x/m"})" + QByteArray(65536 - 31, ' '), true, "http://h/x/m", "http://h/x/");
    row("beyond 64 KiB", R"({"manifestUrl": "http://h/x/m"})" + QByteArray(65537 - 31, ' '), false, "-", "-");
    row("empty manifestUrl, baseUrl as read", R"({"manifestUrl": "", "baseUrl": "http://cdn/f"})", false, "",
        "http://cdn/f");
    row("numeric manifestUrl", R"({"manifestUrl": 42, "baseUrl": "b"})", false, "", "b");
    row("malformed JSON", R"({"manifestUrl": "http://h/m.json",)", false, "", "");
}

void TestUpdaterConfig::read()
{
    QFETCH(QByteArray, conf);
    QFETCH(bool, ok);
    QFETCH(QString, manifestUrl);
    QFETCH(QString, baseUrl);
    QTemporaryDir dir;
    QFile file(dir.filePath("updater.conf"));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(conf) == conf.size());
    file.close();
    QString manifest = "-";
    QString base = "-";
    QCOMPARE(readUpdaterConfig(dir.path(), manifest, base), ok);
    QCOMPARE(manifest, manifestUrl);
    QCOMPARE(base, baseUrl);
}

QTEST_GUILESS_MAIN(TestUpdaterConfig)
#include "tst_updater_config.moc"
