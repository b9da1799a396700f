// Draws the X cursor into a grabbed image: blended by its alpha, clipped at the monitor's
// edges, at the layout's colour offsets.
#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/Xfixes.h>

#include <cstdint>

#include "screen/tavo_video_vlink_x11_damage.h"
#include "screen/tavo_video_vlink_x11_grabber.h"

enum class CursorDrawResult { kDrawn, kNoCursorImage, kTransparent, kNoLayout };

// The cursor as XFixes gave it (null: none), its top-left corner at (cursor x - hot spot -
// grabX, cursor y - hot spot - grabY) on the image.
CursorDrawResult DrawX11Cursor(const XFixesCursorImage* cursor, XImage* image, int32_t grabX,
                               int32_t grabY, const X11PixelLayout& layout);
// The rows of an image `height` rows high that the cursor covers; false when none.
bool CursorRows(const XFixesCursorImage* cursor, int32_t grabY, uint32_t height, RowBand* rows);
