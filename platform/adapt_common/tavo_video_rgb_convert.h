// Frame-to-frame conversions of the platform video library used by the virtual background:
// camera frame to ARGB, ARGB to packed 24-bit, packed 24-bit back into the camera frame.
// All return 0 on success and leave the destination untouched on failure.
//
// Packed 24-bit frames (format 15) made here hold B, G, R in memory for every pixel, rows of
// stride[0] bytes: the order OpenCV reads colour images in, so a background image and a
// frame copy pair their bytes directly.
#pragma once

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

// Rotation applied while converting, clockwise.
enum PelvRotationAngle : uint32_t {
  PELV_ROTATION_0 = 0,
  PELV_ROTATION_90 = 90,
  PELV_ROTATION_180 = 180,
  PELV_ROTATION_270 = 270,
};

// Source I420, ARGB or packed 24-bit into an ARGB frame (format 12). The destination has
// the source's size, width and height swapped for 90 and 270.
OSV_API int32_t ConvertToARGB(OsvGraphicBuffer* source, OsvGraphicBuffer* argb,
                              PelvRotationAngle rotation);
// ARGB frame into a packed 24-bit frame (format 15) of the same size.
OSV_API int32_t ARGBToRGB24(OsvGraphicBuffer* argb, OsvGraphicBuffer* rgb);
// Packed 24-bit frame into an I420 frame of the same size, replacing its pixels (BT.601
// limited range, as the camera path uses).
OSV_API int32_t RGBToYUV420(OsvGraphicBuffer* rgb, OsvGraphicBuffer* destination);
