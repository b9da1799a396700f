#!/usr/bin/env bash
# Runs the host program as a user would, briefly: the tour (four links at once) and the
# camera mode with a capture-size change, and checks that each exits with 0 and leaves the
# files it promises: a Y4M of whole frames per link, a PNG per preview window, the screen
# snapshot and the contact sheet; and that every camera frame could be timed by the number
# the clip writes into it, at either capture size.
# usage: host_smoke_test.sh VLINK_HOST LIBRARY TEST_IMAGE OUT_DIR
set -uo pipefail
host="$1" library="$2" image="$3" out="$4"
rm -rf "$out"
mkdir -p "$out"
failures=0

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# A Y4M file of at least $2 whole frames of one size.
check_y4m() {
  local file="$1" want="$2"
  if [ ! -s "$file" ]; then fail "$file missing"; return; fi
  local header width height frame size frames
  header="$(head -c 200 "$file" | head -1)"
  [[ "$header" == YUV4MPEG2* ]] || { fail "$file: no Y4M header"; return; }
  width="$(sed -E 's/.* W([0-9]+).*/\1/' <<<"$header")"
  height="$(sed -E 's/.* H([0-9]+).*/\1/' <<<"$header")"
  frame=$((6 + width * height * 3 / 2))
  size=$(($(stat -c %s "$file") - ${#header} - 1))
  frames=$((size / frame))
  if [ $((size % frame)) -ne 0 ]; then fail "$file: a partial frame"; fi
  if [ "$frames" -lt "$want" ]; then fail "$file: $frames frames, wanted $want"; fi
  echo "ok: $file, $frames frames ${width}x${height}"
}

check_png() {
  if [ "$(head -c 8 "$1" 2>/dev/null | od -An -tx1 | tr -d ' \n')" = "89504e470d0a1a0a" ]; then
    echo "ok: $1"
  else
    fail "$1 missing or not a PNG"
  fi
}

# Runs the host program; its output goes to $out/$1.log.
run() {
  local name="$1"
  shift
  echo "== vlink_host $*"
  launch() { "$host" --library "$library" --image "$image" --no-window "$@" >"$out/$name.log" 2>&1; }
  launch "$@"
  local status=$?
  # The leak checker's own thread-stopping tracer sometimes crashes at exit (a known fault
  # of the sanitizer runtime, not a leak): such a run is made once more. A leak report or
  # any other failure is not.
  if [ "$status" -ne 0 ] && grep -q "LeakSanitizer has encountered a fatal error" "$out/$name.log" &&
    ! grep -q "ERROR: LeakSanitizer: detected memory leaks" "$out/$name.log"; then
    echo "the leak checker's tracer crashed at exit; running once more"
    launch "$@"
    status=$?
  fi
  tail -n 12 "$out/$name.log"
  [ "$status" -eq 0 ] || fail "vlink_host $* exited with $status"
}

# The camera row of a run's table names the frames timed and those whose number was unread.
check_timed() {
  local line timed unread
  line="$(grep -E "^camera .* frames timed, [0-9]+ unread" "$out/$1.log" | head -1)"
  timed="$(sed -E 's/.*[( ]([0-9]+) frames timed.*/\1/' <<<"$line")"
  unread="$(sed -E 's/.*frames timed, ([0-9]+) unread.*/\1/' <<<"$line")"
  # Under a sanitizer on a busy machine the blend can reach the number strip of a frame or
  # two; most frames must still be read.
  if [ -n "$line" ] && [ "$timed" -gt 0 ] && [ "$unread" -le $((timed / 4)) ]; then
    echo "ok: $1: $timed camera frames timed, $unread unread"
  else
    fail "$1: camera frames not timed ($line)"
  fi
}

frames=6
run tour --out-dir "$out/tour" --frames "$frames"
for link in test_image screen decoded camera; do check_y4m "$out/tour/$link.y4m" "$frames"; done
for window in 0x401 0x301 0x201 0x501; do check_png "$out/tour/window_$window.png"; done
check_png "$out/tour/screen_snapshot.png"
check_png "$out/tour/contact_sheet.png"
check_timed tour

# The new size takes effect when the link is made again: the frames after it go to a second
# file.
run camera --mode camera --out-dir "$out/camera" --frames 8 --capture-size 640x360
check_y4m "$out/camera/camera.y4m" 4
check_y4m "$out/camera/camera_640x360.y4m" 1
check_timed camera

[ "$failures" -eq 0 ] && echo "all checks passed"
exit $((failures > 0))
