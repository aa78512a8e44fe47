#!/usr/bin/env bash
# Installs what is missing (as root, with apt-get), builds, and runs the whole test suite: once
# in the normal build, then the Windows pass (updater.exe under Wine, below), then once more
# built with AddressSanitizer and UndefinedBehaviorSanitizer (SANITIZE=0 leaves that pass out),
# and last the fuzz targets.
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/lib/ensure_packages.sh
ensure_packages cmake ninja-build g++ pkg-config qtbase5-dev libssl-dev libzstd-dev zstd python3 xvfb xauth \
                fonts-dejavu-core x11-utils xdotool strace time nginx-light openssl \
                g++-mingw-w64-x86-64 wine wine64 python3-pefile rsync curl clang libclang-rt-14-dev

# Each step names itself with the time since the start, so a slow run shows where it went.
step() { echo "==== $1 (at $((SECONDS / 60))m$((SECONDS % 60))s)"; }
# On the way out, also when a step failed: the builds still running in the background stop.
finish() {
  local status=$?
  if [[ -n ${background_pid:-} ]]; then
    kill -- "-$background_pid" 2>/dev/null || true
  fi
  step "end, exit status $status"
}
trap finish EXIT

build=${BUILD_DIR:-build}
step build
cmake -S . -B "$build" -G Ninja ${CMAKE_ARGS:-}
cmake --build "$build"

# The Windows pass runs when the toolchain of scripts/windows-toolchain.sh is in its cache;
# WINDOWS=1 builds the toolchain first (30-90 minutes, once), WINDOWS=0 leaves the pass out.
toolchain=${CORVANTA_WINDOWS_TOOLCHAIN:-$HOME/.cache/corvanta-windows-toolchain}
windows=false
if [[ ${WINDOWS:-} == 1 || ( ${WINDOWS:-} != 0 && -f $toolchain/prefix/toolchain.complete ) ]]; then
  windows=true
  [[ ${WINDOWS:-} == 1 ]] && step "Windows toolchain" && scripts/windows-toolchain.sh
fi
sanitize=$([[ ${SANITIZE:-1} != 0 ]] && echo true || echo false)

# The other builds (updater.exe, the fuzz targets, the sanitizer build) compile one after the
# other at the lowest priority while the tests run: the tests mostly wait on timers, processes
# and the network, and have the CPU whenever they want it. Each build leaves its log and, when
# it ends, its exit status in $stages.
stages=$build/stages
rm -rf "$stages" && mkdir -p "$stages"
stage() {  # name command...
  local name=$1
  shift
  "$@" >"$stages/$name.log" 2>&1
  echo $? >"$stages/$name.status"
}
await() {  # name: waits for that build, and stops with its log when it failed
  while [[ ! -f $stages/$1.status ]]; do sleep 1; done
  if [[ $(cat "$stages/$1.status") != 0 ]]; then
    cat "$stages/$1.log"
    echo "the $1 build failed" >&2
    exit 1
  fi
}
set -m  # the background builds in a process group of their own, which finish() ends
(
  set +e
  renice -n 19 -p "$BASHPID" >/dev/null  # inherited by every process it starts
  if $windows; then
    stage windows bash -c "cmake -S . -B '$build-win' -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
      -DBUILD_TESTING=OFF && cmake --build '$build-win'"
  fi
  # The sanitizer build before the fuzz targets: its pass takes longest, the fuzzing comes last.
  if $sanitize; then
    stage sanitizer bash -c "cmake -S . -B '$build-asan' -G Ninja -DCORV_SANITIZE=ON ${CMAKE_ARGS:-} \
      && cmake --build '$build-asan'"
  fi
  stage fuzz scripts/fuzz.sh --build-only
) </dev/null &
background_pid=$!
set +m

# Many suites wait on real timers and processes rather than the CPU, so run more than one per core.
jobs=$(( $(nproc) * 2 ))
step tests
ctest --test-dir "$build" --output-on-failure -j "$jobs" ${CTEST_ARGS:-}

# The Windows pass: updater.exe cross-built against the static Qt and OpenSSL of
# scripts/windows-toolchain.sh, its image checked, and the black-box rows that the native pass
# ran against build/bin/updater run again against updater.exe under Wine.
if $windows; then
  step "Windows rows"
  await windows
  # pefile is Debian's python3-pefile, so Debian's interpreter.
  /usr/bin/python3 tests/windows/check_resources.py --exe "$build-win/bin/updater.exe"
  python3 tests/blackbox/updater_blackbox.py --target wine --updater "$build-win/bin/updater.exe" \
      --publish "$build/bin/corvanta-publish" --helper "$build/tests/windows/win32_test_helper.exe" \
      --scratch "$build-win/blackbox"
else
  echo "== Windows pass skipped: no toolchain in $toolchain (WINDOWS=1 scripts/test.sh builds it, 30-90 minutes once)"
fi

# The same suite again, every program of it instrumented: a memory error, a leak of our own or
# undefined behaviour ends the process that has it, and so fails its suite. Each report is also
# a file in sanitizer-reports, so one from a process that no test checks the exit of (a run
# killed on purpose) fails the pass too. A file without a finding is only printed: a process
# killed while its exit-time leak check runs leaves the checker's "Unable to get registers
# from thread N" there, which says nothing about our code.
if $sanitize; then
    step "sanitizer tests"
    await sanitizer
    reports="$build-asan/sanitizer-reports"
    rm -rf "$reports" && mkdir -p "$reports"
    status=0
    # The benchmark smoke run and the crash trials (processes killed on purpose) ran in the
    # normal build; here they would only take time.
    ctest --test-dir "$build-asan" --output-on-failure -j "$jobs" -LE 'bench|reliability' ${CTEST_ARGS:-} \
        || status=$?
    findings=0
    for report in "$reports"/*; do
        [[ -e $report ]] || continue
        if grep -qE 'ERROR: |runtime error|CHECK failed' "$report"; then
            echo "==== sanitizer report $report"
            findings=$((findings + 1))
        else
            echo "==== sanitizer note (no finding) $report"
        fi
        cat "$report"
    done
    if (( findings > 0 )); then
        echo "sanitizer reports with findings: $findings" >&2
        exit 1
    fi
    (( status == 0 )) || exit "$status"
fi

# Every libFuzzer target for a few seconds, from the seed corpora in tests/fuzz/corpus.
step fuzzing
await fuzz
scripts/fuzz.sh --no-build "${FUZZ_SECONDS:-10}"
