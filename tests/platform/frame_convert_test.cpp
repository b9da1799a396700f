#include <gtest/gtest.h>
#include <libyuv.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "platform/adapt_common/os_platform_check.h"
#include "platform/adapt_common/os_shm_queue.h"
#include "platform/adapt_common/tavo_video_frame_convert.h"

namespace {

std::vector<uint8_t> Random(size_t size, uint32_t seed) {
  std::mt19937 gen(seed);
  std::vector<uint8_t> out(size);
  for (auto& byte : out) byte = static_cast<uint8_t>(gen());
  return out;
}

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

TEST(FrameConvertTest, ArgbToI420MatchesLibyuv) {
  for (const auto& [width, height] : {std::pair{64u, 48u}, {33u, 17u}}) {
    auto argb = Random(size_t{width} * height * 4, width);
    auto source = WrapArgb(argb, width, height);
    OsvGraphicBuffer target(width, height, TAVO_VIDEO_VLINK_FORMAT_I420);
    ASSERT_EQ(ConvertToI420(source.get(), &target), 0);
    OsvGraphicBuffer oracle(width, height, TAVO_VIDEO_VLINK_FORMAT_I420);
    const OsvGraphicBufferInfo o = oracle.GetImageInfo();
    libyuv::ARGBToI420(argb.data(), static_cast<int>(width * 4), oracle.GetImageAddr(0),
                       static_cast<int>(o.stride[0]), oracle.GetImageAddr(1),
                       static_cast<int>(o.stride[1]), oracle.GetImageAddr(2),
                       static_cast<int>(o.stride[2]), static_cast<int>(width),
                       static_cast<int>(height));
    EXPECT_EQ(Planes(target), Planes(oracle)) << width << "x" << height;
  }
}

TEST(FrameConvertTest, RefusesWhatDoesNotFitAndLeavesTargetAlone) {
  auto argb = Random(64 * 48 * 4, 1);
  auto source = WrapArgb(argb, 64, 48);
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

TEST(FrameConvertTest, I420ScaleMatchesLibyuvBox) {
  OsvGraphicBuffer source(96, 64, TAVO_VIDEO_VLINK_FORMAT_I420);
  const auto bytes = Random(source.GetImageInfo().size, 7);
  std::memcpy(source.GetBufHandle(), bytes.data(), bytes.size());
  OsvGraphicBuffer target(40, 30, TAVO_VIDEO_VLINK_FORMAT_I420);
  ASSERT_EQ(I420Scale(&source, &target), 0);
  OsvGraphicBuffer oracle(40, 30, TAVO_VIDEO_VLINK_FORMAT_I420);
  const OsvGraphicBufferInfo s = source.GetImageInfo();
  const OsvGraphicBufferInfo o = oracle.GetImageInfo();
  libyuv::I420Scale(source.GetImageAddr(0), static_cast<int>(s.stride[0]), source.GetImageAddr(1),
                    static_cast<int>(s.stride[1]), source.GetImageAddr(2),
                    static_cast<int>(s.stride[2]), 96, 64, oracle.GetImageAddr(0),
                    static_cast<int>(o.stride[0]), oracle.GetImageAddr(1),
                    static_cast<int>(o.stride[1]), oracle.GetImageAddr(2),
                    static_cast<int>(o.stride[2]), 40, 30, libyuv::kFilterBox);
  EXPECT_EQ(Planes(target), Planes(oracle));
}

TEST(FrameConvertTest, ArgbScalePlacesTheRegionAndTouchesNothingElse) {
  auto source = Random(60 * 100 * 4, 3);
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
}

TEST(FrameConvertTest, CompareArgbPixelTellsUniformFromContent) {
  std::vector<uint8_t> black(16 * 4, 0);
  EXPECT_EQ(CompareArgbPixel(black.data(), 64), 1);
  black[60] = 1;  // the last pixel differs
  EXPECT_EQ(CompareArgbPixel(black.data(), 64), 0);
  EXPECT_EQ(CompareArgbPixel(black.data(), 63), -1);
  EXPECT_EQ(CompareArgbPixel(nullptr, 64), -1);
}

class PlatformCheckTest : public ::testing::Test {
 protected:
  void TearDown() override { OsPlatformSetIdentity(nullptr, nullptr); }
};

TEST_F(PlatformCheckTest, PredicatesFollowTheIdentity) {
  struct Case {
    const char* cpu;
    const char* os;
    int32_t kos;
    int32_t uos;
  };
  const Case cases[] = {
      {"Soren 7A 4 cores", "Kylin V10", 1, 0}, {"Soren 8C", "UOS Desktop", 0, 1},
      {"Soren 7A", "Debian GNU/Linux", 0, 0},  {"Soren 9X", "Kylin", 0, 0},
      {"Intel(R) Xeon(R)", "Uos", 0, 0},
  };
  for (const Case& c : cases) {
    OsPlatformSetIdentity(c.cpu, c.os);
    EXPECT_EQ(IsSorenKOS(), c.kos) << c.cpu << " / " << c.os;
    EXPECT_EQ(IsSorenUOS(), c.uos) << c.cpu << " / " << c.os;
  }
  OsPlatformSetIdentity("Soren 8C", "kylin");
  EXPECT_EQ(IsTargetCpu("Soren 8C"), 1);
  EXPECT_EQ(IsTargetCpu("soren 8c"), 0);  // model names compare exactly
  EXPECT_EQ(IsTargetOs("Kylin"), 1);      // system names ignore case
  EXPECT_EQ(IsTargetCpu(nullptr), 0);
  EXPECT_EQ(IsTargetOs(""), 0);
}

TEST_F(PlatformCheckTest, RealMachineIsNotATargetUnlessToldSo) {
  OsPlatformSetIdentity(nullptr, nullptr);
  EXPECT_EQ(IsTargetCpu("Soren 7A"), 0);
  EXPECT_EQ(IsSorenKOS(), 0);
  EXPECT_EQ(IsSorenUOS(), 0);
}

TEST(ShmQueueTest, WrittenBuffersReachTheReaderInOrder) {
  constexpr uint32_t kQueue = 0x51;
  ASSERT_EQ(OsShmAdvancedQueueCreate(kQueue, 2, 1024), 0);
  EXPECT_NE(OsShmAdvancedQueueCreate(kQueue, 2, 1024), 0);
  OsShmAdvancedBuffer* first = OsShmAdvancedMemAllocBuffer(kQueue, 0, 16);
  OsShmAdvancedBuffer* second = OsShmAdvancedMemAllocBuffer(kQueue, 0, 16);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(OsShmAdvancedMemAllocBuffer(kQueue, 0, 1025), nullptr);    // above the limit
  EXPECT_EQ(OsShmAdvancedMemAllocBuffer(kQueue + 1, 0, 16), nullptr);  // no such queue
  static_cast<uint8_t*>(first->mem)[0] = 1;
  first->usedLen = 1;
  static_cast<uint8_t*>(second->mem)[0] = 2;
  second->usedLen = 17;  // beyond the capacity
  EXPECT_NE(OsShmAdvancedWriteBulkQueue(kQueue, &second, 1), 0);
  second->usedLen = 1;
  OsShmAdvancedBuffer* both[] = {first, second};
  ASSERT_EQ(OsShmAdvancedWriteBulkQueue(kQueue, both, 2), 0);
  OsShmAdvancedBuffer* third = OsShmAdvancedMemAllocBuffer(kQueue, 0, 16);
  EXPECT_NE(OsShmAdvancedWriteBulkQueue(kQueue, &third, 1), 0);  // full
  OsShmAdvancedMemFreeBuffer(third);
  OsShmAdvancedBuffer* read[4] = {};
  ASSERT_EQ(OsShmAdvancedReadBulkQueue(kQueue, read, 4, 0), 2u);
  EXPECT_EQ(static_cast<uint8_t*>(read[0]->mem)[0], 1);
  EXPECT_EQ(static_cast<uint8_t*>(read[1]->mem)[0], 2);
  EXPECT_EQ(OsShmAdvancedReadBulkQueue(kQueue, read, 4, 0), 0u);
  OsShmAdvancedMemFreeBuffer(read[0]);
  OsShmAdvancedMemFreeBuffer(read[1]);
  OsShmAdvancedMemFreeBuffer(nullptr);
  // A buffer written and never read is freed with its queue.
  OsShmAdvancedBuffer* left = OsShmAdvancedMemAllocBuffer(kQueue, 0, 8);
  ASSERT_EQ(OsShmAdvancedWriteBulkQueue(kQueue, &left, 1), 0);
  EXPECT_EQ(OsShmAdvancedQueueDestroy(kQueue), 0);
  EXPECT_NE(OsShmAdvancedQueueDestroy(kQueue), 0);
}

}  // namespace
