// fuzz_corpus DIR: every seed below DIR/corpus/<target> and every input that once broke a rule
// (DIR/regressions/<target>) runs through its fuzz target; a broken rule aborts the run after
// the input's path was printed. Each target needs three inputs at least.
#include "fuzz_targets.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QFile>
#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    int failures = 0;
    for (const FuzzTarget& target : kFuzzTargets) {
        int inputs = 0;
        for (const char* folder : { "corpus", "regressions" }) {
            QDirIterator it(QStringLiteral("%1/%2/%3").arg(app.arguments().value(1), folder, target.name), QDir::Files);
            for (; it.hasNext(); ++inputs) {
                QFile file(it.next());
                const QByteArray data = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
                std::printf("%s\n", qPrintable(file.fileName()));
                std::fflush(stdout);
                target.entry(reinterpret_cast<const uint8_t*>(data.constData()), size_t(data.size()));
            }
        }
        std::printf("%s: %d inputs\n", target.name, inputs);
        failures += inputs < 3;
    }
    return failures == 0 ? 0 : 1;
}
