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
std::mutex g_lock;  // guards both
std::map<uint32_t, int> g_framesByWindow;
std::vector<TavoVideoDisplayWinInfo> g_reports;

int OnRender(uint32_t winHandle, TavoVideoRenderImgHeader* /*header*/) {
  std::lock_guard<std::mutex> lock(g_lock);
  ++g_framesByWindow[winHandle];
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

// Each window shows its image; then an update adds and removes windows; a removed one cannot
// be stopped, and the window that stayed keeps its count: no second report for it (records
// with too many windows are the host rows' test).
TEST(PreviewNodeTest, ShowsReportsAndUpdatesWindows) {
  LogCapture logs;
  g_framesByWindow.clear();  // from an earlier repeat
  g_reports.clear();
  VideoPreviewNode::SetWinReportCb([](TavoVideoDisplayWinInfo& info) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_reports.push_back(info);
    return 0;
  });
  auto source = std::make_shared<CountingNode>(1);
  auto preview = std::make_shared<VideoPreviewNode>(40);
  ASSERT_EQ(preview->SetParam(Windows(
                {{0x1001, 150}, {0x1002, 150}, {0x1003, 177}, {0x1004, 178}, {0x1005, 149}})),
            0U);
  Link(source, preview);
  ASSERT_EQ(preview->StartProcess(), 0U);
  // A watermark of 256 characters does not fit: the window keeps rendering without it.
  preview->SetWaterMarkParam(177, true, std::string(256, 'w'));
  preview->SetWaterMarkParam(177, true, std::string(255, 'w'));
  EXPECT_EQ(logs.CountModule("[VO_40] strcpy_s failed, ret[", 1), 1U);
  std::vector<std::unique_ptr<OsvGraphicBuffer>> frames;
  // One frame of each image number, handled by the preview before this returns.
  auto send = [&](std::initializer_list<uint32_t> imgNos) {
    for (uint32_t imgNo : imgNos) {
      frames.push_back(
          std::make_unique<OsvGraphicBuffer>(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420, true));
      frames.back()->SetSrcImgNo(imgNo);
      source->SendBuffer(frames.back().get());
    }
    preview->DealTaskHandler(true);
  };
  send({150, 150, 177, 178, 149, 12});  // 12 matches no window: dropped quietly
  ASSERT_EQ(preview->UpdateParam(Windows({{0x1001, 150}, {0x1006, 150}})), 0U);
  EXPECT_EQ(preview->RenderStop(0x1002), 1U);  // removed: nothing to stop
  send({150});
  for (const auto& frame : frames) {
    EXPECT_TRUE(frame->IsAvailable()) << "a frame was not given back";
  }
  Unlink(source, preview);
  preview->StopProcess();
  VideoPreviewNode::SetWinReportCb(nullptr);

  std::lock_guard<std::mutex> lock(g_lock);
  // Two windows share image 150.
  EXPECT_EQ(g_framesByWindow,
            (std::map<uint32_t, int>{
                {0x1001, 3}, {0x1002, 2}, {0x1003, 1}, {0x1004, 1}, {0x1005, 1}, {0x1006, 1}}));
  // Only 150..177 are reported, once per window, as ports 62..89.
  std::map<uint32_t, uint32_t> portByWindow;
  for (const auto& report : g_reports) {
    EXPECT_EQ(report.firstFrameFlag, 1);
    EXPECT_TRUE(portByWindow.emplace(report.winId, report.viPort).second) << report.winId;
  }
  EXPECT_EQ(portByWindow,
            (std::map<uint32_t, uint32_t>{{0x1001, 62}, {0x1002, 62}, {0x1003, 89}, {0x1006, 62}}));
}

}  // namespace
