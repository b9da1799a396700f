// The image operations of the virtual background: the frame's RGB copy, the blend and the
// background image.
#include <gtest/gtest.h>
#include <libyuv.h>

#include "tests/background/background_fixture.h"

namespace {

class ComposeTest : public BackgroundLinkTest {
 protected:
  // Blends `frame` in place with `mask` as the effect's thread does.
  void Overlay(OsvGraphicBuffer* frame, uint8_t maskValue, size_t backgroundPixels = 0) {
    std::vector<uint8_t> mask(BackgroundVirtualityNode::kMaskBytes, maskValue);
    std::fill_n(mask.begin(), backgroundPixels, 0);
    OsvGraphicBuffer* rgb = nullptr;
    ASSERT_EQ(m_node->DataConvertBeforeVirtual(frame, &rgb), 0U);
    std::unique_ptr<OsvGraphicBuffer> copy(rgb);
    ASSERT_EQ(m_node->DataOverlayer(frame, mask.data(), copy.get()), 0U);
  }
};

TEST_F(ComposeTest, Compose32AtTheThresholdsAndInTheBlendRange) {
  const struct {
    uint8_t alpha, bg, fg, expected;
  } cases[] = {
      {0, 200, 100, 200},
      {69, 200, 100, 200},                          // background only
      {70, 200, 100, (200 * 185 + 100 * 70) >> 8},  // 171
      {128, 200, 100, 149},                         // (200 x 127 + 100 x 128) >> 8
      {128, 255, 255, 254},                         // one step darker
      {249, 200, 100, (200 * 6 + 100 * 249) >> 8},  // 101
      {250, 200, 100, 100},                         // frame only
      {255, 7, 9, 9},
  };
  const uint32_t pixels = BackgroundVirtualityNode::kComposePixels;
  // One pixel more than the blend covers, to show it stops at 1280 x 720.
  std::vector<uint8_t> bg((pixels + 1) * 3);
  std::vector<uint8_t> fg((pixels + 1) * 3);
  std::vector<uint8_t> alpha(pixels + 1);
  std::vector<uint8_t> expected((pixels + 1) * 3);
  for (size_t i = 0; i <= pixels; ++i) {
    const auto& c = cases[i % std::size(cases)];
    alpha[i] = c.alpha;
    std::fill_n(&bg[i * 3], 3, c.bg);
    std::fill_n(&fg[i * 3], 3, c.fg);
    std::fill_n(&expected[i * 3], 3, i < pixels ? c.expected : c.fg);  // the last: not blended
  }
  std::vector<uint8_t> out(fg);
  ASSERT_EQ(m_node->Compose32(out.data(), bg.data(), alpha.data(), out.data()), 0U);
  const size_t wrong = std::mismatch(out.begin(), out.end(), expected.begin()).first - out.begin();
  EXPECT_EQ(wrong, out.size()) << "pixel " << wrong / 3 << " alpha " << int{alpha[wrong / 3]};
}

// A resize counted on its way to the real wrapper.
std::atomic<int> g_resizes{0};
void CountingResize(CMat* src, CMat* dst, CSize* size) {
  ++g_resizes;
  ::CResize(src, dst, size);
}

TEST_F(ComposeTest, BackgroundImageIsKeptOnFailuresAndRescaledOnlyWhenTheSizeChanges) {
  std::map<std::string, void*> symbols = WrapperSymbols();
  symbols["CResize"] = reinterpret_cast<void*>(&CountingResize);
  m_loader.AddLibrary("libtavo_video_opencv_wrapper.so", symbols);
  ResetOpencvBinding();
  g_resizes = 0;
  // Three frames of 32 x 18 show `luma` as background, after `resizes` in all.
  auto expectBackground = [&](uint8_t luma, int resizes) {
    for (int i = 0; i < 3; ++i) {
      std::unique_ptr<OsvGraphicBuffer> frame(NewFrame(32, 18, 90, 1));
      Overlay(frame.get(), 0);
      EXPECT_EQ(frame->GetImageAddr(0)[0], luma);
    }
    EXPECT_EQ(g_resizes.load(), resizes);
  };
  const std::string corrupt = m_dir.Write("corrupt.bmp", {'B', 'M', 1, 2, 3, 4, 5});
  BackgroundVirtualityParams unterminated = Params("", kWidth, kHeight);
  std::memset(unterminated.bgImagePath, 'a', sizeof unterminated.bgImagePath);
  const BackgroundVirtualityParams cases[] = {
      Params(m_dir.Path() / "missing.png", kWidth, kHeight),
      Params(corrupt, kWidth, kHeight),
      unterminated,
  };
  for (const BackgroundVirtualityParams& param : cases) {
    EXPECT_EQ(m_node->SetParam(param), 1U);
  }
  expectBackground(LumaOf(255, 0, 0), 1);  // still the blue one SetUp loaded
  m_node->SetParam(Params(m_bgPath, 40, 20));
  EXPECT_EQ(g_resizes.load(), 2);  // scaled when loaded for a known frame size
  expectBackground(LumaOf(255, 0, 0), 3);
  // An image loaded before the frame size is known is scaled by the first frame.
  const std::string red = m_dir.Write("red.bmp", SolidBmp24(8, 8, 0, 0, 255));
  ASSERT_EQ(m_node->SetParam(Params(red, 0, 0)), 0U);
  expectBackground(LumaOf(0, 0, 255), 4);
}

TEST_F(ComposeTest, FrameCopyIsLibyuvsRgb24AndAnySizeIsBlendedWithinItsBuffer) {
  std::unique_ptr<OsvGraphicBuffer> frame(NewFrame(32, 18, 0, 1));
  const OsvGraphicBufferInfo info = frame->GetImageInfo();
  for (uint32_t i = 0; i < info.stride[0] * 18; ++i) {
    frame->GetImageAddr(0)[i] = static_cast<uint8_t>(i * 7);
  }
  for (uint32_t i = 0; i < info.stride[1] * 9; ++i) {
    frame->GetImageAddr(1)[i] = static_cast<uint8_t>(i * 3);
    frame->GetImageAddr(2)[i] = static_cast<uint8_t>(255 - i * 5);
  }
  OsvGraphicBuffer* rgb = nullptr;
  ASSERT_EQ(m_node->DataConvertBeforeVirtual(frame.get(), &rgb), 0U);
  std::unique_ptr<OsvGraphicBuffer> copy(rgb);
  std::vector<uint8_t> expected(32 * 18 * 3);
  libyuv::I420ToRGB24(frame->GetImageAddr(0), info.stride[0], frame->GetImageAddr(1),
                      info.stride[1], frame->GetImageAddr(2), info.stride[2], expected.data(),
                      32 * 3, 32, 18);
  EXPECT_EQ(copy->GetImageInfo().format, TAVO_VIDEO_VLINK_FORMAT_RGB24);
  EXPECT_EQ(std::vector<uint8_t>(copy->GetImageAddr(0), copy->GetImageAddr(0) + expected.size()),
            expected);

  OsvGraphicBufferInfo turned = info;
  turned.rotation = 90;  // would need a 18 x 32 copy
  frame->SetImageInfo(turned);
  EXPECT_EQ(m_node->DataConvertBeforeVirtual(frame.get(), &rgb), 1U);
  // Frames of other sizes than 1280 x 720 are blended whole and never past their buffers
  // (the sanitizer build would catch an over-read); half person, half background here.
  for (const auto& [width, height] : {std::pair{20U, 10U}, std::pair{1290U, 730U}}) {
    SCOPED_TRACE(width);
    m_node->SetParam(Params(m_bgPath, width, height));
    std::unique_ptr<OsvGraphicBuffer> blended(NewFrame(width, height, kFrameLuma, 1));
    Overlay(blended.get(), 255, width * height / 2);
    const uint8_t* y = blended->GetImageAddr(0);
    const uint32_t stride = blended->GetImageInfo().stride[0];
    EXPECT_EQ(y[0], LumaOf(255, 0, 0));
    EXPECT_NEAR(y[size_t{stride} * (height - 1) + width - 1], kFrameLuma, 1);
  }
}

}  // namespace
