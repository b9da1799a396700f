#include "osv_graphic_buffer.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

class RecordingTarget : public OsvReleaseBase<OsvGraphicBuffer> {
 public:
  void ReleaseBufferDeal(OsvGraphicBuffer* buffer) override {
    last = buffer;
    ++calls;
  }
  std::atomic<int> calls{0};
  OsvGraphicBuffer* last = nullptr;
};

TEST(OsvGraphicBufferTest, LastHolderReleasesExactlyOnceAlsoAmongConcurrentHolders) {
  auto target = std::make_shared<RecordingTarget>();
  OsvGraphicBuffer buffer(64, 48, TAVO_VIDEO_VLINK_FORMAT_I420);
  buffer.SetReleaseTarget(target);
  // The counts returned and the releases seen after each step, in order: an unbalanced drop
  // is refused and does not release the frame a second time.
  const std::vector<int> steps = {buffer.IncreaseRef(), buffer.IncreaseRef(), buffer.DecreaseRef(),
                                  target->calls,        buffer.DecreaseRef(), target->calls,
                                  buffer.DecreaseRef(), target->calls};
  EXPECT_EQ(steps, (std::vector<int>{1, 2, 1, 0, 0, 1, -1, 1}));
  EXPECT_EQ(target->last, &buffer);
  EXPECT_TRUE(buffer.IsAvailable());
  // Concurrent holders: each round releases once.
  for (int round = 1; round <= 20; ++round) {
    buffer.IncreaseRef();  // the producer's hold, so the count cannot touch zero early
    {
      std::vector<std::jthread> holders;  // joined at the end of the block
      for (int t = 0; t < 8; ++t) {
        holders.emplace_back([&] {
          for (int i = 0; i < 2000; ++i) {
            buffer.IncreaseRef();
            buffer.DecreaseRef();
          }
        });
      }
    }
    EXPECT_EQ(target->calls, round);
    buffer.DecreaseRef();
    EXPECT_EQ(target->calls, round + 1);
  }
}

TEST(OsvGraphicBufferTest, MemoryIsDescribedPerFormatAndPlanesLieInsideIt) {
  // Odd sizes round the chroma planes up.
  OsvGraphicBuffer i420(65, 33, TAVO_VIDEO_VLINK_FORMAT_I420);
  OsvGraphicBufferInfo info = i420.GetImageInfo();
  ASSERT_NE(i420.GetBufHandle(), nullptr);
  EXPECT_EQ((std::array{info.stride[0], info.stride[1], info.stride[2], info.size}),
            (std::array{65U, 33U, 33U, 65U * 33U + 2U * 33U * 17U}));
  EXPECT_EQ(i420.GetImageAddr(1), i420.GetImageAddr(0) + 65 * 33);
  EXPECT_EQ(i420.GetImageAddr(2), i420.GetImageAddr(1) + 33 * 17);

  OsvGraphicBuffer argb(10, 4, TAVO_VIDEO_VLINK_FORMAT_ARGB, true, true);
  info = argb.GetImageInfo();
  EXPECT_EQ(info.stride[0], 64U);  // 40 bytes rounded up to the row alignment
  EXPECT_EQ(info.size, 64U * 4U);
  EXPECT_EQ(argb.GetImageAddr(0)[info.size - 1], 0);
  EXPECT_EQ(argb.GetImageAddr(1), nullptr);

  EXPECT_EQ(OsvGraphicBuffer(0, 10, TAVO_VIDEO_VLINK_FORMAT_I420).GetBufHandle(), nullptr);
  EXPECT_EQ(OsvGraphicBuffer(10, 10, 7).GetBufHandle(), nullptr);
  // Plane addresses given from outside must lie inside the known memory.
  std::vector<uint8_t> memory(96);
  OsvGraphicBuffer buffer(memory.data());
  buffer.SetImageInfo({8, 8, {}, 96, 0, 0, 0});
  EXPECT_EQ(buffer.SetImageAddr(nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(buffer.SetImageAddr(memory.data(), memory.data() + 64, memory.data() + 96), -1);
  EXPECT_EQ(buffer.GetImageAddr(0), nullptr);
  EXPECT_EQ(buffer.SetImageAddr(memory.data(), memory.data() + 64, memory.data() + 80), 0);
  EXPECT_EQ(buffer.GetImageAddr(2), memory.data() + 80);
}

}  // namespace
