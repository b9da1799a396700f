// The tour: four links at once in this process, none needing a device: the test image,
// the screen of a private Xvfb, frames the host "decodes" (a generated clip pushed as
// decoded frames) and the file camera with the virtual background on. Each writes a Y4M
// file and renders into a preview window; the end shows a table of per-link figures, the
// PNG of every window and a contact sheet of all four.
#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host_clock.h"
#include "host_encoder_sink.h"
#include "host_file_camera.h"
#include "host_legs.h"
#include "host_modes.h"
#include "host_plots.h"
#include "host_render_windows.h"
#include "tools/common/host_image.h"

namespace {

// The test image: an encoder and a preview.
constexpr LinkNode kTestEncoder{141, TAVO_VIDEO_COMPONENT_ENCODER, 8, "test encoder"};
constexpr LinkNode kTestPreview{142, TAVO_VIDEO_COMPONENT_PREVIEW, 65, "test preview"};
constexpr uint64_t kTestWindow = 0x401;

class TestLeg final : public Leg {
 public:
  TestLeg(const Library& lib, const Tables& tables, const Options& options)
      : m_lib(lib),
        m_tables(tables),
        m_options(options),
        m_link(lib, {kTestImageNode, kTestEncoder, kTestPreview},
               {{kTestEncoder, kTestImageNode}, {kTestPreview, kTestImageNode}}) {}

  std::string Name() const override { return "test image"; }
  uint64_t Window() const override { return kTestWindow; }

  bool SetUp() override {
    if (!m_link.Resolve(m_tables)) {
      return false;
    }
    m_sink = std::make_unique<EncoderSink>(
        m_lib, kTestEncoder.nodeId,
        (std::filesystem::path(m_options.outDir) / "test_image.y4m").string());
    m_sink->SetTimelineName("test image");
    m_link.StoreNodeIds();
    auto test = TestImageRecord(m_options.image);
    auto encoder = NewRecord();
    m_sink->FillRecord(*encoder, 1280, 720, 2);
    auto preview = PreviewRecord(kTestWindow, kTestImageNode.nodeId);
    std::printf("create test image %s: %u\n", m_options.image.c_str(),
                m_link.Create(kTestImageNode, test.get()));
    std::printf("create test encoder: %u\n", m_link.Create(kTestEncoder, encoder.get()));
    std::printf("create test preview (window 0x%llx): %u\n",
                static_cast<unsigned long long>(kTestWindow),
                m_link.Create(kTestPreview, preview.get()));
    return m_link.BindAll() == 0;
  }

  uint32_t Frames() override { return m_sink ? m_sink->Figures().frames : 0; }

  std::string Progress() override {
    return "test " + std::to_string(m_sink->Figures().frames) + " frames";
  }

  uint32_t TearDown() override {
    const uint32_t result = m_link.TearDown([this] { m_sink->Drain(kStallLimit); });
    m_link.ReleaseContainers();
    if (m_sink) {
      m_sink->Stop();
    }
    return result;
  }

  LegRow Row() override { return EncoderRow("test image", m_sink.get(), kTestWindow); }

 private:
  const Library& m_lib;
  const Tables& m_tables;
  const Options& m_options;
  HostLink m_link;
  std::unique_ptr<EncoderSink> m_sink;
};

// The decoded frames: a generated clip pushed at 30 frames a second into a decoder input
// bound to a preview, whose frames are recorded to a Y4M file.
constexpr LinkNode kDecoder{150, TAVO_VIDEO_COMPONENT_DECODER, 151, "decoder"};
constexpr LinkNode kDecodePreview{152, TAVO_VIDEO_COMPONENT_PREVIEW, 66, "decoded preview"};
constexpr uint64_t kDecodeWindow = 0x201;
constexpr uint32_t kClipWidth = 640;
constexpr uint32_t kClipHeight = 360;
constexpr uint32_t kClipFrames = 60;
constexpr auto kPushPeriod = std::chrono::microseconds(33333);
constexpr size_t kPoolSize = 6;

struct DecodeSlot {
  tagOS_S_VIDEO_CODEC_IMG_INFO* record = nullptr;
  OsvGraphicBuffer* buffer = nullptr;
  bool inFlight = false;
  uint64_t pushedUs = 0;
};

// The pool the release callback gives frames back to; one decoded link a process.
struct DecodePool {
  std::array<DecodeSlot, kPoolSize> slots;
  std::mutex lock;  // guards everything here; the release callback takes it
  std::condition_variable changed;
  bool stop = false;
  uint32_t pushed = 0;
  uint32_t refused = 0;
  uint32_t returned = 0;
  uint32_t duplicates = 0;  // given back while not in the link, or not ours
  uint64_t holdSumUs = 0;
  uint64_t holdMaxUs = 0;
};
DecodePool g_decode;

uint32_t OnDecodeRelease(uint32_t /*nodeId*/, tagOS_S_VIDEO_CODEC_IMG_INFO* record) {
  const uint64_t now = NowUs();
  {
    std::lock_guard<std::mutex> lock(g_decode.lock);
    auto slot = std::find_if(g_decode.slots.begin(), g_decode.slots.end(),
                             [&](const DecodeSlot& s) { return s.record == record; });
    if (slot == g_decode.slots.end() || !slot->inFlight) {
      ++g_decode.duplicates;
      return 1;
    }
    slot->inFlight = false;
    ++g_decode.returned;
    const uint64_t held = now - slot->pushedUs;
    RecordLatency("decoded frames", "push to release", now, held);
    g_decode.holdSumUs += held;
    g_decode.holdMaxUs = std::max(g_decode.holdMaxUs, held);
  }
  g_decode.changed.notify_all();
  return 1;  // taken back
}

class DecodeLeg final : public Leg {
 public:
  DecodeLeg(const Library& lib, const Tables& tables, const Options& options)
      : m_lib(lib),
        m_tables(tables),
        m_options(options),
        m_link(lib, {kDecoder, kDecodePreview}, {{kDecodePreview, kDecoder}}) {}

  ~DecodeLeg() override { StopPushing(); }

  std::string Name() const override { return "decoded frames"; }
  uint64_t Window() const override { return kDecodeWindow; }

  bool SetUp() override {
    if (!m_link.Resolve(m_tables)) {
      return false;
    }
    m_clip.resize(kClipFrames);
    for (uint32_t i = 0; i < kClipFrames; ++i) {
      DrawMovingBars(kClipWidth, kClipHeight, i, kClipFrames, m_clip[i]);
    }
    for (DecodeSlot& slot : g_decode.slots) {
      slot.record = static_cast<tagOS_S_VIDEO_CODEC_IMG_INFO*>(
          std::calloc(1, sizeof(tagOS_S_VIDEO_CODEC_IMG_INFO)));
      slot.buffer = new OsvGraphicBuffer(kClipWidth, kClipHeight, TAVO_VIDEO_VLINK_FORMAT_I420);
      slot.record->pBuffer = slot.buffer;
    }
    const int window = WindowIndex(kDecodeWindow);
    m_output = (std::filesystem::path(m_options.outDir) / "decoded.y4m").string();
    if (window < 0 || !RecordWindow(static_cast<size_t>(window), m_output)) {
      return false;
    }
    m_link.StoreNodeIds();
    auto decoder = NewRecord();
    decoder->vdec.imgNo = kDecoder.nodeId;
    decoder->vdec.decReleaseFunc = OnDecodeRelease;
    auto preview = PreviewRecord(kDecodeWindow, kDecoder.nodeId);
    std::printf("create decoder input: %u\n", m_link.Create(kDecoder, decoder.get()));
    std::printf("create decoded preview (window 0x%llx): %u\n",
                static_cast<unsigned long long>(kDecodeWindow),
                m_link.Create(kDecodePreview, preview.get()));
    if (m_link.BindAll() != 0) {
      return false;
    }
    m_pusher = std::thread([this] { Push(); });
    return true;
  }

  uint32_t Frames() override { return WindowFrames(kDecodeWindow); }

  std::string Progress() override {
    std::lock_guard<std::mutex> lock(g_decode.lock);
    return "decoded " + std::to_string(g_decode.pushed) + " pushed " + std::to_string(Frames()) +
           " shown";
  }

  uint32_t TearDown() override {
    StopPushing();
    // Every frame in the link comes back before the link comes down.
    {
      std::unique_lock<std::mutex> lock(g_decode.lock);
      g_decode.changed.wait_for(lock, kStallLimit,
                                [] { return g_decode.returned >= g_decode.pushed; });
    }
    m_seconds = SecondsSince(m_start);
    const uint32_t result = m_link.TearDown();
    m_link.ReleaseContainers();
    std::lock_guard<std::mutex> lock(g_decode.lock);
    for (DecodeSlot& slot : g_decode.slots) {
      if (!slot.inFlight) {  // one still in the link stays the library's to give back
        delete slot.buffer;
        std::free(slot.record);
        slot = DecodeSlot{};
      }
    }
    return result;
  }

  LegRow Row() override {
    LegRow row;
    const uint32_t shown = Frames();
    std::lock_guard<std::mutex> lock(g_decode.lock);
    row.link = "decoded frames";
    row.frames = g_decode.pushed;
    row.rate = Rate(g_decode.pushed, static_cast<uint64_t>(m_seconds * 1e6));
    row.latencyMs = g_decode.returned
                        ? static_cast<double>(g_decode.holdSumUs) / g_decode.returned / 1000.0
                        : 0.0;
    row.latencyMaxMs = Ms(g_decode.holdMaxUs);
    row.previewFrames = shown;
    row.output = std::filesystem::path(m_output).filename().string();
    const int window = WindowIndex(kDecodeWindow);
    const uint32_t recorded = window >= 0 ? RecordedFrames(static_cast<size_t>(window)) : 0;
    row.notes = std::to_string(g_decode.returned) + " of " + std::to_string(g_decode.pushed) +
                " returned once (latency: push to return), " + std::to_string(g_decode.duplicates) +
                " returned twice, " + std::to_string(g_decode.refused) + " refused, " +
                std::to_string(recorded) + " recorded";
    row.ok = g_decode.pushed > 0 && g_decode.returned == g_decode.pushed &&
             g_decode.duplicates == 0 && shown == g_decode.pushed;
    return row;
  }

 private:
  void Push() {
    pthread_setname_np(pthread_self(), "host decoder");
    m_start = NowUs();
    auto due = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(g_decode.lock);
    while (!g_decode.stop) {
      auto free = std::find_if(g_decode.slots.begin(), g_decode.slots.end(),
                               [](const DecodeSlot& s) { return !s.inFlight; });
      if (free == g_decode.slots.end()) {
        g_decode.changed.wait_for(lock, std::chrono::milliseconds(100));
        continue;
      }
      DecodeSlot& slot = *free;
      slot.inFlight = true;  // before the push: the release may come at once
      const std::vector<uint8_t>& frame = m_clip[g_decode.pushed % kClipFrames];
      lock.unlock();
      Fill(*slot.buffer, frame);
      slot.pushedUs = NowUs();
      const uint32_t accepted = m_lib.receiveDecFrame(0, kDecoder.nodeId, slot.record);
      lock.lock();
      if (accepted != 0) {
        slot.inFlight = false;
        ++g_decode.refused;
      } else {
        ++g_decode.pushed;
      }
      due += kPushPeriod;
      g_decode.changed.wait_until(lock, due, [] { return g_decode.stop; });
    }
  }

  static void Fill(OsvGraphicBuffer& buffer, const std::vector<uint8_t>& i420) {
    const OsvGraphicBufferInfo info = buffer.GetImageInfo();
    const uint8_t* source = i420.data();
    for (uint32_t plane = 0; plane < 3; ++plane) {
      const uint32_t rows = plane == 0 ? kClipHeight : kClipHeight / 2;
      const uint32_t bytes = plane == 0 ? kClipWidth : kClipWidth / 2;
      uint8_t* row = buffer.GetImageAddr(plane);
      for (uint32_t y = 0; y < rows; ++y, row += info.stride[plane], source += bytes) {
        std::copy(source, source + bytes, row);
      }
    }
  }

  void StopPushing() {
    {
      std::lock_guard<std::mutex> lock(g_decode.lock);
      g_decode.stop = true;
    }
    g_decode.changed.notify_all();
    if (m_pusher.joinable()) {
      m_pusher.join();
    }
  }

  const Library& m_lib;
  const Tables& m_tables;
  const Options& m_options;
  HostLink m_link;
  std::vector<std::vector<uint8_t>> m_clip;
  std::string m_output;
  std::thread m_pusher;
  uint64_t m_start = 0;
  double m_seconds = 0;
};

}  // namespace

int RunTour(const Library& lib, const Tables& tables, const Options& options,
            HostDisplay& display) {
  std::string background = options.background;
  if (background.empty()) {
    background = BuiltFile("camera_background.png");
  }
  Options tour = options;
  // The camera shows the background for the first two thirds of its frames.
  if (tour.backgroundOffAfter == 0) {
    tour.backgroundOffAfter = options.frames > 0 ? std::max(1, options.frames * 2 / 3) : 200;
  }
  auto wanted = [&](const char* name) {
    return ("," + options.links + ",").find(std::string(",") + name + ",") != std::string::npos;
  };
  std::vector<std::unique_ptr<Leg>> legs;
  if (wanted("test")) {
    legs.push_back(std::make_unique<TestLeg>(lib, tables, tour));
  }
  if (wanted("screen")) {
    legs.push_back(MakeScreenLeg(lib, tables, tour, true));
  }
  if (wanted("decode")) {
    legs.push_back(std::make_unique<DecodeLeg>(lib, tables, tour));
  }
  if (wanted("camera")) {
    legs.push_back(MakeCameraLeg(lib, tables, tour, background));
  }
  if (legs.empty()) {
    std::fprintf(stderr, "tour: no link in \"%s\"\n", options.links.c_str());
    return 2;
  }
  std::printf("tour: %s at once\n", options.links.c_str());
  return RunLegs(legs, lib, tour, display);
}
