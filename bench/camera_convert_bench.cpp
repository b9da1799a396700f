// Per-frame cost of the capture manager's conversion next to the direct libyuv call on the
// same input in the same run: YUY2 720p, NV12 1080p, MJPEG 1080p and NV12 1080p rotated by
// 90 degrees. The manager's figure includes what every frame costs it (the size and data
// checks and its fresh I420 block); the direct call writes into a buffer kept across
// iterations. The closing table prints manager / libyuv for each case (the medians when
// run with --benchmark_repetitions).

#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "camera/tavo_video_vlink_capture_manager.h"
#include "tools/common/jpeg_util.h"

namespace {

struct Case {
  const char* name;
  uint32_t format;
  uint32_t width;
  uint32_t height;
  uint32_t rotation;
};

const Case kCases[] = {
    {"YUY2_720p", PELV_IMAGE_FORMAT_YUY2, 1280, 720, 0},
    {"NV12_1080p", PELV_IMAGE_FORMAT_NV12, 1920, 1080, 0},
    {"MJPEG_1080p", PELV_IMAGE_FORMAT_MJPEG, 1920, 1080, 0},
    {"NV12_1080p_rot90", PELV_IMAGE_FORMAT_NV12_ROTATE, 1920, 1080, 90},
};

// The camera's raw frame for a case: a moving-bars picture in the case's format.
std::vector<uint8_t> RawFrame(const Case& c) {
  const std::vector<uint8_t> i420 = MakePatternI420(c.width, c.height, 1);
  const int w = static_cast<int>(c.width);
  const int h = static_cast<int>(c.height);
  const uint8_t* y = i420.data();
  const uint8_t* u = y + w * h;
  const uint8_t* v = u + (w / 2) * (h / 2);
  std::vector<uint8_t> raw;
  switch (c.format) {
    case PELV_IMAGE_FORMAT_YUY2:
      raw.resize(size_t(w) * h * 2);
      libyuv::I420ToYUY2(y, w, u, w / 2, v, w / 2, raw.data(), w * 2, w, h);
      break;
    case PELV_IMAGE_FORMAT_MJPEG:
      raw = EncodeI420Jpeg(i420.data(), c.width, c.height);
      break;
    default:
      raw.resize(size_t(w) * h * 3 / 2);
      libyuv::I420ToNV12(y, w, u, w / 2, v, w / 2, raw.data(), w, raw.data() + w * h, w, w, h);
      break;
  }
  return raw;
}

// The libyuv call the manager makes for a case, into `out` (packed I420 of the output size).
int DirectCall(const Case& c, const std::vector<uint8_t>& raw, std::vector<uint8_t>& out) {
  const int w = static_cast<int>(c.width);
  const int h = static_cast<int>(c.height);
  const bool turned = c.rotation == 90 || c.rotation == 270;
  const int ow = turned ? h : w;
  const int oh = turned ? w : h;
  uint8_t* y = out.data();
  uint8_t* u = y + ow * oh;
  uint8_t* v = u + ow * oh / 4;
  switch (c.format) {
    case PELV_IMAGE_FORMAT_YUY2:
      return libyuv::YUY2ToI420(raw.data(), w * 2, y, ow, u, ow / 2, v, ow / 2, w, h);
    case PELV_IMAGE_FORMAT_NV12:
      return libyuv::NV12ToI420(raw.data(), w, raw.data() + w * h, w, y, ow, u, ow / 2, v, ow / 2,
                                w, h);
    case PELV_IMAGE_FORMAT_MJPEG:
      return libyuv::MJPGToI420(raw.data(), raw.size(), y, ow, u, ow / 2, v, ow / 2, w, h, w, h);
    default:
      return libyuv::NV12ToI420Rotate(raw.data(), w, raw.data() + w * h, w, y, ow, u, ow / 2, v,
                                      ow / 2, w, h, libyuv::kRotate90);
  }
}

void BM_Manager(benchmark::State& state, const Case& c) {
  std::vector<uint8_t> raw = RawFrame(c);
  DevCaptureManager manager;
  for (auto _ : state) {
    _PEL_V_FRAME frame{};
    frame.format = c.format;
    frame.width = c.width;
    frame.height = c.height;
    frame.rotation = c.rotation;
    frame.data = raw.data();
    frame.dataSize = static_cast<uint32_t>(raw.size());
    if (manager.FrameConvert(frame) != 0) {
      state.SkipWithError("conversion failed");
      break;
    }
    benchmark::DoNotOptimize(frame.data);
    DevCaptureManager::ReleaseBuffer(frame.data);
  }
}

void BM_Libyuv(benchmark::State& state, const Case& c) {
  std::vector<uint8_t> raw = RawFrame(c);
  std::vector<uint8_t> out(DevCaptureManager::BlockSize(c.width, c.height));
  for (auto _ : state) {
    if (DirectCall(c, raw, out) != 0) {
      state.SkipWithError("conversion failed");
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
}

// Keeps each run's time per iteration for the closing table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    // With --benchmark_repetitions the median stands for the case; else the one run.
    for (const Run& run : runs) {
      if (run.error_occurred) {
        continue;
      }
      const std::string name = run.run_name.function_name;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        medians[name] = run.GetAdjustedRealTime();
      } else if (run.run_type == Run::RT_Iteration) {
        times[name] = run.GetAdjustedRealTime();
      }
    }
    for (const auto& [name, time] : medians) {
      times[name] = time;
    }
  }
  std::map<std::string, double> times;
  std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
  for (const Case& c : kCases) {
    benchmark::RegisterBenchmark((std::string("libyuv/") + c.name).c_str(), BM_Libyuv, c)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark((std::string("manager/") + c.name).c_str(), BM_Manager, c)
        ->Unit(benchmark::kMicrosecond);
  }
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n%-20s %12s %12s %8s\n", "case", "libyuv us", "manager us", "ratio");
  for (const Case& c : kCases) {
    const auto direct = reporter.times.find(std::string("libyuv/") + c.name);
    const auto ours = reporter.times.find(std::string("manager/") + c.name);
    if (direct == reporter.times.end() || ours == reporter.times.end() || direct->second <= 0) {
      continue;
    }
    std::printf("%-20s %12.1f %12.1f %7.3fx\n", c.name, direct->second, ours->second,
                ours->second / direct->second);
  }
  benchmark::Shutdown();
  return 0;
}
