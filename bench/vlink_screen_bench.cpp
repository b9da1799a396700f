// Per-frame CPU time of the screen capturer's frame step (monitor check, shared-memory
// grab, ARGB to I420 into a pooled buffer, scaling when the encoder size differs, hand-off)
// for a 1920x1080 monitor at 1080p and at 720p, next to the bare calls it is made of
// (XShmGetImage + libyuv ARGBToI420 [+ I420Scale]) on the same private Xvfb, in one run.
// Whole grabs (no damage-driven capture). Prints the ratio of each pair's medians; the aim
// is at most 1.1. Unless told otherwise, each runs 9 times, the runs of all four shuffled
// together: the machine's slow spells then fall on both sides of a pair alike.

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <benchmark/benchmark.h>
#include <libyuv.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/tavo_video_seam.h"
#include "screen/tavo_video_vlink_screen_capturer_X11.h"
#include "tests/support/fake_screen_seams.h"
#include "tools/common/xvfb_server.h"

namespace {

constexpr uint32_t kWidth = 1920;
constexpr uint32_t kHeight = 1080;

XvfbServer* g_server = nullptr;

int32_t NoCursor(VlinkCursorSendData*, uint32_t, uint32_t) { return 0; }

void BM_CapturerFrame(benchmark::State& state) {
  const auto outWidth = static_cast<uint32_t>(state.range(0));
  const auto outHeight = static_cast<uint32_t>(state.range(1));
  FakeX11DisplaySystem display(g_server->Name());
  ScopedSeamOverride<X11DisplaySystem> seam(display);
  X11ScreenCapturer capturer(90);
  capturer.UseDamage(false);  // the still test picture would make every frame free
  ViDevInfo info{};
  info.imgNo = 90;
  info.width = kWidth;
  info.height = kHeight;
  info.captureFps = 30;
  capturer.SetCaptureParams(info);
  capturer.SetEncodeResolution(outWidth, outHeight);
  VlinkCursorParams cursor{};
  cursor.isHide = 1;
  cursor.framerate = 30;
  cursor.cursorCallback = &NoCursor;
  capturer.SetCaptureCursorParams(cursor);
  capturer.SetSendFrameCallback([](const FrameRef&) { return 0; });
  if (capturer.Init() != 0) {
    state.SkipWithError("capturer init failed");
    return;
  }
  for (auto _ : state) {
    if (capturer.ScreenCaptureProcess() != 0) {
      state.SkipWithError("frame failed");
      break;
    }
  }
  capturer.DestroyVideoCapture();
}

void BM_BareCalls(benchmark::State& state) {
  const auto outWidth = static_cast<int>(state.range(0));
  const auto outHeight = static_cast<int>(state.range(1));
  Display* display = XOpenDisplay(g_server->Name().c_str());
  const int screen = DefaultScreen(display);
  XShmSegmentInfo segment{};
  XImage* image = XShmCreateImage(display, DefaultVisual(display, screen),
                                  static_cast<unsigned>(DefaultDepth(display, screen)), ZPixmap,
                                  nullptr, &segment, kWidth, kHeight);
  segment.shmid = shmget(IPC_PRIVATE, size_t(image->bytes_per_line) * kHeight, IPC_CREAT | 0600);
  segment.shmaddr = image->data = static_cast<char*>(shmat(segment.shmid, nullptr, 0));
  XShmAttach(display, &segment);
  const int w = kWidth, h = kHeight;
  std::vector<uint8_t> full(size_t(w) * h * 3 / 2);
  std::vector<uint8_t> scaled(size_t(outWidth) * outHeight * 3 / 2);
  uint8_t* y = full.data();
  uint8_t* u = y + size_t(w) * h;
  uint8_t* v = u + size_t(w) * h / 4;
  uint8_t* sy = scaled.data();
  uint8_t* su = sy + size_t(outWidth) * outHeight;
  uint8_t* sv = su + size_t(outWidth) * outHeight / 4;
  const bool scale = outWidth != w || outHeight != h;
  for (auto _ : state) {
    XShmGetImage(display, RootWindow(display, screen), image, 0, 0, AllPlanes);
    libyuv::ARGBToI420(reinterpret_cast<uint8_t*>(image->data), image->bytes_per_line, y, w, u,
                       w / 2, v, w / 2, w, h);
    if (scale) {
      libyuv::I420Scale(y, w, u, w / 2, v, w / 2, w, h, sy, outWidth, su, outWidth / 2, sv,
                        outWidth / 2, outWidth, outHeight, libyuv::kFilterBox);
    }
    benchmark::DoNotOptimize(full.data());
  }
  XShmDetach(display, &segment);
  XSync(display, False);
  image->data = nullptr;
  XDestroyImage(image);
  shmdt(segment.shmaddr);
  shmctl(segment.shmid, IPC_RMID, nullptr);
  XCloseDisplay(display);
}

BENCHMARK(BM_CapturerFrame)->Args({1920, 1080})->Args({1280, 720})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareCalls)->Args({1920, 1080})->Args({1280, 720})->Unit(benchmark::kMillisecond);

// Keeps each benchmark's CPU time per iteration, the median over its repetitions when it
// has several, so the pairs can be compared at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (median || (run.run_type == Run::RT_Iteration && run.repetitions <= 1)) {
        cpuNs[run.run_name.str()] = run.GetAdjustedCPUTime() * 1e6;  // ms to ns
      }
    }
  }
  std::map<std::string, double> cpuNs;
};

}  // namespace

int main(int argc, char** argv) {
  XInitThreads();
  XvfbServer server({{kWidth, kHeight}});
  if (!server.Ok()) {
    std::fprintf(stderr, "no Xvfb: %s\n", server.Error().c_str());
    return 1;
  }
  server.PutPixels(0, 0, 0, kWidth, kHeight, PatternPixels(kWidth, kHeight, 1));
  g_server = &server;
  std::vector<char*> args(argv, argv + argc);
  std::string repetitions = "--benchmark_repetitions=9";
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  const auto given = [&](const char* flag) {
    return std::any_of(argv + 1, argv + argc,
                       [flag](const char* arg) { return std::strstr(arg, flag) == arg; });
  };
  if (!given("--benchmark_repetitions")) {
    args.push_back(repetitions.data());
  }
  if (!given("--benchmark_enable_random_interleaving")) {
    args.push_back(interleaving.data());
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  for (const char* size : {"1920/1080", "1280/720"}) {
    std::string capturerName("BM_CapturerFrame/");
    capturerName += size;
    std::string bareName("BM_BareCalls/");
    bareName += size;
    const double capturer = reporter.cpuNs[capturerName];
    const double bare = reporter.cpuNs[bareName];
    if (bare > 0) {
      std::printf("frame step %s: capturer %.3f ms, bare calls %.3f ms, ratio %.2f (aim <= 1.1)\n",
                  size, capturer / 1e6, bare / 1e6, capturer / bare);
    }
  }
  benchmark::Shutdown();
  return 0;
}
