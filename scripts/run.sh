#!/usr/bin/env bash
# Builds the library and runs the host program end to end with input that needs no device.
# By default a test-image input (the generated test pattern) feeds an encoder output and
# every frame is written to out/vlink_out.y4m; --mode preview and --mode decode run the
# preview-window and decoded-frame paths (PNGs of each window's last frame in out/).
# usage: scripts/run.sh [--no-install] [host program options, e.g. --frames 20 --trace 3]
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
