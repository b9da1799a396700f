#include <gtest/gtest.h>
#include <libyuv.h>

#include <cstring>
#include <memory>
#include <vector>

#include "platform/adapt_common/tavo_video_frame_convert.h"
#include "platform/adapt_common/tavo_video_rgb_convert.h"
#include "tests/support/temp_dir.h"

namespace {

// An ARGB frame over `pixels` (width x height, rows of 4 x width bytes).
std::unique_ptr<OsvGraphicBuffer> WrapArgb(std::vector<uint8_t>& pixels, uint32_t width,
                                           uint32_t height) {
  auto frame = std::make_unique<OsvGraphicBuffer>(pixels.data());
  OsvGraphicBufferInfo info{};
  info.width = width;
  info.height = height;
  info.stride[0] = width * 4;
  info.size = static_cast<uint32_t>(pixels.size());
  info.format = TAVO_VIDEO_VLINK_FORMAT_ARGB;
  frame->SetImageInfo(info);
  frame->SetImageAddr(pixels.data(), nullptr, nullptr);
  return frame;
}

std::vector<uint8_t> Planes(const OsvGraphicBuffer& frame) {
  const OsvGraphicBufferInfo info = frame.GetImageInfo();
  const auto* data = static_cast<const uint8_t*>(frame.GetBufHandle());
  return {data, data + info.size};
}

TEST(FrameConvertTest, ArgbScalePlacesTheRegionAndCompareTellsUniformFromContent) {
  auto source = RandomBytes(60 * 100 * 4, 3);
  std::vector<uint8_t> picture(80 * 45 * 4, 0xEE);
  const ArgbPlane from{source.data(), 60, 100, 240};
  const ArgbPlane to{picture.data(), 80, 45, 320};
  ASSERT_EQ(ARGBScale(from, to, 25, 45, 27), 0);
  std::vector<uint8_t> oracle(25 * 45 * 4);
  libyuv::ARGBScale(source.data(), 240, 60, 100, oracle.data(), 100, 25, 45, libyuv::kFilterBox);
  for (uint32_t row = 0; row < 45; ++row) {
    for (uint32_t col = 0; col < 80; ++col) {
      const uint8_t* got = &picture[(row * 80 + col) * 4];
      if (col >= 27 && col < 52) {
        EXPECT_EQ(std::memcmp(got, &oracle[(row * 25 + col - 27) * 4], 4), 0) << row << "," << col;
      } else {
        EXPECT_EQ(got[0], 0xEE) << row << "," << col;
      }
    }
  }
  // The whole-picture form equals libyuv's.
  ASSERT_EQ(ARGBScale(from, to), 0);
  std::vector<uint8_t> whole(80 * 45 * 4);
  libyuv::ARGBScale(source.data(), 240, 60, 100, whole.data(), 320, 80, 45, libyuv::kFilterBox);
  EXPECT_EQ(picture, whole);
  // A region reaching past the right edge, or a zero-size one, is refused.
  EXPECT_EQ(ARGBScale(from, to, 25, 45, 56), -1);
  EXPECT_EQ(ARGBScale(from, to, 0, 45, 0), -1);
  EXPECT_EQ(ARGBScale(from, to, 25, 46, 0), -1);
  // The uniform-picture check.
  std::vector<uint8_t> black(16 * 4, 0);
  EXPECT_EQ(CompareArgbPixel(black.data(), 64), 1);
  black[60] = 1;  // the last pixel differs
  EXPECT_EQ(CompareArgbPixel(black.data(), 64), 0);
  EXPECT_EQ(CompareArgbPixel(black.data(), 63), -1);
  EXPECT_EQ(CompareArgbPixel(nullptr, 64), -1);
}

// The platform conversions against libyuv's own output.
TEST(FrameConvertTest, ConversionsMatchLibyuvAndRefuseMismatchedFrames) {
  constexpr uint32_t w = 34;
  constexpr uint32_t h = 20;
  OsvGraphicBuffer i420(w, h, TAVO_VIDEO_VLINK_FORMAT_I420);
  for (uint32_t i = 0; i < i420.GetImageInfo().size; ++i) {
    static_cast<uint8_t*>(i420.GetBufHandle())[i] = static_cast<uint8_t>(i * 13 + 7);
  }
  const OsvGraphicBufferInfo in = i420.GetImageInfo();
  std::vector<uint8_t> argbExpected(w * h * 4);
  libyuv::I420ToARGB(i420.GetImageAddr(0), in.stride[0], i420.GetImageAddr(1), in.stride[1],
                     i420.GetImageAddr(2), in.stride[2], argbExpected.data(), w * 4, w, h);
  OsvGraphicBuffer argb(w, h, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  ASSERT_EQ(ConvertToARGB(&i420, &argb, PELV_ROTATION_0), 0);
  EXPECT_EQ(0, std::memcmp(argb.GetImageAddr(0), argbExpected.data(), argbExpected.size()));

  std::vector<uint8_t> turned(w * h * 4);
  libyuv::ARGBRotate(argbExpected.data(), w * 4, turned.data(), w * 4, w, h, libyuv::kRotate180);
  OsvGraphicBuffer argb180(w, h, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  ASSERT_EQ(ConvertToARGB(&i420, &argb180, PELV_ROTATION_180), 0);
  EXPECT_EQ(0, std::memcmp(argb180.GetImageAddr(0), turned.data(), turned.size()));
  OsvGraphicBuffer argb90(h, w, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  EXPECT_EQ(ConvertToARGB(&i420, &argb90, PELV_ROTATION_90), 0);
  EXPECT_NE(ConvertToARGB(&i420, &argb90, PELV_ROTATION_0), 0);  // sizes do not fit
  EXPECT_NE(ConvertToARGB(&i420, &argb, static_cast<PelvRotationAngle>(45)), 0);

  std::vector<uint8_t> rgbExpected(w * h * 3);
  libyuv::ARGBToRGB24(argbExpected.data(), w * 4, rgbExpected.data(), w * 3, w, h);
  OsvGraphicBuffer rgb(w, h, TAVO_VIDEO_VLINK_FORMAT_RGB24);
  ASSERT_EQ(ARGBToRGB24(&argb, &rgb), 0);
  EXPECT_EQ(0, std::memcmp(rgb.GetImageAddr(0), rgbExpected.data(), rgbExpected.size()));

  OsvGraphicBuffer back(w, h, TAVO_VIDEO_VLINK_FORMAT_I420);
  std::vector<uint8_t> yuvExpected(back.GetImageInfo().size);
  const OsvGraphicBufferInfo out = back.GetImageInfo();
  uint8_t* y = yuvExpected.data();
  uint8_t* u = y + out.stride[0] * h;
  uint8_t* v = u + out.stride[1] * ((h + 1) / 2);
  libyuv::RGB24ToI420(rgbExpected.data(), w * 3, y, out.stride[0], u, out.stride[1], v,
                      out.stride[2], w, h);
  ASSERT_EQ(RGBToYUV420(&rgb, &back), 0);
  EXPECT_EQ(0, std::memcmp(back.GetBufHandle(), yuvExpected.data(), yuvExpected.size()));

  OsvGraphicBuffer small(w - 2, h, TAVO_VIDEO_VLINK_FORMAT_RGB24);
  EXPECT_NE(ARGBToRGB24(&argb, &small), 0);
  EXPECT_NE(RGBToYUV420(&small, &back), 0);
  EXPECT_NE(RGBToYUV420(&rgb, &argb), 0);  // not I420
  EXPECT_NE(ConvertToARGB(nullptr, &argb, PELV_ROTATION_0), 0);
  // ARGB to I420: the conversion node's test covers even sizes; an odd one shows libyuv's
  // chroma rounding.
  auto odd = RandomBytes(33 * 17 * 4, 2);
  auto oddSource = WrapArgb(odd, 33, 17);
  OsvGraphicBuffer got(33, 17, TAVO_VIDEO_VLINK_FORMAT_I420);
  OsvGraphicBuffer want(33, 17, TAVO_VIDEO_VLINK_FORMAT_I420);
  ASSERT_EQ(ConvertToI420(oddSource.get(), &got), 0);
  const OsvGraphicBufferInfo o = want.GetImageInfo();
  libyuv::ARGBToI420(odd.data(), 33 * 4, want.GetImageAddr(0), static_cast<int>(o.stride[0]),
                     want.GetImageAddr(1), static_cast<int>(o.stride[1]), want.GetImageAddr(2),
                     static_cast<int>(o.stride[2]), 33, 17);
  EXPECT_EQ(Planes(got), Planes(want));
  auto pixels = RandomBytes(64 * 48 * 4, 1);
  auto source = WrapArgb(pixels, 64, 48);
  OsvGraphicBuffer wrongSize(32, 48, TAVO_VIDEO_VLINK_FORMAT_I420, true);
  EXPECT_EQ(ConvertToI420(source.get(), &wrongSize), -1);
  EXPECT_EQ(ConvertToI420(nullptr, &wrongSize), -1);
  EXPECT_EQ(ConvertToI420(source.get(), nullptr), -1);
  // Memory one row short of what the description claims: no over-read.
  std::vector<uint8_t> shortPixels(64 * 47 * 4);
  auto shortSource = WrapArgb(shortPixels, 64, 48);
  OsvGraphicBuffer target(64, 48, TAVO_VIDEO_VLINK_FORMAT_I420, true);
  EXPECT_EQ(ConvertToI420(shortSource.get(), &target), -1);
  EXPECT_EQ(Planes(target), std::vector<uint8_t>(target.GetImageInfo().size, 0));
  // A zero-size target.
  OsvGraphicBuffer empty(0, 0, TAVO_VIDEO_VLINK_FORMAT_I420);
  EXPECT_EQ(ConvertToI420(source.get(), &empty), -1);
  EXPECT_EQ(I420Scale(&target, &empty), -1);
}

}  // namespace
