// The virtual background at 1280x720 and 30 frames a second, with the real inference client
// and model, next to the same link with the effect off, in one run:
//  - latency from the producer's hand-off to the sink, p50 and p99, and what the effect adds;
//  - CPU time per frame (all threads of the process: pool, handle thread, the client's
//    inference thread and OpenCV's workers) and the share of one core;
//  - stability on a still clip: the share of output pixels whose luma jumps by more than 24
//    from one frame to the next while the scene stands still (sensor noise only), which is
//    the mask flickering between person and background.
// usage: vlink_background_bench [frames per mode, default 300]
#include <libyuv.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <thread>
#include <vector>

#include "background/tavo_video_background_virtuality.h"
#include "core/tavo_video_vlink_node.h"
#include "platform/adapt_common/om_log.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
constexpr uint32_t kWidth = 1280;
constexpr uint32_t kHeight = 720;
constexpr int kStillVariants = 8;

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The producer: frames come from a pool and go back to it when the last holder lets go.
class Producer : public VideoVlinkNode {
 public:
  Producer() : VideoVlinkNode(1, OS_E_MPP_DEV_CAMERA) { m_nodeName = "BENCH_CAM"; }
  void ReleaseFrame(OsvGraphicBuffer* buffer) override {
    std::lock_guard<std::mutex> lock(m_lock);
    m_free.push_back(buffer);
  }
  OsvGraphicBuffer* Take() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_free.empty()) {
      m_all.push_back(
          std::make_unique<OsvGraphicBuffer>(kWidth, kHeight, TAVO_VIDEO_VLINK_FORMAT_I420));
      return m_all.back().get();
    }
    OsvGraphicBuffer* buffer = m_free.back();
    m_free.pop_back();
    return buffer;
  }
  size_t FreeCount() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_free.size();
  }
  size_t Made() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_all.size();
  }

 private:
  std::mutex m_lock;  // guards both lists
  std::vector<std::unique_ptr<OsvGraphicBuffer>> m_all;
  std::vector<OsvGraphicBuffer*> m_free;
};

// The sink: when each frame arrived, and the luma of the last one.
class Sink : public VideoVlinkNode {
 public:
  Sink() : VideoVlinkNode(2, OS_E_MPP_DEV_VENC) { m_nodeName = "BENCH_SINK"; }
  uint32_t HandleBuffer(FrameRef& frame) override {
    const auto now = SteadyClock::now();
    std::lock_guard<std::mutex> lock(m_lock);
    arrivals[frame->GetSrcImgNo()] = now;
    const OsvGraphicBufferInfo info = frame->GetImageInfo();
    cv::Mat luma(kHeight, kWidth, CV_8U, frame->GetImageAddr(0), info.stride[0]);
    if (!last.empty()) {
      cv::Mat diff;
      cv::absdiff(luma, last, diff);
      jumps += static_cast<uint64_t>(cv::countNonZero(diff > 24));
      compared += 1;
    }
    luma.copyTo(last);
    return 0;
  }
  std::mutex m_lock;  // guards everything below
  std::map<uint32_t, SteadyClock::time_point> arrivals;
  cv::Mat last;
  uint64_t jumps = 0;
  uint64_t compared = 0;
};

struct Figures {
  double p50Ms = 0, p99Ms = 0, cpuMsPerFrame = 0, cores = 0, flicker = 0;
  size_t delivered = 0;
};

double Percentile(std::vector<double> values, double share) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  const size_t at =
      std::min(values.size() - 1, static_cast<size_t>(share * static_cast<double>(values.size())));
  return values[at];
}

Figures Run(bool effect, const std::vector<std::vector<uint8_t>>& still, int frames,
            const std::string& background) {
  auto producer = std::make_shared<Producer>();
  auto sink = std::make_shared<Sink>();
  auto node = std::make_shared<BackgroundVirtualityNode>(10001);
  node->ConnectToNode(sink);
  sink->ConnectFromNode(node);
  sink->StartProcess();
  node->StartProcess();
  BackgroundVirtualityParams param{};
  std::strncpy(param.bgImagePath, background.c_str(), sizeof param.bgImagePath - 1);
  param.width = kWidth;
  param.height = kHeight;
  param.frameRate = 30;
  node->SetParam(param);
  if (effect && (node->SetEnable(true) != 0 || !node->IsRunning())) {
    std::fprintf(stderr, "the effect did not start: is the client built and the model set up?\n");
    std::exit(1);
  }
  std::map<uint32_t, SteadyClock::time_point> sent;
  const auto period = std::chrono::microseconds(33333);
  auto next = SteadyClock::now();
  // A second of warm-up frames first (model load, first allocations), not measured.
  const int warmUp = 30;
  double cpuStart = 0;
  SteadyClock::time_point wallStart;
  for (int i = 0; i < warmUp + frames; ++i) {
    if (i == warmUp) {
      cpuStart = CpuSeconds();
      wallStart = SteadyClock::now();
    }
    std::this_thread::sleep_until(next);
    next += period;
    OsvGraphicBuffer* frame = producer->Take();
    frame->SetReleaseTarget(producer);
    std::memcpy(frame->GetBufHandle(), still[i % still.size()].data(), still[0].size());
    frame->SetSrcImgNo(static_cast<uint32_t>(i));
    const auto now = SteadyClock::now();
    if (i >= warmUp) {
      sent[static_cast<uint32_t>(i)] = now;
    }
    FrameRef mine = FrameRef::Share(frame);
    producer->SendBuffer(node, frame);
  }
  // Let the last frames through, then stop everything.
  const auto deadline = SteadyClock::now() + std::chrono::seconds(5);
  while (producer->FreeCount() < producer->Made() && SteadyClock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const double cpu = CpuSeconds() - cpuStart;
  const double wall = std::chrono::duration<double>(SteadyClock::now() - wallStart).count();
  node->Shutdown();
  sink->Shutdown();
  node->DisconnectFromNode(sink, true);
  sink->DisconnectFromNode(node, false);
  producer->Shutdown();

  Figures f;
  std::vector<double> latencies;
  {
    std::lock_guard<std::mutex> lock(sink->m_lock);
    for (const auto& [number, at] : sent) {
      auto it = sink->arrivals.find(number);
      if (it != sink->arrivals.end()) {
        latencies.push_back(std::chrono::duration<double, std::milli>(it->second - at).count());
      }
    }
    f.flicker = sink->compared == 0
                    ? 0
                    : static_cast<double>(sink->jumps) /
                          (static_cast<double>(sink->compared) * double{kWidth * kHeight});
  }
  f.delivered = latencies.size();
  f.p50Ms = Percentile(latencies, 0.50);
  f.p99Ms = Percentile(latencies, 0.99);
  f.cpuMsPerFrame = cpu * 1000.0 / frames;
  f.cores = cpu / wall;
  return f;
}

}  // namespace

int main(int argc, char** argv) {
  const int frames = argc > 1 ? std::max(30, std::atoi(argv[1])) : 300;
  if (const char* log = std::getenv("TAVO_OM_LOG")) {
    OmLogSetOutput(log);
  }
  cv::Mat photo = cv::imread(VLINK_TESTDATA_DIR "/astronaut.png", cv::IMREAD_COLOR);
  if (photo.empty()) {
    std::fprintf(stderr, "astronaut.png missing: run scripts/install-models.sh\n");
    return 1;
  }
  cv::Mat bgr;
  cv::resize(photo(cv::Rect(0, 64, 512, 288)), bgr, cv::Size(kWidth, kHeight));
  // A still clip: the same picture with a little sensor noise on every frame.
  std::vector<std::vector<uint8_t>> still;
  cv::theRNG().state = 11;
  for (int i = 0; i < kStillVariants; ++i) {
    cv::Mat noise(bgr.size(), CV_16SC3);
    cv::randn(noise, 0, 3);
    cv::Mat shot;
    cv::add(bgr, noise, shot, cv::noArray(), CV_8UC3);
    OsvGraphicBuffer i420(kWidth, kHeight, TAVO_VIDEO_VLINK_FORMAT_I420);
    const OsvGraphicBufferInfo info = i420.GetImageInfo();
    libyuv::RGB24ToI420(shot.data, static_cast<int>(shot.step[0]), i420.GetImageAddr(0),
                        info.stride[0], i420.GetImageAddr(1), info.stride[1], i420.GetImageAddr(2),
                        info.stride[2], kWidth, kHeight);
    const auto* bytes = static_cast<const uint8_t*>(i420.GetBufHandle());
    still.emplace_back(bytes, bytes + info.size);
  }
  const std::string background = "/tmp/vlink_background_bench_bg.png";
  cv::imwrite(background, cv::Mat(kHeight, kWidth, CV_8UC3, cv::Scalar(40, 160, 60)));

  std::printf("1280x720 at 30 fps, %d frames per mode, %u cores\n", frames,
              std::thread::hardware_concurrency());
  const Figures off = Run(false, still, frames, background);
  const Figures on = Run(true, still, frames, background);
  std::remove(background.c_str());
  std::printf("%-14s %9s %9s %9s %12s %7s %10s\n", "mode", "delivered", "p50 ms", "p99 ms",
              "cpu ms/frame", "cores", "flicker");
  for (const auto& [name, f] : {std::pair{"pass-through", off}, std::pair{"virtual bg", on}}) {
    std::printf("%-14s %9zu %9.2f %9.2f %12.2f %7.3f %10.5f\n", name, f.delivered, f.p50Ms, f.p99Ms,
                f.cpuMsPerFrame, f.cores, f.flicker);
  }
  std::printf(
      "added latency: p50 %.2f ms (target <= 15), p99 %.2f ms (target <= 35); "
      "added cpu %.3f cores (target < 0.5)\n",
      on.p50Ms - off.p50Ms, on.p99Ms - off.p99Ms, on.cores - off.cores);
  return 0;
}
