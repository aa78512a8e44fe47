// libFuzzer's entry for the target named by CORV_FUZZ_TARGET at build time.
#include "fuzz_targets.h"

#include <QCoreApplication>
#include <cstring>

static const FuzzTarget* target = nullptr;

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // The updater logs through Qt; millions of lines would only slow the fuzzer down.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    static QCoreApplication app(*argc, *argv);
    for (const FuzzTarget& each : kFuzzTargets)
        target = std::strcmp(each.name, CORV_FUZZ_TARGET) == 0 ? &each : target;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return target->entry(data, size); }
