// Holds named mutexes for other tests' processes:
//   lock_holder [--release-after MS | --exit-after MS] [NAME...]
// Takes every NAME, prints "held" and keeps them until its standard input closes or it is
// killed; with --release-after it releases them and exits after MS milliseconds, with
// --exit-after it ends after MS milliseconds without releasing anything (the system then
// drops or abandons the locks). Prints "busy" and exits 1 when a name is already held.
// Without names it is simply a process that stays alive as long as told.
#include "platform/named_mutex.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

int main(int argc, char** argv)
{
    long releaseAfterMs = -1;
    long exitAfterMs = -1;
    std::vector<corv::platform::NamedMutex> held;
    std::setvbuf(stdout, nullptr, _IONBF, 0);  // each answer reaches the waiting test at once
    for (int i = 1; i < argc; ++i) {
        const bool release = std::strcmp(argv[i], "--release-after") == 0;
        if ((release || std::strcmp(argv[i], "--exit-after") == 0) && i + 1 < argc) {
            (release ? releaseAfterMs : exitAfterMs) = std::atol(argv[++i]);
            continue;
        }
        bool alreadyExisted = false;
        held.push_back(corv::platform::createNamedMutex(argv[i], &alreadyExisted));
        if (held.back().isNull() || alreadyExisted) {
            std::puts("busy");
            return 1;
        }
    }
    std::puts("held");
    if (exitAfterMs >= 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(exitAfterMs));
        std::_Exit(0);
    }
    if (releaseAfterMs >= 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(releaseAfterMs));
    else
        while (std::getchar() != EOF) {
        }
    for (auto& mutex : held)
        mutex.releaseAndClose();
    return 0;
}
