#!/usr/bin/env bash
# Sets up the virtual background's model files and test pictures:
#   - MediaPipe's selfie segmentation (Apache-2.0), from the npm package
#     @mediapipe/selfie_segmentation, converted to ONNX for OpenCV's dnn module and installed
#     under the configuration directory at the names the node chooses:
#       output_ppsegv2_224_398_mask  landscape and square frames (256x144 model, 16:9)
#       output_ppsegv2_398_224_mask  portrait frames (256x256 model)
#   - astronaut.png from Debian's python3-skimage (unpacked only: installing the package
#     would pull a Boost that conflicts with the build's) into the test-data folder.
# usage: scripts/install-models.sh [CFG_DIR]   (default $TAVO_OM_CFG_PATH, else
#        /usr/local/share/tavo_video/cfg). Re-running skips what is already there.
set -euo pipefail
cd "$(dirname "$0")/.."
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

NPM_PACKAGE="@mediapipe/selfie_segmentation@0.1.1675465747"
CFG_DIR="${1:-${TAVO_OM_CFG_PATH:-/usr/local/share/tavo_video/cfg}}"
MODEL_DIR="$CFG_DIR/computing/arm64/Virtualbackground"
TESTDATA_DIR="/usr/local/share/tavo_video/testdata"
CACHE_DIR="${XDG_CACHE_HOME:-$HOME/.cache}/tavo_video"

LANDSCAPE="$MODEL_DIR/output_ppsegv2_224_398_mask"
PORTRAIT="$MODEL_DIR/output_ppsegv2_398_224_mask"
CONVERTER="$(pwd)/scripts/convert_selfie_model.py"

if ! command -v npm >/dev/null; then $SUDO apt-get install -y --no-install-recommends npm; fi
mkdir -p "$CACHE_DIR"
if [ ! -s "$LANDSCAPE" ] || [ ! -s "$PORTRAIT" ] || [ "$CONVERTER" -nt "$LANDSCAPE" ]; then
  work="$(mktemp -d)"
  trap 'rm -rf "$work"' EXIT
  tarball="$(ls "$CACHE_DIR"/mediapipe-selfie_segmentation-*.tgz 2>/dev/null | head -1 || true)"
  if [ -z "$tarball" ]; then
    (cd "$CACHE_DIR" && npm pack --silent "$NPM_PACKAGE" >/dev/null)
    tarball="$(ls "$CACHE_DIR"/mediapipe-selfie_segmentation-*.tgz | head -1)"
  fi
  tar -xzf "$tarball" -C "$work"
  # Debian's python3 on purpose: the converter needs Debian's onnx, flatbuffers and numpy.
  /usr/bin/python3 "$CONVERTER" "$work/package/selfie_segmentation_landscape.tflite" "$work/landscape.onnx"
  /usr/bin/python3 "$CONVERTER" "$work/package/selfie_segmentation.tflite" "$work/square.onnx"
  $SUDO mkdir -p "$MODEL_DIR"
  $SUDO install -m 0644 "$work/landscape.onnx" "$LANDSCAPE"
  $SUDO install -m 0644 "$work/square.onnx" "$PORTRAIT"
  echo "installed segmentation models in $MODEL_DIR"
fi

if [ ! -s "$TESTDATA_DIR/astronaut.png" ]; then
  deb_dir="$(mktemp -d)"
  chmod 0777 "$deb_dir"
  (cd "$deb_dir" && apt-get download -q python3-skimage >/dev/null 2>&1)
  dpkg-deb -x "$deb_dir"/python3-skimage_*.deb "$deb_dir/x"
  $SUDO mkdir -p "$TESTDATA_DIR"
  $SUDO install -m 0644 "$deb_dir/x/usr/lib/python3/dist-packages/skimage/data/astronaut.png" \
    "$TESTDATA_DIR/astronaut.png"
  rm -rf "$deb_dir"
fi
