#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tavo_video_image_util.h"
#include "tests/support/log_capture.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using InfoReader = uint32_t (*)(const char*, uint32_t*, uint32_t*, uint32_t*);

constexpr uint32_t kError = 1;
constexpr uint32_t kInfo = 3;

class ImageUtilTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = fs::temp_directory_path() /
            ("image_util_test_" + std::to_string(getpid()) + "_" +
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
  LogCapture m_log;
};

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes Be(uint32_t value, int bytes) {
  Bytes out;
  for (int i = bytes - 1; i >= 0; --i) {
    out.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
  return out;
}

const Bytes kSoi = {0xFF, 0xD8};
const Bytes kApp0 = Bytes{0xFF, 0xE0} + Be(16, 2) + Bytes(14, 0x4A);

Bytes Sof(uint8_t marker, uint8_t precision, uint32_t width, uint32_t height, uint8_t comps) {
  return Bytes{0xFF, marker} + Be(8U + 3U * comps, 2) + Bytes{precision} + Be(height, 2) +
         Be(width, 2) + Bytes{comps} + Bytes(3U * comps, 0x11);
}

const Bytes kPngSig = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};

Bytes Chunk(const char* type, const Bytes& data) {
  return Be(static_cast<uint32_t>(data.size()), 4) + Bytes(type, type + 4) + data + Bytes(4, 0xCC);
}

Bytes Ihdr(uint32_t width, uint32_t height, uint8_t depth, uint8_t colorType) {
  return Chunk("IHDR", Be(width, 4) + Be(height, 4) + Bytes{depth, colorType, 0, 0, 0});
}

// The 54-byte headers of a BMP; GetBmpInfo reads nothing further.
Bytes Bmp(uint32_t width, uint32_t height, uint16_t bitCount) {
  Bytes b(54, 0);
  b[0] = 'B';
  b[1] = 'M';
  for (int i = 0; i < 4; ++i) {
    b[18 + i] = static_cast<uint8_t>(width >> (8 * i));
    b[22 + i] = static_cast<uint8_t>(height >> (8 * i));
  }
  b[28] = static_cast<uint8_t>(bitCount);
  b[29] = static_cast<uint8_t>(bitCount >> 8);
  return b;
}

Bytes Cut(Bytes b, size_t size) {
  b.resize(size);
  return b;
}

TEST_F(ImageUtilTest, SignaturesNeedTheirFullLength) {
  Bytes png = kPngSig;
  Bytes jpeg = kSoi;
  Bytes bmp = {'B', 'M'};
  Bytes other = {0xFF, 0xD9, 'B', 'A'};
  EXPECT_TRUE(ImageUtils::isPngFormat(png.data(), 8));
  EXPECT_TRUE(ImageUtils::isJpegFormat(jpeg.data(), 2));
  EXPECT_TRUE(ImageUtils::isBmpFormat(bmp.data(), 2));
  EXPECT_FALSE(ImageUtils::isJpegFormat(other.data(), 4));
  EXPECT_FALSE(ImageUtils::isBmpFormat(other.data() + 2, 2));
  EXPECT_EQ(m_log.CountModule("imgData is invalid!"), 0U);

  EXPECT_FALSE(ImageUtils::isPngFormat(png.data(), 7));
  EXPECT_TRUE(m_log.HasModule("isPngFormat() imgData is invalid!", kError));
  EXPECT_FALSE(ImageUtils::isJpegFormat(jpeg.data(), 1));
  EXPECT_TRUE(m_log.HasModule("isJpegFormat() imgData is invalid!", kError));
  EXPECT_FALSE(ImageUtils::isBmpFormat(nullptr, 2));
  EXPECT_TRUE(m_log.HasModule("isBmpFormat() imgData is invalid!", kError));
  EXPECT_EQ(ImageUtils::GetRealValue(0x11223344U), 0x44332211U);
}

struct InfoCase {
  const char* name;
  InfoReader read;
  Bytes file;
  uint32_t rc, width, height, depth;
  const char* log;  // expected in the module log, or ""
};

TEST_F(ImageUtilTest, HeaderWalkers) {
  const InfoCase cases[] = {
      {"jpeg baseline rgb", ImageUtils::GetJpegInfo, kSoi + kApp0 + Sof(0xC0, 8, 640, 480, 3), 0,
       640, 480, 24, "JPEG image info width[640], height[480], depthPix[24]"},
      {"jpeg baseline grey", ImageUtils::GetJpegInfo, kSoi + Sof(0xC0, 8, 33, 17, 1), 0, 33, 17, 8,
       "File format is JPEG"},
      {"jpeg progressive", ImageUtils::GetJpegInfo, kSoi + kApp0 + Sof(0xC2, 8, 64, 64, 3), 1, 0, 0,
       0, ""},
      {"jpeg sof cut", ImageUtils::GetJpegInfo, kSoi + Bytes{0xFF, 0xC0, 0, 17, 8, 1}, 1, 0, 0, 0,
       ""},
      {"jpeg zero length", ImageUtils::GetJpegInfo, kSoi + Bytes{0xFF, 0xE1, 0, 0, 0xFF, 0xC0}, 1,
       0, 0, 0, ""},
      {"jpeg bad marker", ImageUtils::GetJpegInfo, kSoi + Bytes{0x12, 0xC0} + Bytes(11, 0), 1, 0, 0,
       0, "Invalid JPEG file"},
      {"jpeg not jpeg", ImageUtils::GetJpegInfo, kPngSig, 1, 0, 0, 0, "Invalid JPEG file"},
      {"png grey alpha", ImageUtils::GetPngInfo, kPngSig + Ihdr(320, 200, 8, 4), 0, 320, 200, 32,
       "PNG image info width[320], height[200], bitDepth[8], colorType[4], depthPix[32]: "},
      {"png palette", ImageUtils::GetPngInfo, kPngSig + Ihdr(70000, 2, 8, 3), 0, 70000, 2, 24,
       "File format is PNG"},
      {"png grey 16", ImageUtils::GetPngInfo, kPngSig + Ihdr(4, 4, 16, 0), 0, 4, 4, 16, ""},
      {"png rgba 16", ImageUtils::GetPngInfo, kPngSig + Ihdr(4, 4, 16, 6), 0, 4, 4, 64, ""},
      {"png bad colour", ImageUtils::GetPngInfo, kPngSig + Ihdr(4, 4, 8, 5), 0, 4, 4, 0,
       "colorType[5] is invalid!"},
      {"png chunk first", ImageUtils::GetPngInfo,
       kPngSig + Chunk("tEXt", Bytes(13, 'a')) + Ihdr(8, 6, 8, 2), 0, 8, 6, 24,
       "Length of the header information is [13] "},
      {"png no ihdr", ImageUtils::GetPngInfo, kPngSig + Chunk("IEND", {}), 1, 0, 0, 0, ""},
      {"png chunk past end", ImageUtils::GetPngInfo,
       kPngSig + Be(0xFFFFFFF0U, 4) + Bytes{'I', 'D', 'A', 'T'} + Ihdr(8, 6, 8, 2), 1, 0, 0, 0, ""},
      {"png ihdr cut", ImageUtils::GetPngInfo, kPngSig + Be(13, 4) + Bytes{'I', 'H', 'D', 'R', 0},
       1, 0, 0, 0, ""},
      {"png not png", ImageUtils::GetPngInfo, kSoi, 1, 0, 0, 0, " Non-PNG image"},
      {"bmp", ImageUtils::GetBmpInfo, Bmp(641, 480, 24), 0, 641, 480, 24,
       "BMP image info width[641], height[480], depthPix[24]: "},
      {"bmp top-down", ImageUtils::GetBmpInfo, Bmp(8, 0xFFFFFFFAU, 32), 0, 8, 0xFFFFFFFAU, 32,
       "File format is BMP"},
      {"bmp cut", ImageUtils::GetBmpInfo, Cut(Bmp(8, 6, 24), 29), 1, 0, 0, 0, ""},
      {"bmp not bmp", ImageUtils::GetBmpInfo, kSoi, 1, 0, 0, 0, "Invalid BMP file"},
  };
  for (const InfoCase& c : cases) {
    SCOPED_TRACE(c.name);
    uint32_t w = 7;
    uint32_t h = 7;
    uint32_t d = 7;
    LogCapture log;
    EXPECT_EQ(c.read(Write(c.file).c_str(), &w, &h, &d), c.rc);
    if (c.rc == 0) {
      EXPECT_EQ(w, c.width);
      EXPECT_EQ(h, c.height);
      EXPECT_EQ(d, c.depth);
    } else {
      EXPECT_EQ(w + h + d, 21U) << "outputs written on failure";
    }
    EXPECT_TRUE(log.HasModule(c.log));
  }
}

TEST_F(ImageUtilTest, OpenFailureAndNullOutputs) {
  const std::string missing = (m_dir / "missing.bmp").string();
  const std::string bmp = Write(Bmp(8, 6, 24));
  uint32_t v = 0;
  for (InfoReader read :
       {ImageUtils::GetJpegInfo, ImageUtils::GetPngInfo, ImageUtils::GetBmpInfo}) {
    EXPECT_EQ(read(missing.c_str(), &v, &v, &v), 1U);
    EXPECT_EQ(read(bmp.c_str(), &v, nullptr, &v), 1U);
  }
  EXPECT_EQ(m_log.CountModule("Failed to open file", kError), 3U);
  EXPECT_TRUE(m_log.HasModule("Failed to open file, filename " + missing, kError));
}

struct VerifyCase {
  const char* name;
  Bytes file;
  ImageVerifyRequirement req;
  uint32_t rc;
  const char* log;
};

TEST_F(ImageUtilTest, VerifyImage) {
  const ImageVerifyRequirement any = {2, 4096, 2, 4096, 1, 64, 7};
  const VerifyCase cases[] = {
      {"bmp after png row",
       Bmp(640, 480, 24),
       {2, 4096, 2, 4096, 1, 64, 6},
       0,
       "The file format[2] is invalid."},
      {"bmp decides", Bmp(640, 480, 24), any, 0, "The file format is 4."},
      {"jpeg decides", kSoi + Sof(0xC0, 8, 640, 480, 3), any, 0, "The file format is 1."},
      {"odd width", Bmp(641, 480, 24), any, 1,
       "The resolution cannot be converted to YUV format! width[641], height[480]"},
      {"limits inclusive", kPngSig + Ihdr(640, 480, 8, 2), {640, 640, 480, 480, 24, 24, 2}, 0, ""},
      {"width above",
       Bmp(642, 480, 24),
       {2, 640, 2, 480, 1, 64, 4},
       1,
       "The resolution is invalid. width[642], height[480]!"},
      {"height below",
       Bmp(640, 478, 24),
       {2, 640, 480, 480, 1, 64, 4},
       1,
       "The resolution is invalid."},
      {"top-down height", Bmp(640, 0xFFFFFE20U, 24), any, 1, "The resolution is invalid."},
      {"depth above",
       Bmp(640, 480, 32),
       {2, 640, 2, 480, 1, 24, 4},
       1,
       "The depth is invalid. depth[32]!"},
      {"depth below", Bmp(640, 480, 8), {2, 640, 2, 480, 16, 32, 4}, 1, "The depth is invalid."},
      {"format not in set",
       kPngSig + Ihdr(640, 480, 8, 2),
       {2, 4096, 2, 4096, 1, 64, 5},
       1,
       "The image format is invalid.!"},
      {"empty set",
       Bmp(640, 480, 24),
       {2, 4096, 2, 4096, 1, 64, 0},
       1,
       "The image format is invalid.!"},
  };
  for (const VerifyCase& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    EXPECT_EQ(ImageUtils::VerifyImage(Write(c.file).c_str(), &c.req), c.rc);
    EXPECT_TRUE(log.HasModule(c.log, c.rc == 0 ? kInfo : kError));
  }
  EXPECT_EQ(ImageUtils::VerifyImage(nullptr, &any), 1U);
  EXPECT_TRUE(m_log.HasModule("filePath is null!", kError));
  EXPECT_EQ(ImageUtils::VerifyImage(Write(Bmp(8, 6, 24)).c_str(), nullptr), 1U);
  EXPECT_TRUE(m_log.HasModule("req is null!", kError));
}

}  // namespace
