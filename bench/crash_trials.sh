#!/usr/bin/env bash
# Crash-consistency bench: kills the updater with SIGKILL at moments spread over an apply of
# build 1 to build 2, checks what it left, runs it again and checks the result.
#   bench/crash_trials.sh [trials=500] [seed]
# BUILD_DIR selects the build tree (default: build). One line per trial, then the problems
# found and where the kills landed. Exit status 1 when any trial found a violation.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --target updater corvanta-publish
/usr/bin/python3 tests/reliability/apply_durability.py --updater "$build/bin/updater" \
  --publish "$build/bin/corvanta-publish" --scratch "$build/crash_trials" crash --trials "${1:-500}" \
  --large-mib 16 12 8 24 ${2:+--seed "$2"}
