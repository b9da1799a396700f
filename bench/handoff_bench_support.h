// What every hand-off benchmark shares: a pool of pre-allocated frames, the log of when
// each frame was sent and reached each receiver, the locked-queue yardstick, the send loop,
// the per-run checks and the closing table.
//
// Both sides of a comparison reuse a few pre-allocated frames and block on a condition
// variable only while all of them are in flight, so the figures show hand-off and queueing,
// not allocation. Latency runs from just before the send to the first thing the receiver
// does.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "osv_graphic_buffer.h"

namespace handoff_bench {

using Clock = std::chrono::steady_clock;

constexpr int64_t kFramesPerRun = 20000;  // keeps the whole program well under half a minute
constexpr double kPacedSeconds = 8;       // a paced run sends this long
constexpr size_t kPooledFrames = 16;
constexpr uint32_t kFrameWidth = 1280;
constexpr uint32_t kFrameHeight = 720;
constexpr size_t kConsumerThreads = 10;  // as many as the node worker pool has
// Far beyond any healthy run: reaching it means a frame or a reference was lost.
constexpr std::chrono::seconds kStallTimeout{20};

// Nearest rank: the smallest sample with at least p of all samples at or below it.
inline double PercentileUs(std::vector<int64_t> samplesNs, double p) {
  if (samplesNs.empty()) {
    return 0;
  }
  const auto rank = static_cast<size_t>(std::ceil(p * static_cast<double>(samplesNs.size())));
  const auto at = samplesNs.begin() + static_cast<ptrdiff_t>(std::max<size_t>(rank, 1) - 1);
  std::nth_element(samplesNs.begin(), at, samplesNs.end());
  return static_cast<double>(*at) / 1000.0;
}

struct RunFigures {
  double fps = 0;
  double p50Us = 0;
  double p99Us = 0;
  double allocsPerDelivery = 0;  // heap allocations per frame per receiver while sending
  int runs = 1;
  std::vector<int64_t> latencyNs;  // every frame's, at every receiver

  // Takes another run of the same comparison in: rates and allocations averaged over the
  // runs, percentiles over every sample of every run.
  void Pool(const RunFigures& other) {
    const auto mean = [this, &other](double mine, double theirs) {
      return (mine * runs + theirs * other.runs) / (runs + other.runs);
    };
    fps = mean(fps, other.fps);
    allocsPerDelivery = mean(allocsPerDelivery, other.allocsPerDelivery);
    runs += other.runs;
    latencyNs.insert(latencyNs.end(), other.latencyNs.begin(), other.latencyNs.end());
    p50Us = PercentileUs(latencyNs, 0.50);
    p99Us = PercentileUs(latencyNs, 0.99);
  }
};

// Every operator new of the process, counted by the benchmark program.
extern std::atomic<uint64_t> g_allocations;

// Frames a run sends: as many as fit the saturated budget, or kPacedSeconds at the pace
// from each of the two sides of a paced run.
inline int64_t FramesFor(int64_t paceHz) {
  return paceHz == 0 ? kFramesPerRun
                     : 2 * static_cast<int64_t>(kPacedSeconds * static_cast<double>(paceHz));
}

// Keeps the other core busy during paced runs, so a receiver that sleeps must be woken on
// a loaded machine, as in a call.
class BusyCore {
 public:
  BusyCore()
      : m_spinner([this] {
          while (!m_stop.load(std::memory_order_relaxed)) {
          }
        }) {}
  ~BusyCore() {
    m_stop.store(true);
    m_spinner.join();
  }
  BusyCore(const BusyCore&) = delete;
  BusyCore& operator=(const BusyCore&) = delete;

 private:
  std::atomic<bool> m_stop{false};
  std::thread m_spinner;
};

// Wakes a producer waiting for a frame to come back, without losing a wake-up: the
// releasing side takes the lock once before notifying, so the producer is then either
// before its check or asleep, never in between.
class ReturnSignal {
 public:
  void Notify() {
    { std::lock_guard<std::mutex> lock(m_lock); }
    m_returned.notify_one();
  }

  // The first non-null result of find(), or null when none came within kStallTimeout.
  template <class Find>
  auto WaitFor(Find find) -> decltype(find()) {
    decltype(find()) found = nullptr;
    std::unique_lock<std::mutex> lock(m_lock);
    m_returned.wait_for(lock, kStallTimeout, [&] { return (found = find()) != nullptr; });
    return found;
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_returned;
};

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
    return m_signal.WaitFor([this] { return FindFree(); });
  }

  // Called once a frame's last holder let go.
  void Released() { m_signal.Notify(); }

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
  ReturnSignal m_signal;
};

// One run's deliveries: when each frame was sent, how long each receiver took to start on
// it, and whether every receiver got every frame exactly once. Frames are known by their
// number in the run.
class DeliveryLog {
 public:
  DeliveryLog(size_t frames, size_t fanOut)
      : m_fanOut(fanOut),
        m_expected(frames * fanOut),
        m_sentAt(frames),
        m_hits(frames),
        m_latencyNs(frames * fanOut) {}

  size_t Frames() const { return m_sentAt.size(); }

  // On the producer's thread, right before the frame is handed over.
  void MarkSent(uint32_t seq) { m_sentAt[seq] = Clock::now(); }

  // On the receiver's thread, while it still holds the frame.
  void Record(uint32_t seq, Clock::time_point arrived) {
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

  // Once per receiver and frame, after Record; the last one wakes WaitAllDelivered.
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
    RunFigures figures;
    figures.fps = static_cast<double>(Frames()) / seconds;
    figures.p50Us = PercentileUs(m_latencyNs, 0.50);
    figures.p99Us = PercentileUs(m_latencyNs, 0.99);
    figures.latencyNs = m_latencyNs;
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

// The yardstick: one locked queue of frame pointers drained by a fixed set of threads, each
// frame queued once per receiver. The frame number travels in the frame itself.
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

  // Stamps the frame with its number and queues it once per receiver; always taken.
  bool Send(OsvGraphicBuffer& frame, uint32_t seq) {
    frame.SetSrcImgNo(seq);
    // Every reference is taken before any is queued, so no receiver can free it early.
    for (size_t i = 0; i < m_fanOut; ++i) {
      frame.IncreaseRef();
    }
    {
      std::lock_guard<std::mutex> lock(m_lock);
      for (size_t i = 0; i < m_fanOut; ++i) {
        m_queue.push(&frame);
      }
    }
    for (size_t i = 0; i < m_fanOut; ++i) {
      m_ready.notify_one();
    }
    return true;
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
      m_log.Record(frame->GetSrcImgNo(), Clock::now());
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

// What the send loop measured.
struct SendResult {
  double seconds = 0;
  uint64_t allocations = 0;
};

// Sends one frame per iteration, as fast as frames come back: takes a free one from the
// pool, then send(frame, seq), which says whether the link took it. Measures from the first
// send until the last frame reached every receiver.
template <class Pool, class Send>
SendResult SendFrames(benchmark::State& state, Pool& pool, DeliveryLog& log, Send send) {
  uint32_t seq = 0;
  const Clock::time_point start = Clock::now();
  const uint64_t allocationsBefore = g_allocations.load();
  for (auto _ : state) {
    auto* frame = pool.Acquire();
    if (frame == nullptr) {
      state.SkipWithError("no frame came back to the producer");
      break;
    }
    log.MarkSent(seq);
    if (!send(*frame, seq)) {
      state.SkipWithError("the link refused a frame");
      break;
    }
    // The last iteration also waits for delivery, so the rate counts frames received rather
    // than frames queued.
    if (++seq == log.Frames() && !log.WaitAllDelivered()) {
      state.SkipWithError("not every frame reached every receiver");
      break;
    }
  }
  return {std::chrono::duration<double>(Clock::now() - start).count(),
          g_allocations.load() - allocationsBefore};
}

// One side of a paced run: where its frames come from, its log, and how it sends a frame
// (false when the link refused it).
struct PacedSide {
  FramePool& pool;
  DeliveryLog& log;
  std::function<bool(OsvGraphicBuffer& frame, uint32_t seq)> send;
};

// A paced run puts both sides of a comparison into one run, each sending at paceHz, their
// frames half a period apart, so that both meet the machine in the same state: on a
// virtual machine wake-up latency moves from one second to the next by more than anything
// measured here, and runs made one after the other each caught a spell of their own. Heap
// allocations count for the side whose frame went out last: a frame is delivered long before
// the other side's is due.
inline std::array<SendResult, 2> SendSideBySide(benchmark::State& state, int64_t paceHz,
                                                const std::array<PacedSide*, 2>& sides) {
  const auto step = std::chrono::duration_cast<Clock::duration>(
      std::chrono::nanoseconds(static_cast<int64_t>(0.5e9 / static_cast<double>(paceHz))));
  std::array<uint32_t, 2> seq{};
  std::array<uint64_t, 2> allocations{};
  uint64_t tick = 0;
  const Clock::time_point start = Clock::now();
  uint64_t mark = g_allocations.load();
  for (auto _ : state) {
    const size_t side = tick % 2;
    std::this_thread::sleep_until(start + step * tick++);
    const uint64_t now = g_allocations.load();
    allocations[1 - side] += now - mark;
    mark = now;
    PacedSide& sender = *sides[side];
    OsvGraphicBuffer* frame = sender.pool.Acquire();
    if (frame == nullptr) {
      state.SkipWithError("no frame came back to the producer");
      break;
    }
    sender.log.MarkSent(seq[side]);
    if (!sender.send(*frame, seq[side]++)) {
      state.SkipWithError("the link refused a frame");
      break;
    }
  }
  for (PacedSide* waited : sides) {
    if (!state.error_occurred() && !waited->log.WaitAllDelivered()) {
      state.SkipWithError("not every frame reached every receiver");
    }
  }
  allocations[(tick + 1) % 2] += g_allocations.load() - mark;
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return {SendResult{seconds, allocations[0]}, SendResult{seconds, allocations[1]}};
}

// Checks the run and publishes its counters, their names after prefix; call once nothing can
// touch the frames. Nothing when the run failed (already reported to the benchmark).
inline std::optional<RunFigures> Report(benchmark::State& state, const DeliveryLog& log,
                                        bool allFramesReturned, const SendResult& sent,
                                        size_t fanOut, const std::string& prefix = "") {
  if (state.error_occurred()) {
    return std::nullopt;
  }
  if (const char* fault = log.Fault()) {
    state.SkipWithError(fault);
    return std::nullopt;
  }
  if (!allFramesReturned) {
    state.SkipWithError("a frame is still held after every receiver finished");
    return std::nullopt;
  }
  RunFigures run = log.Figures(sent.seconds);
  run.allocsPerDelivery = static_cast<double>(sent.allocations) /
                          static_cast<double>(log.Frames() * std::max<size_t>(fanOut, 1));
  state.counters[prefix + "allocs_per_frame_sink"] = run.allocsPerDelivery;
  state.counters[prefix + "fps"] =
      benchmark::Counter(static_cast<double>(log.Frames()), benchmark::Counter::kIsRate);
  state.counters[prefix + "p50_us"] = run.p50Us;
  state.counters[prefix + "p99_us"] = run.p99Us;
  return run;
}

// Our side of one comparison in the closing table, every run of it pooled; its yardstick is
// the locked-queue runs with the same fan-out and pace.
struct SummaryRow {
  std::string scenario;
  int64_t fanOut = 0;
  int64_t paceHz = 0;
  RunFigures ours;
};

using BaselineKey = std::pair<int64_t, int64_t>;  // fan-out, pace

inline void PrintSummary(const std::vector<SummaryRow>& rows,
                         const std::map<BaselineKey, RunFigures>& baselines) {
  // "x": ours over the yardstick's, so below 1 is better for latency, above 1 for the rate.
  std::printf("\n%-26s %9s %9s %6s %17s %17s %11s %13s\n", "scenario", "ours fps", "base fps",
              "ratio", "ours p50/p99 us", "base p50/p99 us", "p50/p99 x", "allocs o/b");
  for (const SummaryRow& row : rows) {
    const RunFigures& ours = row.ours;
    const std::string name =
        row.scenario + (row.paceHz == 0 ? "" : " @" + std::to_string(row.paceHz) + "Hz");
    const auto baseline = baselines.find({row.fanOut, row.paceHz});
    if (baseline == baselines.end()) {
      std::printf("%-26s %9.0f %9s %6s %8.1f/%-8.1f %17s %11s %6.2f/%-6s\n", name.c_str(), ours.fps,
                  "-", "-", ours.p50Us, ours.p99Us, "-", "-", ours.allocsPerDelivery, "-");
      continue;
    }
    const RunFigures& base = baseline->second;
    std::printf("%-26s %9.0f %9.0f %6.2f %8.1f/%-8.1f %8.1f/%-8.1f %5.2f/%-5.2f %6.2f/%-6.2f\n",
                name.c_str(), ours.fps, base.fps, ours.fps / base.fps, ours.p50Us, ours.p99Us,
                base.p50Us, base.p99Us, ours.p50Us / base.p50Us, ours.p99Us / base.p99Us,
                ours.allocsPerDelivery, base.allocsPerDelivery);
  }
}

}  // namespace handoff_bench
