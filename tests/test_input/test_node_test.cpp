#include <gtest/gtest.h>

#include <cstring>

#include "test_input/tavo_video_vlink_test_node.h"
#include "tests/support/fake_os.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_nodes.h"

namespace {

TestDevInfo Info(const std::string& path, uint32_t width = 0, uint32_t height = 0) {
  TestDevInfo info{};
  info.imgNo = 50;
  info.frameRate = 30;
  info.width = width;
  info.height = height;
  std::strncpy(info.fileName.data(), path.c_str(), info.fileName.size() - 1);
  return info;
}

// Which reader a file gets: BMP by signature (at its own size), raw I420 when the path has a
// d, a or t, the black picture otherwise.
TEST(TestNodeTest, PicksTheReaderFromTheHeaderAndThePath) {
  const struct {
    const char* name;  // file name inside the scratch directory
    bool bmp;          // write a BMP (else raw bytes)
    uint32_t width, height;
  } cases[] = {
      {"pattern.bmp", true, 64, 32}, {"frame.yuv", false, 32, 16}, {"x.yuv", false, 1920, 1080}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    // The canonical path decides, so the directory itself must be free of d, a and t
    // when the black-picture fallback is wanted.
    std::filesystem::path parent = std::filesystem::temp_directory_path();
    if (!c.bmp && std::strpbrk(c.name, "dat") == nullptr) {
      parent = "/run";
      if (access(parent.c_str(), W_OK) != 0) {
        std::printf("skipped %s: needs a writable directory without d, a, t\n", c.name);
        continue;
      }
    }
    TempDir dir(parent, "vlink");
    const std::string path = dir.Write(
        c.name, c.bmp ? SolidBmp24(64, 32, 0, 0, 255) : std::vector<uint8_t>(32 * 16 * 3 / 2, 128));
    TestInputInputNode node(50);
    ASSERT_EQ(node.SetParam(Info(path, 32, 16)), 0U);
    ASSERT_EQ(node.ReadImage(path.c_str()), 0U);
    EXPECT_EQ(std::pair(node.GetParam().width, node.GetParam().height),
              std::pair(c.width, c.height));
    EXPECT_EQ(node.GetCacheSize(), TestInputInputNode::kCacheSize);
  }
}

TEST(TestNodeTest, CacheWalkSkipsTheSlotHandedOutLastAndHeldFramesOutliveTheNode) {
  TempDir dir;
  const std::string path = dir.Write("p.bmp", SolidBmp24(16, 16, 1, 2, 3));
  auto node = std::make_unique<TestInputInputNode>(52);
  ASSERT_EQ(node->SetParam(Info(path)), 0U);
  ASSERT_EQ(node->ReadImage(path.c_str()), 0U);
  ASSERT_EQ(node->ReadImage(path.c_str()), 0U);  // a restart: two images, two caches

  std::vector<OsvGraphicBuffer*> handedOut;
  for (uint32_t i = 0; i < TestInputInputNode::kCacheSize; ++i) {
    OsvGraphicBuffer* buffer = node->GetFreeCache();
    ASSERT_NE(buffer, nullptr);
    buffer->IncreaseRef();  // held downstream
    handedOut.push_back(buffer);
  }
  // All sixteen held: nothing is free.
  LogCapture logs;
  EXPECT_EQ(node->GetFreeCache(), nullptr);
  EXPECT_TRUE(logs.HasModule("get cache fail", 3));
  // Only the slot handed out last comes free: the walk does not look at it.
  handedOut.back()->DecreaseRef();
  EXPECT_EQ(node->GetFreeCache(), nullptr);
  // Another slot comes free: it is found.
  handedOut[3]->DecreaseRef();
  EXPECT_EQ(node->GetFreeCache(), handedOut[3]);

  // Every buffer describes the one shared image, stamped with the component's number.
  const OsvGraphicBufferInfo info = handedOut[0]->GetImageInfo();
  EXPECT_EQ(std::pair(info.stride[1], info.size), std::pair(8U, 16U * 16U * 3U / 2U));
  EXPECT_EQ(handedOut[0]->GetImageAddr(0), handedOut[5]->GetImageAddr(0));
  EXPECT_EQ(handedOut[0]->GetImageAddr(2), handedOut[0]->GetImageAddr(1) + 64);
  EXPECT_EQ(handedOut[0]->GetSrcImgNo(), 50U);
  for (size_t i = 0; i + 1 < handedOut.size(); ++i) {
    if (i != 3 && i != 5) {
      handedOut[i]->DecreaseRef();
    }
  }
  // Destroyed with a frame still held: its memory is freed once it comes back (the leak
  // checker of the sanitizer build sees whatever stays).
  node.reset();
  EXPECT_TRUE(logs.HasModule("The cache release is fail", 1));
  EXPECT_NE(handedOut[5]->GetImageAddr(0)[0], 0);  // still readable by its holder
  EXPECT_EQ(handedOut[5]->DecreaseRef(), 0);
}

// A start fails on a bad record, a missing file or a thread that cannot start; once started,
// the node sends every half second and stops at once.
TEST(TestNodeTest, RefusesBadInputStartsOnceItsThreadDoesSendsEveryHalfSecondAndStops) {
  FakeClock clock;
  FakeThreadSystem threads;
  ScopedSeamOverride<Clock> clockOverride(clock);
  ScopedSeamOverride<ThreadSystem> threadsOverride(threads);
  TempDir dir;
  const std::string path = dir.Write("p.bmp", SolidBmp24(32, 16, 0, 255, 0));
  auto node = std::make_shared<TestInputInputNode>(53);
  auto sink = std::make_shared<CountingNode>(5);
  sink->StartProcess();
  // A zero frame rate is refused and a missing file fails the start.
  LogCapture logs;
  TestDevInfo info = Info("/nonexistent/image.bmp");
  info.frameRate = 0;
  EXPECT_EQ(node->SetParam(info), 1U);
  EXPECT_TRUE(logs.HasModule("invalid frameRate[0]!", 1));
  info.frameRate = 1;
  ASSERT_EQ(node->SetParam(info), 0U);
  EXPECT_EQ(node->StartProcess(), 1U);
  EXPECT_TRUE(logs.HasModule("get realpath fail,erron:2!", 1));
  EXPECT_TRUE(logs.HasModule("failed to read test Img!", 1));
  ASSERT_EQ(node->SetParam(Info(path)), 0U);
  Link(node, sink);
  threads.FailNextCreates(1);
  EXPECT_NE(node->StartProcess(), 0U);  // a thread that cannot start fails the start
  EXPECT_FALSE(node->IsStarted());
  ASSERT_EQ(node->StartProcess(), 0U);  // the next try starts it
  EXPECT_EQ(node->StartProcess(), 0U);  // "already opened"
  ASSERT_TRUE(sink->handled.WaitFor(1));
  ASSERT_TRUE(clock.WaitForWaiters(1));
  clock.AdvanceMs(TestInputInputNode::kSendPeriodMs - 1);
  ASSERT_TRUE(clock.WaitForWaiters(1));
  sink->DealTaskHandler(true);
  EXPECT_EQ(sink->handled.Get(), 1);
  clock.AdvanceMs(1);
  ASSERT_TRUE(sink->handled.WaitFor(2));
  ASSERT_TRUE(clock.WaitForWaiters(1));
  // Time stands still: only the stop's wake-up ends the pause.
  EXPECT_EQ(node->StopProcess(), 0U);
  EXPECT_EQ(threads.Joins(), 1);
  EXPECT_EQ(threads.Names(), std::vector<std::string>{"VLINK_TEST_SEND"});
  sink->DealTaskHandler(true);
  EXPECT_EQ(sink->handled.Get(), 2);
  Unlink(node, sink);
}

}  // namespace
