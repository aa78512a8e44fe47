#!/usr/bin/env bash
# Installs what is missing (as root, with apt-get), builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/lib/ensure_packages.sh
ensure_packages cmake ninja-build g++ pkg-config qtbase5-dev libssl-dev python3 xvfb xauth \
                fonts-dejavu-core x11-utils xdotool strace time nginx-light openssl \
                g++-mingw-w64-x86-64 wine wine64 python3-pefile rsync curl clang libclang-rt-14-dev

build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja ${CMAKE_ARGS:-}
cmake --build "$build"

# Every libFuzzer target for a few seconds, from the seed corpora in tests/fuzz/corpus.
scripts/fuzz.sh "${FUZZ_SECONDS:-10}"

# Many suites wait on real timers and processes rather than the CPU, so run more than one per core.
ctest --test-dir "$build" --output-on-failure -j "$(( $(nproc) * 2 ))" ${CTEST_ARGS:-}
