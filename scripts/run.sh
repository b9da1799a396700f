#!/usr/bin/env bash
# Builds the library and runs the host program end to end on the generated test image:
# a test-image input bound to an encoder output, every frame written to out/vlink_out.y4m.
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
  --image build/release/test_pattern.bmp --out out/vlink_out.y4m "$@"
