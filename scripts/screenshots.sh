#!/usr/bin/env bash
# Saves PNG pictures of the status window (one per status text) and of every message box into
# docs/screenshots. They are taken from a virtual X display (Xvfb, xcb platform) so that the
# fonts render as on a desktop; the Vietnamese texts need a font with Vietnamese coverage
# (fonts-dejavu-core).
set -euo pipefail
cd "$(dirname "$0")/.."

for tool in xvfb-run xauth; do
  command -v "$tool" >/dev/null || { echo "missing $tool (apt-get install xvfb xauth)" >&2; exit 1; }
done
fc-list :lang=vi family | grep -q . || echo "warning: no font with Vietnamese coverage" >&2

build=${BUILD_DIR:-build}
out=${1:-docs/screenshots}
cmake -S . -B "$build" -G Ninja ${CMAKE_ARGS:-} >/dev/null
cmake --build "$build" --target ui_screenshots
mkdir -p "$out"
xvfb-run --auto-servernum --server-args="-screen 0 1024x768x24 -nolisten tcp" \
  env QT_QPA_PLATFORM=xcb "$build/bin/ui_screenshots" "$out"
