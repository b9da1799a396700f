// Arbitrary bytes as an image file: the JPEG, PNG and BMP header walkers, VerifyImage, and the
// BMP reader with its conversion to I420. The code under test only reads files: the input goes
// to an anonymous memory file, rewritten for every input and opened by path through /proc.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/adapt_common/tavo_video_image_convert.h"
#include "tavo_video_image_util.h"
#include "tavo_video_vlink_trace.h"

static int g_file = -1;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Formats every message too, so that a bad format argument shows up.
  OS_VLink_Debug_SetTraceLevel(4);
  g_file = memfd_create("vlink_fuzz", MFD_CLOEXEC);
  if (g_file < 0) {
    perror("memfd_create");
    abort();
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (ftruncate(g_file, 0) != 0 ||
      (size > 0 && pwrite(g_file, data, size, 0) != static_cast<ssize_t>(size))) {
    perror("memfd write");
    abort();
  }
  const std::string file = "/proc/self/fd/" + std::to_string(g_file);
  const char* path = file.c_str();
  uint32_t width = 0, height = 0, depth = 0;
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
