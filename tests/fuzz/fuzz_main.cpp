// libFuzzer entry of one target, chosen by CORV_FUZZ_ENTRY at build time.
#include "fuzz_targets.h"

#include <QCoreApplication>

namespace {

void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // The updater's code logs through Qt; millions of lines would only slow the fuzzer down.
    qInstallMessageHandler(quiet);
    static QCoreApplication app(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return CORV_FUZZ_ENTRY(data, size);
}
