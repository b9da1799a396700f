// Screen links as a host drives them (dlopen only) on a private Xvfb: binding an encoder and
// a preview, encoder updates, unbinding while frames flow, a host that holds every frame,
// cursor settings made before the screen exists, and snapshots. The fake host checks at the
// end that every accepted encoder frame went back once and none was released twice.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <tuple>
#include <vector>

#include "tavo_video_vlink.h"
#include "tavo_video_vlink_capture.h"
#include "tests/support/fake_host.h"
#include "tests/support/log_capture.h"
#include "tests/support/table_rows.h"
#include "tools/common/xvfb_server.h"

namespace {

constexpr uint32_t kScreen = TAVO_VIDEO_COMPONENT_SCREEN;
constexpr uint32_t kEnc = TAVO_VIDEO_COMPONENT_ENCODER;
constexpr uint32_t kVo = TAVO_VIDEO_COMPONENT_PREVIEW;
constexpr uint32_t kInput = TAVO_VIDEO_COMPONENT_INPUT;

CountLatch* g_cursorSamples = nullptr;
std::atomic<uint32_t> g_cursorUserData{0};

int32_t OnCursor(VlinkCursorSendData*, uint32_t, uint32_t userData) {
  g_cursorUserData = userData;
  g_cursorSamples->Add();
  return 0;
}

HostParam ScreenParam() {
  HostParam param = FakeHost::Zeroed();
  param->screen.width = 640;
  param->screen.height = 480;
  param->screen.frameRate = 30;
  return param;
}

class ScreenLinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_cursorSamples = &m_cursorSamples;
    ASSERT_TRUE(m_server->Ok()) << m_server->Error();
    // The library opens the display the environment names, as in the host process.
    setenv("DISPLAY", m_server->Name().c_str(), 1);
    m_host.SetEncoder(FakeHost::Encoder::kGiveBack);
  }
  void TearDown() override {
    m_host.Finish();
    g_cursorSamples = nullptr;
  }
  template <class F>
  F* Entry(const char* name) {
    return Symbol<F>(m_host.entries().library, name);  // the exports are checked elsewhere
  }
  // Waits for `count` more encoder frames and checks their size and source.
  void ExpectNextFrames(int count, uint32_t width, uint32_t height) {
    const size_t first = m_host.EncodedFrames().size();
    ASSERT_TRUE(m_host.offered.WaitFor(static_cast<int>(first) + count));
    const std::vector<FakeHost::Encoded> frames = m_host.EncodedFrames();
    for (size_t i = first; i < frames.size(); ++i) {  // stamped with the screen's imgNo
      EXPECT_EQ(std::tuple(frames[i].width, frames[i].height, frames[i].srcImgNo),
                std::tuple(width, height, 90U));
    }
  }

  LogCapture m_logs;
  std::unique_ptr<XvfbServer> m_server =
      std::make_unique<XvfbServer>(std::vector<XvfbScreen>{{640, 480}});
  FakeHost m_host{HostEntries::From(dlopen(VLINK_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL))};
  CountLatch m_cursorSamples;
};

TEST_F(ScreenLinkTest, EncoderSizeWinsUpdatesFlowAndSinksComeAndGo) {
  HostParam screen = ScreenParam();
  ASSERT_EQ(m_host.Create(kScreen, 700, 90, screen.get()), 0U);
  EXPECT_TRUE(m_logs.HasModule("viInfo: w[640] h[480] fps[30]"));
  HostParam encoder = FakeHost::EncoderParam(5, 320, 240);
  ASSERT_EQ(m_host.Create(kEnc, 701, 5, encoder.get()), 0U);
  ASSERT_EQ(m_host.Bind(kEnc, kScreen, 701, 700), 0U);
  ExpectNextFrames(3, 320, 240);

  // A preview joins through the generic input row: the screen is not opened again and the
  // encoder's size stays.
  HostParam preview = FakeHost::PreviewParam({{1, 90}});
  ASSERT_EQ(m_host.Create(kVo, 702, 40, preview.get()), 0U);
  m_host.Store(703, 90);
  ASSERT_EQ(m_host.Bind(kVo, kInput, 702, 703), 0U);
  EXPECT_TRUE(m_host.rendered.WaitFor(2));
  ExpectNextFrames(3, 320, 240);

  // The encoder's new size reaches the screen while frames flow.
  HostParam smaller = FakeHost::EncoderParam(5, 160, 120);
  ASSERT_EQ(m_host.Update(kEnc, 701, smaller.get()), 0U);
  ASSERT_TRUE(m_host.offered.WaitUntil([&] { return m_host.EncodedFrames().back().width == 160; }));
  ExpectNextFrames(2, 160, 120);

  // Unbinding does not stop the screen; the preview keeps receiving, the encoder comes back.
  ASSERT_EQ(m_host.Unbind(kEnc, kScreen, 701, 700), 0U);
  EXPECT_TRUE(m_host.rendered.WaitFor(m_host.rendered.Get() + 2));
  ASSERT_EQ(m_host.Bind(kEnc, kScreen, 701, 700), 0U);
  ExpectNextFrames(2, 160, 120);
  EXPECT_EQ(m_logs.CountModule("[SCREEN_90] ScreenCaptureNode::Open success"), 1U);

  // Destroyed while it feeds both sinks: capture stops all the same.
  ASSERT_EQ(m_host.Destroy(kScreen, 700), 0U);
  EXPECT_TRUE(m_logs.HasModule("X11 Capturer[90] StopCapture successful!"));
  EXPECT_EQ(m_host.Unbind(kVo, kInput, 702, 703), 1U);  // its input is gone
}

tagTavoVideoMouseParam Mouse(uint32_t screenComponent, uint32_t userData) {
  tagTavoVideoMouseParam mouse{};
  mouse.screenComponentId = screenComponent;
  mouse.userData = userData;
  mouse.independent = 1;
  mouse.framerate = 30;
  mouse.shape = 4;
  mouse.cursorCallback = OnCursor;
  return mouse;
}

// Snapshots map host ids and refuse other formats (no screen is running yet); mouse settings
// made before the screen exists apply at its start. A host holding every frame pauses the
// link until they come back.
TEST_F(ScreenLinkTest, SnapshotsMouseSettingsBeforeTheScreenStartsAndAHostHoldingEveryFrame) {
  auto* snapshot = Entry<decltype(TavoVideoVlinkSnapShot)>("TavoVideoVlinkSnapShot");
  TagTavoVideoSnapshotStorage storage{};
  storage.queueId = 0x7e;  // no such host queue
  for (const auto& [id, format, line] :
       {std::tuple{99u, 2u, "snapshot: the format[2] is unsupported"},
        std::tuple{99u, 3u, "imgNo[90] ScreenCaptureNode::CapturePicture failed!"},
        std::tuple{99u, 3u, "CapturePicture[99] failed!"},
        std::tuple{100u, 3u, "imgNo[91] ScreenCaptureNode::CapturePicture failed!"},
        std::tuple{89u, 3u, "[SCREEN_89] invalid imgNo[89]"}}) {
    storage.format = format;
    EXPECT_EQ(snapshot(id, &storage), 1U);
    EXPECT_TRUE(m_logs.HasModule(line, 1)) << line;
  }

  auto* setMouse = Entry<decltype(TavoVideoMouseSetParam)>("TavoVideoMouseSetParam");
  auto* showMouse = Entry<decltype(TavoVideoShowMouse)>("TavoVideoShowMouse");
  auto* hideMouse = Entry<decltype(TavoVideoHideMouse)>("TavoVideoHideMouse");
  auto* stopMouse = Entry<decltype(TavoVideoMouseStop)>("TavoVideoMouseStop");
  EXPECT_EQ(setMouse(1, nullptr), 1U);
  EXPECT_TRUE(m_logs.HasModule("mouseParam is nullptr", 1));
  EXPECT_EQ(showMouse(77), 1U);
  EXPECT_TRUE(m_logs.HasModule("TavoVideoShowMouse failed! mouse[77] has not set params!", 1));
  EXPECT_EQ(hideMouse(77), 1U);

  // Screen 91 (port 1) does not exist yet; a mouse stays with its screen until stopped.
  m_host.Store(740, 91);
  m_host.Store(741, 92);
  tagTavoVideoMouseParam first = Mouse(740, 0x55);
  tagTavoVideoMouseParam other = Mouse(741, 0x66);
  ASSERT_EQ(setMouse(1, &first), 0U);
  EXPECT_EQ(setMouse(1, &other), 1U);
  EXPECT_TRUE(m_logs.HasModule(
      "TavoVideoMouseSetParam failed! Please stop mouse [1] before attach new vi", 1));
  EXPECT_EQ(stopMouse(1), 0U);
  EXPECT_EQ(setMouse(1, &other), 0U);
  EXPECT_EQ(stopMouse(1), 0U);
  ASSERT_EQ(setMouse(2, &first), 0U);
  EXPECT_EQ(hideMouse(2), 0U);
  EXPECT_EQ(showMouse(2), 0U);

  ASSERT_TRUE(m_server->SplitScreen(0, 2));
  m_host.SetEncoder(FakeHost::Encoder::kHold);
  HostParam screen = ScreenParam();
  ASSERT_EQ(m_host.Create(kScreen, 740, 91, screen.get()), 0U);
  HostParam encoder = FakeHost::EncoderParam(8, 320, 240);
  ASSERT_EQ(m_host.Create(kEnc, 742, 8, encoder.get()), 0U);
  ASSERT_EQ(m_host.Bind(kEnc, kScreen, 742, 740), 0U);
  ASSERT_TRUE(m_host.offered.WaitFor(5));
  EXPECT_TRUE(m_logs.WaitFor("no available buffer!"));
  EXPECT_EQ(m_host.offered.Get(), 5);  // all five capture buffers are out
  m_host.SetEncoder(FakeHost::Encoder::kGiveBack);
  m_host.GiveBack();
  EXPECT_TRUE(m_host.offered.WaitFor(10));
  ASSERT_TRUE(m_cursorSamples.WaitFor(2));  // the independent cursor of the stored record
  EXPECT_EQ(g_cursorUserData.load(), 0x55U);
  // On the running screen a record without a cursor function is refused.
  tagTavoVideoMouseParam broken = Mouse(740, 0x55);
  broken.cursorCallback = nullptr;
  EXPECT_EQ(setMouse(2, &broken), 1U);
  EXPECT_TRUE(m_logs.HasModule("mouse[2] SetMouseParam failed!", 1));
  EXPECT_EQ(stopMouse(2), 0U);
}

}  // namespace
