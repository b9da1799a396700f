// The screen node on a private Xvfb: what a start hands its capturer (the port its imgNo
// names, cursor settings saved before it existed, an encoder size given before the start),
// frames to the sinks, the soft stop with two sinks, and starts that fail.
#include <gtest/gtest.h>

#include <memory>

#include "screen/tavo_video_vlink_screen_capture_node.h"
#include "tests/screen/screen_test_support.h"
#include "tests/support/test_nodes.h"

namespace {

class ScreenNodeTest : public ScreenTest {
 protected:
  static std::shared_ptr<ScreenCaptureNode> MakeNode(uint32_t id) {
    auto node = std::make_shared<ScreenCaptureNode>(id);
    ViDevInfo info = Params();
    info.imgNo = id;
    EXPECT_EQ(node->SetParam(info), 0u);
    return node;
  }
};

TEST_F(ScreenNodeTest, AStartConfiguresTheCapturerAndASecondSinkKeepsItRunning) {
  StartServer({{320, 240}, {200, 150}});
  const auto other = PatternPixels(200, 150, 31);
  m_server->PutPixels(1, 0, 0, 200, 150, other);
  VlinkCursorParams stored = Cursor(true);
  stored.userData = 0x77;
  ASSERT_EQ(ScreenCaptureNode::SaveGlobalMouseParam(91, stored), 0u);
  auto node = MakeNode(91);
  EXPECT_EQ(node->SetEncodeResolution(100, 76), 0u);  // no capturer yet: kept
  auto sink = std::make_shared<CountingNode>(5);
  std::mutex lock;  // guards first
  std::vector<uint8_t> first;
  sink->onFrame = [&](OsvGraphicBuffer* frame) {
    std::lock_guard<std::mutex> guard(lock);
    if (first.empty()) {
      first = PackI420(*frame);
    }
  };
  Link(node, sink);
  ASSERT_EQ(sink->StartProcess(), 0u);
  ASSERT_EQ(node->StartProcess(), 0u);
  ASSERT_EQ(node->StartProcess(), 0u);  // already open: nothing more
  EXPECT_EQ(m_displaySystem->opens.load(), 1);
  VlinkCursorParams inForce{};
  ASSERT_EQ(node->GetMouseParam(&inForce), 0u);
  EXPECT_EQ(inForce.userData, 0x77u);
  ASSERT_TRUE(sink->handled.WaitFor(1));
  {
    std::lock_guard<std::mutex> guard(lock);
    EXPECT_EQ(first, OracleI420(other, 200, 150, 100, 76));  // imgNo 91: port 1
  }

  // Two sinks: a stop keeps capturing for the other; the last one stops it.
  auto second = std::make_shared<CountingNode>(6);
  Link(node, second);
  ASSERT_EQ(second->StartProcess(), 0u);
  EXPECT_EQ(node->StopProcess(), 0u);
  EXPECT_TRUE(m_logs.HasModule("[SCREEN_91] m_nodeId[91] is attach to another node", 1));
  EXPECT_TRUE(second->handled.WaitFor(second->handled.Get() + 2));
  Unlink(node, second);
  EXPECT_EQ(node->StartProcess(), 0u);
  EXPECT_EQ(node->StopProcess(), 0u);
  EXPECT_FALSE(node->IsRunning());
  Unlink(node, sink);
}

TEST_F(ScreenNodeTest, RefusedStartsLeaveTheNodeStopped) {
  StartServer({{320, 240}});
  auto low = MakeNode(89);
  EXPECT_EQ(low->StartProcess(), 1u);
  EXPECT_TRUE(m_logs.HasModule("[SCREEN_89] m_nodeId[89] invalid imgNo[89]", 1));
  EXPECT_FALSE(low->IsRunning());
  auto node = MakeNode(90);
  m_displaySystem->refuseOpen = true;
  EXPECT_EQ(node->StartProcess(), 1u);
  EXPECT_TRUE(m_logs.HasModule("m_nodeId[90] Screen Capturer Init failed!", 1));
  EXPECT_FALSE(node->IsRunning());
  m_displaySystem->refuseOpen = false;
  EXPECT_EQ(node->StartProcess(), 0u);  // the next start replaces the capturer
  EXPECT_TRUE(node->IsRunning());
  EXPECT_EQ(node->StopProcess(), 0u);
}

}  // namespace
