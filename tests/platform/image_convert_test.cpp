#include <gtest/gtest.h>
#include <libyuv.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/adapt_common/tavo_video_image_convert.h"
#include "tests/support/temp_dir.h"

namespace {

using Bytes = std::vector<uint8_t>;

// libyuv's own conversion (`convert`: one of its ...ToI420) of the top-left w x h of a
// top-down image.
template <typename Convert>
Bytes Oracle(Convert convert, const uint8_t* src, int srcStride, int w, int h) {
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

// A BMP and what reading it must give: the size and libyuv's own I420, or (i420 empty) a
// refusal that leaves the outputs untouched.
struct BmpCase {
  Bytes file = {};
  uint32_t width = 99;
  uint32_t height = 99;
  Bytes i420 = {};
};

BmpCase Readable(int32_t width, int32_t height, uint32_t bitCount, uint32_t compression = 0) {
  const int bpp = static_cast<int>(bitCount / 8);
  const int rows = std::abs(height);
  const int w = width & ~1;  // odd sizes lose their last column and row
  const int h = rows & ~1;
  const Bytes pixels = RandomBytes(static_cast<size_t>(width * bpp * rows), 7);
  return {MakeBmp(width, height, bitCount, compression, pixels), static_cast<uint32_t>(w),
          static_cast<uint32_t>(h),
          Oracle(bpp == 3 ? libyuv::RGB24ToI420 : libyuv::ARGBToI420, pixels.data(), width * bpp, w,
                 h)};
}

TEST(ImageConvertTest, BmpDatAndRgbMatchLibyuvOrAreRefused) {
  TempDir dir;
  const Bytes good = Readable(8, 6, 24).file;
  const auto cut = [&](size_t size) { return BmpCase{Bytes(good.begin(), good.begin() + size)}; };
  const auto put = [&](size_t at, uint64_t value, size_t bytes = 4) {
    BmpCase c{good};
    PutLe(c.file, at, value, bytes);
    return c;
  };
  const std::pair<const char*, BmpCase> cases[] = {
      {"bottom-up 24", Readable(8, 6, 24)},
      {"top-down 24", Readable(8, -6, 24)},
      {"odd bottom-up 24", Readable(37, 11, 24)},
      {"odd top-down 24", Readable(7, -5, 24)},
      {"bottom-up 32", Readable(64, 4, 32)},
      {"odd bottom-up 32", Readable(9, 7, 32)},
      {"top-down bitfields", Readable(5, -3, 32, 3)},
      {"empty", {}},
      {"header cut", cut(40)},
      {"pixels cut", cut(good.size() - 1)},
      {"signature", put(1, 'A', 1)},
      {"offset past end", put(10, good.size())},
      {"offset huge", put(10, 0xFFFFFFFF)},
      {"offset in header", put(10, 20)},
      {"core header", put(14, 12)},
      {"zero width", put(18, 0)},
      {"negative width", put(18, 0xFFFFFFF8)},
      {"width too big", put(18, 16385)},
      {"16384x16384", put(18, 0x400000004000, 8)},
      {"1x1", BmpCase{MakeBmp(1, 1, 24, 0, Bytes(3))}},
      {"zero height", put(22, 0)},
      {"height INT32_MIN", put(22, 0x80000000)},
      {"planes", put(26, 2, 2)},
      {"16 bit", put(28, 16, 2)},
      {"RLE", put(30, 1)},
      {"bitfields on 24 bit", put(30, 3)},
  };
  for (const auto& [name, c] : cases) {
    SCOPED_TRACE(name);
    uint32_t w = 99;
    uint32_t h = 99;
    uint8_t sentinel = 0;
    uint8_t* image = &sentinel;
    const int32_t rc = Transbmp2Yuv(dir.Write(name, c.file).c_str(), &w, &h, &image);
    ASSERT_EQ(rc == 0, !c.i420.empty());
    EXPECT_EQ(std::pair(w, h), std::pair(c.width, c.height));
    if (rc == 0) {
      EXPECT_EQ(Take(image, size_t{w} * h * 3 / 2), c.i420);
    } else {
      EXPECT_EQ(image, &sentinel);
    }
  }
  uint32_t w = 0;
  uint32_t h = 0;
  uint8_t* image = nullptr;
  EXPECT_NE(Transbmp2Yuv((dir.Path() / "missing").c_str(), &w, &h, &image), 0);
  EXPECT_NE(Transbmp2Yuv(dir.Path().c_str(), &w, &h, &image), 0);
  EXPECT_EQ(image, nullptr);
  // Raw I420 and packed RGB in both byte orders; short files are refused.
  Bytes longer = RandomBytes(8 * 6 * 3 / 2 + 1, 3);
  const Bytes frame(longer.begin(), longer.end() - 1);
  ASSERT_EQ(TransDat2Yuv(dir.Write("longer", longer).c_str(), &image, 8, 6), 0);
  EXPECT_EQ(Take(image, frame.size()), frame);

  const std::string exact = dir.Write("exact", frame);
  const std::string shorter = dir.Write("short", Bytes(frame.begin(), frame.end() - 1));
  image = nullptr;
  EXPECT_NE(TransDat2Yuv(shorter.c_str(), &image, 8, 6), 0);
  EXPECT_NE(TransDat2Yuv(exact.c_str(), &image, 7, 6), 0);
  EXPECT_NE(TransDat2Yuv(exact.c_str(), &image, 8, 0), 0);
  EXPECT_NE(TransDat2Yuv(exact.c_str(), &image, 16386, 2), 0);
  EXPECT_EQ(image, nullptr);
  Bytes rgb = RandomBytes(34 * 6 * 3, 5);
  for (const bool bgr : {true, false}) {
    SCOPED_TRACE(bgr ? "BGR" : "RGB");
    ASSERT_EQ(Trans2Yuv(rgb.data(), 34, 6, bgr, &image), 0);
    EXPECT_EQ(Take(image, 34 * 6 * 3 / 2),
              Oracle(bgr ? libyuv::RGB24ToI420 : libyuv::RAWToI420, rgb.data(), 34 * 3, 34, 6));
  }
  image = nullptr;
  EXPECT_NE(Trans2Yuv(rgb.data(), 33, 6, true, &image), 0);
  EXPECT_NE(Trans2Yuv(nullptr, 34, 6, true, &image), 0);
  EXPECT_EQ(image, nullptr);
}

}  // namespace
