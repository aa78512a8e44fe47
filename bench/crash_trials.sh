#!/usr/bin/env bash
# Crash-consistency bench: kills the updater with SIGKILL at moments spread over an apply of
# build 1 to build 2, checks what it left, runs it again and checks the result.
#   bench/crash_trials.sh [trials=500] [seed]
# BUILD_DIR selects the build tree (default: build). The updaters' own output goes to
# $BUILD_DIR/crash_trials.stderr; the summary (trials, violations, where the kills landed)
# ends the standard output. Exit status 1 when any trial found a violation.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
trials=${1:-500}
seed=${2:-}

cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --target updater crash_trials
"$build/bin/tests/crash_trials" "$trials" $seed 2>"$build/crash_trials.stderr"
