#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "tavo_video_image_util.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using Bytes = std::vector<uint8_t>;
using InfoReader = uint32_t (*)(const char*, uint32_t*, uint32_t*, uint32_t*);

constexpr uint32_t kError = 1;
constexpr uint32_t kInfo = 3;

using Info = std::array<uint32_t, 3>;
constexpr Info kUntouched = {7, 7, 7};  // what a failed read must leave

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

Bytes Cut(Bytes b, size_t size) {
  b.resize(size);
  return b;
}

const Bytes kSoi = {0xFF, 0xD8};
const Bytes kApp0 = Bytes{0xFF, 0xE0} + Be(16, 2) + Bytes(14, 0x4A);
const Bytes kPngSig = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};

Bytes Sof(uint8_t marker, uint32_t width, uint32_t height, uint8_t comps) {
  return Bytes{0xFF, marker} + Be(8U + 3U * comps, 2) + Bytes{8} + Be(height, 2) + Be(width, 2) +
         Bytes{comps} + Bytes(3U * comps, 0x11);
}

Bytes Chunk(const char* type, const Bytes& data) {
  return Be(static_cast<uint32_t>(data.size()), 4) + Bytes(type, type + 4) + data + Bytes(4, 0xCC);
}

Bytes Ihdr(uint32_t width, uint32_t height, uint8_t depth, uint8_t colorType) {
  return Chunk("IHDR", Be(width, 4) + Be(height, 4) + Bytes{depth, colorType, 0, 0, 0});
}

TEST(ImageUtilTest, HeaderWalkersVerifyImageAndSignaturesOfFullLength) {
  TempDir dir;
  const InfoReader jpg = ImageUtils::GetJpegInfo;
  const InfoReader png = ImageUtils::GetPngInfo;
  const InfoReader bmp = ImageUtils::GetBmpInfo;
  const struct {
    const char* name;
    InfoReader read;
    Bytes file;
    uint32_t rc;
    Info info = kUntouched;  // width, height, depth
  } cases[] = {
      {"jpeg rgb", jpg, kSoi + kApp0 + Sof(0xC0, 640, 480, 3), 0, {640, 480, 24}},
      {"jpeg grey", jpg, kSoi + Sof(0xC0, 33, 17, 1), 0, {33, 17, 8}},
      {"jpeg progressive", jpg, kSoi + kApp0 + Sof(0xC2, 64, 64, 3), 1},
      {"jpeg sof cut", jpg, kSoi + Bytes{0xFF, 0xC0, 0, 17, 8, 1}, 1},
      {"jpeg zero length", jpg, kSoi + Bytes{0xFF, 0xE1, 0, 0, 0xFF, 0xC0}, 1},
      {"jpeg bad marker", jpg, kSoi + Bytes{0x12, 0xC0} + Bytes(11, 0), 1},
      {"jpeg not jpeg", jpg, kPngSig, 1},
      {"png grey alpha", png, kPngSig + Ihdr(320, 200, 8, 4), 0, {320, 200, 32}},
      {"png palette", png, kPngSig + Ihdr(70000, 2, 8, 3), 0, {70000, 2, 24}},
      {"png rgba 16", png, kPngSig + Ihdr(4, 4, 16, 6), 0, {4, 4, 64}},
      {"png bad colour", png, kPngSig + Ihdr(4, 4, 8, 5), 0, {4, 4, 0}},
      {"png walk", png, kPngSig + Chunk("tEXt", Bytes(13, 'a')) + Ihdr(8, 6, 8, 2), 0, {8, 6, 24}},
      {"png no ihdr", png, kPngSig + Chunk("IEND", {}), 1},
      {"png chunk past end", png,
       kPngSig + Be(0xFFFFFFF0U, 4) + Bytes{'I', 'D', 'A', 'T'} + Ihdr(8, 6, 8, 2), 1},
      {"png ihdr cut", png, Cut(kPngSig + Ihdr(8, 6, 8, 2), 17), 1},
      {"png not png", png, kSoi, 1},
      {"bmp", bmp, MakeBmp(641, 480, 24), 0, {641, 480, 24}},
      {"bmp top-down", bmp, MakeBmp(8, -6, 32), 0, {8, 0xFFFFFFFAU, 32}},
      {"bmp cut", bmp, Cut(MakeBmp(8, 6, 24), 29), 1},
      {"bmp not bmp", bmp, kSoi, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.Write(c.name, c.file);
    Info info = kUntouched;
    EXPECT_EQ(c.read(path.c_str(), &info[0], nullptr, &info[2]), 1U) << "null output";
    EXPECT_EQ(c.read((path + ".missing").c_str(), &info[0], &info[1], &info[2]), 1U);
    EXPECT_EQ(c.read(path.c_str(), &info[0], &info[1], &info[2]), c.rc);
    EXPECT_EQ(info, c.info);
  }
  // What VerifyImage decides from the values read.
  const auto formats = [](uint32_t set) {
    return ImageVerifyRequirement{2, 4096, 2, 4096, 1, 64, set};
  };
  const ImageVerifyRequirement any = formats(7);
  // BMP only, at most 640 x 480.
  const auto bmpLimits = [](uint32_t minHeight, uint32_t minDepth, uint32_t maxDepth) {
    return ImageVerifyRequirement{2, 640, minHeight, 480, minDepth, maxDepth, 4};
  };
  const struct {
    const char* name;
    Bytes file;
    ImageVerifyRequirement req;
    uint32_t rc;
    const char* log;
  } verdicts[] = {
      {"bmp after png", MakeBmp(640, 480, 24), formats(6), 0, "The file format[2] is invalid."},
      {"jpeg decides", kSoi + Sof(0xC0, 640, 480, 3), any, 0, "The file format is 1."},
      {"odd width", MakeBmp(641, 480, 24), any, 1,
       "The resolution cannot be converted to YUV format! width[641], height[480]"},
      {"limits inclusive", kPngSig + Ihdr(640, 480, 8, 2), {640, 640, 480, 480, 24, 24, 2}, 0, ""},
      {"width above", MakeBmp(642, 480, 24), bmpLimits(2, 1, 64), 1, "resolution is invalid"},
      {"height below", MakeBmp(640, 478, 24), bmpLimits(480, 1, 64), 1, "resolution is invalid"},
      {"top-down height", MakeBmp(640, -480, 24), any, 1, "resolution is invalid"},
      {"depth above", MakeBmp(640, 480, 32), bmpLimits(2, 1, 24), 1, "depth is invalid"},
      {"depth below", MakeBmp(640, 480, 8), bmpLimits(2, 16, 32), 1, "depth is invalid"},
      {"not in set", kPngSig + Ihdr(640, 480, 8, 2), formats(5), 1, "image format is invalid"},
  };
  for (const auto& c : verdicts) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    EXPECT_EQ(ImageUtils::VerifyImage(dir.Write(c.name, c.file).c_str(), &c.req), c.rc);
    EXPECT_TRUE(log.HasModule(c.log, c.rc == 0 ? kInfo : kError));
  }
  EXPECT_EQ(ImageUtils::VerifyImage(nullptr, &any), 1U);
  EXPECT_EQ(ImageUtils::VerifyImage(dir.Write("bmp", MakeBmp(8, 6, 24)).c_str(), nullptr), 1U);
  // Signatures need their full length.
  Bytes pngSig = kPngSig;
  Bytes jpegSig = kSoi;
  Bytes bmpSig = {'B', 'M'};
  Bytes other = {0xFF, 0xD9, 'B', 'A'};
  EXPECT_TRUE(ImageUtils::isPngFormat(pngSig.data(), 8));
  EXPECT_FALSE(ImageUtils::isPngFormat(pngSig.data(), 7));
  EXPECT_TRUE(ImageUtils::isJpegFormat(jpegSig.data(), 2));
  EXPECT_FALSE(ImageUtils::isJpegFormat(jpegSig.data(), 1));
  EXPECT_FALSE(ImageUtils::isJpegFormat(other.data(), 4));
  EXPECT_TRUE(ImageUtils::isBmpFormat(bmpSig.data(), 2));
  EXPECT_FALSE(ImageUtils::isBmpFormat(bmpSig.data(), 1));
  EXPECT_FALSE(ImageUtils::isBmpFormat(nullptr, 2));
  EXPECT_FALSE(ImageUtils::isBmpFormat(other.data() + 2, 2));
  EXPECT_EQ(ImageUtils::GetRealValue(0x11223344U), 0x44332211U);
}

}  // namespace
