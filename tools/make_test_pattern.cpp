// Writes the default still image for the host program: a 24-bit bottom-up BMP with colour
// bars over a grey ramp, so that a wrong plane, stride or orientation is easy to see.
//
// usage: make_test_pattern OUT.bmp [width height]
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

void Put16(std::vector<uint8_t>& out, size_t at, uint32_t value) {
  out[at] = static_cast<uint8_t>(value);
  out[at + 1] = static_cast<uint8_t>(value >> 8);
}

void Put32(std::vector<uint8_t>& out, size_t at, uint32_t value) {
  Put16(out, at, value & 0xFFFFU);
  Put16(out, at + 2, value >> 16);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s OUT.bmp [width height]\n", argv[0]);
    return 2;
  }
  const uint32_t width = argc > 3 ? static_cast<uint32_t>(std::atoi(argv[2])) : 1280;
  const uint32_t height = argc > 3 ? static_cast<uint32_t>(std::atoi(argv[3])) : 720;
  const uint32_t rowBytes = (width * 3 + 3) & ~3U;
  const uint32_t dataOffset = 54;
  std::vector<uint8_t> file(dataOffset + size_t{rowBytes} * height, 0);
  file[0] = 'B';
  file[1] = 'M';
  Put32(file, 2, static_cast<uint32_t>(file.size()));
  Put32(file, 10, dataOffset);
  Put32(file, 14, 40);
  Put32(file, 18, width);
  Put32(file, 22, height);  // positive: bottom-up rows
  Put16(file, 26, 1);
  Put16(file, 28, 24);
  // White, yellow, cyan, green, magenta, red, blue, black (as B, G, R).
  static const uint8_t kBars[8][3] = {{255, 255, 255}, {0, 255, 255}, {255, 255, 0}, {0, 255, 0},
                                      {255, 0, 255},   {0, 0, 255},   {255, 0, 0},   {0, 0, 0}};
  for (uint32_t y = 0; y < height; ++y) {
    const uint32_t top = height - 1 - y;  // row y of the file is row `top` of the picture
    uint8_t* row = file.data() + dataOffset + size_t{rowBytes} * y;
    for (uint32_t x = 0; x < width; ++x) {
      uint8_t* pixel = row + size_t{x} * 3;
      if (top < height * 2 / 3) {
        const uint8_t* bar = kBars[x * 8 / width];
        pixel[0] = bar[0];
        pixel[1] = bar[1];
        pixel[2] = bar[2];
      } else {
        pixel[0] = pixel[1] = pixel[2] = static_cast<uint8_t>(x * 255 / (width - 1));
      }
    }
  }
  FILE* out = std::fopen(argv[1], "wb");
  if (out == nullptr || std::fwrite(file.data(), 1, file.size(), out) != file.size()) {
    std::perror(argv[1]);
    return 1;
  }
  std::fclose(out);
  return 0;
}
