// A scratch directory that is removed with everything in it when the test ends.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

class TempDir {
 public:
  explicit TempDir(const std::filesystem::path& parent = std::filesystem::temp_directory_path(),
                   const std::string& prefix = "vlink")
      : m_path(parent / (prefix + std::to_string(getpid()) + "_" + std::to_string(s_counter++))) {
    std::filesystem::create_directories(m_path);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return m_path; }
  std::string Write(const std::string& name, const std::vector<uint8_t>& bytes) const {
    const std::filesystem::path file = m_path / name;
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return file.string();
  }

 private:
  static inline int s_counter = 0;
  std::filesystem::path m_path;
};

// `size` bytes of noise, the same for the same seed.
inline std::vector<uint8_t> RandomBytes(size_t size, uint32_t seed) {
  std::mt19937 generator(seed);
  std::vector<uint8_t> bytes(size);
  for (uint8_t& byte : bytes) {
    byte = static_cast<uint8_t>(generator());
  }
  return bytes;
}

// Writes `value` little-endian into `bytes` bytes at `at`.
inline void PutLe(std::vector<uint8_t>& file, size_t at, uint64_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) {
    file[at + i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

// A BMP holding `pixels` (memory order, rows top to bottom, unpadded; none: zero pixels); a
// positive height stores the rows bottom-up as usual.
inline std::vector<uint8_t> MakeBmp(int32_t width, int32_t height, uint32_t bitCount,
                                    uint32_t compression = 0,
                                    const std::vector<uint8_t>& pixels = {}) {
  const size_t rowBytes = static_cast<size_t>(width) * bitCount / 8;
  const size_t stride = (rowBytes + 3) / 4 * 4;
  const size_t rows = static_cast<size_t>(std::abs(height));
  std::vector<uint8_t> bmp(54 + stride * rows, 0);
  PutLe(bmp, 0, 'B' | 'M' << 8, 2);
  PutLe(bmp, 2, bmp.size(), 4);
  PutLe(bmp, 10, 54, 4);
  PutLe(bmp, 14, 40, 4);
  PutLe(bmp, 18, static_cast<uint32_t>(width), 4);
  PutLe(bmp, 22, static_cast<uint32_t>(height), 4);
  PutLe(bmp, 26, 1, 2);
  PutLe(bmp, 28, bitCount, 2);
  PutLe(bmp, 30, compression, 4);
  for (size_t r = 0; r < rows && !pixels.empty(); ++r) {
    const size_t fileRow = height > 0 ? rows - 1 - r : r;
    std::copy_n(pixels.begin() + static_cast<ptrdiff_t>(r * rowBytes), rowBytes,
                bmp.begin() + static_cast<ptrdiff_t>(54 + fileRow * stride));
  }
  return bmp;
}

// A 24-bit BMP of one colour (B, G, R).
inline std::vector<uint8_t> SolidBmp24(uint32_t width, uint32_t height, uint8_t b, uint8_t g,
                                       uint8_t r) {
  std::vector<uint8_t> pixels(size_t{width} * height * 3);
  for (size_t i = 0; i < pixels.size(); i += 3) {
    pixels[i] = b;
    pixels[i + 1] = g;
    pixels[i + 2] = r;
  }
  return MakeBmp(static_cast<int32_t>(width), static_cast<int32_t>(height), 24, 0, pixels);
}
