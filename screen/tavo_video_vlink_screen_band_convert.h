// Conversion of row bands: the rows a frame changed go from the grabbed ARGB image into the
// I420 output, the others come from the previous output; both through the platform's
// conversions on buffers, so a band converts exactly as it would within the whole frame.
#pragma once

#include <cstdint>
#include <vector>

#include "osv_graphic_buffer.h"
#include "screen/tavo_video_vlink_x11_damage.h"

// ARGB rows of `source` (width x height, `stride` bytes a row) into the same rows of the
// I420 `target`. 0, or the conversion's code.
int32_t ConvertArgbRows(uint8_t* source, uint32_t stride, uint32_t width, uint32_t height,
                        const std::vector<RowBand>& bands, OsvGraphicBuffer* target);
// The rows of the I420 `source` outside `bands` into `target` (same size).
int32_t CopyI420RowsOutside(OsvGraphicBuffer* source, const std::vector<RowBand>& bands,
                            OsvGraphicBuffer* target);
