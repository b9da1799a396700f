#!/usr/bin/env bash
# Builds the library and runs the host program end to end on input that needs no device.
# usage: scripts/run.sh [--no-install] [frame count]
set -euo pipefail
cd "$(dirname "$0")/.."

install=1
if [ "${1:-}" = "--no-install" ]; then install=0; shift; fi
if [ "$install" = 1 ]; then bash scripts/install-deps.sh >/dev/null; fi

cmake --preset release >/dev/null
cmake --build --preset release -j 2 --target tavo_video_vlink vlink_chain_demo >/dev/null
exec build/release/tools/vlink_chain_demo build/release/libtavo_video_vlink.so "${1:-600}"
