// Pictures as the host program handles them: frames copied out of the render callback,
// packed RGB for windows and PNG files, and the synthetic clip the decode mode plays.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tavo_video_render_interface.h"

// Packed R, G, B, top row first.
struct RgbImage {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> pixels;
};

// A frame the render callback described, copied while the callback ran: the library's
// memory is gone once it returns.
struct RenderedFrame {
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t stride0 = 0;
  uint32_t stride1 = 0;
  uint32_t format = TAVO_VIDEO_RENDER_IMG_I420;
  std::vector<uint8_t> bytes;
};

// The bytes a header's pixels take (I420: Y, then U and V planes of stride1; RGB: 3 bytes a
// pixel, rows packed); 0 for a header this host cannot read or whose pixels would overrun
// its dataSize.
size_t RenderedBytes(const TavoVideoRenderImgHeader& header);
// Copies the header's pixels into frame, reusing its memory. false when RenderedBytes is 0.
bool CopyRendered(const TavoVideoRenderImgHeader& header, RenderedFrame& frame);
// Converts a copied frame to RGB (BT.601, limited range for I420). false when empty.
bool RenderedToRgb(const RenderedFrame& frame, RgbImage& out);

// Frame `index` of a `count`-frame clip as packed I420: colour bars sliding right over a
// grey ramp, above a bar that fills from the left as the clip plays (full on the last
// frame), so that order, orientation and colours all show in any one picture.
void DrawMovingBars(uint32_t width, uint32_t height, uint32_t index, uint32_t count,
                    std::vector<uint8_t>& i420);

// Scales `from` to fit a width x height box (keeping its shape, nearest pixel) and pastes
// it centred in that box at (x, y) of `into`.
void PasteScaled(const RgbImage& from, RgbImage& into, uint32_t x, uint32_t y, uint32_t width,
                 uint32_t height);

// Writes an 8-bit RGB PNG. false and a message in error on failure.
bool WritePng(const std::string& path, const RgbImage& image, std::string& error);
