#pragma once
// The fuzzed entry points, by name (also their corpus directories' names). Each runs one input
// through a piece of the updater that reads untrusted data and checks what must hold for any
// input; a broken rule aborts the process, which libFuzzer and the corpus run report.
#include <cstddef>
#include <cstdint>

struct FuzzTarget {
    const char* name;
    int (*entry)(const uint8_t* data, size_t size);
};
extern const FuzzTarget kFuzzTargets[6];
