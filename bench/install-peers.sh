#!/bin/sh
# The programs vlink_screen_link_bench compares the screen link with: GStreamer's X image
# source with the converter, and ffmpeg's X11 grabber.
set -e
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
$SUDO apt-get update
$SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-x ffmpeg
