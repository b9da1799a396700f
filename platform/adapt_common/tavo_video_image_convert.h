// Image-file conversions of the platform video library. Every image they hand back is
// packed I420 (Y, then U, then V; chroma planes width/2 x height/2), allocated with
// new[] and released by the caller with delete[]. All return 0 on success.
#pragma once

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

// Reads a BMP file (24 or 32 bits per pixel, bottom-up or top-down) into I420. Odd widths
// and heights lose their last column or row so that the image stays valid I420.
OSV_API int32_t Transbmp2Yuv(const char* path, uint32_t* width, uint32_t* height, uint8_t** out);
// Reads a raw I420 file of the given (even, non-zero) size; the file must hold at least
// width*height*3/2 bytes.
OSV_API int32_t TransDat2Yuv(const char* path, uint8_t** out, uint32_t width, uint32_t height);
// Converts a packed 24-bit image to I420. bgrOrder: bytes are B, G, R per pixel (as BMP
// stores them); otherwise R, G, B.
OSV_API int32_t Trans2Yuv(uint8_t* rgb, uint32_t width, uint32_t height, bool bgrOrder,
                          uint8_t** out);
// Converts an I420 frame (planes and strides as the frame describes them, BT.601 limited
// range) to packed 24-bit RGB: R, G, B in memory for every pixel, rows of width*3 bytes
// without padding. target must hold width*height*3 bytes; width and height must be the
// frame's own. Fails, target untouched, for null arguments, other formats, a size that is
// not the frame's, missing planes, or planes the frame's memory does not hold.
OSV_API int32_t ChangeI420ToRGB(OsvGraphicBuffer* buffer, uint8_t* target, uint32_t width,
                                uint32_t height);
