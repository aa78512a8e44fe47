#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (CORV_FUZZ=ON, build tree build-fuzz, only the
# libraries they need) and runs each for the given number of seconds (default 60).
#   scripts/fuzz.sh [seconds]
# Seeds come from tests/fuzz/corpus/<target>/ and are only read; what the fuzzer finds goes to
# build-fuzz/corpus/<target>/, crashes to build-fuzz/crashes/<target>/ (add each one to
# tests/fuzz/regressions/<target>/ once fixed). Exit status 1 when any target crashed.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=${FUZZ_BUILD_DIR:-build-fuzz}
targets=(manifest safe_path config signature repair_walk artifact)

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
      -DCORV_FUZZ=ON -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" --target corv_fuzzers

export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$PWD/tests/sanitizer/lsan.supp:print_suppressions=0}

failed=0
summary=()
for t in "${targets[@]}"; do
  mkdir -p "$build/corpus/$t" "$build/crashes/$t"
  log="$build/fuzz_$t.log"
  echo "== fuzz_$t for ${seconds}s"
  # The JSON targets meet Qt's own leak (see tests/sanitizer/lsan.supp), whose suppression
  # needs whole allocation stacks; the others keep the fast unwinder.
  unwind=1
  [[ $t == manifest || $t == config ]] && unwind=0
  if ASAN_OPTIONS=${ASAN_OPTIONS:-fast_unwind_on_malloc=$unwind} "$build/bin/fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$build/crashes/$t/" "$build/corpus/$t" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
    result=ok
  else
    result=CRASH
    failed=1
    tail -n 40 "$log"
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo '?')
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 | grep -o '[0-9]*' || echo '?')
  summary+=("$(printf '%-12s %-5s %10s runs in %ss, coverage %s' "$t" "$result" "$runs" "$seconds" "$cov")")
done
echo
printf '%s\n' "${summary[@]}"
exit $failed
