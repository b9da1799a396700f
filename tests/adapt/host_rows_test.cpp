// The update, re-create, destroy and bind rows as a host drives them (dlopen only), their
// limits, host callbacks that call back into the library from another thread, and host
// threads racing on one component. Every decoded frame must come back exactly once and no
// frame reference may be dropped twice.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "tavo_video_vlink.h"
#include "tests/support/loaded_library.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

constexpr auto kCallbackLimit = std::chrono::seconds(5);

// The host's decoder: records it pushed, and how often each came back.
struct Decoder {
  std::mutex lock;  // guards returned and onRelease
  std::map<tagOS_S_VIDEO_CODEC_IMG_INFO*, int> returned;
  std::function<void(tagOS_S_VIDEO_CODEC_IMG_INFO*)> onRelease;
  CountLatch back;
};
// The host's screen and encoder.
struct Screen {
  std::mutex lock;  // guards the maps and held
  std::map<uint32_t, int> framesByWindow;
  std::vector<VencOutFrame*> held;
  std::map<uint32_t, int> hostKeys;  // encoder frames by the host key they carried
  uint32_t encoderAnswer = 1;
  std::function<void()> onRender;  // run outside the lock, before the frame is counted
  CountLatch rendered;
  CountLatch offered;
};
Decoder* g_decoder = nullptr;
Screen* g_screen = nullptr;

uint32_t OnDecRelease(uint32_t, tagOS_S_VIDEO_CODEC_IMG_INFO* frame) {
  std::function<void(tagOS_S_VIDEO_CODEC_IMG_INFO*)> hook;
  {
    std::lock_guard<std::mutex> lock(g_decoder->lock);
    ++g_decoder->returned[frame];
    hook = g_decoder->onRelease;
  }
  if (hook) {
    hook(frame);
  }
  g_decoder->back.Add();
  return 1;
}

int OnRender(uint32_t winHandle, TavoVideoRenderImgHeader*) {
  std::function<void()> hook;
  {
    std::lock_guard<std::mutex> lock(g_screen->lock);
    hook = g_screen->onRender;
  }
  if (hook) {
    hook();
  }
  {
    std::lock_guard<std::mutex> lock(g_screen->lock);
    ++g_screen->framesByWindow[winHandle];
  }
  g_screen->rendered.Add();
  return 0;
}

uint32_t OnEncCreate(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t OnEncFrame(uint32_t, uint32_t hostKey, uint32_t, VencOutFrame* frame) {
  uint32_t answer = 0;
  {
    std::lock_guard<std::mutex> lock(g_screen->lock);
    answer = g_screen->encoderAnswer;
    ++g_screen->hostKeys[hostKey];
    if (answer == 1) {
      g_screen->held.push_back(frame);
    }
  }
  g_screen->offered.Add();
  return answer;
}

// Runs call on another thread and waits for it with a limit: false when it did not finish in
// time. The thread is left to finish by itself then (it bumps `finished` when it does), so a
// deadlock the call runs into fails the test instead of hanging it.
bool FinishesWhileWaiting(std::function<void()> call, CountLatch& finished) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> result = done->get_future();
  std::thread([done, call = std::move(call), &finished] {
    call();
    done->set_value();
    finished.Add();
  }).detach();
  return result.wait_for(kCallbackLimit) == std::future_status::ready;
}

using Param = std::unique_ptr<tagTavoVideoComponentParam>;
Param Zeroed() {
  Param param = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(param.get(), 0, sizeof(*param));
  return param;
}
Param DecoderParam(uint32_t imgNo, const char* watermark = nullptr) {
  Param param = Zeroed();
  param->vdec.imgNo = imgNo;
  param->vdec.decReleaseFunc = OnDecRelease;
  if (watermark != nullptr) {
    param->vdec.watermarkEnable = 1;
    std::snprintf(param->vdec.watermarkContent, sizeof(param->vdec.watermarkContent), "%s",
                  watermark);
  }
  return param;
}
// Windows as (handle, imgNo) pairs.
Param PreviewParam(std::vector<std::pair<uint64_t, uint32_t>> windows) {
  Param param = Zeroed();
  for (const auto& [handle, imgNo] : windows) {
    param->vo.windows[param->vo.winNum].winHandle = handle;
    param->vo.windows[param->vo.winNum].imgNo = imgNo;
    ++param->vo.winNum;
  }
  param->vo.renderCb = OnRender;
  return param;
}
Param EncoderParam(uint32_t hostKey) {
  Param param = Zeroed();
  param->venc.width = 16;
  param->venc.height = 16;
  param->venc.hostKey = hostKey;
  param->venc.encOutFunc = OnEncFrame;
  param->venc.encCreateFunc = OnEncCreate;
  return param;
}

class HostRowsTest : public LoadedLibraryTest {
 protected:
  void SetUp() override {
    g_decoder = &m_decoder;
    g_screen = &m_screen;
    m_underflows = OsvGraphicBuffer::GetUnderflowCount();
    ASSERT_EQ(Get<decltype(TavoVideoGetCreateNodeFuncMap)>("TavoVideoGetCreateNodeFuncMap",
                                                           m_create, m_createCount),
              0U);
    ASSERT_EQ(Get<decltype(TavoVideoGetBindNodeFuncMap)>("TavoVideoGetBindNodeFuncMap", m_bind,
                                                         m_bindCount),
              0U);
    ASSERT_EQ(Get<decltype(TavoVideoGetUnBindNodeFuncMap)>("TavoVideoGetUnBindNodeFuncMap",
                                                           m_unbind, m_unbindCount),
              0U);
    ASSERT_EQ(Get<decltype(TavoVideoGetDestroyNodeFuncMap)>("TavoVideoGetDestroyNodeFuncMap",
                                                            m_destroy, m_destroyCount),
              0U);
    ASSERT_EQ(Get<decltype(TavoVideoGetUpdateNodeFuncMap)>("TavoVideoGetUpdateNodeFuncMap",
                                                           m_update, m_updateCount),
              0U);
    m_receive = Symbol<decltype(TavoVideoReceiveVDecFrame)>("TavoVideoReceiveVDecFrame");
    m_releaseEnc = Symbol<decltype(TavoVideoReleaseVEncFrame)>("TavoVideoReleaseVEncFrame");
    m_stopRender = Symbol<decltype(TavoVideoVlinkVoStopRender)>("TavoVideoVlinkVoStopRender");
    m_setReport = Symbol<decltype(TavoVideoSetWinReportCb)>("TavoVideoSetWinReportCb");
    m_getContainer = Symbol<decltype(TavoVideoGetDataContainer)>("TavoVideoGetDataContainer");
    ASSERT_TRUE(m_receive && m_releaseEnc && m_stopRender && m_setReport && m_getContainer);
  }
  void TearDown() override {
    for (const Link& link : m_links) {
      Unbind(link.sinkType, link.srcType, link.sink, link.source);
    }
    for (const auto& [type, component] : m_components) {
      Destroy(type, component);
    }
    m_setReport([](TavoVideoDisplayWinInfo&) { return 0; });
    ReleaseEncoderFrames();
    {
      std::lock_guard<std::mutex> lock(m_decoder.lock);
      EXPECT_EQ(m_decoder.returned.size(), m_accepted);
      for (const auto& [record, count] : m_decoder.returned) {
        EXPECT_EQ(count, 1) << "a decoded frame came back " << count << " times";
      }
    }
    for (tagOS_S_VIDEO_CODEC_IMG_INFO* record : m_records) {
      delete record->pBuffer;
      std::free(record);
    }
    EXPECT_EQ(OsvGraphicBuffer::GetUnderflowCount(), m_underflows) << "a frame was released twice";
    g_decoder = nullptr;
    g_screen = nullptr;
  }

  template <class F, class Row>
  static uint32_t Get(const char* name, const Row*& table, uint32_t& count) {
    return Symbol<F>(name)(&table, &count);
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
    return Find(m_create, m_createCount, type)(component, p);
  }
  uint32_t Destroy(uint32_t type, uint32_t component) {
    return Find(m_destroy, m_destroyCount, type)(component);
  }
  uint32_t Update(uint32_t type, uint32_t component, tagTavoVideoComponentParam* p) {
    return Find(m_update, m_updateCount, type)(component, p);
  }
  uint32_t Bind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source) {
    const uint32_t result = Find(m_bind, m_bindCount, sinkType, srcType)(sink, source);
    if (result == 0) {
      std::lock_guard<std::mutex> lock(m_recordsLock);
      m_links.push_back({sinkType, srcType, sink, source});  // unbound at the end
    }
    return result;
  }
  uint32_t Unbind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source) {
    return Find(m_unbind, m_unbindCount, sinkType, srcType)(sink, source);
  }
  // Pushes a new frame into decoder node `node`; the fixture keeps count of accepted ones.
  uint32_t Push(uint32_t node, uint64_t decId = 0) {
    auto* record = static_cast<tagOS_S_VIDEO_CODEC_IMG_INFO*>(
        std::calloc(1, sizeof(tagOS_S_VIDEO_CODEC_IMG_INFO)));
    record->pBuffer = new OsvGraphicBuffer(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420);
    {
      std::lock_guard<std::mutex> lock(m_recordsLock);
      m_records.push_back(record);
    }
    const uint32_t result = m_receive(decId, node, record);
    if (result == 0) {
      std::lock_guard<std::mutex> lock(m_recordsLock);
      ++m_accepted;
    }
    return result;
  }
  bool AllBack() {
    size_t accepted = 0;
    {
      std::lock_guard<std::mutex> lock(m_recordsLock);
      accepted = m_accepted;
    }
    return m_decoder.back.WaitFor(static_cast<int>(accepted));
  }
  int Rendered(uint32_t window) {
    std::lock_guard<std::mutex> lock(m_screen.lock);
    return m_screen.framesByWindow[window];
  }
  void ReleaseEncoderFrames() {
    std::vector<VencOutFrame*> held;
    {
      std::lock_guard<std::mutex> lock(m_screen.lock);
      held.swap(m_screen.held);
    }
    for (VencOutFrame* record : held) {
      EXPECT_EQ(m_releaseEnc(record), 0U);
    }
  }

  Decoder m_decoder;
  Screen m_screen;
  uint64_t m_underflows = 0;
  std::mutex m_recordsLock;  // guards m_records, m_accepted and m_links
  std::deque<tagOS_S_VIDEO_CODEC_IMG_INFO*> m_records;
  size_t m_accepted = 0;
  std::vector<std::pair<uint32_t, uint32_t>> m_components;  // destroyed at the end
  struct Link {
    uint32_t sinkType, srcType, sink, source;
  };
  std::vector<Link> m_links;  // guarded by m_recordsLock while host threads race
  const tagTavoVideoCreateFuncMap* m_create = nullptr;
  const tagTavoVideoBindFuncMap* m_bind = nullptr;
  const tagTavoVideoBindFuncMap* m_unbind = nullptr;
  const tagTavoVideoDestroyFuncMap* m_destroy = nullptr;
  const tagTavoVideoUpdateFuncMap* m_update = nullptr;
  uint32_t m_createCount = 0, m_bindCount = 0, m_unbindCount = 0, m_destroyCount = 0,
           m_updateCount = 0;
  decltype(&TavoVideoReceiveVDecFrame) m_receive = nullptr;
  decltype(&TavoVideoReleaseVEncFrame) m_releaseEnc = nullptr;
  decltype(&TavoVideoVlinkVoStopRender) m_stopRender = nullptr;
  decltype(&TavoVideoSetWinReportCb) m_setReport = nullptr;
  decltype(&TavoVideoGetDataContainer) m_getContainer = nullptr;
};

constexpr uint32_t kEnc = TAVO_VIDEO_COMPONENT_ENCODER;
constexpr uint32_t kDec = TAVO_VIDEO_COMPONENT_DECODER;
constexpr uint32_t kVo = TAVO_VIDEO_COMPONENT_PREVIEW;
constexpr uint32_t kTest = TAVO_VIDEO_COMPONENT_TEST_IMAGE;

TEST_F(HostRowsTest, CreateRowsTakeTheLastValueAndRefuseTheNext) {
  LogCapture logs;
  Param encoder = EncoderParam(1);
  EXPECT_EQ(Create(kEnc, 1100, 225, encoder.get()), 0U);  // the node id is the imgNo
  EXPECT_EQ(Create(kEnc, 1101, 226, encoder.get()), 1U);
  EXPECT_TRUE(logs.HasModule("[ENC_226] invalid imgNo[226]!", 1));
  Param decoder = DecoderParam(225);
  EXPECT_EQ(Create(kDec, 1102, 120, decoder.get()), 0U);
  decoder->vdec.imgNo = 226;
  EXPECT_EQ(Create(kDec, 1103, 121, decoder.get()), 1U);
  EXPECT_TRUE(logs.HasModule("[DEC_121] invalid imgNo[226]!", 1));
  Param preview = PreviewParam({});
  preview->vo.winNum = 40;
  EXPECT_EQ(Create(kVo, 1104, 122, preview.get()), 0U);
  preview->vo.winNum = 41;
  EXPECT_EQ(Create(kVo, 1105, 123, preview.get()), 1U);
  EXPECT_EQ(Update(kVo, 1104, preview.get()), 1U);
  preview->vo.winNum = 40;
  EXPECT_EQ(Update(kVo, 1104, preview.get()), 0U);
}

TEST_F(HostRowsTest, DecoderIdsRunTo31AndFramesComeBackOnce) {
  Param decoder = DecoderParam(130);
  Param preview = PreviewParam({{0x31, 130}});
  ASSERT_EQ(Create(kDec, 1110, 124, decoder.get()), 0U);
  ASSERT_EQ(Create(kVo, 1111, 125, preview.get()), 0U);
  ASSERT_EQ(Bind(kVo, kDec, 1111, 1110), 0U);
  EXPECT_EQ(Push(124, 31), 0U);
  EXPECT_EQ(Push(124, 32), 1U);
  EXPECT_EQ(Push(124, 0), 0U);
  ASSERT_TRUE(AllBack());
  EXPECT_EQ(Rendered(0x31), 2);
}

// The release callback runs without the library's locks: a host thread started from it may
// push the next frame and update the decoder while the callback still waits for it.
TEST_F(HostRowsTest, ReleaseCallbackMayWaitForAnotherThreadUsingTheDecoder) {
  Param decoder = DecoderParam(131);
  Param preview = PreviewParam({{0x41, 131}});
  ASSERT_EQ(Create(kDec, 1120, 126, decoder.get()), 0U);
  ASSERT_EQ(Create(kVo, 1121, 127, preview.get()), 0U);
  ASSERT_EQ(Bind(kVo, kDec, 1121, 1120), 0U);
  std::atomic<int> rounds{0};
  std::atomic<int> late{0};
  Param update = DecoderParam(131, "MARK");
  CountLatch finished;
  m_decoder.onRelease = [&](tagOS_S_VIDEO_CODEC_IMG_INFO*) {
    if (rounds.fetch_add(1) >= 3) {
      return;
    }
    const bool inTime = FinishesWhileWaiting(
        [&] {
          EXPECT_EQ(Push(126), 0U);
          EXPECT_EQ(Update(kDec, 1120, update.get()), 0U);
        },
        finished);
    late += inTime ? 0 : 1;
  };
  ASSERT_EQ(Push(126), 0U);
  ASSERT_TRUE(finished.WaitFor(3, 4 * kCallbackLimit));
  ASSERT_TRUE(AllBack());
  EXPECT_EQ(late, 0) << "a call from another thread waited for the release callback";
  std::lock_guard<std::mutex> lock(m_decoder.lock);
  m_decoder.onRelease = nullptr;
}

// Like the release callback, the first-frame report runs without the library's locks.
TEST_F(HostRowsTest, FirstFrameReportMayWaitForAnotherThreadUsingThePreview) {
  Param decoder = DecoderParam(150);
  Param preview = PreviewParam({{0x51, 150}});
  ASSERT_EQ(Create(kDec, 1130, 128, decoder.get()), 0U);
  ASSERT_EQ(Create(kVo, 1131, 129, preview.get()), 0U);
  ASSERT_EQ(Bind(kVo, kDec, 1131, 1130), 0U);
  std::atomic<int> late{0};
  CountLatch finished;
  ASSERT_EQ(m_setReport([&](TavoVideoDisplayWinInfo&) {
              late +=
                  FinishesWhileWaiting([&] { EXPECT_EQ(m_stopRender(1131, 0x51), 0U); }, finished)
                      ? 0
                      : 1;
              return 0;
            }),
            0U);
  ASSERT_EQ(Push(128), 0U);
  ASSERT_TRUE(finished.WaitFor(1));
  ASSERT_TRUE(AllBack());
  EXPECT_EQ(late, 0) << "stopping a window waited for the first-frame report";
}

TEST_F(HostRowsTest, FirstFrameIsReportedForImages150To177Only) {
  std::mutex lock;
  std::map<uint32_t, uint32_t> portByWindow;
  ASSERT_EQ(m_setReport([&](TavoVideoDisplayWinInfo& info) {
              std::lock_guard<std::mutex> guard(lock);
              portByWindow[info.winId] = info.viPort;
              return 0;
            }),
            0U);
  uint32_t component = 1140;
  uint32_t node = 140;
  for (uint32_t imgNo : {149U, 150U, 177U, 178U}) {
    Param decoder = DecoderParam(imgNo);
    Param preview = PreviewParam({{imgNo, imgNo}});
    ASSERT_EQ(Create(kDec, component, node, decoder.get()), 0U);
    ASSERT_EQ(Create(kVo, component + 1, node + 1, preview.get()), 0U);
    ASSERT_EQ(Bind(kVo, kDec, component + 1, component), 0U);
    ASSERT_EQ(Push(node), 0U);
    ASSERT_EQ(Push(node), 0U);
    component += 2;
    node += 2;
  }
  ASSERT_TRUE(AllBack());
  std::lock_guard<std::mutex> guard(lock);
  EXPECT_EQ(portByWindow, (std::map<uint32_t, uint32_t>{{150, 62}, {177, 89}}));
}

TEST_F(HostRowsTest, PreviewUpdateAddsAndRemovesWindowsWhileFramesFlow) {
  Param decoder = DecoderParam(132);
  ASSERT_EQ(Create(kDec, 1150, 160, decoder.get()), 0U);
  Param preview = PreviewParam({{0x61, 132}});
  ASSERT_EQ(Create(kVo, 1151, 161, preview.get()), 0U);
  ASSERT_EQ(Bind(kVo, kDec, 1151, 1150), 0U);
  ASSERT_EQ(Push(160), 0U);
  ASSERT_TRUE(AllBack());
  Param both = PreviewParam({{0x61, 132}, {0x62, 132}});
  ASSERT_EQ(Update(kVo, 1151, both.get()), 0U);
  ASSERT_EQ(Push(160), 0U);
  ASSERT_TRUE(AllBack());
  Param second = PreviewParam({{0x62, 132}});
  ASSERT_EQ(Update(kVo, 1151, second.get()), 0U);
  ASSERT_EQ(Push(160), 0U);
  ASSERT_TRUE(AllBack());
  EXPECT_EQ(Rendered(0x61), 2);
  EXPECT_EQ(Rendered(0x62), 2);
  EXPECT_EQ(m_stopRender(1151, 0x61), 1U);  // removed
  EXPECT_EQ(m_stopRender(1151, 0x62), 0U);
}

TEST_F(HostRowsTest, DecoderUpdateSendsTheWatermarkToBoundPreviews) {
  LogCapture logs;
  Param decoder = DecoderParam(133);
  ASSERT_EQ(Create(kDec, 1160, 162, decoder.get()), 0U);
  Param preview = PreviewParam({{0x71, 133}});
  ASSERT_EQ(Create(kVo, 1161, 163, preview.get()), 0U);
  ASSERT_EQ(Bind(kVo, kDec, 1161, 1160), 0U);
  Param marked = DecoderParam(133, "ROOM 7");
  ASSERT_EQ(Update(kDec, 1160, marked.get()), 0U);
  EXPECT_TRUE(logs.HasModule("[VO_163] SetWaterMarkParam imgNo:133, content:ROOM 7", 3));
  EXPECT_EQ(Update(kDec, 1169, marked.get()), 1U);  // no such decoder
  EXPECT_EQ(Update(kDec, 1160, nullptr), 1U);
  ASSERT_EQ(Push(162), 0U);
  ASSERT_TRUE(AllBack());
}

// The encoder refusing every frame (an answer other than 1) does not starve the preview
// bound to the same test image, and an encoder update while frames flow reaches the next
// frames. Every frame of the test image's cache comes back, or destroying it complains.
TEST_F(HostRowsTest, RefusingEncoderAndEncoderUpdateLeaveThePreviewRunning) {
  LogCapture logs;
  TempDir dir;
  Param test = Zeroed();
  test->test.frameRate = 25;
  std::snprintf(test->test.fileName, sizeof(test->test.fileName), "%s",
                dir.Write("u.bmp", SolidBmp24(16, 16, 1, 2, 3)).c_str());
  Param encoder = EncoderParam(5);
  Param preview = PreviewParam({{0x81, 164}});  // the test image stamps its own node id
  ASSERT_EQ(Create(kTest, 1170, 164, test.get()), 0U);
  ASSERT_EQ(Create(kEnc, 1171, 165, encoder.get()), 0U);
  ASSERT_EQ(Create(kVo, 1172, 166, preview.get()), 0U);
  {
    std::lock_guard<std::mutex> lock(m_screen.lock);
    m_screen.encoderAnswer = 2;
  }
  ASSERT_EQ(Bind(kEnc, kTest, 1171, 1170), 0U);
  ASSERT_EQ(Bind(kVo, kTest, 1172, 1170), 0U);
  ASSERT_TRUE(m_screen.offered.WaitFor(2));
  ASSERT_TRUE(m_screen.rendered.WaitFor(2));
  {
    std::lock_guard<std::mutex> lock(m_screen.lock);
    m_screen.encoderAnswer = 1;
  }
  Param updated = EncoderParam(6);
  ASSERT_EQ(Update(kEnc, 1171, updated.get()), 0U);
  ASSERT_TRUE(m_screen.offered.WaitUntil([&] {
    std::lock_guard<std::mutex> lock(m_screen.lock);
    return m_screen.hostKeys[6] >= 2;
  }));
  {
    // Frames still on their way after the unbind are refused, and so come back by themselves.
    std::lock_guard<std::mutex> lock(m_screen.lock);
    m_screen.encoderAnswer = 0;
  }
  EXPECT_EQ(Unbind(kEnc, kTest, 1171, 1170), 0U);
  EXPECT_EQ(Unbind(kVo, kTest, 1172, 1170), 0U);
  ReleaseEncoderFrames();
  EXPECT_EQ(Destroy(kTest, 1170), 0U);
  EXPECT_FALSE(logs.HasModule("The cache release is fail"));
}

// Destroy forgets the input's builder: the same id as another kind of input binds and starts.
TEST_F(HostRowsTest, DestroyedInputComesBackAsAnotherKindAndBinds) {
  TempDir dir;
  Param test = Zeroed();
  test->test.frameRate = 25;
  std::snprintf(test->test.fileName, sizeof(test->test.fileName), "%s",
                dir.Write("d.bmp", SolidBmp24(16, 16, 1, 2, 3)).c_str());
  Param preview = PreviewParam({{0x91, 134}});
  ASSERT_EQ(Create(kTest, 1180, 167, test.get()), 0U);
  ASSERT_EQ(Create(kVo, 1181, 168, preview.get()), 0U);
  ASSERT_EQ(Bind(kVo, kTest, 1181, 1180), 0U);
  ASSERT_EQ(Unbind(kVo, kTest, 1181, 1180), 0U);
  ASSERT_EQ(Destroy(kTest, 1180), 0U);

  Param decoder = DecoderParam(134);
  ASSERT_EQ(Create(kDec, 1180, 167, decoder.get()), 0U);
  ASSERT_EQ(Create(kDec, 1180, 167, decoder.get()), 0U);  // twice: the same node
  ASSERT_EQ(Bind(kVo, kDec, 1181, 1180), 0U);
  ASSERT_EQ(Push(167), 0U);  // refused if the decoder was never started
  ASSERT_TRUE(AllBack());
  EXPECT_EQ(Rendered(0x91), 1);
}

TEST_F(HostRowsTest, UnbindRebindCyclesAndDestroyOfABoundSink) {
  Param decoder = DecoderParam(135);
  Param preview = PreviewParam({{0xA1, 135}});
  ASSERT_EQ(Create(kDec, 1190, 169, decoder.get()), 0U);
  ASSERT_EQ(Create(kVo, 1191, 170, preview.get()), 0U);
  constexpr int kCycles = 20;
  for (int i = 0; i < kCycles; ++i) {
    ASSERT_EQ(Bind(kVo, kDec, 1191, 1190), 0U);
    ASSERT_EQ(Push(169), 0U);
    ASSERT_EQ(Unbind(kVo, kDec, 1191, 1190), 0U);
    EXPECT_EQ(Unbind(kVo, kDec, 1191, 1190), 1U);
    ASSERT_EQ(Push(169), 0U);  // nobody bound: straight back
  }
  ASSERT_TRUE(AllBack());
  EXPECT_EQ(Rendered(0xA1), kCycles);
  ASSERT_EQ(Bind(kVo, kDec, 1191, 1190), 0U);
  EXPECT_EQ(Bind(kVo, kDec, 1191, 1190), 1U);  // already bound
  EXPECT_EQ(Destroy(kVo, 1191), 0U);           // still bound
  ASSERT_EQ(Push(169), 0U);
  ASSERT_TRUE(AllBack());
  EXPECT_EQ(Rendered(0xA1), kCycles);
}

// A decoder destroyed while its frame is still being shown: the destroy does not wait for
// the preview, and the frame still comes back once when the preview lets go. Destroying the
// preview then waits for its running frame.
TEST_F(HostRowsTest, DestroyWhileAFrameIsBeingShown) {
  Param decoder = DecoderParam(138);
  Param preview = PreviewParam({{0xD1, 138}});
  ASSERT_EQ(Create(kDec, 1220, 176, decoder.get()), 0U);
  ASSERT_EQ(Create(kVo, 1221, 177, preview.get()), 0U);
  ASSERT_EQ(Bind(kVo, kDec, 1221, 1220), 0U);
  Gate gate;
  CountLatch entered;
  {
    std::lock_guard<std::mutex> lock(m_screen.lock);
    m_screen.onRender = [&] {
      entered.Add();
      gate.Pass();
    };
  }
  ASSERT_EQ(Push(176), 0U);
  ASSERT_TRUE(entered.WaitFor(1));
  EXPECT_EQ(Destroy(kDec, 1220), 0U);
  EXPECT_EQ(m_decoder.back.Get(), 0);
  std::promise<void> destroyed;
  std::future<void> previewGone = destroyed.get_future();
  std::thread destroyer([&] {
    EXPECT_EQ(Destroy(kVo, 1221), 0U);
    destroyed.set_value();
  });
  EXPECT_EQ(previewGone.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  gate.Open();
  destroyer.join();
  ASSERT_TRUE(AllBack());
  EXPECT_EQ(Rendered(0xD1), 1);
}

// Two host threads on one link: only 0 or 1 comes back, nothing crashes or leaks, and every
// accepted frame comes back once.
TEST_F(HostRowsTest, HostThreadsRacingOnOneLink) {
  Param decoder = DecoderParam(136);
  Param preview = PreviewParam({{0xB1, 136}});
  Param other = PreviewParam({{0xB1, 136}, {0xB2, 136}});
  ASSERT_EQ(Create(kDec, 1200, 171, decoder.get()), 0U);
  std::atomic<bool> flowing{true};
  std::thread pusher([&] {
    for (int i = 0; flowing && i < 3000; ++i) {
      EXPECT_LE(Push(171), 1U);
    }
  });
  constexpr int kRounds = 30;
  for (int i = 0; i < kRounds; ++i) {
    EXPECT_EQ(Create(kVo, 1201, 172, preview.get()), 0U);
    std::thread binder([&] { EXPECT_LE(Bind(kVo, kDec, 1201, 1200), 1U); });
    std::thread destroyer([&] { EXPECT_EQ(Destroy(kVo, 1201), 0U); });
    binder.join();
    destroyer.join();
    EXPECT_EQ(Create(kVo, 1201, 172, preview.get()), 0U);
    Bind(kVo, kDec, 1201, 1200);  // 1 while a destroyed sink of this id is still linked
    std::thread updater([&] { EXPECT_EQ(Update(kVo, 1201, (i % 2 ? other : preview).get()), 0U); });
    std::thread unbinder([&] { EXPECT_LE(Unbind(kVo, kDec, 1201, 1200), 1U); });
    updater.join();
    unbinder.join();
    EXPECT_EQ(Destroy(kVo, 1201), 0U);
  }
  // Destroy the input while frames still flow into it.
  EXPECT_EQ(Create(kVo, 1202, 173, preview.get()), 0U);
  EXPECT_EQ(Bind(kVo, kDec, 1202, 1200), 0U);
  EXPECT_EQ(Destroy(kDec, 1200), 0U);
  flowing = false;
  pusher.join();
  ASSERT_TRUE(AllBack());
}

}  // namespace

// A host that destroys its encoder while it still holds frames gets 1 for each late give-back,
// and the decoded frame behind it still comes back to the decoder's host exactly once.
TEST_F(HostRowsTest, FrameGivenBackAfterItsEncoderWentStillReturnsToTheDecoder) {
  Param decoder = DecoderParam(20);
  Param encoder = EncoderParam(9);
  ASSERT_EQ(Create(kDec, 1180, 20, decoder.get()), 0U);
  ASSERT_EQ(Create(kEnc, 1181, 181, encoder.get()), 0U);
  Store(1182, 20);  // the type-4 input names the decoder node
  {
    std::lock_guard<std::mutex> lock(m_screen.lock);
    m_screen.encoderAnswer = 1;
  }
  ASSERT_EQ(Bind(kEnc, TAVO_VIDEO_COMPONENT_INPUT, 1181, 1182), 0U);
  ASSERT_EQ(Push(20), 0U);
  ASSERT_TRUE(m_screen.offered.WaitFor(1));
  EXPECT_EQ(Unbind(kEnc, TAVO_VIDEO_COMPONENT_INPUT, 1181, 1182), 0U);
  EXPECT_EQ(Destroy(kEnc, 1181), 0U);
  EXPECT_EQ(m_decoder.back.Get(), 0);
  std::vector<VencOutFrame*> held;
  {
    std::lock_guard<std::mutex> lock(m_screen.lock);
    held.swap(m_screen.held);
  }
  ASSERT_EQ(held.size(), 1U);
  EXPECT_EQ(m_releaseEnc(held[0]), 1U);
  EXPECT_TRUE(AllBack());
}
