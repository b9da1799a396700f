#include <gtest/gtest.h>
#include <libyuv.h>
#include <stdlib.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "platform/pelv_trace.h"
#include "platform/tavo_video_image_convert.h"
#include "render/tavo_video_render_manager.h"
#include "tavo_video_render_interface.h"
#include "tavo_video_vlink_trace.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

namespace {

using Bytes = std::vector<uint8_t>;
using HeaderBytes = std::array<uint8_t, sizeof(TavoVideoRenderImgHeader)>;

constexpr uint64_t kWindow = 0x0000000500000042ULL;  // the host sees the low half: 66
constexpr uint32_t kFailure = 0xFFFFFFFF;

struct Delivery {
  uint32_t window;
  HeaderBytes header;
  Bytes pixels;  // the memory is the host's only during the call
};

std::mutex g_lock;  // guards g_deliveries
std::vector<Delivery> g_deliveries;
std::atomic<int> g_callbackResult{0};
CountLatch* g_delivered = nullptr;

int Capture(uint32_t window, TavoVideoRenderImgHeader* header) {
  Delivery d{window, {}, Bytes(header->data, header->data + header->dataSize)};
  std::memcpy(d.header.data(), header, d.header.size());
  {
    std::lock_guard<std::mutex> lock(g_lock);
    g_deliveries.push_back(std::move(d));
  }
  if (g_delivered != nullptr) {
    g_delivered->Add();
  }
  return g_callbackResult.load();
}

std::vector<Delivery> Deliveries() {
  std::lock_guard<std::mutex> lock(g_lock);
  return g_deliveries;
}

// What the host must receive: these fields, every other byte zero.
HeaderBytes Expected(uint32_t width, uint32_t height, uint32_t stride0, uint32_t stride1,
                     uint32_t format, uint32_t dataSize, void* data) {
  const TavoVideoRenderImgHeader header{48,      width,    height, stride0,
                                        stride1, format,   1,      1,
                                        {},      dataSize, 0,      static_cast<uint8_t*>(data)};
  HeaderBytes bytes;
  std::memcpy(bytes.data(), &header, bytes.size());
  return bytes;
}

TavoVideoRenderImgHeader HeaderOf(const Delivery& d) {
  TavoVideoRenderImgHeader header;
  std::memcpy(&header, d.header.data(), sizeof(header));
  return header;
}

std::unique_ptr<OsvGraphicBuffer> MakeFrame(uint32_t width, uint32_t height, uint32_t seed,
                                            bool alignRows = false) {
  auto frame = std::make_unique<OsvGraphicBuffer>(width, height, TAVO_VIDEO_VLINK_FORMAT_I420,
                                                  false, alignRows);
  std::mt19937 gen(seed);
  auto* memory = static_cast<uint8_t*>(frame->GetBufHandle());
  for (uint32_t i = 0; i < frame->GetImageInfo().size; ++i) {
    memory[i] = static_cast<uint8_t>(gen());
  }
  return frame;
}

// libyuv's own R, G, B rendering of the frame.
Bytes Raw(const OsvGraphicBuffer& frame) {
  const OsvGraphicBufferInfo info = frame.GetImageInfo();
  const int w = static_cast<int>(info.width);
  Bytes rgb(size_t{info.width} * info.height * 3);
  libyuv::I420ToRAW(frame.GetImageAddr(0), static_cast<int>(info.stride[0]), frame.GetImageAddr(1),
                    static_cast<int>(info.stride[1]), frame.GetImageAddr(2),
                    static_cast<int>(info.stride[2]), rgb.data(), w * 3, w,
                    static_cast<int>(info.height));
  return rgb;
}

tagOS_S_SOFT_VO_CHN_PARAM Channel(TavoVideoRenderCallback callback = Capture) {
  tagOS_S_SOFT_VO_CHN_PARAM param{};
  param.renderMode = 40;
  param.winHandle = kWindow;
  param.params.enable = 1;
  param.params.renderCb = callback;
  return param;
}

struct ManagerDelete {
  void operator()(DevRenderManager* m) const { TavoVideoRenderDelete(m); }
};
using Manager = std::unique_ptr<DevRenderManager, ManagerDelete>;

Manager Create(TavoVideoRenderCallback callback = Capture) {
  tagOS_S_SOFT_VO_CHN_PARAM param = Channel(callback);
  DevRenderManager* manager = nullptr;
  EXPECT_EQ(TavoVideoRenderCreate(&param, &manager), 0U);
  return Manager(manager);
}

class RenderAdapterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("VANTOR_SOREN");
    std::lock_guard<std::mutex> lock(g_lock);
    g_deliveries.clear();
    g_callbackResult = 0;
  }
  void TearDown() override {
    unsetenv("VANTOR_SOREN");
    OS_VLink_Debug_SetTraceLevel(0);
    PELV_SetVideoTracLevel(0);
  }
};

TEST_F(RenderAdapterTest, YuvPathHandsTheFrameItself) {
  LogCapture logs;
  Manager manager = Create();
  auto frame = MakeFrame(1280, 720, 1);
  EXPECT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()), 0U);
  const auto got = Deliveries();
  ASSERT_EQ(got.size(), 1U);
  EXPECT_EQ(got[0].window, 66U);
  EXPECT_EQ(got[0].header, Expected(1280, 720, 1280, 640, 4, 1382400, frame->GetBufHandle()));
  EXPECT_TRUE(logs.HasModule("getenv VANTOR_SOREN failed or it ne \"Soren\".", 3));
}

TEST_F(RenderAdapterTest, OnlyExactlySorenSelectsRgb) {
  const struct {
    const char* value;
    uint32_t format;
  } cases[] = {{"Soren", 0}, {"soren", 4}, {"Soren ", 4}, {"", 4}};
  auto frame = MakeFrame(16, 16, 2);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    setenv("VANTOR_SOREN", c.value, 1);
    Manager manager = Create();
    ASSERT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()), 0U);
    EXPECT_EQ(HeaderOf(Deliveries().back()).format, c.format);
  }
}

TEST_F(RenderAdapterTest, RgbPathConvertsIntoOneBufferPerSize) {
  setenv("VANTOR_SOREN", "Soren", 1);
  LogCapture logs;
  Manager manager = Create();
  auto first = MakeFrame(1280, 720, 3);
  auto second = MakeFrame(1280, 720, 4);
  auto smaller = MakeFrame(64, 36, 5, true);  // padded rows: strides differ from the width
  for (OsvGraphicBuffer* frame : {first.get(), second.get(), smaller.get()}) {
    ASSERT_EQ(TavoVideoRenderFrame(manager.get(), frame), 0U);
  }
  const auto got = Deliveries();
  ASSERT_EQ(got.size(), 3U);
  uint8_t* buffer = HeaderOf(got[0]).data;
  EXPECT_NE(buffer, first->GetBufHandle());
  EXPECT_EQ(got[0].header, Expected(1280, 720, 1280, 640, 0, 2764800, buffer));
  EXPECT_EQ(got[1].header, Expected(1280, 720, 1280, 640, 0, 2764800, buffer));
  EXPECT_EQ(got[2].header, Expected(64, 36, 64, 64, 0, 6912, HeaderOf(got[2]).data));
  EXPECT_TRUE(got[0].pixels == Raw(*first));
  EXPECT_TRUE(got[1].pixels == Raw(*second));
  EXPECT_TRUE(got[2].pixels == Raw(*smaller));
  EXPECT_EQ(logs.CountModule("malloc new imgBuf size:2764800.", 3), 1U);
  EXPECT_EQ(logs.CountModule("[66]delete m_imgBuff", 3), 1U);
  EXPECT_TRUE(logs.HasModule("getenv VANTOR_SOREN eq \"Soren\".", 3));
}

TEST_F(RenderAdapterTest, HeaderLoggedForFrame1AndEveryThousandAfter) {
  LogCapture logs;
  Manager manager = Create();
  auto frame = MakeFrame(16, 16, 7);
  for (int i = 0; i < 2001; ++i) {
    ASSERT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()), 0U);
  }
  EXPECT_EQ(logs.CountModule("m_outImgHeader", 3), 3U);
  EXPECT_TRUE(logs.HasModule("m_outImgHeader 66 3 4 1 | 48 16 16 16 8 | 1 384 1", 3));
  EXPECT_TRUE(logs.HasModule("| 1 384 1001", 3));
  EXPECT_TRUE(logs.HasModule("| 1 384 2001", 3));
  EXPECT_EQ(logs.CountModule("render first frame", 3), 1U);
}

TEST_F(RenderAdapterTest, HostResultsAndStop) {
  LogCapture logs;
  Manager manager = Create();
  auto frame = MakeFrame(16, 16, 8);
  g_callbackResult = -7;
  // Counted process-wide: any 1000 failures in a row log exactly once.
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()), static_cast<uint32_t>(-7));
  }
  EXPECT_EQ(logs.CountModule("callback failed, ret[-7],cnt[", 1), 1U);

  g_callbackResult = 0;
  EXPECT_EQ(TavoVideoRenderStop(manager.get()), 0U);
  const size_t before = Deliveries().size();
  EXPECT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()), 0U);
  EXPECT_EQ(Deliveries().size(), before);
}

TEST_F(RenderAdapterTest, FramesWithoutPixelsNeverReachTheHost) {
  LogCapture logs;
  OsvGraphicBuffer empty(nullptr);  // no memory, no size
  auto argb = std::make_unique<OsvGraphicBuffer>(16, 16, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  {
    Manager yuv = Create();
    EXPECT_EQ(TavoVideoRenderFrame(yuv.get(), &empty), 1U);
    EXPECT_EQ(TavoVideoRenderFrame(yuv.get(), nullptr), 1U);
  }
  setenv("VANTOR_SOREN", "Soren", 1);
  PELV_SetVideoTracLevel(1);
  Manager rgb = Create();
  EXPECT_EQ(TavoVideoRenderFrame(rgb.get(), &empty), 1U);
  EXPECT_TRUE(Deliveries().empty());
  EXPECT_TRUE(logs.HasModule("RenderBufMalloc: invalid len:0", 1));
  EXPECT_TRUE(logs.HasModule("RenderRgbHdlPadding failed[1].", 1));
  EXPECT_TRUE(logs.HasModule("no RGB buffer for 0x0", 1));

  // A frame that cannot be converted shows black (the zeroed buffer), never heap garbage.
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(TavoVideoRenderFrame(rgb.get(), argb.get()), 0U);
  }
  EXPECT_EQ(Deliveries().back().pixels, Bytes(16 * 16 * 3, 0));
  EXPECT_EQ(logs.CountModule("RenderRgbHdlPadding failed, ret:-1, cnt:", 1), 1U);
}

TEST_F(RenderAdapterTest, CallbackArrivesWithParams) {
  LogCapture logs;
  Manager manager = Create(nullptr);
  auto frame = MakeFrame(16, 16, 9);
  EXPECT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()), 1U);
  EXPECT_TRUE(logs.HasModule("m_renderCallback is null", 1));

  OS_VLink_Debug_SetTraceLevel(3);
  PelvRenderParams params = Channel().params;
  params.colorSpace = 9;
  EXPECT_EQ(TavoVideoRenderSetParams(manager.get(), params), 0U);
  EXPECT_TRUE(logs.HasModule("m_colorSpace :3,9.", 3));
  EXPECT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()), 0U);
  EXPECT_EQ(Deliveries().size(), 1U);
}

TEST_F(RenderAdapterTest, NullManagerAndDeletedRenderer) {
  LogCapture logs;
  PelvRenderParams params = Channel().params;
  tagOS_S_SOFT_VO_CHN_PARAM param = Channel();
  DevRenderManager* out = nullptr;
  EXPECT_EQ(TavoVideoRenderCreate(nullptr, &out), kFailure);
  EXPECT_EQ(TavoVideoRenderCreate(&param, nullptr), kFailure);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(TavoVideoRenderFrame(nullptr, nullptr), 0U);
  EXPECT_EQ(TavoVideoRenderSetParams(nullptr, params), 0U);
  EXPECT_EQ(TavoVideoRenderStop(nullptr), 0U);
  EXPECT_EQ(TavoVideoRenderDelete(nullptr), 0U);
  EXPECT_TRUE(logs.HasModule("DevRenderManager is null", 1));

  DevRenderManager manager;
  ASSERT_EQ(manager.Init(&param), 0U);
  EXPECT_EQ(manager.RenderDelete(), 0U);
  auto frame = MakeFrame(16, 16, 10);
  EXPECT_EQ(manager.RenderFrame(frame.get()), kFailure);
  EXPECT_TRUE(logs.HasModule("m_renderProxy is null", 1));
  EXPECT_EQ(manager.RenderSetParams(params), kFailure);
  EXPECT_EQ(manager.RenderStop(), 0U);
  EXPECT_TRUE(logs.HasModule("m_renderProxy is nullptr", 1));
  EXPECT_TRUE(Deliveries().empty());
}

// Host threads: one renders while another changes parameters, stops and deletes.
TEST_F(RenderAdapterTest, FramesRaceParamsStopAndDelete) {
  setenv("VANTOR_SOREN", "Soren", 1);
  CountLatch delivered;
  g_delivered = &delivered;
  DevRenderManager manager;
  tagOS_S_SOFT_VO_CHN_PARAM param = Channel();
  ASSERT_EQ(manager.Init(&param), 0U);
  auto frame = MakeFrame(32, 32, 11);
  std::thread renderer([&] {
    uint32_t ret = 0;
    while ((ret = manager.RenderFrame(frame.get())) == 0) {
    }
    EXPECT_EQ(ret, kFailure);
  });
  EXPECT_TRUE(delivered.WaitFor(10));
  EXPECT_EQ(manager.RenderSetParams(param.params), 0U);
  EXPECT_TRUE(delivered.WaitFor(20));
  EXPECT_EQ(manager.RenderStop(), 0U);
  EXPECT_EQ(manager.RenderDelete(), 0U);
  renderer.join();
  g_delivered = nullptr;
}

// The conversion the RGB path rests on, fed frames that do not describe their pixels.
TEST(ChangeI420ToRGBTest, RefusesFramesItCannotReadSafely) {
  Bytes memory(100, 0);
  OsvGraphicBuffer shortMemory(memory.data());  // 16x16 claims 384 bytes, holds 100
  shortMemory.SetImageInfo({16, 16, {16, 8, 8}, 100, TAVO_VIDEO_VLINK_FORMAT_I420, 0, 0});
  ASSERT_EQ(shortMemory.SetImageAddr(memory.data(), memory.data() + 50, memory.data() + 60), 0);
  OsvGraphicBuffer noChroma(nullptr);
  noChroma.SetImageInfo({16, 16, {16, 8, 8}, 384, TAVO_VIDEO_VLINK_FORMAT_I420, 0, 0});
  ASSERT_EQ(noChroma.SetImageAddr(memory.data(), nullptr, nullptr), 0);
  OsvGraphicBuffer argb(16, 16, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  auto good = MakeFrame(16, 16, 12);

  Bytes target(16 * 16 * 3, 0xAB);
  EXPECT_NE(ChangeI420ToRGB(nullptr, target.data(), 16, 16), 0);
  EXPECT_NE(ChangeI420ToRGB(good.get(), nullptr, 16, 16), 0);
  EXPECT_NE(ChangeI420ToRGB(good.get(), target.data(), 16, 8), 0);
  EXPECT_NE(ChangeI420ToRGB(&argb, target.data(), 16, 16), 0);
  EXPECT_NE(ChangeI420ToRGB(&noChroma, target.data(), 16, 16), 0);
  EXPECT_NE(ChangeI420ToRGB(&shortMemory, target.data(), 16, 16), 0);
  EXPECT_EQ(target, Bytes(target.size(), 0xAB));

  EXPECT_EQ(ChangeI420ToRGB(good.get(), target.data(), 16, 16), 0);
  EXPECT_EQ(target, Raw(*good));
}

}  // namespace
