// Frame hand-off cost through real links, each next to a plain mutex + condition variable
// queue drained by as many threads as the shared worker pool has, with the same fan-out and
// the same reference counting:
//  - a source node fanning frames out to 1, 3 and 10 started sinks;
//  - a decoded-frame input fanning frames out to 4 preview windows, each window its own
//    preview node rendering through the real renderer, delivered at the render callback.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "bench/handoff_bench_support.h"
#include "codec/tavo_video_vlink_vdec_node.h"
#include "core/tavo_video_vlink_node.h"
#include "osv_graphic_buffer.h"
#include "render/tavo_video_vlink_preview_node.h"
#include "render/tavo_video_vlink_render_adapter.h"
#include "tavo_video_render_interface.h"
#include "tavo_video_vlink_component.h"

std::atomic<uint64_t> handoff_bench::g_allocations{0};

// Counts every allocation of the process; the hand-off's per-frame cost shows in it. Kept
// out of line: inlined next to a library allocation or release, g++ 12 takes the pair for
// a mismatch of new and free.
[[gnu::noinline]] void* operator new(size_t size) {
  handoff_bench::g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size == 0 ? 1 : size)) {
    return memory;
  }
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t /*size*/) noexcept {
  std::free(memory);
}

namespace {

// The renderer previews get: the Linux adapter on the YUV path, whatever the environment
// says, so the windows get the frame's own memory.
class YuvRenderProxyFactory final : public RenderProxyFactory {
 public:
  std::unique_ptr<IDevRenderStreamProxy> Create(PelvRenderMode /*mode*/) override {
    return std::make_unique<DevRenderLinuxAdapter>(nullptr);
  }
};

using handoff_bench::Clock;
using handoff_bench::DeliveryLog;
using handoff_bench::FramePool;
using handoff_bench::kFrameHeight;
using handoff_bench::kFramesPerRun;
using handoff_bench::kFrameWidth;
using handoff_bench::kPooledFrames;
using handoff_bench::RunFigures;

// Keyed by fan-out and pace, every run pooled; read by vs_baseline and by the closing table.
std::map<handoff_bench::BaselineKey, RunFigures> g_baselineFigures;
// Our comparisons in the order they first ran, every run pooled.
std::vector<handoff_bench::SummaryRow> g_ourRuns;

void PoolBaseline(benchmark::State& state, const RunFigures& run) {
  const auto [slot, added] = g_baselineFigures.try_emplace({state.range(0), state.range(1)}, run);
  if (!added) {
    slot->second.Pool(run);
  }
}

// Fills in vs_baseline and pools the run into its row of the closing table.
void Publish(benchmark::State& state, const std::string& scenario, const RunFigures& run) {
  const auto row = std::find_if(g_ourRuns.begin(), g_ourRuns.end(), [&](const auto& ours) {
    return ours.scenario == scenario && ours.paceHz == state.range(1);
  });
  if (row == g_ourRuns.end()) {
    g_ourRuns.push_back({scenario, state.range(0), state.range(1), run});
  } else {
    row->ours.Pool(run);
  }
  const auto baseline = g_baselineFigures.find({state.range(0), state.range(1)});
  if (baseline != g_baselineFigures.end() && baseline->second.fps > 0) {
    state.counters["vs_baseline"] = run.fps / baseline->second.fps;
  }
}

// A started sink that only notes when each frame reached it.
class TimingSink final : public VideoVlinkNode {
 public:
  TimingSink(uint32_t id, DeliveryLog& log) : VideoVlinkNode(id, OS_E_MPP_DEV_TEST), m_log(log) {}

  uint32_t HandleBuffer(FrameRef& frame) override {
    const Clock::time_point arrived = Clock::now();
    m_log.Record(frame->GetSrcImgNo(), arrived);
    frame.Reset();
    // After letting go, so that once all have passed here every release has been started.
    m_log.Delivered();
    return 0;
  }

 private:
  DeliveryLog& m_log;
};

// The producer: frames it sent come back to it through ReleaseFrame.
class FrameSource final : public VideoVlinkNode {
 public:
  FrameSource(uint32_t id, FramePool& pool) : VideoVlinkNode(id, OS_E_MPP_DEV_TEST), m_pool(pool) {}
  ~FrameSource() override { DealTaskHandler(true); }

  void ReleaseFrame(OsvGraphicBuffer* /*buffer*/) override { m_pool.Released(); }

 private:
  FramePool& m_pool;
};

void BM_QueueBaseline(benchmark::State& state) {
  const auto fanOut = static_cast<size_t>(state.range(0));
  DeliveryLog log(static_cast<size_t>(state.max_iterations), fanOut);
  FramePool pool;
  if (!pool.Allocated()) {
    state.SkipWithError("frame allocation failed");
    return;
  }
  handoff_bench::LockedQueueFanOut queue(fanOut, pool, log);
  const handoff_bench::SendResult sent = handoff_bench::SendFrames(
      state, pool, log,
      [&queue](OsvGraphicBuffer& frame, uint32_t seq) { return queue.Send(frame, seq); });
  queue.Stop();
  if (const auto run = handoff_bench::Report(state, log, pool.AllReturned(), sent, fanOut)) {
    PoolBaseline(state, *run);
  }
}

std::string SinksScenario(size_t fanOut) {
  return "source->" + std::to_string(fanOut) + (fanOut == 1 ? " sink" : " sinks");
}

// A source node fanning frames out to fanOut started sinks; taken down when it goes.
class SourceLink {
 public:
  SourceLink(size_t fanOut, FramePool& pool, DeliveryLog& log)
      : m_source(std::make_shared<FrameSource>(1, pool)) {
    for (size_t i = 0; i < fanOut; ++i) {
      auto sink = std::make_shared<TimingSink>(static_cast<uint32_t>(100 + i), log);
      m_source->ConnectToNode(sink);
      sink->ConnectFromNode(m_source);
      sink->StartProcess();
      m_sinks.push_back(std::move(sink));
    }
    pool.SetReleaseTarget(m_source);
  }
  SourceLink(const SourceLink&) = delete;
  SourceLink& operator=(const SourceLink&) = delete;

  ~SourceLink() {
    // Sinks first: their last releases queue the producer's final ReleaseFrame tasks.
    for (auto& sink : m_sinks) {
      sink->StopProcess();
      m_source->DisconnectFromNode(sink, true);
      sink->DisconnectFromNode(m_source, false);
    }
    m_source->DealTaskHandler(true);
  }

  bool Send(OsvGraphicBuffer& frame, uint32_t seq) {
    frame.SetSrcImgNo(seq);
    m_source->SendBuffer(&frame);
    return true;
  }

 private:
  std::shared_ptr<FrameSource> m_source;
  std::vector<std::shared_ptr<TimingSink>> m_sinks;
};

void BM_VlinkHandoff(benchmark::State& state) {
  const auto fanOut = static_cast<size_t>(state.range(0));
  DeliveryLog log(static_cast<size_t>(state.max_iterations), fanOut);
  FramePool pool;
  if (!pool.Allocated()) {
    state.SkipWithError("frame allocation failed");
    return;
  }
  handoff_bench::SendResult sent;
  {
    SourceLink link(fanOut, pool, log);
    sent = handoff_bench::SendFrames(
        state, pool, log,
        [&link](OsvGraphicBuffer& frame, uint32_t seq) { return link.Send(frame, seq); });
  }
  if (const auto run = handoff_bench::Report(state, log, pool.AllReturned(), sent, fanOut)) {
    Publish(state, SinksScenario(fanOut), *run);
  }
}

// Paced, with the other core kept busy: the link and the yardstick side by side in one run.
void BM_PacedSideBySide(benchmark::State& state) {
  const auto fanOut = static_cast<size_t>(state.range(0));
  const auto frames = static_cast<size_t>(state.max_iterations / 2);
  handoff_bench::BusyCore busy;
  DeliveryLog ourLog(frames, fanOut);
  DeliveryLog baseLog(frames, fanOut);
  FramePool ourPool;
  FramePool basePool;
  if (!ourPool.Allocated() || !basePool.Allocated()) {
    state.SkipWithError("frame allocation failed");
    return;
  }
  std::array<handoff_bench::SendResult, 2> sent;
  {
    handoff_bench::LockedQueueFanOut queue(fanOut, basePool, baseLog);
    SourceLink link(fanOut, ourPool, ourLog);
    handoff_bench::PacedSide ours{ourPool, ourLog, [&link](OsvGraphicBuffer& frame, uint32_t seq) {
                                    return link.Send(frame, seq);
                                  }};
    handoff_bench::PacedSide base{
        basePool, baseLog,
        [&queue](OsvGraphicBuffer& frame, uint32_t seq) { return queue.Send(frame, seq); }};
    sent = handoff_bench::SendSideBySide(state, state.range(1), {&ours, &base});
    queue.Stop();
  }
  if (const auto run =
          handoff_bench::Report(state, baseLog, basePool.AllReturned(), sent[1], fanOut, "base_")) {
    PoolBaseline(state, *run);
  }
  if (const auto run =
          handoff_bench::Report(state, ourLog, ourPool.AllReturned(), sent[0], fanOut)) {
    Publish(state, SinksScenario(fanOut), *run);
  }
}

// --- Decoded frames to preview windows -------------------------------------------------

constexpr uint32_t kDecoderNodeId = 70;
constexpr uint32_t kFirstPreviewNodeId = 41;
constexpr uint64_t kFirstWinHandle = 0x100;
// The image number the decoder stamps on its frames and every window shows.
constexpr uint32_t kShownImgNo = 150;

// The host's side of decoded frames: a fixed set of frame records, each handed to the
// decoder again only once its release callback gave it back; until then the decoder still
// knows the frame by its record.
class DecodedFramePool {
 public:
  struct Slot {
    tagOS_S_VIDEO_CODEC_IMG_INFO record{};
    // Frame number of the current send; written only while the slot is free, so the
    // hand-off to the pool orders it before every reader.
    uint32_t seq = 0;
  };

  DecodedFramePool() {
    for (size_t i = 0; i < kPooledFrames; ++i) {
      m_slots[i].record.pBuffer =
          new OsvGraphicBuffer(kFrameWidth, kFrameHeight, TAVO_VIDEO_VLINK_FORMAT_I420);
      m_memory[i] = m_slots[i].record.pBuffer->GetBufHandle();
      m_free[i].store(true, std::memory_order_relaxed);
    }
  }
  DecodedFramePool(const DecodedFramePool&) = delete;
  DecodedFramePool& operator=(const DecodedFramePool&) = delete;

  ~DecodedFramePool() {
    for (size_t i = 0; i < kPooledFrames; ++i) {
      OsvGraphicBuffer* frame = m_slots[i].record.pBuffer;
      frame->SetReleaseTarget(nullptr);  // the decoder made itself the target
      // One the decoder never gave back (already reported) may still be held: leak it.
      if (m_free[i].load(std::memory_order_acquire) && frame->IsAvailable()) {
        delete frame;
      }
    }
  }

  bool Allocated() const {
    return std::all_of(m_memory.begin(), m_memory.end(),
                       [](const void* memory) { return memory != nullptr; });
  }

  bool AllReturned() const {
    return std::all_of(m_free.begin(), m_free.end(),
                       [](const auto& isFree) { return isFree.load(std::memory_order_acquire); });
  }

  // A free slot, now taken, or null when none came back within kStallTimeout. Producer
  // thread only.
  Slot* Acquire() {
    if (Slot* slot = TakeFree()) {
      return slot;
    }
    return m_signal.WaitFor([this] { return TakeFree(); });
  }

  // From the release callback, or from the producer for a frame the decoder refused.
  void Returned(const tagOS_S_VIDEO_CODEC_IMG_INFO* record) {
    for (size_t i = 0; i < kPooledFrames; ++i) {
      if (&m_slots[i].record == record) {
        m_free[i].store(true, std::memory_order_release);
        m_signal.Notify();
        return;
      }
    }
  }

  // The slot whose frame owns this memory; null for memory that is none of ours. A scan:
  // with this few frames it costs less than any map.
  const Slot* FindByMemory(const void* memory) const {
    for (size_t i = 0; i < kPooledFrames; ++i) {
      if (m_memory[i] == memory) {
        return &m_slots[i];
      }
    }
    return nullptr;
  }

 private:
  Slot* TakeFree() {
    for (size_t i = 0; i < kPooledFrames; ++i) {
      m_next = (m_next + 1) % kPooledFrames;
      if (m_free[m_next].load(std::memory_order_acquire)) {
        m_free[m_next].store(false, std::memory_order_relaxed);
        return &m_slots[m_next];
      }
    }
    return nullptr;
  }

  std::array<Slot, kPooledFrames> m_slots;
  std::array<const void*, kPooledFrames> m_memory{};  // each frame's pixels, fixed
  std::array<std::atomic<bool>, kPooledFrames> m_free;
  size_t m_next = 0;  // producer thread only
  handoff_bench::ReturnSignal m_signal;
};

// What the host callbacks of the running decoder scenario report to: they are plain
// functions, so they find it here. Set before the link starts, cleared after it stopped.
struct PreviewRun {
  PreviewRun(DecodedFramePool& framePool, DeliveryLog& deliveryLog, size_t windows)
      : pool(framePool), log(deliveryLog), windowHits(windows) {}

  DecodedFramePool& pool;
  DeliveryLog& log;
  std::vector<std::atomic<uint32_t>> windowHits;  // by window, frames rendered
  std::atomic<bool> strayFrame{false};            // a render of memory that is not our frame
};
std::atomic<PreviewRun*> g_previewRun{nullptr};

uint32_t ReturnDecodedFrame(uint32_t /*nodeId*/, tagOS_S_VIDEO_CODEC_IMG_INFO* record) {
  if (PreviewRun* run = g_previewRun.load(std::memory_order_acquire)) {
    run->pool.Returned(record);
  }
  return 1;  // the host keeps the record: it lives in the pool, not on the heap
}

int RenderToWindow(uint32_t winHandle, TavoVideoRenderImgHeader* header) {
  const Clock::time_point arrived = Clock::now();
  PreviewRun* run = g_previewRun.load(std::memory_order_acquire);
  if (run == nullptr) {
    return 0;
  }
  const DecodedFramePool::Slot* slot =
      header != nullptr ? run->pool.FindByMemory(header->data) : nullptr;
  const uint64_t window = winHandle - kFirstWinHandle;
  if (slot == nullptr || window >= run->windowHits.size()) {
    run->strayFrame.store(true, std::memory_order_relaxed);
  } else {
    run->log.Record(slot->seq, arrived);
    run->windowHits[window].fetch_add(1, std::memory_order_relaxed);
  }
  // Still inside the preview's hand-off, before it lets go: tearing the link down is what
  // waits for the releases.
  run->log.Delivered();
  return 0;
}

// A started decoder linked to started previews with one window each.
class DecoderPreviewLink {
 public:
  explicit DecoderPreviewLink(size_t previews)
      : m_decoder(std::make_shared<VirtualDecoderNode>(kDecoderNodeId)) {
    tagTavoVideoVDecParam decoderParam;
    std::memset(&decoderParam, 0, sizeof(decoderParam));
    decoderParam.imgNo = kShownImgNo;
    decoderParam.decReleaseFunc = ReturnDecodedFrame;
    if (m_decoder->SetParam(decoderParam) != 0 || m_decoder->StartProcess() != 0) {
      m_fault = "the decoder did not start";
      return;
    }
    for (size_t i = 0; i < previews; ++i) {
      auto preview =
          std::make_shared<VideoPreviewNode>(kFirstPreviewNodeId + static_cast<uint32_t>(i));
      tagTavoVideoVoChnParam previewParam;
      std::memset(&previewParam, 0, sizeof(previewParam));
      previewParam.winNum = 1;
      previewParam.windows[0].winHandle = kFirstWinHandle + i;
      previewParam.windows[0].imgNo = kShownImgNo;
      previewParam.renderCb = RenderToWindow;
      if (preview->SetParam(previewParam) != 0) {
        m_fault = "a preview refused its windows";
        return;
      }
      m_decoder->ConnectToNode(preview);
      preview->ConnectFromNode(m_decoder);
      m_previews.push_back(preview);
      if (preview->StartProcess() != 0 || preview->GetWindowCount() != 1) {
        m_fault = "a preview window got no renderer";
        return;
      }
    }
  }
  DecoderPreviewLink(const DecoderPreviewLink&) = delete;
  DecoderPreviewLink& operator=(const DecoderPreviewLink&) = delete;
  ~DecoderPreviewLink() { Stop(); }

  // Null when the link is up, else what failed.
  const char* Fault() const { return m_fault; }

  bool Receive(tagOS_S_VIDEO_CODEC_IMG_INFO& record) {
    return m_decoder->ReceiveVdecFrame(0, kDecoderNodeId, &record) == 0;
  }

  // Previews first, as the media process does: their last releases queue the decoder's
  // final ReleaseFrame tasks, which stopping the decoder waits for. Afterwards every
  // release callback has run.
  void Stop() {
    for (auto& preview : m_previews) {
      preview->StopProcess();
      m_decoder->DisconnectFromNode(preview, true);
      preview->DisconnectFromNode(m_decoder, false);
    }
    m_previews.clear();
    m_decoder->StopProcess();
  }

 private:
  std::shared_ptr<VirtualDecoderNode> m_decoder;
  std::vector<std::shared_ptr<VideoPreviewNode>> m_previews;
  const char* m_fault = nullptr;
};

void BM_DecoderPreviews(benchmark::State& state) {
  const auto previews = static_cast<size_t>(state.range(0));
  DeliveryLog log(static_cast<size_t>(state.max_iterations), previews);
  DecodedFramePool pool;
  if (!pool.Allocated()) {
    state.SkipWithError("frame allocation failed");
    return;
  }
  PreviewRun run(pool, log, previews);
  g_previewRun.store(&run, std::memory_order_release);
  handoff_bench::SendResult sent;
  {
    DecoderPreviewLink link(previews);
    if (const char* fault = link.Fault()) {
      state.SkipWithError(fault);
    } else {
      sent = handoff_bench::SendFrames(state, pool, log,
                                       [&link, &pool](DecodedFramePool::Slot& slot, uint32_t seq) {
                                         slot.seq = seq;
                                         if (link.Receive(slot.record)) {
                                           return true;
                                         }
                                         pool.Returned(&slot.record);  // never entered the link
                                         return false;
                                       });
    }
  }
  g_previewRun.store(nullptr, std::memory_order_release);

  if (!state.error_occurred()) {
    if (run.strayFrame.load(std::memory_order_relaxed)) {
      state.SkipWithError("a window rendered memory that is none of the sent frames");
    } else if (std::any_of(run.windowHits.begin(), run.windowHits.end(), [&log](const auto& hits) {
                 return hits.load(std::memory_order_relaxed) != log.Frames();
               })) {
      state.SkipWithError("a window did not render every frame exactly once");
    }
  }
  if (const auto figures = handoff_bench::Report(state, log, pool.AllReturned(), sent, previews)) {
    Publish(state, "decoder->" + std::to_string(previews) + " previews", *figures);
  }
}

void Register(const char* name, void (*run)(benchmark::State&), int64_t fanOut,
              int64_t paceHz = 0) {
  benchmark::RegisterBenchmark(name, run)
      ->Args({fanOut, paceHz})
      ->Iterations(handoff_bench::FramesFor(paceHz))
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace

int main(int argc, char** argv) {
  // Saturated, each baseline runs right before the link with the same fan-out, so that
  // vs_baseline can be filled in; paced at 60 Hz and 1 kHz, the two share one run.
  for (const int64_t fanOut : {1, 3, 10}) {
    Register("BM_QueueBaseline", BM_QueueBaseline, fanOut);
    Register("BM_VlinkHandoff", BM_VlinkHandoff, fanOut);
  }
  for (const int64_t paceHz : {60, 1000}) {
    for (const int64_t fanOut : {1, 3, 10}) {
      Register("BM_PacedSideBySide", BM_PacedSideBySide, fanOut, paceHz);
    }
  }
  constexpr int64_t kPreviewWindows = 4;
  Register("BM_QueueBaseline", BM_QueueBaseline, kPreviewWindows);
  Register("BM_DecoderPreviews", BM_DecoderPreviews, kPreviewWindows);

  YuvRenderProxyFactory yuvRenderer;
  ScopedSeamOverride<RenderProxyFactory> rendererOverride(yuvRenderer);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  handoff_bench::PrintSummary(g_ourRuns, g_baselineFigures);
  benchmark::Shutdown();
  return 0;
}
