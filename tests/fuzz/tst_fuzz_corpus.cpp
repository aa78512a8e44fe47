// Every seed of the fuzz corpora and every input that once broke a rule (tests/fuzz/regressions)
// runs through its fuzz target in the ordinary build: a broken rule aborts this suite.
#include "fuzz_targets.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QtTest>

#include <iterator>

class TestFuzzCorpus : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void input_data();
    void input();
};

void TestFuzzCorpus::initTestCase()
{
    // The targets log what the updater logs; only a broken rule matters here.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
}

void TestFuzzCorpus::input_data()
{
    QTest::addColumn<int>("target");
    QTest::addColumn<QString>("path");
    int inputs = 0;
    for (int t = 0; t < int(std::size(kFuzzTargets)); ++t) {
        int seeds = 0;
        for (const char* folder : {"corpus", "regressions"}) {
            const QString dir = QStringLiteral(CORV_FUZZ_DIR "/%1/%2").arg(QLatin1String(folder), QLatin1String(kFuzzTargets[t].name));
            QDirIterator it(dir, QDir::Files);
            while (it.hasNext()) {
                const QString path = it.next();
                QTest::newRow(qPrintable(QStringLiteral("%1/%2").arg(QLatin1String(kFuzzTargets[t].name), it.fileName())))
                    << t << path;
                ++seeds;
            }
        }
        QVERIFY2(seeds >= 3, kFuzzTargets[t].name);
        inputs += seeds;
    }
    QVERIFY(inputs > 0);
}

void TestFuzzCorpus::input()
{
    QFETCH(int, target);
    QFETCH(QString, path);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray data = file.readAll();
    QCOMPARE(kFuzzTargets[target].entry(reinterpret_cast<const uint8_t*>(data.constData()), size_t(data.size())), 0);
}

QTEST_GUILESS_MAIN(TestFuzzCorpus)
#include "tst_fuzz_corpus.moc"
