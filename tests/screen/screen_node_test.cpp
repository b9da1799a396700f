// The screen node against a fake capturer (no X server): how a start configures the
// capturer, frames to the sinks, the soft stop with two sinks, snapshots of a stopped screen.
#include <gtest/gtest.h>

#include <memory>
#include <tuple>
#include <vector>

#include "core/tavo_video_seam.h"
#include "screen/tavo_video_vlink_screen_capture_node.h"
#include "tests/support/fake_screen_capturer.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_nodes.h"

namespace {

class ScreenNodeTest : public ::testing::Test {
 protected:
  // A node for imgNo `id`, asked for 640x480 at 30 a second.
  std::shared_ptr<ScreenCaptureNode> MakeNode(uint32_t id) {
    ViDevInfo info{};
    info.imgNo = id;
    info.width = 640;
    info.height = 480;
    info.fps = 30;
    info.captureFps = 30;
    auto node = std::make_shared<ScreenCaptureNode>(id);
    EXPECT_EQ(node->SetParam(info), 0u);
    return node;
  }

  LogCapture m_logs;
  FakeScreenCapturerFactory m_factory;
  ScopedSeamOverride<ScreenCapturerFactory> m_seam{m_factory};
};

TEST_F(ScreenNodeTest, AStartConfiguresTheCapturerInOrderAndFramesReachTheSinks) {
  VlinkCursorParams stored{};
  stored.framerate = 15;
  stored.userData = 0x77;
  ASSERT_EQ(ScreenCaptureNode::SaveGlobalMouseParam(91, stored), 0u);
  auto node = MakeNode(91);
  EXPECT_EQ(node->SetEncodeResolution(320, 180), 0u);  // no capturer yet: kept
  auto sink = std::make_shared<CountingNode>(5);
  Link(node, sink);
  ASSERT_EQ(sink->StartProcess(), 0u);
  ASSERT_EQ(node->StartProcess(), 0u);
  FakeScreenCapturer& capturer = *m_factory.latest;
  ASSERT_EQ(node->StartProcess(), 0u);  // already open: nothing more
  // Id, port (imgNo 91: port 1), kept encoder width, parameters, stored cursor, one start.
  EXPECT_EQ(m_factory.latest, &capturer);
  EXPECT_EQ((std::vector<uint32_t>{capturer.capturerId, capturer.port, capturer.encWidth,
                                   capturer.params.width, capturer.cursor.userData,
                                   uint32_t(capturer.inits), uint32_t(capturer.starts)}),
            (std::vector<uint32_t>{91, 1, 320, 640, 0x77, 1, 1}));

  OsvGraphicBuffer frame(64, 48, TAVO_VIDEO_VLINK_FORMAT_I420);
  EXPECT_EQ(capturer.Push(&frame), 0);
  EXPECT_TRUE(sink->handled.WaitFor(1));

  // Two sinks: a stop keeps capturing; the last one stops it.
  auto second = std::make_shared<CountingNode>(6);
  Link(node, second);
  ASSERT_EQ(second->StartProcess(), 0u);
  EXPECT_EQ(node->StopProcess(), 0u);
  EXPECT_TRUE(m_logs.HasModule("[SCREEN_91] m_nodeId[91] is attach to another node", 1));
  EXPECT_EQ(capturer.stops.load(), 0);
  Unlink(node, second);
  EXPECT_EQ(node->StartProcess(), 0u);
  EXPECT_EQ(node->StopProcess(), 0u);
  EXPECT_EQ(capturer.stops.load(), 1);
  EXPECT_FALSE(node->IsRunning());
  Unlink(node, sink);
}

TEST_F(ScreenNodeTest, RefusedStartsLeaveTheNodeStoppedAndSnapshotsUseAFreshCapturer) {
  auto low = MakeNode(89);
  EXPECT_EQ(low->StartProcess(), 1u);
  EXPECT_TRUE(m_logs.HasModule("[SCREEN_89] m_nodeId[89] invalid imgNo[89]", 1));
  EXPECT_FALSE(low->IsRunning());

  auto node = MakeNode(90);
  m_factory.failNextInit = true;
  EXPECT_EQ(node->StartProcess(), 1u);
  EXPECT_TRUE(m_logs.HasModule("m_nodeId[90] Screen Capturer Init failed!", 1));
  EXPECT_FALSE(node->IsRunning());
  EXPECT_EQ(m_factory.latest->starts.load(), 0);

  TagTavoVideoSnapshotStorage storage{};
  storage.width = 64;
  EXPECT_EQ(node->CapturePicture(92, storage), 0u);
  const FakeScreenCapturer& fresh = *m_factory.latest;
  EXPECT_EQ(std::tuple(fresh.capturerId, fresh.port, fresh.snapshotWidth),
            std::tuple(92u, 2u, 64u));
  m_factory.failSnapshots = true;  // a stopped screen makes a fresh capturer each time
  EXPECT_EQ(node->CapturePicture(92, storage), 1u);
  EXPECT_TRUE(m_logs.HasModule("imgNo[92] ScreenCaptureNode::CapturePicture failed!", 1));
}

}  // namespace
