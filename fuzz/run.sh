#!/usr/bin/env bash
# Builds the fuzz preset and runs every fuzzer for a bounded time, starting from the corpus
# kept in fuzz/corpus/<fuzzer>/ (read only here; new inputs go to build/fuzz/corpus/).
# Exits non-zero when a fuzzer finds a crash, leak, hang or sanitizer report; the input
# that caused it lands in build/fuzz/artifacts/<fuzzer>/.
# usage: fuzz/run.sh [seconds per fuzzer, default 60] [fuzzer ...]
#        fuzz/run.sh --merge   folds the inputs found so far into fuzz/corpus (commit them)
set -euo pipefail
cd "$(dirname "$0")/.."

out=build/fuzz
all=(image_file_fuzzer camera_frame_fuzzer host_call_fuzzer)

if [ "${1:-}" = "--merge" ]; then
  for fuzzer in "${all[@]}"; do
    [ -d "$out/corpus/$fuzzer" ] || continue
    "$out/fuzz/$fuzzer" -merge=1 "fuzz/corpus/$fuzzer" "$out/corpus/$fuzzer" \
      >"$out/$fuzzer.merge.log" 2>&1
    echo "$fuzzer: $(ls "fuzz/corpus/$fuzzer" | wc -l) inputs"
  done
  exit 0
fi

seconds="${1:-60}"
case "$seconds" in
  '' | *[!0-9]*) echo "usage: $0 [seconds per fuzzer] [fuzzer ...] | --merge" >&2; exit 2 ;;
esac
shift || true
fuzzers=("$@")
if [ ${#fuzzers[@]} -eq 0 ]; then fuzzers=("${all[@]}"); fi

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j 2 --target vlink_fuzzers

failed=()
for fuzzer in "${fuzzers[@]}"; do
  corpus="$out/corpus/$fuzzer"
  artifacts="$out/artifacts/$fuzzer"
  mkdir -p "$corpus" "$artifacts"
  echo "=== $fuzzer: ${seconds}s"
  set +e
  "$out/fuzz/$fuzzer" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "fuzz/corpus/$fuzzer" \
    >"$out/$fuzzer.log" 2>&1
  rc=$?
  set -e
  grep -E '^#[0-9]+.*(DONE|INITED)|stat::number_of_executed_units|stat::peak_rss_mb' \
    "$out/$fuzzer.log" || true
  if [ "$rc" -ne 0 ]; then
    echo "*** $fuzzer failed (exit $rc); see $out/$fuzzer.log and $artifacts/" >&2
    grep -E 'ERROR|SUMMARY|runtime error' "$out/$fuzzer.log" | head -5 >&2 || true
    failed+=("$fuzzer")
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "findings in: ${failed[*]}" >&2
  exit 1
fi
echo "no findings"
