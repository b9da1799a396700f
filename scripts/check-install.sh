#!/usr/bin/env bash
# Checks that the library installs and packages like a Debian library:
#   1. builds the release preset (only what the install takes) and installs it into a
#      temporary prefix;
#   2. builds examples/ against that prefix with CMake (find_package) and with pkg-config,
#      and runs both: a test image must reach an encoder as I420 frames of its size;
#   3. bad set-ups: no model folder, a missing library loaded by name: the example says so
#      clearly and the test-image link still works; the installed vlink_host's camera link
#      with the virtual background still runs and the library's trace names what is missing;
#   4. moves the prefix, builds the example against the moved tree and runs it, and runs the
#      installed vlink_host there (run paths are relative);
#   5. builds the .deb with cpack, installs it with apt-get, runs the example against it,
#      removes it and checks that no file it listed is left.
# usage: scripts/check-install.sh   (needs root or sudo for the .deb steps)
set -euo pipefail
cd "$(dirname "$0")/.."
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
PACKAGE=tavo-video-vlink
BUILD=build/release
INSTALLED_TARGETS="tavo_video_vlink tavo_video_adapt_common tavo_computing_client
  tavo_video_opencv_wrapper vlink_fake_camera vlink_host test_pattern camera_clip"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
step() { echo "== $*"; }
fail() { echo "check-install: FAILED: $*" >&2; exit 1; }

# Builds the example in $1 against the prefix $2 both ways and runs each with "${@:3}";
# the output of the last run is left in $work/run.txt.
build_and_run_example() {
  local dir="$1" prefix="$2"
  shift 2
  cmake -S examples -B "$dir/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$dir/cmake" >/dev/null
  local pc="$prefix/lib/pkgconfig"
  # shellcheck disable=SC2046 # pkg-config prints several words on purpose
  g++ -std=c++20 -O1 examples/encode_test_image.cpp -o "$dir/pkgconfig_example" \
    $(PKG_CONFIG_PATH="$pc" pkg-config --cflags --libs tavo_video_vlink) \
    -Wl,-rpath,"$(PKG_CONFIG_PATH="$pc" pkg-config --variable=libdir tavo_video_vlink)"
  for program in "$dir/cmake/encode_test_image" "$dir/pkgconfig_example"; do
    "$program" "$@" >"$work/run.txt" 2>&1 || { cat "$work/run.txt"; fail "$program"; }
    echo "$(basename "$program"): $(tail -2 "$work/run.txt" | head -1)"
  done
}

expect_line() {
  grep -q -- "$1" "$work/run.txt" || { cat "$work/run.txt"; fail "no line \"$1\""; }
}

step "release build and install"
cmake --preset release >/dev/null
# shellcheck disable=SC2086 # one word per target
cmake --build --preset release -j 2 --target $INSTALLED_TARGETS >/dev/null
prefix="$work/prefix"
cmake --install "$BUILD" --prefix "$prefix" >/dev/null
echo "installed $(find "$prefix" -type f | wc -l) files in $prefix"

step "example against the installed prefix (CMake and pkg-config)"
build_and_run_example "$work/example" "$prefix"
expect_line "models: $prefix/share/tavo_video/cfg"

step "bad set-ups: the test-image link still works, the example says what is missing"
TAVO_OM_CFG_PATH="$work/no-models" "$work/example/cmake/encode_test_image" >"$work/run.txt" 2>&1 ||
  { cat "$work/run.txt"; fail "without models"; }
expect_line "warning: no segmentation models in $work/no-models"
expect_line "example: OK"
echo "no model folder: $(grep warning "$work/run.txt")"
for loaded in libtavo_computing_client.so libtavo_video_opencv_wrapper.so; do
  mv "$prefix/lib/$loaded" "$work/"
  "$work/example/cmake/encode_test_image" >"$work/run.txt" 2>&1 || { cat "$work/run.txt"; fail "without $loaded"; }
  mv "$work/$loaded" "$prefix/lib/"
  expect_line "warning: $loaded is missing beside the library"
  expect_line "example: OK"
  echo "no $loaded: $(grep warning "$work/run.txt")"
done

# The installed library on the camera link (file camera, virtual background on) says what it
# lacks in its trace, and the frames still flow.
camera_link_says() {
  rm -rf "$work/cam"
  "$@" "$prefix/bin/vlink_host" --links camera --seconds 2 --no-window --trace 2 \
    --out-dir "$work/cam" >"$work/run.txt" 2>&1 || { cat "$work/run.txt"; fail "camera link: $*"; }
  grep -q "$message" "$work/cam/trace.log" || { cat "$work/cam/trace.log"; fail "no \"$message\""; }
  echo "  camera link still ran, the library traced: $(grep -m1 "$message" "$work/cam/trace.log" |
    sed 's/.*\]: //')"
}
message="TavoComputingCreateTask error ret :-3"
camera_link_says env TAVO_OM_CFG_PATH="$work/no-models"
for loaded in libtavo_computing_client libtavo_video_opencv_wrapper; do
  mv "$prefix/lib/$loaded.so" "$work/"
  message="$loaded.*$loaded.so: cannot open shared object file"
  camera_link_says env
  mv "$work/$loaded.so" "$prefix/lib/"
done

step "the prefix moved after the install"
moved="$work/moved/prefix"
mkdir -p "$work/moved"
mv "$prefix" "$moved"
if "$work/example/cmake/encode_test_image" >"$work/run.txt" 2>&1; then
  fail "the example still ran against the old prefix"
fi
echo "old build: $(head -1 "$work/run.txt")"
build_and_run_example "$work/example-moved" "$moved"
expect_line "models: $moved/share/tavo_video/cfg"
"$moved/bin/vlink_host" --mode encode --frames 3 --no-window --out-dir "$work/out" \
  --out "$work/out/vlink_out.y4m" >"$work/run.txt" 2>&1 || { cat "$work/run.txt"; fail "vlink_host"; }
echo "vlink_host from the moved prefix: $(grep -m1 '^summary' "$work/run.txt")"

step "Debian package"
if dpkg -s "$PACKAGE" >/dev/null 2>&1; then
  $SUDO dpkg --purge "$PACKAGE" >/dev/null
fi
(cd "$BUILD" && cpack -G DEB >/dev/null)
deb="$(ls "$BUILD"/"$PACKAGE"_*.deb | head -1)"
dpkg-deb -f "$deb" Package Version Depends
$SUDO apt-get install -y -q "$(realpath "$deb")" >/dev/null 2>&1 || fail "apt-get install $deb"
dpkg -L "$PACKAGE" >"$work/files.txt"
echo "installed $(while read -r f; do [ -f "$f" ] && echo "$f"; done <"$work/files.txt" | wc -l) files"
build_and_run_example "$work/example-deb" /usr
expect_line "models: /usr/share/tavo_video/cfg"
$SUDO apt-get remove -y -q "$PACKAGE" >/dev/null 2>&1 || fail "apt-get remove"
left=0
while read -r f; do
  # Folders the system shares (/usr, /usr/lib) stay; files and our own folders must go.
  if [ -f "$f" ] || [ -L "$f" ] || { [ -d "$f" ] && [[ "$f" == *tavo* || "$f" == *Vlink* ]]; }; then
    echo "left after removal: $f"
    left=1
  fi
done <"$work/files.txt"
[ "$left" = 0 ] || fail "files left after apt-get remove"
found="$(find /usr/bin /usr/lib /usr/include /usr/share -maxdepth 3 \
  \( -iname '*tavo*' -o -name 'vlink_host' -o -name 'libvlink_*' \) 2>/dev/null || true)"
[ -z "$found" ] || fail "left after removal: $found"
echo "removed: nothing of $(wc -l <"$work/files.txt") listed paths left"
# The package's ldconfig scripts keep it known to dpkg until it is purged.
$SUDO dpkg --purge "$PACKAGE" >/dev/null
echo "check-install: OK"
