// Records shared by the screen capturer and the cursor capturer.
#pragma once

#include <X11/Xlib.h>

#include <cstddef>
#include <cstdint>

#include "tavo_video_vlink_capture.h"  // the cursor and snapshot records the host sees

// What the screen capturer tells its cursor capturer about the captured monitor. All zero:
// there is no display.
struct VlinkX11ScreenInfo {
  Display* display;
  Window root;
  uint32_t width;
  uint32_t height;
  int32_t grabX;
  int32_t grabY;
};

// The snapshot record at the start of a queue buffer; the pixels follow it.
constexpr uint32_t kSnapshotHeaderBytes = 48;

// Width, height, depth and pixel format of the captured image.
struct VideoCaptureCapability {
  uint32_t width;
  uint32_t height;
  uint32_t depth;
  uint32_t format;  // 16 before an image was read, then 12 (ARGB)
};
