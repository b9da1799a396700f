#include "screen/tavo_video_vlink_x11_cursor_drawer.h"

#include <algorithm>

bool CursorRows(const XFixesCursorImage* cursor, int32_t grabY, uint32_t height, RowBand* rows) {
  if (cursor == nullptr) {
    return false;
  }
  const int64_t top = int64_t{cursor->y} - cursor->yhot - grabY;
  const int64_t begin = std::max<int64_t>(0, top);
  const int64_t end = std::min<int64_t>(height, top + cursor->height);
  if (begin >= end) {
    return false;
  }
  *rows = {static_cast<uint32_t>(begin), static_cast<uint32_t>(end)};
  return true;
}

CursorDrawResult DrawX11Cursor(const XFixesCursorImage* cursor, XImage* image, int32_t grabX,
                               int32_t grabY, const X11PixelLayout& layout) {
  if (layout.bytesPerPixel == 0) {
    return CursorDrawResult::kNoLayout;  // nowhere safe to draw
  }
  if (cursor == nullptr) {
    return CursorDrawResult::kNoCursorImage;
  }
  const size_t count = size_t{cursor->width} * cursor->height;
  bool visible = false;
  for (size_t i = 0; cursor->pixels != nullptr && i < count && !visible; ++i) {
    visible = (cursor->pixels[i] & 0xFFFFFFFFUL) != 0;
  }
  if (!visible) {
    return CursorDrawResult::kTransparent;
  }
  const int x0 = cursor->x - cursor->xhot - grabX;
  const int y0 = cursor->y - cursor->yhot - grabY;
  const int cursorWidth = cursor->width;
  const int cursorHeight = cursor->height;
  const int colBegin = std::max(0, -x0);
  const int colEnd = std::min(cursorWidth, image->width - x0);
  const int rowBegin = std::max(0, -y0);
  const int rowEnd = std::min(cursorHeight, image->height - y0);
  auto* pixels = reinterpret_cast<uint8_t*>(image->data);
  const size_t bytesPerLine = static_cast<size_t>(image->bytes_per_line);
  const uint32_t offsets[3] = {layout.red, layout.green, layout.blue};
  for (int row = rowBegin; row < rowEnd; ++row) {
    for (int col = colBegin; col < colEnd; ++col) {
      const auto argb =
          static_cast<uint32_t>(cursor->pixels[size_t(row) * size_t(cursorWidth) + size_t(col)]);
      const uint32_t alpha = argb >> 24;
      const uint8_t source[3] = {static_cast<uint8_t>(argb >> 16), static_cast<uint8_t>(argb >> 8),
                                 static_cast<uint8_t>(argb)};
      uint8_t* at =
          pixels + size_t(x0 + col) * layout.bytesPerPixel + size_t(y0 + row) * bytesPerLine;
      for (int c = 0; c < 3; ++c) {
        uint8_t& target = at[offsets[c]];
        target = alpha == 255
                     ? source[c]
                     : static_cast<uint8_t>(source[c] + ((255 - alpha) * target + 127) / 255);
      }
    }
  }
  return CursorDrawResult::kDrawn;
}
