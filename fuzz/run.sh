#!/usr/bin/env bash
# Builds the fuzz preset and runs every fuzzer for a bounded time from a small generated
# seed corpus. Exits non-zero when a fuzzer finds a crash, leak, hang or sanitizer report;
# the input that caused it lands in build/fuzz/artifacts/<fuzzer>/.
# usage: fuzz/run.sh [seconds per fuzzer, default 60]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
case "$seconds" in
  '' | *[!0-9]*) echo "usage: $0 [seconds per fuzzer]" >&2; exit 2 ;;
esac

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target vlink_fuzzers

out=build/fuzz
fuzzers=(image_header_fuzzer bmp_convert_fuzzer camera_frame_fuzzer)

# seed FILE HEX...: writes the bytes given as hex pairs.
seed() {
  local file="$1"
  shift
  local hex escaped=""
  for hex in $*; do
    while [ -n "$hex" ]; do
      escaped+="\\x${hex:0:2}"
      hex="${hex:2}"
    done
  done
  printf "$escaped" >"$file"
}

# Headers of a BMP: width, height, bit count, compression as little-endian hex.
bmp_header() {
  echo "424d 00000000 00000000 36000000 28000000 $1 $2 0100 $3 $4 0000000000000000000000000000000000000000"
}

make_seeds() {
  local dir="$1"
  mkdir -p "$dir"
  case "$2" in
    image_header_fuzzer)
      seed "$dir/seed_jpeg" ffd8 ffe0 0010 4a46494600010100000100010000 \
        ffc0 0011 08 01e0 0280 03 012200 021101 031101 ffd9
      seed "$dir/seed_png" 89504e470d0a1a0a 0000000d 49484452 00000280 000001e0 0806000000 \
        00000000 00000000 49454e44 ae426082
      seed "$dir/seed_bmp" "$(bmp_header 80020000 e0010000 1800 00000000)"
      ;;
    bmp_convert_fuzzer)
      # 2x2 24-bit bottom-up, 3x3 24-bit (odd, padded rows), 2x2 32-bit top-down bitfields.
      seed "$dir/seed_24" "$(bmp_header 02000000 02000000 1800 00000000)" \
        0000ff00ff000000 ff0000ffffff0000
      seed "$dir/seed_odd" "$(bmp_header 03000000 03000000 1800 00000000)" \
        102030405060708090000000 a0b0c0d0e0f0010203000000 040506070809101112000000
      seed "$dir/seed_32" "$(bmp_header 02000000 feffffff 2000 03000000)" \
        0000ffff00ff00ff ff0000ffffffffff
      ;;
    camera_frame_fuzzer)
      # Header: format selector, flags, width, height (16-bit), declared size (32-bit).
      # A 4x4 YUY2 frame, an 8x4 NV12 frame to rotate by 90, a copy-only NV21 frame and a
      # 16x16 4:2:0 JPEG.
      seed "$dir/seed_yuy2" 01 00 0400 0400 ffffffff \
        10801080108010801080108010801080108010801080108010801080108010801080108010801080
      seed "$dir/seed_nv12_rot" 04 02 0800 0400 ffffffff \
        101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d2e2f8080808080808080 \
        8080808080808080
      seed "$dir/seed_copy" 03 01 0400 0200 0c000000 000102030405060708090a0b
      seed "$dir/seed_mjpeg" 07 08 1000 1000 ffffffff \
        ffd8ffe000104a46494600010100000100010000ffdb00430050373c463c32504641465a55505f78c882786e6e78f5af \
        b991c8ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffdb004301555a \
        5a786978eb8282ebffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff \
        ffffffffffffffffffffffffffffffc00011080010001003012200021101031101ffc4001f0000010501010101010100 \
        000000000000000102030405060708090a0bffc400b5100002010303020403050504040000017d010203000411051221 \
        31410613516107227114328191a1082342b1c11552d1f02433627282090a161718191a25262728292a3435363738393a \
        434445464748494a535455565758595a636465666768696a737475767778797a838485868788898a9293949596979899 \
        9aa2a3a4a5a6a7a8a9aab2b3b4b5b6b7b8b9bac2c3c4c5c6c7c8c9cad2d3d4d5d6d7d8d9dae1e2e3e4e5e6e7e8e9eaf1 \
        f2f3f4f5f6f7f8f9faffc4001f0100030101010101010101010000000000000102030405060708090a0bffc400b51100 \
        020102040403040705040400010277000102031104052131061241510761711322328108144291a1b1c109233352f015 \
        6272d10a162434e125f11718191a262728292a35363738393a434445464748494a535455565758595a63646566676869 \
        6a737475767778797a82838485868788898a92939495969798999aa2a3a4a5a6a7a8a9aab2b3b4b5b6b7b8b9bac2c3c4 \
        c5c6c7c8c9cad2d3d4d5d6d7d8d9dae2e3e4e5e6e7e8e9eaf2f3f4f5f6f7f8f9faffda000c03010002110311003f00a9 \
        45145648cec7ffd9
      ;;
  esac
}

failed=()
for fuzzer in "${fuzzers[@]}"; do
  corpus="$out/corpus/$fuzzer"
  artifacts="$out/artifacts/$fuzzer"
  make_seeds "$corpus" "$fuzzer"
  mkdir -p "$artifacts"
  echo "=== $fuzzer: ${seconds}s"
  set +e
  "$out/fuzz/$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" >"$out/$fuzzer.log" 2>&1
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
