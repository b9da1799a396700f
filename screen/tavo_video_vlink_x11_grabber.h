// The X11 screen capturer's grab: one shared-memory image of the monitor, filled by the X
// server (XShmGetImage) without a copy through the connection, and the byte layout of its
// pixels.
#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/XShm.h>

#include <array>
#include <cstdint>

#include "screen/tavo_video_vlink_x11_display.h"

// Bytes per pixel and the red, green and blue byte offsets.
struct X11PixelLayout {
  uint32_t bytesPerPixel = 0;
  uint32_t red = 0;
  uint32_t green = 0;
  uint32_t blue = 0;
};

// The layout of a pixel of `bits` with these colour masks from the known-layout table (the
// last matching row wins); false, `layout` untouched, for a layout the table does not know.
bool FindX11PixelLayout(uint32_t bits, unsigned long redMask, unsigned long greenMask,
                        unsigned long blueMask, X11PixelLayout* layout);

class X11ShmImage {
 public:
  X11ShmImage() = default;
  ~X11ShmImage() { Destroy(); }
  X11ShmImage(const X11ShmImage&) = delete;
  X11ShmImage& operator=(const X11ShmImage&) = delete;

  // An image of the target's size and depth in a fresh private segment the server attaches.
  // 0, or 1 with the failure logged and everything made released.
  uint32_t Create(uint32_t capturerId, const X11Target& target);
  // Detaches the segment from the server (when the connection still stands), removes it and
  // drops the image. Safe to repeat.
  void Destroy();
  // The monitor's pixels at (x, y) of the root window into the image.
  bool Grab(Window root, int32_t x, int32_t y);
  // Only rows [begin, end) of it, into the same rows of the image.
  bool GrabRows(Window root, int32_t x, int32_t y, uint32_t begin, uint32_t end);
  XImage* Image() const { return m_image; }
  bool Ready() const { return m_image != nullptr; }

 private:
  std::shared_ptr<X11Connection> m_connection;  // kept while the server holds the segment
  XShmSegmentInfo m_segment{0, -1, reinterpret_cast<char*>(-1), False};
  XImage* m_image = nullptr;
  // The segment was marked for removal once the server had attached it: its id may name
  // another segment after both sides let go, so it is not removed again.
  bool m_removed = false;
};
