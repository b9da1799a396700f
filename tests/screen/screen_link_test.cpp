// Screen links as a host drives them (dlopen only) on a private Xvfb: binding an encoder and
// a preview, encoder updates, unbinding while frames flow, a host that holds every frame,
// cursor settings made before the screen exists, and snapshots. Every accepted encoder frame
// goes back exactly once and no frame reference is dropped twice.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tavo_video_vlink.h"
#include "tavo_video_vlink_capture.h"
#include "tests/support/loaded_library.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"
#include "tools/common/xvfb_server.h"

namespace {

constexpr uint32_t kScreenType = TAVO_VIDEO_COMPONENT_SCREEN;
constexpr uint32_t kEncType = TAVO_VIDEO_COMPONENT_ENCODER;
constexpr uint32_t kVoType = TAVO_VIDEO_COMPONENT_PREVIEW;
constexpr uint32_t kInputType = TAVO_VIDEO_COMPONENT_INPUT;

// The host's encoder: what reached it, and a thread that gives frames back unless told to
// hold them.
struct HostEncoder {
  struct Seen {
    uint32_t width, height, format, srcImgNo;
  };
  std::mutex lock;  // guards everything below but the latches
  std::condition_variable wake;
  std::vector<Seen> seen;
  std::deque<VencOutFrame*> toRelease;
  std::vector<VencOutFrame*> held;
  bool hold = false;
  bool quit = false;
  CountLatch offered;
  CountLatch released;

  std::vector<Seen> Since(size_t first) {
    std::lock_guard<std::mutex> guard(lock);
    return {seen.begin() + static_cast<std::ptrdiff_t>(std::min(first, seen.size())), seen.end()};
  }
  size_t Count() {
    std::lock_guard<std::mutex> guard(lock);
    return seen.size();
  }
};
HostEncoder* g_encoder = nullptr;
CountLatch* g_rendered = nullptr;
struct CursorSeen {
  CountLatch samples;
  std::atomic<uint32_t> userData{0};
};
CursorSeen* g_cursor = nullptr;

uint32_t OnEncCreate(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t OnEncFrame(uint32_t, uint32_t, uint32_t, VencOutFrame* frame) {
  {
    std::lock_guard<std::mutex> guard(g_encoder->lock);
    const OsvGraphicBufferInfo info = frame->buffer->GetImageInfo();
    g_encoder->seen.push_back({info.width, info.height, info.format, frame->buffer->GetSrcImgNo()});
    if (g_encoder->hold) {
      g_encoder->held.push_back(frame);
    } else {
      g_encoder->toRelease.push_back(frame);
      g_encoder->wake.notify_all();
    }
  }
  g_encoder->offered.Add();
  return 1;
}
int OnRender(uint32_t, TavoVideoRenderImgHeader*) {
  g_rendered->Add();
  return 0;
}
int32_t OnCursor(VlinkCursorSendData*, uint32_t, uint32_t userData) {
  g_cursor->userData = userData;
  g_cursor->samples.Add();
  return 0;
}

// For log lines, which nobody signals: looks again every millisecond up to the limit.
bool Eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kGenerousTimeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

using Param = std::unique_ptr<tagTavoVideoComponentParam>;
Param Zeroed() {
  Param param = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(param.get(), 0, sizeof(*param));
  return param;
}
Param ScreenParam() {
  Param param = Zeroed();
  param->screen.width = 640;
  param->screen.height = 480;
  param->screen.frameRate = 30;
  return param;
}
Param EncoderParam(uint32_t width, uint32_t height) {
  Param param = Zeroed();
  param->venc.width = width;
  param->venc.height = height;
  param->venc.frameRate = 30;
  param->venc.encOutFunc = OnEncFrame;
  param->venc.encCreateFunc = OnEncCreate;
  return param;
}
Param PreviewParam(uint32_t imgNo) {
  Param param = Zeroed();
  param->vo.windows[0].winHandle = 1;
  param->vo.windows[0].imgNo = imgNo;
  param->vo.winNum = 1;
  param->vo.renderCb = OnRender;
  return param;
}

class ScreenLinkTest : public LoadedLibraryTest {
 protected:
  void SetUp() override {
    g_encoder = &m_encoder;
    g_rendered = &m_rendered;
    g_cursor = &m_cursor;
    m_underflows = OsvGraphicBuffer::GetUnderflowCount();
    m_server = std::make_unique<XvfbServer>(std::vector<XvfbScreen>{{640, 480}});
    ASSERT_TRUE(m_server->Ok()) << m_server->Error();
    // The library opens the display the environment names, as in the host process.
    setenv("DISPLAY", m_server->Name().c_str(), 1);
    GetTable("TavoVideoGetCreateNodeFuncMap", m_create, m_count[0]);
    GetTable("TavoVideoGetBindNodeFuncMap", m_bind, m_count[1]);
    GetTable("TavoVideoGetUnBindNodeFuncMap", m_unbind, m_count[2]);
    GetTable("TavoVideoGetDestroyNodeFuncMap", m_destroy, m_count[3]);
    GetTable("TavoVideoGetUpdateNodeFuncMap", m_update, m_count[4]);
    m_getContainer = Symbol<decltype(TavoVideoGetDataContainer)>("TavoVideoGetDataContainer");
    m_releaseEnc = Symbol<decltype(TavoVideoReleaseVEncFrame)>("TavoVideoReleaseVEncFrame");
    m_setMouse = Symbol<decltype(TavoVideoMouseSetParam)>("TavoVideoMouseSetParam");
    m_showMouse = Symbol<decltype(TavoVideoShowMouse)>("TavoVideoShowMouse");
    m_hideMouse = Symbol<decltype(TavoVideoHideMouse)>("TavoVideoHideMouse");
    m_stopMouse = Symbol<decltype(TavoVideoMouseStop)>("TavoVideoMouseStop");
    m_snapshot = Symbol<decltype(TavoVideoVlinkSnapShot)>("TavoVideoVlinkSnapShot");
    ASSERT_TRUE(m_getContainer && m_releaseEnc && m_setMouse && m_showMouse && m_hideMouse &&
                m_stopMouse && m_snapshot);
    m_releaser = std::thread([this] { ReleaseLoop(); });
  }
  void TearDown() override {
    for (auto it = m_links.rbegin(); it != m_links.rend(); ++it) {
      Find(m_unbind, m_count[2], it->sinkType, it->srcType)(it->sink, it->source);
    }
    // Inputs go first, then every frame goes back while its encoder still exists, as a host
    // must do it: a frame given back to a destroyed encoder is lost.
    const auto destroy = [&](bool inputs) {
      for (auto it = m_components.rbegin(); it != m_components.rend(); ++it) {
        if ((it->first == kScreenType) == inputs) {
          Find(m_destroy, m_count[3], it->first)(it->second);
        }
      }
    };
    destroy(true);
    {
      std::lock_guard<std::mutex> guard(m_encoder.lock);
      m_encoder.hold = false;
      m_encoder.toRelease.insert(m_encoder.toRelease.end(), m_encoder.held.begin(),
                                 m_encoder.held.end());
      m_encoder.held.clear();
      m_encoder.wake.notify_all();
    }
    EXPECT_TRUE(Eventually([&] { return m_encoder.released.Get() == m_encoder.offered.Get(); }));
    destroy(false);
    {
      std::lock_guard<std::mutex> guard(m_encoder.lock);
      m_encoder.quit = true;
      m_encoder.wake.notify_all();
    }
    m_releaser.join();
    EXPECT_EQ(m_encoder.released.Get(), m_encoder.offered.Get()) << "frames not given back";
    EXPECT_EQ(OsvGraphicBuffer::GetUnderflowCount(), m_underflows) << "a frame released twice";
    g_encoder = nullptr;
    g_rendered = nullptr;
    g_cursor = nullptr;
  }
  template <class Row>
  static void GetTable(const char* name, const Row*& table, uint32_t& count) {
    ASSERT_EQ(Symbol<uint32_t(const Row**, uint32_t*)>(name)(&table, &count), 0U);
  }
  void ReleaseLoop() {
    std::unique_lock<std::mutex> guard(m_encoder.lock);
    for (;;) {
      m_encoder.wake.wait(guard, [&] { return m_encoder.quit || !m_encoder.toRelease.empty(); });
      if (m_encoder.toRelease.empty()) {
        return;
      }
      VencOutFrame* frame = m_encoder.toRelease.front();
      m_encoder.toRelease.pop_front();
      guard.unlock();
      EXPECT_EQ(m_releaseEnc(frame), 0U);
      m_encoder.released.Add();
      guard.lock();
    }
  }
  // Component `component` is node `node`.
  void Store(uint32_t component, uint32_t node) {
    DataContainer* container =
        m_getContainer(("Node[" + std::to_string(component) + "]PresentParam").c_str());
    container->SetDataByString<uint32_t>("imgNo", node);
    container->SetDataByString<uint32_t>("portId", 0);
  }
  uint32_t Create(uint32_t type, uint32_t component, uint32_t node, tagTavoVideoComponentParam* p) {
    Store(component, node);
    m_components.emplace_back(type, component);
    return Find(m_create, m_count[0], type)(component, p);
  }
  uint32_t Bind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source) {
    const uint32_t result = Find(m_bind, m_count[1], sinkType, srcType)(sink, source);
    if (result == 0) {
      m_links.push_back({sinkType, srcType, sink, source});
    }
    return result;
  }
  uint32_t Unbind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source) {
    for (auto it = m_links.begin(); it != m_links.end(); ++it) {
      if (it->sink == sink && it->source == source) {
        m_links.erase(it);
        break;
      }
    }
    return Find(m_unbind, m_count[2], sinkType, srcType)(sink, source);
  }
  uint32_t Destroy(uint32_t type, uint32_t component) {
    for (auto it = m_components.begin(); it != m_components.end(); ++it) {
      if (*it == std::make_pair(type, component)) {
        m_components.erase(it);
        break;
      }
    }
    return Find(m_destroy, m_count[3], type)(component);
  }
  uint32_t Update(uint32_t type, uint32_t component, tagTavoVideoComponentParam* p) {
    return Find(m_update, m_count[4], type)(component, p);
  }
  // Waits for `count` more encoder frames and returns them.
  std::vector<HostEncoder::Seen> NextFrames(int count) {
    const size_t first = m_encoder.Count();
    EXPECT_TRUE(m_encoder.offered.WaitFor(static_cast<int>(first) + count));
    return m_encoder.Since(first);
  }

  LogCapture m_logs;
  HostEncoder m_encoder;
  CountLatch m_rendered;
  CursorSeen m_cursor;
  uint64_t m_underflows = 0;
  std::unique_ptr<XvfbServer> m_server;
  std::thread m_releaser;
  struct Link {
    uint32_t sinkType, srcType, sink, source;
  };
  std::vector<Link> m_links;                                // unbound at the end
  std::vector<std::pair<uint32_t, uint32_t>> m_components;  // destroyed at the end
  const tagTavoVideoCreateFuncMap* m_create = nullptr;
  const tagTavoVideoBindFuncMap* m_bind = nullptr;
  const tagTavoVideoBindFuncMap* m_unbind = nullptr;
  const tagTavoVideoDestroyFuncMap* m_destroy = nullptr;
  const tagTavoVideoUpdateFuncMap* m_update = nullptr;
  uint32_t m_count[5] = {};
  decltype(&TavoVideoGetDataContainer) m_getContainer = nullptr;
  decltype(&TavoVideoReleaseVEncFrame) m_releaseEnc = nullptr;
  decltype(&TavoVideoMouseSetParam) m_setMouse = nullptr;
  decltype(&TavoVideoShowMouse) m_showMouse = nullptr;
  decltype(&TavoVideoHideMouse) m_hideMouse = nullptr;
  decltype(&TavoVideoMouseStop) m_stopMouse = nullptr;
  decltype(&TavoVideoVlinkSnapShot) m_snapshot = nullptr;
};

void ExpectFrames(const std::vector<HostEncoder::Seen>& frames, uint32_t width, uint32_t height) {
  for (const HostEncoder::Seen& frame : frames) {
    EXPECT_EQ(frame.width, width);
    EXPECT_EQ(frame.height, height);
    EXPECT_EQ(frame.format, static_cast<uint32_t>(TAVO_VIDEO_VLINK_FORMAT_I420));
    EXPECT_EQ(frame.srcImgNo, 90U);  // stamped with the screen's imgNo
  }
}

TEST_F(ScreenLinkTest, EncoderSizeWinsUpdatesFlowAndSinksComeAndGo) {
  Param screen = ScreenParam();
  ASSERT_EQ(Create(kScreenType, 700, 90, screen.get()), 0U);
  EXPECT_TRUE(m_logs.HasModule("viInfo: w[640] h[480] fps[30]"));
  Param encoder = EncoderParam(320, 240);
  ASSERT_EQ(Create(kEncType, 701, 5, encoder.get()), 0U);
  ASSERT_EQ(Bind(kEncType, kScreenType, 701, 700), 0U);
  ExpectFrames(NextFrames(3), 320, 240);

  // A preview joins through the generic input row: the screen is not opened again and the
  // encoder's size stays.
  Param preview = PreviewParam(90);
  ASSERT_EQ(Create(kVoType, 702, 40, preview.get()), 0U);
  Store(703, 90);
  ASSERT_EQ(Bind(kVoType, kInputType, 702, 703), 0U);
  EXPECT_TRUE(m_rendered.WaitFor(2));
  ExpectFrames(NextFrames(3), 320, 240);
  EXPECT_EQ(m_logs.CountModule("[SCREEN_90] ScreenCaptureNode::Open success"), 1U);

  // The encoder's new size reaches the screen while frames flow.
  Param smaller = EncoderParam(160, 120);
  ASSERT_EQ(Update(kEncType, 701, smaller.get()), 0U);
  ASSERT_TRUE(m_encoder.offered.WaitUntil([&] {
    std::lock_guard<std::mutex> guard(m_encoder.lock);
    return m_encoder.seen.back().width == 160;
  }));
  ExpectFrames(NextFrames(2), 160, 120);

  // Unbinding does not stop the screen; the preview keeps receiving, the encoder comes back.
  ASSERT_EQ(Unbind(kEncType, kScreenType, 701, 700), 0U);
  const int rendered = m_rendered.Get();
  EXPECT_TRUE(m_rendered.WaitFor(rendered + 2));
  ASSERT_EQ(Bind(kEncType, kScreenType, 701, 700), 0U);
  ExpectFrames(NextFrames(2), 160, 120);
  EXPECT_EQ(m_logs.CountModule("[SCREEN_90] ScreenCaptureNode::Open success"), 1U);

  // Destroyed while it feeds both sinks: capture stops all the same.
  ASSERT_EQ(Destroy(kScreenType, 700), 0U);
  EXPECT_TRUE(m_logs.HasModule("X11 Capturer[90] StopCapture successful!"));
  EXPECT_EQ(Unbind(kVoType, kInputType, 702, 703), 1U);  // its input is gone
  m_links.clear();
}

TEST_F(ScreenLinkTest, AHostHoldingEveryFramePausesTheLinkUntilTheyComeBack) {
  {
    std::lock_guard<std::mutex> guard(m_encoder.lock);
    m_encoder.hold = true;
  }
  Param screen = ScreenParam();
  ASSERT_EQ(Create(kScreenType, 720, 90, screen.get()), 0U);
  Param encoder = EncoderParam(320, 240);
  ASSERT_EQ(Create(kEncType, 721, 6, encoder.get()), 0U);
  ASSERT_EQ(Bind(kEncType, kScreenType, 721, 720), 0U);
  ASSERT_TRUE(m_encoder.offered.WaitFor(5));
  EXPECT_TRUE(Eventually([&] { return m_logs.HasModule("no available buffer!"); }));
  EXPECT_EQ(m_encoder.offered.Get(), 5);  // all five capture buffers are out
  {
    std::lock_guard<std::mutex> guard(m_encoder.lock);
    m_encoder.hold = false;
    for (VencOutFrame* frame : m_encoder.held) {
      m_encoder.toRelease.push_back(frame);
    }
    m_encoder.held.clear();
    m_encoder.wake.notify_all();
  }
  ExpectFrames(NextFrames(5), 320, 240);
}

TEST_F(ScreenLinkTest, AScreenBelowNinetyIsRefusedAtStart) {
  Param screen = ScreenParam();
  ASSERT_EQ(Create(kScreenType, 730, 89, screen.get()), 0U);
  Param encoder = EncoderParam(320, 240);
  ASSERT_EQ(Create(kEncType, 731, 7, encoder.get()), 0U);
  EXPECT_EQ(Bind(kEncType, kScreenType, 731, 730), 1U);
  EXPECT_TRUE(m_logs.HasModule("[SCREEN_89] m_nodeId[89] invalid imgNo[89]", 1));
  EXPECT_TRUE(m_logs.HasModule("Vi[89] StartProcess failed!"));
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

TEST_F(ScreenLinkTest, MouseSettingsBeforeTheScreenExistsApplyAtItsStart) {
  EXPECT_EQ(m_setMouse(1, nullptr), 1U);
  EXPECT_TRUE(m_logs.HasModule("mouseParam is nullptr", 1));
  EXPECT_EQ(m_showMouse(77), 1U);
  EXPECT_TRUE(m_logs.HasModule("TavoVideoShowMouse failed! mouse[77] has not set params!", 1));
  EXPECT_EQ(m_hideMouse(77), 1U);

  // Screen 91 (port 1) does not exist yet; a mouse stays with its screen until stopped.
  Store(740, 91);
  Store(741, 92);
  tagTavoVideoMouseParam first = Mouse(740, 0x55);
  tagTavoVideoMouseParam other = Mouse(741, 0x66);
  ASSERT_EQ(m_setMouse(1, &first), 0U);
  EXPECT_EQ(m_setMouse(1, &other), 1U);
  EXPECT_TRUE(m_logs.HasModule(
      "TavoVideoMouseSetParam failed! Please stop mouse [1] before attach new vi", 1));
  EXPECT_EQ(m_stopMouse(1), 0U);
  EXPECT_EQ(m_setMouse(1, &other), 0U);
  EXPECT_EQ(m_stopMouse(1), 0U);
  ASSERT_EQ(m_setMouse(2, &first), 0U);
  EXPECT_EQ(m_hideMouse(2), 0U);
  EXPECT_EQ(m_showMouse(2), 0U);

  ASSERT_TRUE(m_server->SplitScreen(0, 2));
  Param screen = ScreenParam();
  ASSERT_EQ(Create(kScreenType, 740, 91, screen.get()), 0U);
  Param encoder = EncoderParam(320, 240);
  ASSERT_EQ(Create(kEncType, 742, 8, encoder.get()), 0U);
  ASSERT_EQ(Bind(kEncType, kScreenType, 742, 740), 0U);
  ASSERT_TRUE(m_cursor.samples.WaitFor(2));  // the independent cursor of the stored record
  EXPECT_EQ(m_cursor.userData.load(), 0x55U);
  // On the running screen a record without a cursor function is refused.
  tagTavoVideoMouseParam broken = Mouse(740, 0x55);
  broken.cursorCallback = nullptr;
  EXPECT_EQ(m_setMouse(2, &broken), 1U);
  EXPECT_TRUE(m_logs.HasModule("mouse[2] SetMouseParam failed!", 1));
  EXPECT_EQ(m_stopMouse(2), 0U);
}

TEST_F(ScreenLinkTest, SnapshotsMapHostIdsAndRefuseOtherFormats) {
  TagTavoVideoSnapshotStorage storage{};
  storage.queueId = 0x7e;  // no such host queue
  storage.format = 2;
  EXPECT_EQ(m_snapshot(99, &storage), 1U);
  EXPECT_TRUE(m_logs.HasModule("snapshot: the format[2] is unsupported", 1));
  storage.format = 3;
  EXPECT_EQ(m_snapshot(99, &storage), 1U);
  EXPECT_TRUE(m_logs.HasModule("imgNo[90] ScreenCaptureNode::CapturePicture failed!", 1));
  EXPECT_TRUE(m_logs.HasModule("CapturePicture[99] failed!", 1));
  EXPECT_EQ(m_snapshot(100, &storage), 1U);
  EXPECT_TRUE(m_logs.HasModule("imgNo[91] ScreenCaptureNode::CapturePicture failed!", 1));
  EXPECT_EQ(m_snapshot(89, &storage), 1U);
  EXPECT_TRUE(m_logs.HasModule("[SCREEN_89] invalid imgNo[89]", 1));
}

}  // namespace
