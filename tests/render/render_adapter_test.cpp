#include <gtest/gtest.h>
#include <libyuv.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/adapt_common/tavo_video_image_convert.h"
#include "render/tavo_video_render_manager.h"
#include "tavo_video_render_interface.h"
#include "tests/support/fake_render_proxy.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

using Bytes = std::vector<uint8_t>;
using HeaderBytes = std::array<uint8_t, sizeof(TavoVideoRenderImgHeader)>;

constexpr uint64_t kWindow = 0x0000000500000042ULL;  // the host sees the low half: 66
constexpr uint32_t kFailure = 0xFFFFFFFF;

struct Delivery {
  uint32_t window;
  TavoVideoRenderImgHeader header;
  HeaderBytes bytes;  // the header as delivered, padding included
  Bytes pixels;       // the memory is the host's only during the call
};

std::mutex g_lock;  // guards g_deliveries
std::vector<Delivery> g_deliveries;
std::atomic<int> g_callbackResult{0};

int Capture(uint32_t window, TavoVideoRenderImgHeader* header) {
  Delivery d{window, *header, {}, Bytes(header->data, header->data + header->dataSize)};
  std::memcpy(d.bytes.data(), header, d.bytes.size());
  std::lock_guard<std::mutex> lock(g_lock);
  g_deliveries.push_back(std::move(d));
  return g_callbackResult.load();
}

// The deliveries since the last call.
std::vector<Delivery> Deliveries() {
  std::lock_guard<std::mutex> lock(g_lock);
  return std::exchange(g_deliveries, {});
}

// What the host must receive: these fields, every other byte zero.
HeaderBytes Expected(uint32_t width, uint32_t height, uint32_t stride1, uint32_t format,
                     uint32_t dataSize, void* data) {
  const TavoVideoRenderImgHeader header{48,      width,    height, width,
                                        stride1, format,   1,      1,
                                        {},      dataSize, 0,      static_cast<uint8_t*>(data)};
  HeaderBytes bytes;
  std::memcpy(bytes.data(), &header, bytes.size());
  return bytes;
}

std::unique_ptr<OsvGraphicBuffer> MakeFrame(uint32_t width, uint32_t height, uint32_t seed,
                                            bool alignRows = false) {
  auto frame = std::make_unique<OsvGraphicBuffer>(width, height, TAVO_VIDEO_VLINK_FORMAT_I420,
                                                  false, alignRows);
  const std::vector<uint8_t> noise = RandomBytes(frame->GetImageInfo().size, seed);
  std::copy(noise.begin(), noise.end(), static_cast<uint8_t*>(frame->GetBufHandle()));
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

using Manager = std::unique_ptr<DevRenderManager, decltype(&TavoVideoRenderDelete)>;

Manager Create(TavoVideoRenderCallback callback = Capture) {
  tagOS_S_SOFT_VO_CHN_PARAM param = Channel(callback);
  DevRenderManager* manager = nullptr;
  EXPECT_EQ(TavoVideoRenderCreate(&param, &manager), 0U);
  return Manager(manager, TavoVideoRenderDelete);
}

class RenderAdapterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Deliveries();
    g_callbackResult = 0;
  }
  // Renderers made from now on see VANTOR_SOREN as `processor` (nullopt: unset).
  void UseProcessor(std::optional<std::string> processor) {
    m_override.reset();
    m_factory = std::make_unique<FakeRenderProxyFactory>(std::move(processor));
    m_override.emplace(*m_factory);
  }

 private:
  std::unique_ptr<FakeRenderProxyFactory> m_factory;
  std::optional<ScopedSeamOverride<RenderProxyFactory>> m_override;
};

// Only exactly "Soren" selects RGB: the host then gets converted copies in one buffer per
// size, otherwise the frame itself.
TEST_F(RenderAdapterTest, HeaderAndPixelsOnEachPath) {
  const struct {
    const char* value;  // nullptr: unset
    bool rgb;
  } cases[] = {{nullptr, false}, {"Soren", true}, {"soren", false}, {"Soren ", false}, {"", false}};
  LogCapture logs;
  const std::unique_ptr<OsvGraphicBuffer> frames[] = {
      MakeFrame(1280, 720, 1), MakeFrame(1280, 720, 2),
      MakeFrame(64, 36, 3, true)};  // chroma strides differ from half the width
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value == nullptr ? "unset" : c.value);
    UseProcessor(c.value == nullptr ? std::nullopt : std::optional<std::string>(c.value));
    Manager manager = Create();
    for (const auto& frame : frames) {
      ASSERT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()), 0U);
    }
    const auto got = Deliveries();
    ASSERT_EQ(got.size(), 3U);
    EXPECT_EQ(got[0].window, 66U);
    if (!c.rgb) {
      EXPECT_EQ(got[0].bytes, Expected(1280, 720, 640, 4, 1382400, frames[0]->GetBufHandle()));
      continue;
    }
    uint8_t* buffer = got[0].header.data;
    EXPECT_EQ(got[0].bytes, Expected(1280, 720, 640, 0, 2764800, buffer));
    EXPECT_EQ(got[1].header.data, buffer);
    EXPECT_EQ(got[2].bytes, Expected(64, 36, 64, 0, 6912, got[2].header.data));
    for (size_t i = 0; i < got.size(); ++i) {
      EXPECT_TRUE(got[i].pixels == Raw(*frames[i])) << i;
    }
  }
  EXPECT_EQ(logs.CountModule("malloc new imgBuf size:2764800.", 3), 1U);
}

// The header line is logged for frame 1 and every thousandth after; the host's failures are
// returned, and logged once per thousand. A stopped renderer, frames without pixels, or a
// renderer without a callback or manager never reach the host.
TEST_F(RenderAdapterTest, HostFailuresAndFramesTheHostNeverGets) {
  LogCapture logs;
  Manager manager = Create();
  auto frame = MakeFrame(16, 16, 7);
  for (int i = 1; i <= 2001; ++i) {
    g_callbackResult = i <= 2000 ? -7 : 0;  // failures are counted process-wide
    ASSERT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()),
              static_cast<uint32_t>(g_callbackResult.load()));
  }
  EXPECT_EQ(logs.CountModule("callback failed, ret[-7],cnt[", 1), 2U);
  std::vector<std::string> lines;
  for (const OmLogRecord& r : logs.Records()) {
    if (r.text.rfind("m_outImgHeader", 0) == 0) lines.push_back(r.text);
  }
  const std::string prefix = "m_outImgHeader 66 3 4 1 | 48 16 16 16 8 | 1 384 ";
  EXPECT_EQ(lines, (std::vector<std::string>{prefix + "1", prefix + "1001", prefix + "2001"}));

  EXPECT_EQ(TavoVideoRenderStop(manager.get()), 0U);
  Deliveries();
  EXPECT_EQ(TavoVideoRenderFrame(manager.get(), frame.get()), 0U);

  tagOS_S_SOFT_VO_CHN_PARAM param = Channel();
  DevRenderManager* out = nullptr;
  EXPECT_EQ(
      (std::vector{TavoVideoRenderCreate(nullptr, &out), TavoVideoRenderCreate(&param, nullptr),
                   TavoVideoRenderFrame(nullptr, nullptr),
                   TavoVideoRenderSetParams(nullptr, param.params), TavoVideoRenderStop(nullptr),
                   TavoVideoRenderDelete(nullptr)}),
      (std::vector{kFailure, kFailure, 0U, 0U, 0U, 0U}));
  EXPECT_EQ(out, nullptr);
  OsvGraphicBuffer empty(nullptr);  // no memory, no size
  Manager yuv = Create(nullptr);
  EXPECT_EQ(TavoVideoRenderFrame(yuv.get(), frame.get()), 1U);
  EXPECT_EQ(TavoVideoRenderSetParams(yuv.get(), param.params), 0U);
  EXPECT_EQ(TavoVideoRenderFrame(yuv.get(), &empty), 1U);
  EXPECT_EQ(TavoVideoRenderFrame(yuv.get(), nullptr), 1U);
  UseProcessor("Soren");
  Manager rgb = Create();
  EXPECT_EQ(TavoVideoRenderFrame(rgb.get(), &empty), 1U);
  EXPECT_TRUE(Deliveries().empty());
  EXPECT_EQ(TavoVideoRenderFrame(yuv.get(), frame.get()), 0U);  // the callback came late
  EXPECT_EQ(Deliveries().size(), 1U);

  // A frame that cannot be converted shows black (the zeroed buffer), never heap garbage.
  OsvGraphicBuffer argb(16, 16, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  ASSERT_EQ(TavoVideoRenderFrame(rgb.get(), &argb), 0U);
  const auto got = Deliveries();
  ASSERT_EQ(got.size(), 1U);
  EXPECT_EQ(got[0].pixels, Bytes(16 * 16 * 3, 0));
  // The conversion the RGB path rests on refuses frames that do not describe their pixels.
  Bytes memory(100, 0);
  OsvGraphicBuffer shortMemory(memory.data());  // 16x16 claims 384 bytes, holds 100
  shortMemory.SetImageInfo({16, 16, {16, 8, 8}, 100, TAVO_VIDEO_VLINK_FORMAT_I420, 0, 0});
  ASSERT_EQ(shortMemory.SetImageAddr(memory.data(), memory.data() + 50, memory.data() + 60), 0);
  OsvGraphicBuffer noChroma(nullptr);
  noChroma.SetImageInfo({16, 16, {16, 8, 8}, 384, TAVO_VIDEO_VLINK_FORMAT_I420, 0, 0});
  ASSERT_EQ(noChroma.SetImageAddr(memory.data(), nullptr, nullptr), 0);
  Bytes target(16 * 16 * 3, 0xAB);
  EXPECT_NE(ChangeI420ToRGB(frame.get(), target.data(), 16, 8), 0);
  EXPECT_NE(ChangeI420ToRGB(&noChroma, target.data(), 16, 16), 0);
  EXPECT_NE(ChangeI420ToRGB(&shortMemory, target.data(), 16, 16), 0);
  EXPECT_EQ(target, Bytes(target.size(), 0xAB));
}

// Host threads: one renders while another changes parameters, stops and deletes; the
// deleted renderer then refuses frames and parameters.
TEST_F(RenderAdapterTest, FramesRaceParamsStopAndDelete) {
  UseProcessor("Soren");
  CountLatch delivered;
  DevRenderManager manager;
  tagOS_S_SOFT_VO_CHN_PARAM param = Channel();
  ASSERT_EQ(manager.Init(&param), 0U);
  auto frame = MakeFrame(32, 32, 11);
  std::thread renderer([&] {
    while (manager.RenderFrame(frame.get()) == 0) {
      delivered.Add();
    }
  });
  EXPECT_TRUE(delivered.WaitFor(10));
  EXPECT_EQ(manager.RenderSetParams(param.params), 0U);
  EXPECT_TRUE(delivered.WaitFor(20));
  EXPECT_EQ(manager.RenderStop(), 0U);
  EXPECT_EQ(manager.RenderDelete(), 0U);
  renderer.join();
  EXPECT_EQ(manager.RenderFrame(frame.get()), kFailure);
  EXPECT_EQ(manager.RenderSetParams(param.params), kFailure);
  EXPECT_EQ(manager.RenderStop(), 0U);
}

}  // namespace
