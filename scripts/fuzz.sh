#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (CORV_FUZZ=ON, build tree build-fuzz, only the
# libraries they need) and runs each for the given number of seconds (default 60), as many at
# once as there are cores.
#   scripts/fuzz.sh [seconds]
#   scripts/fuzz.sh --build-only
#   scripts/fuzz.sh --no-build [seconds]
# Seeds come from tests/fuzz/corpus/<target>/ and are only read; what the fuzzer finds goes to
# build-fuzz/corpus/<target>/, crashes to build-fuzz/crashes/<target>/ (add each one to
# tests/fuzz/regressions/<target>/ once fixed). Exit status 1 when any target crashed.
set -euo pipefail
cd "$(dirname "$0")/.."
build_step=true run_step=true
case ${1:-} in
  --build-only) run_step=false; shift ;;
  --no-build) build_step=false; shift ;;
esac
seconds=${1:-60}
build=${FUZZ_BUILD_DIR:-build-fuzz}
targets=(manifest safe_path config signature repair_walk artifact)

if $build_step; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
        -DCORV_FUZZ=ON -DBUILD_TESTING=OFF >/dev/null
  cmake --build "$build" --target corv_fuzzers
fi
$run_step || exit 0

export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$PWD/tests/sanitizer/lsan.supp:print_suppressions=0}

# One target: its log in $build/fuzz_<target>.log, "ok" or "CRASH" in $build/fuzz_<target>.result.
fuzz_one() {
  local t=$1 log="$build/fuzz_$1.log" unwind=1
  mkdir -p "$build/corpus/$t" "$build/crashes/$t"
  # The JSON targets meet Qt's own leak (see tests/sanitizer/lsan.supp), whose suppression
  # needs whole allocation stacks; the others keep the fast unwinder.
  [[ $t == manifest || $t == config ]] && unwind=0
  if ASAN_OPTIONS=${ASAN_OPTIONS:-fast_unwind_on_malloc=$unwind} "$build/bin/fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$build/crashes/$t/" "$build/corpus/$t" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
    echo ok >"$build/fuzz_$t.result"
  else
    echo CRASH >"$build/fuzz_$t.result"
  fi
}

running=0
for t in "${targets[@]}"; do
  echo "== fuzz_$t for ${seconds}s"
  fuzz_one "$t" &
  running=$((running + 1))
  if ((running >= $(nproc))); then
    wait -n || true
    running=$((running - 1))
  fi
done
wait

failed=0
summary=()
for t in "${targets[@]}"; do
  log="$build/fuzz_$t.log"
  result=$(cat "$build/fuzz_$t.result" 2>/dev/null || echo CRASH)
  if [[ $result != ok ]]; then
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
