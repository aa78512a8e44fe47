#!/usr/bin/env bash
# Renders src/app/resources/updater.svg into the seven PNG sizes of the Windows icon group and
# packs them, PNG-compressed, into updater.ico. Needs rsvg-convert (librsvg2-bin) and icotool
# (icoutils). The results are committed, so a Windows build needs neither tool.
set -euo pipefail
cd "$(dirname "$0")/../src/app/resources"
args=()
for size in 16 24 32 48 64 128 256; do
  rsvg-convert -w "$size" -h "$size" updater.svg -o "icon-$size.png"
  args+=("--raw=icon-$size.png")
done
icotool -c -o updater.ico "${args[@]}"
rm -f icon-*.png
echo "wrote $(pwd)/updater.ico"
