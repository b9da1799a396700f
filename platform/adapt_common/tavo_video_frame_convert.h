// Conversions on frames of the platform video library, backed by libyuv. All return 0 on
// success and -1 on failure (null arguments, sizes that do not match, a format they do not
// take, planes outside a frame's memory); a failed call leaves the target untouched.
#pragma once

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

// Converts `source` (ARGB as X11 delivers it, or I420) into the I420 frame `target` of the
// same width and height (BT.601 limited range, as libyuv's ARGBToI420 does).
OSV_API int32_t ConvertToI420(OsvGraphicBuffer* source, OsvGraphicBuffer* target);
// Scales the I420 frame `source` into the I420 frame `target` at the target's size, box
// filter.
OSV_API int32_t I420Scale(OsvGraphicBuffer* source, OsvGraphicBuffer* target);

// One 32-bit ARGB picture in memory: width x height pixels, rows `stride` bytes apart.
struct ArgbPlane {
  uint8_t* data;
  uint32_t width;
  uint32_t height;
  uint32_t stride;
};
// Scales all of `source` into `target`, box filter.
OSV_API int32_t ARGBScale(const ArgbPlane& source, const ArgbPlane& target);
// Placement variant: scales all of `source` into the region `regionWidth` x `regionHeight`
// of the picture `target` that starts `offsetX` pixels from its left edge; the rest of the
// picture is not touched. The region must lie inside the picture.
OSV_API int32_t ARGBScale(const ArgbPlane& source, const ArgbPlane& target, uint32_t regionWidth,
                          uint32_t regionHeight, uint32_t offsetX);

// Looks over a finished ARGB picture of `size` bytes: 1 when every pixel equals the first
// (a blank or uniform picture, which usually means nothing was captured), 0 when the
// picture has content, -1 for a null picture or a size that is not whole pixels.
OSV_API int32_t CompareArgbPixel(const uint8_t* pixels, uint32_t size);
