#include <gtest/gtest.h>
#include <libyuv.h>

#include <memory>
#include <vector>

#include "platform/adapt_common/tavo_video_frame_convert.h"
#include "platform/adapt_common/tavo_video_rgb_convert.h"
#include "tests/support/temp_dir.h"

namespace {

using Bytes = std::vector<uint8_t>;

// An ARGB frame over `pixels` (width x height, rows of 4 x width bytes).
std::unique_ptr<OsvGraphicBuffer> WrapArgb(Bytes& pixels, uint32_t width, uint32_t height) {
  auto frame = std::make_unique<OsvGraphicBuffer>(pixels.data());
  const uint32_t size = static_cast<uint32_t>(pixels.size());
  frame->SetImageInfo({width, height, {width * 4}, size, TAVO_VIDEO_VLINK_FORMAT_ARGB, 0, 0});
  frame->SetImageAddr(pixels.data(), nullptr, nullptr);
  return frame;
}

Bytes Planes(const OsvGraphicBuffer& frame) {
  const auto* data = static_cast<const uint8_t*>(frame.GetBufHandle());
  return {data, data + frame.GetImageInfo().size};
}

// libyuv's own `convert` (one of its ...ToI420) of a packed image, in the memory of a new
// I420 frame.
template <typename Convert>
Bytes OracleI420(Convert convert, const uint8_t* src, int srcStride, uint32_t w, uint32_t h) {
  OsvGraphicBuffer want(w, h, TAVO_VIDEO_VLINK_FORMAT_I420);
  const OsvGraphicBufferInfo o = want.GetImageInfo();
  convert(src, srcStride, want.GetImageAddr(0), static_cast<int>(o.stride[0]), want.GetImageAddr(1),
          static_cast<int>(o.stride[1]), want.GetImageAddr(2), static_cast<int>(o.stride[2]),
          static_cast<int>(w), static_cast<int>(h));
  return Planes(want);
}

TEST(FrameConvertTest, ArgbScalePlacesTheRegionAndCompareTellsUniformFromContent) {
  auto source = RandomBytes(60 * 100 * 4, 3);
  Bytes picture(80 * 45 * 4, 0xEE);
  Bytes expected = picture;  // untouched outside the region
  const ArgbPlane from{source.data(), 60, 100, 240};
  const ArgbPlane to{picture.data(), 80, 45, 320};
  ASSERT_EQ(ARGBScale(from, to, 25, 45, 27), 0);
  libyuv::ARGBScale(source.data(), 240, 60, 100, expected.data() + 27 * 4, 320, 25, 45,
                    libyuv::kFilterBox);
  EXPECT_EQ(picture, expected);
  // The whole-picture form equals libyuv's.
  ASSERT_EQ(ARGBScale(from, to), 0);
  libyuv::ARGBScale(source.data(), 240, 60, 100, expected.data(), 320, 80, 45, libyuv::kFilterBox);
  EXPECT_EQ(picture, expected);
  // A region reaching past the right edge, or a zero-size one, is refused.
  EXPECT_EQ(ARGBScale(from, to, 25, 45, 56), -1);
  EXPECT_EQ(ARGBScale(from, to, 0, 45, 0), -1);
  EXPECT_EQ(ARGBScale(from, to, 25, 46, 0), -1);
  // The uniform-picture check.
  Bytes black(16 * 4, 0);
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
  const OsvGraphicBufferInfo in = i420.GetImageInfo();
  for (uint32_t i = 0; i < in.size; ++i) {
    static_cast<uint8_t*>(i420.GetBufHandle())[i] = static_cast<uint8_t>(i * 13 + 7);
  }
  Bytes argbExpected(w * h * 4);
  libyuv::I420ToARGB(i420.GetImageAddr(0), in.stride[0], i420.GetImageAddr(1), in.stride[1],
                     i420.GetImageAddr(2), in.stride[2], argbExpected.data(), w * 4, w, h);
  OsvGraphicBuffer argb(w, h, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  ASSERT_EQ(ConvertToARGB(&i420, &argb, PELV_ROTATION_0), 0);
  EXPECT_EQ(Planes(argb), argbExpected);

  Bytes turned(w * h * 4);
  libyuv::ARGBRotate(argbExpected.data(), w * 4, turned.data(), w * 4, w, h, libyuv::kRotate180);
  OsvGraphicBuffer argb180(w, h, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  ASSERT_EQ(ConvertToARGB(&i420, &argb180, PELV_ROTATION_180), 0);
  EXPECT_EQ(Planes(argb180), turned);
  OsvGraphicBuffer argb90(h, w, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  EXPECT_EQ(ConvertToARGB(&i420, &argb90, PELV_ROTATION_90), 0);
  EXPECT_NE(ConvertToARGB(&i420, &argb90, PELV_ROTATION_0), 0);  // sizes do not fit
  EXPECT_NE(ConvertToARGB(&i420, &argb, static_cast<PelvRotationAngle>(45)), 0);

  Bytes rgbExpected(w * h * 3);
  libyuv::ARGBToRGB24(argbExpected.data(), w * 4, rgbExpected.data(), w * 3, w, h);
  OsvGraphicBuffer rgb(w, h, TAVO_VIDEO_VLINK_FORMAT_RGB24);
  ASSERT_EQ(ARGBToRGB24(&argb, &rgb), 0);
  EXPECT_EQ(Planes(rgb), rgbExpected);

  OsvGraphicBuffer back(w, h, TAVO_VIDEO_VLINK_FORMAT_I420);
  ASSERT_EQ(RGBToYUV420(&rgb, &back), 0);
  EXPECT_EQ(Planes(back), OracleI420(libyuv::RGB24ToI420, rgbExpected.data(), w * 3, w, h));

  OsvGraphicBuffer small(w - 2, h, TAVO_VIDEO_VLINK_FORMAT_RGB24);
  EXPECT_NE(ARGBToRGB24(&argb, &small), 0);
  EXPECT_NE(RGBToYUV420(&small, &back), 0);
  EXPECT_NE(RGBToYUV420(&rgb, &argb), 0);  // not I420
  EXPECT_NE(ConvertToARGB(nullptr, &argb, PELV_ROTATION_0), 0);
  // ARGB to I420: the conversion node's test covers even sizes; an odd one shows libyuv's
  // chroma rounding.
  auto odd = RandomBytes(33 * 17 * 4, 2);
  OsvGraphicBuffer got(33, 17, TAVO_VIDEO_VLINK_FORMAT_I420);
  ASSERT_EQ(ConvertToI420(WrapArgb(odd, 33, 17).get(), &got), 0);
  EXPECT_EQ(Planes(got), OracleI420(libyuv::ARGBToI420, odd.data(), 33 * 4, 33, 17));
  auto pixels = RandomBytes(64 * 48 * 4, 1);
  auto source = WrapArgb(pixels, 64, 48);
  OsvGraphicBuffer wrongSize(32, 48, TAVO_VIDEO_VLINK_FORMAT_I420, true);
  EXPECT_EQ(ConvertToI420(source.get(), &wrongSize), -1);
  EXPECT_EQ(ConvertToI420(nullptr, &wrongSize), -1);
  EXPECT_EQ(ConvertToI420(source.get(), nullptr), -1);
  // Memory one row short of what the description claims: no over-read.
  Bytes shortPixels(64 * 47 * 4);
  OsvGraphicBuffer target(64, 48, TAVO_VIDEO_VLINK_FORMAT_I420, true);
  EXPECT_EQ(ConvertToI420(WrapArgb(shortPixels, 64, 48).get(), &target), -1);
  EXPECT_EQ(Planes(target), Bytes(target.GetImageInfo().size, 0));
  // A zero-size target.
  OsvGraphicBuffer empty(0, 0, TAVO_VIDEO_VLINK_FORMAT_I420);
  EXPECT_EQ(ConvertToI420(source.get(), &empty), -1);
  EXPECT_EQ(I420Scale(&target, &empty), -1);
}

}  // namespace
