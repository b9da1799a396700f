#!/usr/bin/env bash
# Builds and runs every test: a plain debug build, then the same suite under
# AddressSanitizer + UndefinedBehaviorSanitizer and under ThreadSanitizer.
# usage: scripts/test.sh [--no-install] [preset ...]
set -euo pipefail
cd "$(dirname "$0")/.."

install=1
if [ "${1:-}" = "--no-install" ]; then install=0; shift; fi
if [ "$install" = 1 ]; then bash scripts/install-deps.sh; fi

presets=("$@")
if [ ${#presets[@]} -eq 0 ]; then presets=(debug asan-ubsan tsan); fi

for preset in "${presets[@]}"; do
  echo "=== $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j 2
  ctest --preset "$preset"
done
