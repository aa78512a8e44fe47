#pragma once
// The fuzzed entry points: each takes one input, runs it through a piece of the updater that
// reads untrusted data, and checks what must hold for any input. A broken rule aborts the
// process, which libFuzzer (and the corpus suite) report as a crash.
#include <cstddef>
#include <cstdint>

// Manifest bytes: a parsed manifest has safe, normalised paths, lower-case hashes, a version.
int fuzzParseManifest(const uint8_t* data, size_t size);
// A path (UTF-8): the result is empty or a normalised relative path that stays below its root.
int fuzzSafeRelativePath(const uint8_t* data, size_t size);
// The bytes of updater.conf, written to a temporary directory.
int fuzzReadUpdaterConfig(const uint8_t* data, size_t size);
// Manifest bytes, a NUL byte, signature text; without a NUL the whole input is the signature
// of a fixed manifest.
int fuzzVerifyManifestSignature(const uint8_t* data, size_t size);
// One line per entry of a temporary installation tree: a kind letter and a relative path
// ("f" file, "d" directory, "l" link to a directory outside the tree, "m" link to a file
// outside it). The repair of an interrupted apply then walks the tree: it may only delete or
// rename files inside it, and never touch what lies outside.
int fuzzRepairWalk(const uint8_t* data, size_t size);

// An artifact: the first byte picks a compressed file (even) or a patch against a fixed source
// of 8000 bytes (odd), the next two the expected size (little endian, plus one), the rest is
// the zstd data. The decoder never hands on more than that size, and succeeds only with exactly
// that many bytes.
int fuzzDecodeArtifact(const uint8_t* data, size_t size);

// Targets by name, for the corpus suite and the fuzzers' main.
using FuzzEntry = int (*)(const uint8_t*, size_t);
struct FuzzTarget {
    const char* name;  // also the corpus directory's name
    FuzzEntry entry;
};
extern const FuzzTarget kFuzzTargets[6];
