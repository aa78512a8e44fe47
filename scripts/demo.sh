#!/usr/bin/env bash
# The updater at work, end to end on this machine: builds the updater and corvanta-publish,
# publishes a small demo build 1 and build 2 signed with the development key (build 2 with zstd
# patches against build 1), serves them with nginx on 127.0.0.1, installs build 1 into a
# temporary installation and lets the updater bring it to build 2 with its status window on
# screen (under Xvfb when there is no display), then shows the bytes the patches saved.
# Everything it starts or creates is removed again when it ends; it can be run any number of
# times in a row.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD

source scripts/lib/ensure_packages.sh
ensure_packages cmake ninja-build g++ pkg-config qtbase5-dev libssl-dev libzstd-dev python3 nginx-light xvfb \
                xauth fonts-dejavu-core

build=${BUILD_DIR:-build}
case $build in /*) ;; *) build=$source_dir/$build ;; esac
echo "== building the updater and corvanta-publish in $build"
cmake -S . -B "$build" -G Ninja ${CMAKE_ARGS:-} >/dev/null
cmake --build "$build" --target updater corvanta-publish | tail -n 1
publish_tool=$build/bin/corvanta-publish
updater_exe=$build/bin/updater

work=$(mktemp -d "${TMPDIR:-/tmp}/corvanta-demo.XXXXXX")
nginx_pid=
cleanup() {
  if [ -n "$nginx_pid" ] && kill -0 "$nginx_pid" 2>/dev/null; then
    kill "$nginx_pid"
    wait "$nginx_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Two builds of a small application: build 2 changes three files, keeps one, adds one. The
# application and its core library are 2 MB of bytes that do not compress, of which build 2
# changes a few kB, as a rebuilt binary would: what the patches are for.
make_build() {  # make_build DIR NUMBER
  local dir=$1 n=$2
  mkdir -p "$dir/bin" "$dir/data"
  python3 - "$dir" "$n" <<'PY'
import random, sys
d, n = sys.argv[1], int(sys.argv[2])
for name, size, seed in (("Corvanta.exe", 1200000, 1), ("bin/core.dll", 800000, 2)):
    data = bytearray(random.Random(seed).randbytes(size))
    data[size // 3:size // 3 + 3000 * n] = random.Random(seed * 10 + n).randbytes(3000 * n)
    open(f"{d}/{name}", "wb").write(f"build {n}\n".encode() + bytes(data))
PY
  echo "this file is the same in every build" > "$dir/bin/shared.dll"
  printf 'Corvanta %s.0.0\n' "$n" > "$dir/data/readme.txt"
  if [ "$n" = 2 ]; then
    mkdir -p "$dir/plugins"
    echo "a plugin that build 2 adds" > "$dir/plugins/export.dll"
  fi
}
make_build "$work/build1" 1
make_build "$work/build2" 2

# nginx runs as this user in one foreground process, with everything inside the work directory.
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
www=$work/www/corvanta
mkdir -p "$www" "$work/nginx/tmp"
cat > "$work/nginx/nginx.conf" <<EOF
daemon off;
master_process off;
pid "$work/nginx/nginx.pid";
error_log "$work/nginx/error.log";
events { worker_connections 64; }
http {
    default_type application/octet-stream;
    access_log "$work/nginx/access.log";
    client_body_temp_path "$work/nginx/tmp/body";
    proxy_temp_path "$work/nginx/tmp/proxy";
    fastcgi_temp_path "$work/nginx/tmp/fastcgi";
    uwsgi_temp_path "$work/nginx/tmp/uwsgi";
    scgi_temp_path "$work/nginx/tmp/scgi";
    server {
        listen 127.0.0.1:$port;
        root "$work/www";
        # Slowed down like a real connection, so that the status window stays up for a few seconds.
        limit_rate 200k;
    }
}
EOF
/usr/sbin/nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" -e "$work/nginx/error.log" &
nginx_pid=$!
for _ in $(seq 50); do
  python3 -c "import socket; socket.create_connection(('127.0.0.1', $port), 0.2)" 2>/dev/null && break
  kill -0 "$nginx_pid" 2>/dev/null || { cat "$work/nginx/error.log" >&2; exit 1; }
  sleep 0.1
done
base_url="http://127.0.0.1:$port/corvanta/"
echo "== nginx serves $work/www at http://127.0.0.1:$port/"

publish() {  # publish VERSION BUILD_NUMBER INPUT [OPTION...]
  local version=$1 number=$2 input=$3
  shift 3
  echo "\$ corvanta-publish build --input ${input#"$work"/} --out www/corvanta --version $version --build-number $number --key keys/dev_private.pem${*:+ ${*//"$work"\//}}"
  "$publish_tool" build --input "$input" --out "$www" --version "$version" --build-number "$number" \
    --key "$source_dir/keys/dev_private.pem" "$@" | sed 's/^/  /'
}

echo "== publishing build 1"
publish 1.0.0 1 "$work/build1"
# Fails with a clear report if this build of the updater trusts another key (CORV_PUBLIC_KEY_FILE).
"$publish_tool" verify --dir "$www" | sed 's/^/  /'

install=$work/install
echo "== installing build 1 into $install"
cp -r "$work/build1" "$install"
cp "$www/manifest.json" "$install/manifest.json"
cp "$updater_exe" "$install/updater"
printf '{ "manifestUrl": "%smanifest.json" }\n' "$base_url" > "$install/updater.conf"
sed 's/^/  updater.conf: /' "$install/updater.conf"

echo "== publishing build 2 over build 1, with patches from build 1 (files first, manifest.json and its signature last)"
publish 2.0.0 2 "$work/build2" --delta-from "$www"

# The updater's named locks live in this run's own directory, apart from any other Corvanta.
export XDG_RUNTIME_DIR=$work/run
mkdir -m 700 "$XDG_RUNTIME_DIR"
requests_before=$(wc -l < "$work/nginx/access.log")
if [ -n "${DISPLAY:-}" ]; then
  echo "== running the updater on display $DISPLAY"
  "$install/updater"
else
  echo "== running the updater under Xvfb (no display here), status window included"
  xvfb-run -a -s "-screen 0 1280x800x24" "$install/updater"
fi

echo "== what the updater asked nginx for (method, path, status, body bytes)"
tail -n +"$((requests_before + 1))" "$work/nginx/access.log" | awk '{print "  " $6, $7, $9, $10}' | tr -d '"'
echo "== updater.log"
sed 's/^/  /' "$install/updater.log"

echo "== bytes saved"
sent=$(tail -n +"$((requests_before + 1))" "$work/nginx/access.log" | awk '$7 !~ /manifest\.json/ {s += $10} END {print s + 0}')
whole=0
for f in $(cd "$work/build2" && find . -type f | sort); do
  cmp -s "$work/build1/$f" "$work/build2/$f" 2>/dev/null || whole=$((whole + $(stat -c %s "$work/build2/$f")))
done
echo "  nginx sent $sent bytes of files and patches; the changed files whole are $whole bytes" \
     "($(awk -v s="$sent" -v w="$whole" 'BEGIN { printf "%.1f", 100 - 100 * s / w }')% saved)"

echo "== checking the installation against build 2"
outcome="not updated"
grep -q 'CAP NHAT THANH CONG -> "2.0.0"' "$install/updater.log" && outcome="updated to 2.0.0"
echo "  outcome: $outcome"
ok=true
for f in $(cd "$work/build2" && find . -type f | sort); do
  if cmp -s "$work/build2/$f" "$install/$f"; then
    echo "  same as build 2: ${f#./}"
  else
    echo "  DIFFERS from build 2: ${f#./}"
    ok=false
  fi
done
if cmp -s "$www/manifest.json" "$install/manifest.json"; then
  echo "  manifest.json is the published one"
else
  echo "  manifest.json DIFFERS from the published one"
  ok=false
fi
if [ -e "$install/.staging" ]; then
  echo "  .staging was left behind"
  ok=false
fi

if [ "$outcome" = "updated to 2.0.0" ] && $ok; then
  echo "== demo succeeded: the installation went from build 1 to build 2 through nginx"
else
  echo "== demo FAILED" >&2
  exit 1
fi
