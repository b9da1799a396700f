// Draws the X cursor into a grabbed image: blended by its alpha, clipped at the monitor's
// edges, at the layout's colour offsets.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>

#include "screen/tavo_video_vlink_x11_grabber.h"

enum class CursorDrawResult { kDrawn, kNoCursorImage, kTransparent, kNoLayout };

// The cursor as XFixes gives it, its top-left corner at (cursor x - hot spot - grabX,
// cursor y - hot spot - grabY) on the image.
CursorDrawResult DrawX11Cursor(Display* display, XImage* image, int32_t grabX, int32_t grabY,
                               const X11PixelLayout& layout);
