#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "core/tavo_video_vlink_vi_node.h"
#include "tests/support/fake_os.h"
#include "tests/support/wait.h"

namespace {

using Report = std::tuple<uint32_t, uint32_t, uint64_t>;  // node, status, virtual ms

std::mutex g_reportLock;  // guards g_reports
std::vector<Report> g_reports;
FakeClock* g_clock = nullptr;
CountLatch* g_reported = nullptr;

void OnStatus(uint32_t nodeId, uint32_t status) {
  std::lock_guard<std::mutex> lock(g_reportLock);
  g_reports.emplace_back(nodeId, status, g_clock->NowUs() / 1000);
  g_reported->Add();
}

std::vector<Report> Reports() {
  std::lock_guard<std::mutex> lock(g_reportLock);
  return g_reports;
}

class VirtualViNodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_clock = &m_clock;
    g_reported = &m_reported;
    std::lock_guard<std::mutex> lock(g_reportLock);
    g_reports.clear();
  }
  void TearDown() override {
    for (uint32_t id : m_ids) {
      VideoVlinkNode::DeleteNodeByUnique(id);
    }
    g_clock = nullptr;
  }
  std::shared_ptr<VirtualViNode> Make(uint32_t id, bool withCallback = true) {
    VideoVlinkNode::CreateNodeByUnique<VirtualViNode>(id);
    m_ids.push_back(id);
    auto node = VideoVlinkNode::GetNodeByUnique<VirtualViNode>(id);
    ViDevInfo info{};
    info.imgNo = id;
    info.width = 1280;
    info.height = 720;
    info.fps = 30;
    info.captureFps = 30;
    info.statusCallback = withCallback ? &OnStatus : nullptr;
    EXPECT_EQ(node->SetParam(info), 0u);
    return node;
  }
  // Moves time on in one step once the watchdog waits.
  void Advance(uint64_t milliseconds) {
    ASSERT_TRUE(m_clock.WaitForWaiters(1));
    m_clock.AdvanceMs(milliseconds);
  }

  CountLatch m_reported;
  FakeClock m_clock;
  ScopedSeamOverride<Clock> m_clockSeam{m_clock};
  std::vector<uint32_t> m_ids;
};

// Then a record without a size is refused and the old one kept.
TEST_F(VirtualViNodeTest, NoFrameIsReportedOnceAfterFiveSecondsToTheMillisecond) {
  EXPECT_TRUE(VirtualViNode::NoFrameForTooLong(1000 + 5000, 1000));
  EXPECT_FALSE(VirtualViNode::NoFrameForTooLong(999, 1000));  // a clock behind the last frame
  const uint64_t created = m_clock.NowUs() / 1000;
  auto node = Make(91);
  // A millisecond short of the limit: still watching.
  Advance(VirtualViNode::kNoFrameLimitMs - 1);
  EXPECT_TRUE(Reports().empty());
  EXPECT_TRUE(node->IsChecking());
  m_clock.AdvanceMs(1);
  ASSERT_TRUE(m_reported.WaitFor(1));
  EXPECT_FALSE(node->IsChecking());
  m_clock.AdvanceMs(20000);  // nobody waits any more: no second report
  EXPECT_EQ(Reports(), (std::vector<Report>{{91u, 3u, created + 5000}}));

  ViDevInfo info = node->GetParam();
  for (const auto& [width, height, result] :
       {std::tuple{1280U, 0U, 1U}, std::tuple{0U, 1U, 1U}, std::tuple{1U, 1U, 0U}}) {
    info.width = width;
    info.height = height;
    EXPECT_EQ(node->SetParam(info), result);
    EXPECT_EQ(node->GetParam().height, result == 0 ? 1U : 720U);  // refused: the old record stays
  }
}

// A first frame before the limit, a node without a callback, or one removed early: no report.
TEST_F(VirtualViNodeTest, AFirstFrameNoCallbackOrAnEarlyRemovalEndTheWatchWithoutAReport) {
  auto first = Make(92);
  Advance(4999);
  first->BufferOut();
  EXPECT_FALSE(first->IsChecking());
  m_clock.AdvanceMs(60000);
  first->Shutdown();  // joins the watchdog: whatever it would do is done

  auto silent = Make(93, false);
  Advance(5100);
  for (int i = 0; i < 20000 && silent->IsChecking(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_FALSE(silent->IsChecking());

  auto removed = Make(94);
  Advance(1000);
  removed.reset();
  EXPECT_EQ(VideoVlinkNode::DeleteNodeByUnique(94), 0);
  m_ids.pop_back();
  m_clock.AdvanceMs(10000);
  EXPECT_TRUE(Reports().empty());
}

}  // namespace
