#!/usr/bin/env bash
# Installs the build's dependencies (unless --no-install), builds the library and runs the
# host program tools/vlink_host end to end with input that needs no device. By default it
# runs the tour: a test image, a private Xvfb screen, decoded frames and the file camera with
# the virtual background, four links at once for about ten seconds. out/ gets one Y4M per
# link, a PNG of every preview window, contact_sheet.png (labelled tiles), timeline.png with
# timeline.csv (each link's latency over the run) and trace.log (the library's trace lines;
# on the terminal too with --trace-to-terminal). --mode encode|preview|decode|screen|camera
# runs one path alone.
# usage: scripts/run.sh [--no-install] [host program options, e.g. --seconds 5 --trace 3]
set -euo pipefail
cd "$(dirname "$0")/.."

install=1
if [ "${1:-}" = "--no-install" ]; then install=0; shift; fi
if [ "$install" = 1 ]; then bash scripts/install-deps.sh >/dev/null; fi

cmake --preset release >/dev/null
cmake --build --preset release -j 2 --target tavo_video_vlink vlink_host test_pattern >/dev/null
mkdir -p out
exec build/release/tools/vlink_host --library build/release/libtavo_video_vlink.so \
  --image build/release/test_pattern.bmp --out out/vlink_out.y4m --out-dir out "$@"
