// The number the camera clip writes into each of its frames, so that the host can tell,
// from a frame it receives, which frame of the clip it is and so when the camera gave it:
// a strip of ten square blocks low in the middle of the picture (on the person, which the
// virtual background keeps): a white start block, eight bits of the number (white = 1,
// lowest bit first), a black stop block. Positions are fractions of the picture, so the
// strip is found at any capture size.
#pragma once

#include <cstdint>

inline constexpr double kNumberLeft = 520.0 / 1280.0;
inline constexpr double kNumberTop = 684.0 / 720.0;
inline constexpr double kNumberBlock = 12.0 / 720.0;  // a block's side, of the height
inline constexpr int kNumberBits = 8;

// The left edge of block `block` (0 = start, 1 to 8 = bits, 9 = stop) in a picture of
// `width` x `height`, and the top of the strip.
inline double NumberBlockLeft(int block, uint32_t width, uint32_t height) {
  return kNumberLeft * width + block * kNumberBlock * height;
}
inline double NumberTop(uint32_t height) { return kNumberTop * height; }

// The number in a luma plane, or -1 when the strip is not there (no start and stop block).
inline int ReadFrameNumber(const uint8_t* luma, uint32_t stride, uint32_t width, uint32_t height) {
  const double side = kNumberBlock * height;
  const uint32_t row = static_cast<uint32_t>(NumberTop(height) + side / 2);
  auto bright = [&](int block, bool& readable) {
    const uint32_t column = static_cast<uint32_t>(NumberBlockLeft(block, width, height) + side / 2);
    if (row >= height || column >= width) {
      readable = false;
      return false;
    }
    const uint8_t value = luma[static_cast<uint64_t>(row) * stride + column];
    // Far from the middle either way, or the block is no block of the strip.
    readable = readable && (value > 170 || value < 80);
    return value > 128;
  };
  bool readable = true;
  if (!bright(0, readable) || bright(kNumberBits + 1, readable)) {
    return -1;
  }
  int number = 0;
  for (int bit = 0; bit < kNumberBits; ++bit) {
    number |= bright(bit + 1, readable) ? 1 << bit : 0;
  }
  return readable ? number : -1;
}
