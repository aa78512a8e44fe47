#!/usr/bin/env bash
# Builds the cross toolchain for updater.exe from Debian's sources: static OpenSSL (libcrypto,
# libssl), static libzstd and a static Qt 5.15 qtbase (Core, Gui, Network with OpenSSL linked in,
# Widgets, the windows and offscreen platform plugins) for x86_64-w64-mingw32 with the
# posix-threads compiler, plus Qt's host tools (qmake, moc, rcc, uic) for this machine.
#
# Everything goes into a cache directory outside the checkout, CORVANTA_WINDOWS_TOOLCHAIN
# (default ~/.cache/corvanta-windows-toolchain): sources in src/, build trees in build/, logs in
# logs/, the installed prefix in prefix/. Each step leaves a stamp in stamps/ and is skipped on the
# next run; prefix/toolchain.complete is written last, and when it is there nothing is rebuilt.
# A failed step prints its name, its exit code and the end of its log.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/ensure_packages.sh

cache=${CORVANTA_WINDOWS_TOOLCHAIN:-$HOME/.cache/corvanta-windows-toolchain}
prefix=$cache/prefix
complete=$prefix/toolchain.complete
host=x86_64-w64-mingw32
jobs=${JOBS:-2}

# A cache completed before libzstd was one of the steps goes on: the steps done are skipped.
if [[ -f $complete && -f $prefix/lib/libzstd.a ]]; then
  echo "toolchain already complete in $prefix"
  cat "$complete"
  exit 0
fi

mkdir -p "$cache"/{src,build,logs,stamps,wrap} "$prefix"
script_start=$SECONDS

# run_step NAME COMMAND...: runs COMMAND once (a stamp marks it done), its output in logs/NAME.log.
run_step() {
  local name=$1; shift
  local stamp=$cache/stamps/$name log=$cache/logs/$name.log
  if [[ -f $stamp ]]; then
    echo "== $name: done before, skipped"
    return 0
  fi
  echo "== $name ..."
  local start=$SECONDS rc
  # Not `|| rc=$?`: that would switch errexit off inside the subshell.
  set +e
  ( set -euo pipefail; "$@" ) >"$log" 2>&1
  rc=$?
  set -e
  local took=$((SECONDS - start))
  if ((rc != 0)); then
    echo "!! step '$name' FAILED (exit $rc) after ${took}s; last lines of $log:" >&2
    tail -n 40 "$log" >&2
    exit 1
  fi
  echo "   $name took $((took / 60))m$((took % 60))s"
  date -u +%FT%TZ >"$stamp"
}

# The directory that `apt-get source PKG` unpacked into src/ (the newest, if more than one).
source_dir() {
  local d
  d=$(find "$cache/src" -mindepth 1 -maxdepth 1 -type d -name "$1-*" | sort -V | tail -n 1)
  [[ -n $d ]] || { echo "no unpacked source for $1 in $cache/src" >&2; return 1; }
  echo "$d"
}

# Source packages need a deb-src entry. When there is none, add one for every Debian entry of
# this release (one-line .list and deb822 .sources alike), with the same mirror and options.
ensure_deb_src() {
  local codename listed=0
  codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
  shopt -s nullglob
  local lists=(/etc/apt/sources.list /etc/apt/sources.list.d/*.list)
  local sources=(/etc/apt/sources.list.d/*.sources)
  shopt -u nullglob
  if grep -hsqE '^[[:space:]]*deb-src[[:space:]]' "${lists[@]}" /dev/null ||
     grep -hsqiE '^Types:.*deb-src' "${sources[@]}" /dev/null; then
    listed=1
  fi
  if ((listed == 0)); then
    [[ $(id -u) == 0 ]] || { echo "no deb-src entry in /etc/apt and not root to add one" >&2; return 1; }
    local f
    for f in "${lists[@]}"; do
      [[ -f $f ]] || continue
      # deb [options] URI SUITE COMPONENTS... -> the same line as deb-src, for this release only.
      sed -nE "s/^[[:space:]]*deb([[:space:]]+(\[[^]]*\][[:space:]]+)?[^[:space:]]+[[:space:]]+$codename[^[:space:]]*[[:space:]])/deb-src\1/p" "$f"
    done >/etc/apt/sources.list.d/corvanta-deb-src.list
    for f in "${sources[@]}"; do
      # Every stanza whose Types has deb and whose Suites name this release, as deb-src.
      awk -v rel="$codename" 'BEGIN { RS = ""; ORS = "\n\n" }
        $0 ~ ("(^|\n)Suites:[^\n]*" rel) && $0 ~ /(^|\n)Types:[^\n]*deb/ {
          sub(/(^|\n)Types:[^\n]*/, "\nTypes: deb-src"); sub(/^\n/, ""); print }' "$f"
    done >/etc/apt/sources.list.d/corvanta-deb-src.sources
    [[ -s /etc/apt/sources.list.d/corvanta-deb-src.list ]] || rm -f /etc/apt/sources.list.d/corvanta-deb-src.list
    [[ -s /etc/apt/sources.list.d/corvanta-deb-src.sources ]] || rm -f /etc/apt/sources.list.d/corvanta-deb-src.sources
    echo "added deb-src entries:"
    cat /etc/apt/sources.list.d/corvanta-deb-src.* 2>/dev/null || { echo "no Debian $codename entry found" >&2; return 1; }
  fi
  # (grep reads all of apt-cache's output: with -q it would stop early and pipefail see SIGPIPE)
  if ((listed == 0)) || ! apt-cache showsrc openssl 2>/dev/null | grep '^Package:' >/dev/null; then
    apt-get update
  fi
  apt-cache showsrc openssl | grep '^Package:' >/dev/null || { echo "apt knows no source for openssl" >&2; return 1; }
}

fetch_sources() {
  cd "$cache/src"
  local pkg
  for pkg in openssl libzstd qtbase-opensource-src; do
    if ! source_dir "$pkg" >/dev/null 2>&1; then
      # Newest version first; a mirror may list a version whose files it does not (yet) have.
      local version fetched=0
      for version in $(apt-cache showsrc --only-source "$pkg" | awk '/^Version:/ { print $2 }' | sort -Vru); do
        if apt-get source --only-source "$pkg=$version"; then fetched=1; break; fi
        echo "$pkg $version could not be fetched, trying an older version"
      done
      ((fetched)) || { echo "no version of $pkg could be fetched" >&2; return 1; }
    fi
    echo "$pkg: $(source_dir "$pkg")"
  done
}

# Debian's qtbase source leaves out src/3rdparty/wintab (its licence), whose header the windows
# platform plugin includes for Wintab tablets. Build that plugin without Wintab support; pens
# and touch still come through the Windows pointer API. (Idempotent: the patterns go away.)
patch_qt() {
  local src
  src=$(source_dir qtbase-opensource-src)
  [[ -f $src/src/3rdparty/wintab/wintab.h ]] && return 0
  local win=$src/src/plugins/platforms/windows
  sed -i 's/^qtConfig(tabletevent) {/false {  # no Wintab header in this source tree/' "$win/windows.pri"
  sed -i 's/^#if QT_CONFIG(tabletevent)/#if 0  \/\/ no Wintab header in this source tree/' \
    "$win/qwindowscontext.cpp" "$win/qwindowspointerhandler.cpp"
  ! grep -n 'tabletevent' "$win/windows.pri" "$win/qwindowscontext.cpp" "$win/qwindowspointerhandler.cpp" |
    grep -v '#endif'
}

# x86_64-w64-mingw32-{gcc,g++,...} resolve to the posix-threads variants (std::thread, and what
# Qt expects), without touching the system's alternatives: wrap/ goes first on PATH.
make_wrappers() {
  local tool
  for tool in gcc g++ c++ cpp gcc-ar gcc-nm gcc-ranlib; do
    ln -sfn "/usr/bin/$host-$tool-posix" "$cache/wrap/$host-$tool"
    [[ -x $cache/wrap/$host-$tool ]] || { echo "missing /usr/bin/$host-$tool-posix" >&2; return 1; }
  done
  "$cache/wrap/$host-g++" -v 2>&1 | grep 'Thread model: posix' >/dev/null
}
export PATH=$cache/wrap:$PATH

build_openssl() {
  local src dir=$cache/build/openssl
  src=$(source_dir openssl)
  rm -rf "$dir" && mkdir -p "$dir" && cd "$dir"
  "$src/Configure" mingw64 --cross-compile-prefix=$host- --prefix="$prefix" --libdir=lib \
    no-shared no-tests no-module
  make -j"$jobs" build_libs
  make install_dev
  test -f "$prefix/lib/libcrypto.a" && test -f "$prefix/lib/libssl.a"
}

build_zstd() {
  local src
  src=$(source_dir libzstd)
  local vars=(CC=$host-gcc AR=$host-ar PREFIX="$prefix" LIBDIR="$prefix/lib" INCLUDEDIR="$prefix/include")
  make -C "$src/lib" clean
  make -C "$src/lib" -j"$jobs" "${vars[@]}" libzstd.a
  make -C "$src/lib" "${vars[@]}" install-static install-includes install-pc
  test -f "$prefix/lib/libzstd.a"
}

# What Qt links for OpenSSL: the static libraries and the Windows libraries they need.
openssl_libs="-lssl -lcrypto -lcrypt32 -lws2_32 -lgdi32 -luser32 -ladvapi32"

configure_qt() {
  local src dir=$cache/build/qtbase
  src=$(source_dir qtbase-opensource-src)
  rm -rf "$dir" && mkdir -p "$dir" && cd "$dir"
  "$src/configure" -prefix "$prefix" \
    -xplatform win32-g++ -device-option CROSS_COMPILE=$host- \
    -static -release -opensource -confirm-license \
    -nomake tests -nomake examples \
    -no-opengl -no-dbus -no-direct2d -no-vulkan -no-icu -no-fontconfig \
    -no-feature-sql -no-feature-concurrent -no-feature-xml -no-feature-testlib -no-feature-printer \
    -qt-zlib -qt-libpng -no-libjpeg -qt-pcre -qt-freetype -qt-harfbuzz \
    -openssl-linked OPENSSL_INCDIR="$prefix/include" OPENSSL_LIBDIR="$prefix/lib" \
    OPENSSL_LIBS="$openssl_libs"
  grep -E 'OpenSSL|Using static linking|Build type' config.summary
}

build_qt() {
  cd "$cache/build/qtbase"
  make -j"$jobs"
}

install_qt() {
  cd "$cache/build/qtbase"
  make install
  local f
  for f in bin/qmake bin/moc bin/rcc bin/uic lib/libQt5Core.a lib/libQt5Gui.a lib/libQt5Network.a \
           lib/libQt5Widgets.a lib/libqtmain.a plugins/platforms/libqwindows.a \
           plugins/platforms/libqoffscreen.a lib/cmake/Qt5/Qt5Config.cmake; do
    test -e "$prefix/$f" || { echo "not installed: $prefix/$f" >&2; return 1; }
  done
}

echo "Windows cross toolchain in $cache"
run_step packages ensure_packages dpkg-dev g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix \
  binutils-mingw-w64-x86-64 make perl python3 g++
run_step deb-src ensure_deb_src
run_step sources fetch_sources
run_step qt-patch patch_qt
run_step wrappers make_wrappers
run_step openssl build_openssl
run_step zstd build_zstd
run_step qt-configure configure_qt
run_step qt-build build_qt
run_step qt-install install_qt

{
  echo "host: $host (posix threads)"
  echo "completed: $(date -u +%FT%TZ)"
  for pkg in openssl libzstd qtbase-opensource-src; do echo "$pkg: $(basename "$(source_dir "$pkg")")"; done
} >"$complete.tmp"
mv "$complete.tmp" "$complete"
echo "toolchain complete in $prefix ($(( (SECONDS - script_start) / 60 ))m this run)"
