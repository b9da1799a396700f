// Arbitrary bytes as an image file: the JPEG, PNG and BMP header walkers, VerifyImage, and the
// BMP reader with its conversion to I420.
#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_file.h"
#include "platform/adapt_common/tavo_video_image_convert.h"
#include "tavo_video_image_util.h"
#include "tavo_video_vlink_trace.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Formats every message too, so that a bad format argument shows up.
  OS_VLink_Debug_SetTraceLevel(4);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzFile file;
  const char* path = file.Fill(data, size);
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t depth = 0;
  ImageUtils::GetJpegInfo(path, &width, &height, &depth);
  ImageUtils::GetPngInfo(path, &width, &height, &depth);
  ImageUtils::GetBmpInfo(path, &width, &height, &depth);
  const ImageVerifyRequirement req = {2, 4096, 2, 4096, 1, 64, 7};
  ImageUtils::VerifyImage(path, &req);
  uint8_t* image = nullptr;
  if (Transbmp2Yuv(path, &width, &height, &image) == 0) {
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
