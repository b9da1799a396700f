#!/usr/bin/env bash
# Installs everything the build, the tests and the host programs need on a fresh Debian 12.
set -euo pipefail
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends \
  build-essential g++ cmake ninja-build pkg-config \
  libgtest-dev libgmock-dev libbenchmark-dev \
  libboost1.81-dev libsafec-dev libyuv-dev \
  clang-14 libclang-rt-14-dev clang-format-14 \
  libx11-dev zlib1g-dev \
  libjpeg62-turbo-dev \
  libxdamage-dev libxext-dev libxfixes-dev libxi-dev libxrandr-dev libxrender-dev libxtst-dev xvfb x11-xserver-utils xdotool \
  libopencv-dev opencv-doc python3-flatbuffers python3-onnx python3-numpy
# The virtual background's segmentation models and test pictures.
bash "$(dirname "$0")/install-models.sh"
