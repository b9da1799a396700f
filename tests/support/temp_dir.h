// A scratch directory that is removed with everything in it when the test ends.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
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

// A bottom-up 24-bit BMP of one colour (B, G, R).
inline std::vector<uint8_t> SolidBmp24(uint32_t width, uint32_t height, uint8_t b, uint8_t g,
                                       uint8_t r) {
  const uint32_t rowBytes = (width * 3 + 3) & ~3U;
  std::vector<uint8_t> file(54 + size_t{rowBytes} * height, 0);
  auto put32 = [&](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) file[at + i] = static_cast<uint8_t>(v >> (8 * i));
  };
  file[0] = 'B';
  file[1] = 'M';
  put32(2, static_cast<uint32_t>(file.size()));
  put32(10, 54);
  put32(14, 40);
  put32(18, width);
  put32(22, height);
  file[26] = 1;
  file[28] = 24;
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      uint8_t* p = &file[54 + size_t{rowBytes} * y + size_t{x} * 3];
      p[0] = b;
      p[1] = g;
      p[2] = r;
    }
  }
  return file;
}
