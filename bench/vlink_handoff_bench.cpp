// Frame hand-off cost: a source node fanning frames out to 1, 3 and 10 started sinks on the
// shared worker pool, next to a plain mutex + condition variable queue drained by as many
// threads as the pool has, with the same fan-out and the same reference counting.
//
// Both sides reuse a few pre-allocated frames and block on a condition variable only while
// all of them are in flight, so the figures show hand-off and queueing, not allocation.
// Latency runs from just before the send to the first thing the receiver does.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "core/tavo_video_vlink_node.h"
#include "osv_graphic_buffer.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int64_t kFramesPerRun = 20000;  // keeps the whole program well under half a minute
constexpr size_t kPooledFrames = 16;
constexpr uint32_t kFrameWidth = 1280;
constexpr uint32_t kFrameHeight = 720;
constexpr size_t kConsumerThreads = 10;  // as many as the node worker pool has
// Far beyond any healthy run: reaching it means a frame or a reference was lost.
constexpr std::chrono::seconds kStallTimeout{20};

struct RunFigures {
  double fps = 0;
  double p50Us = 0;
  double p99Us = 0;
};

// Keyed by fan-out; read by vs_baseline and by the closing table.
std::map<int64_t, RunFigures> g_baselineFigures;
std::map<int64_t, RunFigures> g_handoffFigures;

// Pre-allocated frames, handed out again once nobody holds them.
class FramePool {
 public:
  FramePool() {
    for (auto& frame : m_frames) {
      frame = std::make_unique<OsvGraphicBuffer>(kFrameWidth, kFrameHeight,
                                                 TAVO_VIDEO_VLINK_FORMAT_I420);
    }
  }
  FramePool(const FramePool&) = delete;
  FramePool& operator=(const FramePool&) = delete;

  ~FramePool() {
    for (auto& frame : m_frames) {
      frame->SetReleaseTarget(nullptr);  // the target may hold the producer alive
      if (!frame->IsAvailable()) {
        // Somebody still holds it (already reported): freeing it could crash that holder.
        static_cast<void>(frame.release());
      }
    }
  }

  bool Allocated() const {
    return std::all_of(m_frames.begin(), m_frames.end(),
                       [](const auto& frame) { return frame->GetBufHandle() != nullptr; });
  }

  bool AllReturned() const {
    return std::all_of(m_frames.begin(), m_frames.end(),
                       [](const auto& frame) { return frame->IsAvailable(); });
  }

  void SetReleaseTarget(const OsvGraphicBuffer::ReleaseTarget& target) {
    for (auto& frame : m_frames) {
      frame->SetReleaseTarget(target);
    }
  }

  // A free frame, or null when none came back within kStallTimeout. Producer thread only.
  OsvGraphicBuffer* Acquire() {
    if (OsvGraphicBuffer* frame = FindFree()) {
      return frame;
    }
    OsvGraphicBuffer* frame = nullptr;
    std::unique_lock<std::mutex> lock(m_lock);
    m_freed.wait_for(lock, kStallTimeout, [&] { return (frame = FindFree()) != nullptr; });
    return frame;
  }

  // Called once a frame's last holder let go.
  void Released() {
    {
      // The producer is then either before its check or asleep, never in between.
      std::lock_guard<std::mutex> lock(m_lock);
    }
    m_freed.notify_one();
  }

 private:
  OsvGraphicBuffer* FindFree() {
    for (size_t i = 0; i < kPooledFrames; ++i) {
      m_next = (m_next + 1) % kPooledFrames;
      if (m_frames[m_next]->IsAvailable()) {
        return m_frames[m_next].get();
      }
    }
    return nullptr;
  }

  std::array<std::unique_ptr<OsvGraphicBuffer>, kPooledFrames> m_frames;
  size_t m_next = 0;  // producer thread only
  std::mutex m_lock;
  std::condition_variable m_freed;
};

// One run's deliveries: when each frame was sent, how long each receiver took to start on
// it, and whether every receiver got every frame exactly once.
class DeliveryLog {
 public:
  DeliveryLog(size_t frames, size_t fanOut)
      : m_fanOut(fanOut),
        m_expected(frames * fanOut),
        m_sentAt(frames),
        m_hits(frames),
        m_latencyNs(frames * fanOut) {}

  size_t Frames() const { return m_sentAt.size(); }

  void MarkSent(OsvGraphicBuffer* frame, uint32_t seq) {
    frame->SetSrcImgNo(seq);
    m_sentAt[seq] = Clock::now();
  }

  // On the receiver's thread, while it still holds the frame.
  void Record(const OsvGraphicBuffer* frame, Clock::time_point arrived) {
    const uint32_t seq = frame->GetSrcImgNo();
    if (seq >= m_sentAt.size()) {
      m_corrupt.store(true, std::memory_order_relaxed);
      return;
    }
    // The hit count doubles as this receiver's slot, so no lock is needed to store.
    const uint32_t hit = m_hits[seq].fetch_add(1, std::memory_order_relaxed);
    if (hit >= m_fanOut) {
      m_corrupt.store(true, std::memory_order_relaxed);
      return;
    }
    m_latencyNs[seq * m_fanOut + hit] =
        std::chrono::duration_cast<std::chrono::nanoseconds>(arrived - m_sentAt[seq]).count();
  }

  // After the receiver let go of the frame, so that once all have passed here no frame is
  // held and every release has been started.
  void Delivered() {
    if (m_delivered.fetch_add(1, std::memory_order_acq_rel) + 1 == m_expected) {
      { std::lock_guard<std::mutex> lock(m_lock); }
      m_done.notify_all();
    }
  }

  bool WaitAllDelivered() {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_done.wait_for(lock, kStallTimeout, [this] {
      return m_delivered.load(std::memory_order_acquire) >= m_expected;
    });
  }

  // Null when every frame reached every receiver exactly once, else what went wrong.
  const char* Fault() const {
    if (m_corrupt.load(std::memory_order_relaxed)) {
      return "a frame arrived twice or with a wrong number";
    }
    for (const auto& hits : m_hits) {
      if (hits.load(std::memory_order_relaxed) != m_fanOut) {
        return "a frame did not reach every receiver";
      }
    }
    return nullptr;
  }

  RunFigures Figures(double seconds) const {
    std::vector<int64_t> sorted(m_latencyNs);
    std::sort(sorted.begin(), sorted.end());
    const auto percentileUs = [&sorted](double p) {
      // Nearest rank: the smallest sample with at least p of all samples at or below it.
      const auto rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted.size())));
      return static_cast<double>(sorted[std::max<size_t>(rank, 1) - 1]) / 1000.0;
    };
    RunFigures figures;
    figures.fps = static_cast<double>(Frames()) / seconds;
    figures.p50Us = percentileUs(0.50);
    figures.p99Us = percentileUs(0.99);
    return figures;
  }

 private:
  const size_t m_fanOut;
  const size_t m_expected;
  std::vector<Clock::time_point> m_sentAt;  // by frame number
  std::vector<std::atomic<uint32_t>> m_hits;
  std::vector<int64_t> m_latencyNs;  // fanOut slots per frame
  std::atomic<size_t> m_delivered{0};
  std::atomic<bool> m_corrupt{false};
  std::mutex m_lock;
  std::condition_variable m_done;
};

// A started sink that only notes when each frame reached it.
class TimingSink final : public VideoVlinkNode {
 public:
  TimingSink(uint32_t id, DeliveryLog& log) : VideoVlinkNode(id, OS_E_MPP_DEV_TEST), m_log(log) {}
  ~TimingSink() override { DealTaskHandler(true); }

  uint32_t StartProcess() override {
    VideoVlinkNode::StartProcess();
    m_isStart.store(true, std::memory_order_release);
    return 0;
  }

  uint32_t StopProcess() override {
    VideoVlinkNode::StopProcess();
    m_isStart.store(false, std::memory_order_release);
    return 0;
  }

  uint32_t HandleBuffer(OsvGraphicBuffer* buffer) override {
    const Clock::time_point arrived = Clock::now();
    m_log.Record(buffer, arrived);
    buffer->DecreaseRef();
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

// The yardstick: one locked queue of frame pointers drained by a fixed set of threads, each
// frame queued once per receiver.
class LockedQueueFanOut {
 public:
  LockedQueueFanOut(size_t fanOut, FramePool& pool, DeliveryLog& log)
      : m_fanOut(fanOut), m_pool(pool), m_log(log) {
    m_consumers.reserve(kConsumerThreads);
    for (size_t i = 0; i < kConsumerThreads; ++i) {
      m_consumers.emplace_back([this] { Consume(); });
    }
  }
  LockedQueueFanOut(const LockedQueueFanOut&) = delete;
  LockedQueueFanOut& operator=(const LockedQueueFanOut&) = delete;
  ~LockedQueueFanOut() { Stop(); }

  void Send(OsvGraphicBuffer* frame) {
    // Every reference is taken before any is queued, so no receiver can free it early.
    for (size_t i = 0; i < m_fanOut; ++i) {
      frame->IncreaseRef();
    }
    {
      std::lock_guard<std::mutex> lock(m_lock);
      for (size_t i = 0; i < m_fanOut; ++i) {
        m_queue.push(frame);
      }
    }
    for (size_t i = 0; i < m_fanOut; ++i) {
      m_ready.notify_one();
    }
  }

  // Lets the consumers drain the queue, then joins them.
  void Stop() {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_stopping = true;
    }
    m_ready.notify_all();
    for (std::thread& consumer : m_consumers) {
      if (consumer.joinable()) {
        consumer.join();
      }
    }
  }

 private:
  void Consume() {
    for (;;) {
      OsvGraphicBuffer* frame = nullptr;
      {
        std::unique_lock<std::mutex> lock(m_lock);
        m_ready.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_queue.empty()) {
          return;
        }
        frame = m_queue.front();
        m_queue.pop();
      }
      m_log.Record(frame, Clock::now());
      if (frame->DecreaseRef() == 0) {
        m_pool.Released();
      }
      m_log.Delivered();
    }
  }

  const size_t m_fanOut;
  FramePool& m_pool;
  DeliveryLog& m_log;
  std::mutex m_lock;
  std::condition_variable m_ready;
  std::queue<OsvGraphicBuffer*> m_queue;  // guarded by m_lock
  bool m_stopping = false;                // guarded by m_lock
  std::vector<std::thread> m_consumers;
};

// Sends one frame per iteration; returns the seconds from the first send until the last
// frame reached every receiver.
double SendFrames(benchmark::State& state, FramePool& pool, DeliveryLog& log,
                  const std::function<void(OsvGraphicBuffer*)>& send) {
  uint32_t seq = 0;
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    OsvGraphicBuffer* frame = pool.Acquire();
    if (frame == nullptr) {
      state.SkipWithError("no frame came back to the producer");
      break;
    }
    log.MarkSent(frame, seq);
    send(frame);
    // The last iteration also waits for delivery, so the rate counts frames received rather
    // than frames queued.
    if (++seq == log.Frames() && !log.WaitAllDelivered()) {
      state.SkipWithError("not every frame reached every receiver");
      break;
    }
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Checks the run and publishes its counters; call once nothing can touch the frames.
bool Report(benchmark::State& state, const DeliveryLog& log, const FramePool& pool, double seconds,
            std::map<int64_t, RunFigures>& figures) {
  if (state.error_occurred()) {
    return false;
  }
  if (const char* fault = log.Fault()) {
    state.SkipWithError(fault);
    return false;
  }
  if (!pool.AllReturned()) {
    state.SkipWithError("a frame is still held after every receiver finished");
    return false;
  }
  const RunFigures run = log.Figures(seconds);
  state.counters["fps"] =
      benchmark::Counter(static_cast<double>(log.Frames()), benchmark::Counter::kIsRate);
  state.counters["p50_us"] = run.p50Us;
  state.counters["p99_us"] = run.p99Us;
  figures[state.range(0)] = run;
  return true;
}

void BM_QueueBaseline(benchmark::State& state) {
  const auto fanOut = static_cast<size_t>(state.range(0));
  DeliveryLog log(static_cast<size_t>(state.max_iterations), fanOut);
  FramePool pool;
  if (!pool.Allocated()) {
    state.SkipWithError("frame allocation failed");
    return;
  }
  LockedQueueFanOut queue(fanOut, pool, log);
  const double seconds =
      SendFrames(state, pool, log, [&queue](OsvGraphicBuffer* frame) { queue.Send(frame); });
  queue.Stop();
  Report(state, log, pool, seconds, g_baselineFigures);
}

void BM_VlinkHandoff(benchmark::State& state) {
  const auto fanOut = static_cast<size_t>(state.range(0));
  DeliveryLog log(static_cast<size_t>(state.max_iterations), fanOut);
  FramePool pool;
  if (!pool.Allocated()) {
    state.SkipWithError("frame allocation failed");
    return;
  }
  auto source = std::make_shared<FrameSource>(1, pool);
  std::vector<std::shared_ptr<TimingSink>> sinks;
  for (size_t i = 0; i < fanOut; ++i) {
    auto sink = std::make_shared<TimingSink>(static_cast<uint32_t>(100 + i), log);
    source->ConnectToNode(sink);
    sink->ConnectFromNode(source);
    sink->StartProcess();
    sinks.push_back(std::move(sink));
  }
  pool.SetReleaseTarget(source);

  const double seconds = SendFrames(
      state, pool, log, [&source](OsvGraphicBuffer* frame) { source->SendBuffer(frame); });

  // Sinks first: their last releases queue the producer's final ReleaseFrame tasks.
  for (auto& sink : sinks) {
    sink->StopProcess();
    source->DisconnectFromNode(sink, true);
    sink->DisconnectFromNode(source, false);
  }
  source->DealTaskHandler(true);
  if (!Report(state, log, pool, seconds, g_handoffFigures)) {
    return;
  }
  const auto baseline = g_baselineFigures.find(state.range(0));
  if (baseline != g_baselineFigures.end() && baseline->second.fps > 0) {
    state.counters["vs_baseline"] = g_handoffFigures[state.range(0)].fps / baseline->second.fps;
  }
}

void PrintSummary() {
  std::printf("\n%4s %12s %14s %7s %20s %20s\n", "N", "ours fps", "baseline fps", "ratio",
              "ours p50/p99 us", "baseline p50/p99 us");
  for (const auto& [fanOut, ours] : g_handoffFigures) {
    const auto baseline = g_baselineFigures.find(fanOut);
    if (baseline == g_baselineFigures.end()) {
      std::printf("%4lld %12.0f %14s %7s %9.1f/%-10.1f %20s\n", static_cast<long long>(fanOut),
                  ours.fps, "-", "-", ours.p50Us, ours.p99Us, "-");
      continue;
    }
    const RunFigures& base = baseline->second;
    std::printf("%4lld %12.0f %14.0f %7.2f %9.1f/%-10.1f %9.1f/%-10.1f\n",
                static_cast<long long>(fanOut), ours.fps, base.fps, ours.fps / base.fps, ours.p50Us,
                ours.p99Us, base.p50Us, base.p99Us);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Each baseline runs right before our hand-off with the same fan-out, so vs_baseline can
  // be filled in and the two sit next to each other in the output.
  for (const int64_t fanOut : {1, 3, 10}) {
    benchmark::RegisterBenchmark("BM_QueueBaseline", BM_QueueBaseline)
        ->Arg(fanOut)
        ->Iterations(kFramesPerRun)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_VlinkHandoff", BM_VlinkHandoff)
        ->Arg(fanOut)
        ->Iterations(kFramesPerRun)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  PrintSummary();
  benchmark::Shutdown();
  return 0;
}
