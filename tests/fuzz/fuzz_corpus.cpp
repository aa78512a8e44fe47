// fuzz_corpus DIR: runs every seed (DIR/corpus/<target>) and every input that once broke a rule
// (DIR/regressions/<target>) through its target, printing its path first; each target needs
// three inputs at least.
#include <QCoreApplication>
#include <QDirIterator>
#include <cstdio>

struct FuzzTarget { // of fuzz_targets.cpp
    const char* name;
    int (*entry)(const uint8_t* data, size_t size);
};
extern const FuzzTarget kFuzzTargets[6];

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    int failures = 0;
    for (const FuzzTarget& target : kFuzzTargets) {
        int inputs = 0;
        for (const char* folder : { "corpus", "regressions" })
            for (QDirIterator it(QString("%1/%2/%3").arg(argv[1], folder, target.name), QDir::Files); it.hasNext(); ++inputs) {
                QFile file(it.next());
                const QByteArray data = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
                std::printf("%s\n", qPrintable(file.fileName()));
                std::fflush(stdout);
                target.entry(reinterpret_cast<const uint8_t*>(data.constData()), size_t(data.size()));
            }
        std::printf("%s: %d inputs\n", target.name, inputs);
        failures += inputs < 3;
    }
    return failures == 0 ? 0 : 1;
}
