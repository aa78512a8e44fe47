// Holds named mutexes for other tests' processes: lock_holder [NAME...]
// Takes every NAME, prints "held" and keeps them until its standard input closes or it is
// killed. Prints "busy" and exits 1 when a name is already held. Without names it is simply
// a process that stays alive until its standard input closes.
#include "platform/named_mutex.h"

#include <cstdio>
#include <vector>

int main(int argc, char** argv)
{
    std::vector<corv::platform::NamedMutex> held;
    for (int i = 1; i < argc; ++i) {
        bool alreadyExisted = false;
        corv::platform::NamedMutex mutex = corv::platform::createNamedMutex(argv[i], &alreadyExisted);
        if (mutex.isNull() || alreadyExisted) {
            std::printf("busy\n");
            std::fflush(stdout);
            return 1;
        }
        held.push_back(std::move(mutex));
    }
    std::printf("held\n");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    for (auto& mutex : held)
        mutex.releaseAndClose();
    return 0;
}
