#pragma once
// The fuzzed entry points by name (also their corpus directories' names): each runs one input
// through a reader of untrusted data and aborts when a rule that must hold for any input breaks.
#include <cstddef>
#include <cstdint>

struct FuzzTarget {
    const char* name;
    int (*entry)(const uint8_t* data, size_t size);
};
extern const FuzzTarget kFuzzTargets[6];
