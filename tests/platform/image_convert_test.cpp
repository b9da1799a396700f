#include <gtest/gtest.h>
#include <libyuv.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/tavo_video_image_convert.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

class ImageConvertTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = fs::temp_directory_path() /
            ("image_convert_test_" + std::to_string(getpid()) + "_" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(m_dir);
  }
  void TearDown() override { fs::remove_all(m_dir); }

  std::string Write(const Bytes& data) {
    const fs::path path = m_dir / ("f" + std::to_string(m_files++));
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
    return path.string();
  }

  fs::path m_dir;
  int m_files = 0;
};

Bytes Random(size_t size, uint32_t seed) {
  std::mt19937 gen(seed);
  Bytes out(size);
  for (uint8_t& b : out) {
    b = static_cast<uint8_t>(gen());
  }
  return out;
}

void Put(Bytes& v, size_t at, uint32_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) {
    v[at + i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

// A BMP holding `pixels` (memory order, rows top to bottom, unpadded); a positive height
// stores the rows bottom-up as usual.
Bytes MakeBmp(int32_t width, int32_t height, uint32_t bitCount, uint32_t compression,
              const Bytes& pixels) {
  const size_t rowBytes = static_cast<size_t>(width) * bitCount / 8;
  const size_t stride = (rowBytes + 3) / 4 * 4;
  const size_t rows = static_cast<size_t>(height < 0 ? -height : height);
  Bytes bmp(54 + stride * rows, 0);
  bmp[0] = 'B';
  bmp[1] = 'M';
  Put(bmp, 2, static_cast<uint32_t>(bmp.size()), 4);
  Put(bmp, 10, 54, 4);
  Put(bmp, 14, 40, 4);
  Put(bmp, 18, static_cast<uint32_t>(width), 4);
  Put(bmp, 22, static_cast<uint32_t>(height), 4);
  Put(bmp, 26, 1, 2);
  Put(bmp, 28, bitCount, 2);
  Put(bmp, 30, compression, 4);
  for (size_t r = 0; r < rows; ++r) {
    const size_t fileRow = height > 0 ? rows - 1 - r : r;
    std::copy_n(pixels.begin() + static_cast<ptrdiff_t>(r * rowBytes), rowBytes,
                bmp.begin() + static_cast<ptrdiff_t>(54 + fileRow * stride));
  }
  return bmp;
}

using LibyuvToI420 = int (*)(const uint8_t*, int, uint8_t*, int, uint8_t*, int, uint8_t*, int, int,
                             int);

// libyuv's own conversion of the top-left w x h of a top-down image.
Bytes Oracle(LibyuvToI420 convert, const uint8_t* src, int srcStride, int w, int h) {
  Bytes out(static_cast<size_t>(w * h * 3 / 2));
  uint8_t* y = out.data();
  uint8_t* u = y + w * h;
  uint8_t* v = u + w * h / 4;
  EXPECT_EQ(convert(src, srcStride, y, w, u, w / 2, v, w / 2, w, h), 0);
  return out;
}

Bytes Take(uint8_t* image, size_t size) {
  std::unique_ptr<uint8_t[]> owned(image);
  return Bytes(owned.get(), owned.get() + size);
}

struct BmpCase {
  const char* name;
  int32_t width;
  int32_t height;  // negative: top-down
  uint32_t bitCount;
  uint32_t compression;
};

TEST_F(ImageConvertTest, BmpMatchesLibyuv) {
  const BmpCase cases[] = {
      {"bottom-up 24", 8, 6, 24, 0},        {"top-down 24", 8, -6, 24, 0},
      {"odd bottom-up 24", 37, 11, 24, 0},  {"odd top-down 24", 7, -5, 24, 0},
      {"bottom-up 32", 64, 4, 32, 0},       {"odd bottom-up 32", 9, 7, 32, 0},
      {"top-down bitfields", 5, -3, 32, 3},
  };
  for (const BmpCase& c : cases) {
    SCOPED_TRACE(c.name);
    const int bpp = static_cast<int>(c.bitCount / 8);
    const int rows = std::abs(c.height);
    const Bytes pixels = Random(static_cast<size_t>(c.width * bpp * rows), 7);
    const std::string path = Write(MakeBmp(c.width, c.height, c.bitCount, c.compression, pixels));
    uint32_t w = 0;
    uint32_t h = 0;
    uint8_t* image = nullptr;
    ASSERT_EQ(Transbmp2Yuv(path.c_str(), &w, &h, &image), 0);
    const int ew = c.width & ~1;
    const int eh = rows & ~1;
    ASSERT_EQ(w, static_cast<uint32_t>(ew));
    ASSERT_EQ(h, static_cast<uint32_t>(eh));
    EXPECT_EQ(Take(image, w * h * 3 / 2),
              Oracle(bpp == 3 ? libyuv::RGB24ToI420 : libyuv::ARGBToI420, pixels.data(),
                     c.width * bpp, ew, eh));
  }
}

TEST_F(ImageConvertTest, BadBmpRefusedWithOutputsUntouched) {
  const Bytes good = MakeBmp(8, 6, 24, 0, Random(8 * 6 * 3, 1));
  const std::pair<const char*, std::function<void(Bytes&)>> cases[] = {
      {"empty", [](Bytes& b) { b.clear(); }},
      {"header cut", [](Bytes& b) { b.resize(40); }},
      {"pixels cut", [](Bytes& b) { b.pop_back(); }},
      {"signature", [](Bytes& b) { b[1] = 'A'; }},
      {"offset past end", [](Bytes& b) { Put(b, 10, static_cast<uint32_t>(b.size()), 4); }},
      {"offset huge", [](Bytes& b) { Put(b, 10, 0xFFFFFFFFU, 4); }},
      {"offset in header", [](Bytes& b) { Put(b, 10, 20, 4); }},
      {"core header", [](Bytes& b) { Put(b, 14, 12, 4); }},
      {"zero width", [](Bytes& b) { Put(b, 18, 0, 4); }},
      {"negative width", [](Bytes& b) { Put(b, 18, 0xFFFFFFF8U, 4); }},
      {"width too big", [](Bytes& b) { Put(b, 18, 16385, 4); }},
      {"claims 16384 square",
       [](Bytes& b) {
         Put(b, 18, 16384, 4);
         Put(b, 22, 16384, 4);
       }},
      {"zero height", [](Bytes& b) { Put(b, 22, 0, 4); }},
      {"height INT32_MIN", [](Bytes& b) { Put(b, 22, 0x80000000U, 4); }},
      {"planes", [](Bytes& b) { Put(b, 26, 2, 2); }},
      {"16 bit", [](Bytes& b) { Put(b, 28, 16, 2); }},
      {"RLE", [](Bytes& b) { Put(b, 30, 1, 4); }},
      {"bitfields on 24 bit", [](Bytes& b) { Put(b, 30, 3, 4); }},
      {"1x1", [](Bytes& b) { b = MakeBmp(1, 1, 24, 0, Bytes(3)); }},
  };
  for (const auto& [name, mutate] : cases) {
    SCOPED_TRACE(name);
    Bytes bad = good;
    mutate(bad);
    uint32_t w = 99;
    uint32_t h = 99;
    uint8_t sentinel = 0;
    uint8_t* image = &sentinel;
    EXPECT_NE(Transbmp2Yuv(Write(bad).c_str(), &w, &h, &image), 0);
    EXPECT_EQ(w, 99U);
    EXPECT_EQ(h, 99U);
    EXPECT_EQ(image, &sentinel);
  }
  uint32_t w = 0;
  uint32_t h = 0;
  uint8_t* image = nullptr;
  EXPECT_NE(Transbmp2Yuv((m_dir / "missing").c_str(), &w, &h, &image), 0);
  EXPECT_NE(Transbmp2Yuv(m_dir.c_str(), &w, &h, &image), 0);
  EXPECT_EQ(image, nullptr);
}

TEST_F(ImageConvertTest, DatReadsI420AndRefusesShortFiles) {
  const Bytes frame = Random(8 * 6 * 3 / 2, 3);
  Bytes longer = frame;
  longer.push_back(0x55);
  uint8_t* image = nullptr;
  ASSERT_EQ(TransDat2Yuv(Write(longer).c_str(), &image, 8, 6), 0);
  EXPECT_EQ(Take(image, frame.size()), frame);

  const std::string exact = Write(frame);
  image = nullptr;
  EXPECT_NE(TransDat2Yuv(Write(Bytes(frame.begin(), frame.end() - 1)).c_str(), &image, 8, 6), 0);
  EXPECT_NE(TransDat2Yuv(exact.c_str(), &image, 7, 6), 0);
  EXPECT_NE(TransDat2Yuv(exact.c_str(), &image, 8, 0), 0);
  EXPECT_NE(TransDat2Yuv(exact.c_str(), &image, 16386, 2), 0);
  EXPECT_EQ(image, nullptr);
}

TEST_F(ImageConvertTest, RgbMatchesLibyuvInBothByteOrders) {
  Bytes rgb = Random(34 * 6 * 3, 5);
  for (const bool bgr : {true, false}) {
    SCOPED_TRACE(bgr ? "BGR" : "RGB");
    uint8_t* image = nullptr;
    ASSERT_EQ(Trans2Yuv(rgb.data(), 34, 6, bgr, &image), 0);
    EXPECT_EQ(Take(image, 34 * 6 * 3 / 2),
              Oracle(bgr ? libyuv::RGB24ToI420 : libyuv::RAWToI420, rgb.data(), 34 * 3, 34, 6));
  }
  uint8_t* image = nullptr;
  EXPECT_NE(Trans2Yuv(rgb.data(), 33, 6, true, &image), 0);
  EXPECT_NE(Trans2Yuv(nullptr, 34, 6, true, &image), 0);
  EXPECT_EQ(image, nullptr);
}

}  // namespace
