#!/usr/bin/env bash
# Benchmarks of the updater against the physical limit of the same work, measured side by side
# in one run on this machine: apply of a 1 GiB installation through nginx on 127.0.0.1 beside
# curl + openssl dgst + cp, no-op runs beside sha256sum and openssl, scaling with the number of
# files, streaming memory, prefetch rate, resume, and rsync --checksum as a peer.
#
#   bench/run.sh                 full run (about 20 minutes, about 15 GB of data), writes
#                                bench/RESULTS.md and bench/results.json
#   bench/run.sh --smoke         tiny sizes, one repetition, under 30 s; checks that every step
#                                still works (ctest label "bench")
#   bench/run.sh --small-updates LibreOffice u13 -> u14 from Debian, published whole, compressed and
#                                patched (about 10 minutes the first time, most of it publishing);
#                                writes bench/results-small-updates.json and renders RESULTS.md again
#   bench/run.sh --small-updates --pair firefox
#                                the same for Firefox ESR 140 -> 153 (about 40 minutes the first
#                                time); writes bench/results-small-updates-firefox.json
#   bench/run.sh --small-updates --links-only
#                                only the applies through the 8 MiB/s and 50 Mbit/s links, into
#                                the results of an earlier run of the pair
#   bench/run.sh --prefetch-cap  only item 5c, the prefetch's cap as nginx's side sees it (20 runs
#                                of a 4 MiB file, 20 of 70 small files; about 12 minutes); kept per
#                                commit in bench/results-prefetch-cap.json, RESULTS.md rendered
#                                again (BENCH_SOURCE names the build given with --updater)
#
# Options: --data-dir DIR (generated builds, reused between runs; default $BUILD_DIR/benchdata),
# --out FILE (the Markdown report), --only 1,3 (items), --reps N (instead of 5),
# --profile (perf profile of one apply),
# --prepare-only (generate and publish the data sets, measure nothing),
# --updater EXE --publish EXE --qnam-fetch EXE (use these programs instead of building them in
# $BUILD_DIR).
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD

smoke=false
small_updates=false
prefetch_cap=false
pair=libreoffice
links_only=
data_dir=
out=
only=
reps=
profile=false
prepare=false
updater=
publish=
qnam_fetch=
while (($#)); do
  case $1 in
    --smoke) smoke=true ;;
    --small-updates) small_updates=true ;;
    --prefetch-cap) prefetch_cap=true ;;
    --pair) pair=$2; shift ;;
    --links-only) links_only=--links-only ;;
    --data-dir) data_dir=$2; shift ;;
    --out) out=$2; shift ;;
    --only) only=$2; shift ;;
    --reps) reps=$2; shift ;;
    --profile) profile=true ;;
    --prepare-only) prepare=true ;;
    --updater) updater=$2; shift ;;
    --publish) publish=$2; shift ;;
    --qnam-fetch) qnam_fetch=$2; shift ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "unknown option $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done

packages=(nginx-light curl openssl rsync strace time python3 coreutils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
$profile && ! command -v perf >/dev/null && missing+=(linux-perf)
if ((${#missing[@]})); then
  if [ "$(id -u)" = 0 ]; then
    echo "== installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  else
    echo "missing packages: ${missing[*]} (run as root, or install them with apt-get)" >&2
    exit 1
  fi
fi

build=${BUILD_DIR:-build}
case $build in /*) ;; *) build=$source_dir/$build ;; esac
if [ -z "$updater" ] || [ -z "$publish" ] || [ -z "$qnam_fetch" ] || $small_updates; then
  echo "== building the updater, corvanta-publish and the bench programs in $build"
  cmake -S . -B "$build" -G Ninja ${CMAKE_ARGS:-} >/dev/null
  cmake --build "$build" --target updater corvanta-publish decode_artifact qnam_fetch | tail -n 1
  updater=${updater:-$build/bin/updater}
  publish=${publish:-$build/bin/corvanta-publish}
  qnam_fetch=${qnam_fetch:-$build/bin/bench/qnam_fetch}
fi

# Which sources were measured: the commit, and whether the checkout had changes to them.
source_state=${BENCH_SOURCE:-unknown}
if [ -z "${BENCH_SOURCE:-}" ] && git rev-parse --git-dir >/dev/null 2>&1; then
  source_state="commit $(git rev-parse --short HEAD)"
  git diff --quiet HEAD -- src CMakeLists.txt || source_state+=" with uncommitted changes in src/"
fi
args=(--updater "$updater" --publish "$publish" --qnam-fetch "$qnam_fetch" --key "$source_dir/keys/dev_private.pem" --source "$source_state")
$smoke || args+=(--cap-json "$source_dir/bench/results-prefetch-cap.json")
[ -n "$only" ] && args+=(--only "$only")
[ -n "$reps" ] && args+=(--reps "$reps")
$profile && args+=(--profile)
if $small_updates; then
  out=${out:-$source_dir/bench/RESULTS.md}
  data_dir=${data_dir:-$build/benchdata}
  mkdir -p "$data_dir"
  suffix=$([ "$pair" = libreoffice ] || echo "-$pair")
  python3 -B "$source_dir/bench/small_updates.py" --pair "$pair" --data-dir "$data_dir" --updater "$updater" \
    --publish "$publish" --decoder "$build/bin/bench/decode_artifact" --key "$source_dir/keys/dev_private.pem" \
    --source "$source_state" --json "$(dirname "$out")/results-small-updates$suffix.json" ${reps:+--reps "$reps"} $links_only
  python3 -B "$source_dir/bench/report.py" "$(dirname "$out")/results.json" "$out"
  echo "== figures in $out"
  exit 0
fi
if $prefetch_cap; then
  data_dir=${data_dir:-$build/benchdata}
  mkdir -p "$data_dir"
  python3 -B "$source_dir/bench/bench.py" --data-dir "$data_dir" --json "$data_dir/results-5c.json" "${args[@]}" \
    --only 5c
  python3 -B "$source_dir/bench/report.py" "$source_dir/bench/results.json" "${out:-$source_dir/bench/RESULTS.md}"
  echo "== figures in ${out:-$source_dir/bench/RESULTS.md}"
  exit 0
fi
if $smoke; then
  tmp=$(mktemp -d "${TMPDIR:-/tmp}/corvanta-bench.XXXXXX")
  trap 'rm -rf "$tmp"' EXIT
  exec_status=0
  python3 -B "$source_dir/bench/bench.py" --smoke --data-dir "$tmp" --json "$tmp/results.json" "${args[@]}" \
    || exec_status=$?
  [ -n "$out" ] && python3 -B "$source_dir/bench/report.py" "$tmp/results.json" "$out"
  exit $exec_status
fi

data_dir=${data_dir:-$build/benchdata}
if $prepare; then
  mkdir -p "$data_dir"
  exec nice python3 -B "$source_dir/bench/bench.py" --prepare-only --data-dir "$data_dir" "${args[@]}"
fi
out=${out:-$source_dir/bench/RESULTS.md}
json=${out%.md}.json
[ "$json" = "$out" ] && json=$out.json
[ "$(basename "$out")" = RESULTS.md ] && json=$(dirname "$out")/results.json
mkdir -p "$data_dir"
python3 -B "$source_dir/bench/bench.py" --data-dir "$data_dir" --json "$json" "${args[@]}"
python3 -B "$source_dir/bench/report.py" "$json" "$out"
echo "== figures in $out (every measurement in $json)"
