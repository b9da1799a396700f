#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "render/tavo_video_vlink_preview_node.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_nodes.h"

namespace {

// What the host's renderer and first-frame callback saw, by window.
struct Screen {
  std::mutex lock;  // guards the maps
  std::map<uint32_t, int> framesByWindow;
  std::vector<TavoVideoDisplayWinInfo> reports;
};
Screen* g_screen = nullptr;

int OnRender(uint32_t winHandle, TavoVideoRenderImgHeader* /*header*/) {
  std::lock_guard<std::mutex> lock(g_screen->lock);
  ++g_screen->framesByWindow[winHandle];
  return 0;
}

tagTavoVideoVoChnParam Windows(std::initializer_list<std::pair<uint64_t, uint32_t>> windows) {
  tagTavoVideoVoChnParam param{};
  param.renderCb = OnRender;
  for (const auto& [handle, imgNo] : windows) {
    param.windows[param.winNum].winHandle = handle;
    param.windows[param.winNum].imgNo = imgNo;
    ++param.winNum;
  }
  return param;
}

class PreviewNodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_screen = &m_screen;
    VideoPreviewNode::SetWinReportCb([this](TavoVideoDisplayWinInfo& info) {
      std::lock_guard<std::mutex> lock(m_screen.lock);
      m_screen.reports.push_back(info);
      return 0;
    });
    m_source = std::make_shared<CountingNode>(1);
    m_preview = std::make_shared<VideoPreviewNode>(40);
  }
  void TearDown() override {
    for (const auto& frame : m_frames) {
      EXPECT_TRUE(frame->IsAvailable()) << "a frame was not given back";
    }
    Unlink(m_source, m_preview);
    m_preview->StopProcess();
    VideoPreviewNode::SetWinReportCb(nullptr);
    g_screen = nullptr;
  }

  void Start(const tagTavoVideoVoChnParam& param) {
    ASSERT_EQ(m_preview->SetParam(param), 0U);
    Link(m_source, m_preview);
    ASSERT_EQ(m_preview->StartProcess(), 0U);
  }
  // Sends one frame of each image number and waits until the preview handled them.
  void Send(std::initializer_list<uint32_t> imgNos) {
    for (uint32_t imgNo : imgNos) {
      auto frame = std::make_unique<OsvGraphicBuffer>(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420, true);
      frame->SetSrcImgNo(imgNo);
      m_source->SendBuffer(frame.get());
      m_frames.push_back(std::move(frame));
    }
    m_preview->DealTaskHandler(true);
  }

  Screen m_screen;
  std::shared_ptr<CountingNode> m_source;
  std::shared_ptr<VideoPreviewNode> m_preview;
  std::vector<std::unique_ptr<OsvGraphicBuffer>> m_frames;
};

// Records with too many windows are refused. Each window shows its image; then an update adds
// and removes windows; a removed one cannot be stopped, and the window that stayed keeps its
// count: no second report for it.
TEST_F(PreviewNodeTest, ShowsReportsAndUpdatesWindowsAndRefusesBadRecords) {
  LogCapture logs;
  tagTavoVideoVoChnParam tooMany = Windows({});
  tooMany.winNum = 41;
  EXPECT_EQ(m_preview->SetParam(tooMany), 1U);
  EXPECT_EQ(m_preview->UpdateParam(tooMany), 1U);
  EXPECT_TRUE(logs.HasModule("[VO_40] invalid winNum[41]!", 1));

  Start(Windows({{0x1001, 150}, {0x1002, 150}, {0x1003, 177}, {0x1004, 178}, {0x1005, 149}}));
  // A watermark of 256 characters does not fit: the window keeps rendering without it.
  m_preview->SetWaterMarkParam(177, true, std::string(256, 'w'));
  m_preview->SetWaterMarkParam(177, true, std::string(255, 'w'));
  EXPECT_EQ(logs.CountModule("[VO_40] strcpy_s failed, ret[", 1), 1U);
  Send({150, 150, 177, 178, 149, 12});  // 12 matches no window: dropped quietly
  ASSERT_EQ(m_preview->UpdateParam(Windows({{0x1001, 150}, {0x1006, 150}})), 0U);
  EXPECT_EQ(m_preview->GetWindowCount(), 2U);
  EXPECT_EQ(m_preview->RenderStop(0x1002), 1U);  // removed: nothing to stop
  Send({150});

  std::lock_guard<std::mutex> lock(m_screen.lock);
  // Two windows share image 150.
  EXPECT_EQ(m_screen.framesByWindow,
            (std::map<uint32_t, int>{
                {0x1001, 3}, {0x1002, 2}, {0x1003, 1}, {0x1004, 1}, {0x1005, 1}, {0x1006, 1}}));
  // Only 150..177 are reported, once per window, as ports 62..89.
  std::map<uint32_t, uint32_t> portByWindow;
  for (const auto& report : m_screen.reports) {
    EXPECT_EQ(report.firstFrameFlag, 1);
    EXPECT_TRUE(portByWindow.emplace(report.winId, report.viPort).second) << report.winId;
  }
  EXPECT_EQ(portByWindow,
            (std::map<uint32_t, uint32_t>{{0x1001, 62}, {0x1002, 62}, {0x1003, 89}, {0x1006, 62}}));
}

}  // namespace
