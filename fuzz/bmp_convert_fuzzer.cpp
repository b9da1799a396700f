// Arbitrary bytes through the BMP reader and its conversion to I420.
#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_file.h"
#include "platform/adapt_common/tavo_video_image_convert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzFile file;
  uint32_t width = 0;
  uint32_t height = 0;
  uint8_t* image = nullptr;
  if (Transbmp2Yuv(file.Fill(data, size), &width, &height, &image) == 0) {
    // Touch the whole image so that a short allocation shows up.
    const size_t bytes = size_t{width} * height * 3 / 2;
    volatile uint8_t sum = 0;
    for (size_t i = 0; i < bytes; ++i) {
      sum = static_cast<uint8_t>(sum + image[i]);
    }
    delete[] image;
  }
  return 0;
}
