// CPU time per delivered frame of a whole screen link (screen input to an encoder sink, as
// a host drives it through the built library) next to two other screen grabbers with the
// same output, I420 at 1920x1080, on one private 1920x1080x24 Xvfb:
//   gst-launch-1.0 ximagesrc use-damage=false ! videoconvert ! video/x-raw,format=I420 ! fakesink
//   ffmpeg -f x11grab ... -pix_fmt yuv420p -f null -
// The peers come from bench/install-peers.sh. Our time is this process's (capture thread,
// pool workers and the host's callback); a peer's is its child process's. Neither counts
// the X server. Prints each figure and the ratios ours / peer.
#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tavo_video_vlink.h"
#include "tests/support/table_rows.h"
#include "tools/common/xvfb_server.h"

namespace {

constexpr uint32_t kWidth = 1920;
constexpr uint32_t kHeight = 1080;
constexpr int kFrames = 300;
constexpr int kWarmUp = 30;

double CpuSeconds(const rusage& usage) {
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double SelfCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return CpuSeconds(usage);
}

// Runs a shell command line to its end; its CPU seconds, or a negative value on failure.
double ChildCpuSeconds(const std::string& command) {
  const pid_t pid = fork();
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (pid < 0 || wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return -1;
  }
  return CpuSeconds(usage);
}

// The host's encoder: gives every frame back at once from its own thread.
std::mutex g_lock;  // guards g_pending and g_frames
std::condition_variable g_changed;
std::vector<VencOutFrame*> g_pending;
int g_frames = 0;

uint32_t OnEncCreate(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t OnEncFrame(uint32_t, uint32_t, uint32_t, VencOutFrame* frame) {
  std::lock_guard<std::mutex> lock(g_lock);
  g_pending.push_back(frame);
  ++g_frames;
  g_changed.notify_all();
  return 1;
}

// Our link: CPU seconds per frame over kFrames frames after a warm-up; negative on failure.
double OurLink() {
  void* library = dlopen(VLINK_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "dlopen: %s\n", dlerror());
    return -1;
  }
  const tagTavoVideoCreateFuncMap* create = nullptr;
  const tagTavoVideoBindFuncMap* bind = nullptr;
  const tagTavoVideoBindFuncMap* unbind = nullptr;
  const tagTavoVideoDestroyFuncMap* destroy = nullptr;
  uint32_t createCount = 0, bindCount = 0, unbindCount = 0, destroyCount = 0;
  Symbol<decltype(TavoVideoGetCreateNodeFuncMap)>(library, "TavoVideoGetCreateNodeFuncMap")(
      &create, &createCount);
  Symbol<decltype(TavoVideoGetBindNodeFuncMap)>(library, "TavoVideoGetBindNodeFuncMap")(&bind,
                                                                                        &bindCount);
  Symbol<decltype(TavoVideoGetUnBindNodeFuncMap)>(library, "TavoVideoGetUnBindNodeFuncMap")(
      &unbind, &unbindCount);
  Symbol<decltype(TavoVideoGetDestroyNodeFuncMap)>(library, "TavoVideoGetDestroyNodeFuncMap")(
      &destroy, &destroyCount);
  auto* getContainer =
      Symbol<decltype(TavoVideoGetDataContainer)>(library, "TavoVideoGetDataContainer");
  auto* release = Symbol<decltype(TavoVideoReleaseVEncFrame)>(library, "TavoVideoReleaseVEncFrame");
  const auto store = [&](uint32_t component, uint32_t node) {
    DataContainer* container =
        getContainer(("Node[" + std::to_string(component) + "]PresentParam").c_str());
    container->SetDataByString<uint32_t>("imgNo", node);
    container->SetDataByString<uint32_t>("portId", 0);
  };
  auto param = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(param.get(), 0, sizeof(*param));
  param->screen.width = kWidth;
  param->screen.height = kHeight;
  param->screen.frameRate = 30;
  store(1, 90);
  Find(create, createCount, TAVO_VIDEO_COMPONENT_SCREEN)(1, param.get());
  std::memset(param.get(), 0, sizeof(*param));
  param->venc.width = kWidth;
  param->venc.height = kHeight;
  param->venc.frameRate = 30;
  param->venc.encOutFunc = OnEncFrame;
  param->venc.encCreateFunc = OnEncCreate;
  store(2, 5);
  Find(create, createCount, TAVO_VIDEO_COMPONENT_ENCODER)(2, param.get());

  std::atomic<bool> quit{false};
  std::thread releaser([&] {
    std::unique_lock<std::mutex> lock(g_lock);
    while (!quit) {
      g_changed.wait(lock, [&] { return quit || !g_pending.empty(); });
      std::vector<VencOutFrame*> frames;
      frames.swap(g_pending);
      lock.unlock();
      for (VencOutFrame* frame : frames) {
        release(frame);
      }
      lock.lock();
    }
  });
  double result = -1;
  if (Find(bind, bindCount, TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_SCREEN)(2, 1) == 0) {
    double start = 0;
    {
      std::unique_lock<std::mutex> lock(g_lock);
      g_changed.wait(lock, [] { return g_frames >= kWarmUp; });
      start = SelfCpuSeconds();
      g_changed.wait(lock, [] { return g_frames >= kWarmUp + kFrames; });
    }
    result = (SelfCpuSeconds() - start) / kFrames;
    Find(unbind, unbindCount, TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_SCREEN)(2, 1);
  }
  Find(destroy, destroyCount, TAVO_VIDEO_COMPONENT_SCREEN)(1);
  {
    std::lock_guard<std::mutex> lock(g_lock);
    quit = true;
    g_changed.notify_all();
  }
  releaser.join();
  for (VencOutFrame* frame : g_pending) {
    release(frame);
  }
  Find(destroy, destroyCount, TAVO_VIDEO_COMPONENT_ENCODER)(2);
  return result;
}

}  // namespace

int main() {
  XvfbServer server({{kWidth, kHeight, 24}});
  if (!server.Ok()) {
    std::fprintf(stderr, "Xvfb: %s\n", server.Error().c_str());
    return 1;
  }
  setenv("DISPLAY", server.Name().c_str(), 1);
  server.PutPixels(0, 0, 0, kWidth, kHeight, PatternPixels(kWidth, kHeight, 7));
  const double ours = OurLink();
  // A peer's start-up (plugin registry, device probing) is taken out: its time for a short
  // run is subtracted from its time for a run kFrames longer.
  const auto gstRun = [&](int count) {
    return ChildCpuSeconds(
        "gst-launch-1.0 -q ximagesrc use-damage=false num-buffers=" + std::to_string(count) +
        " ! video/x-raw,framerate=30/1 ! videoconvert ! "
        "video/x-raw,format=I420 ! fakesink > /dev/null 2>&1");
  };
  const auto ffmpegRun = [&](int count) {
    return ChildCpuSeconds("ffmpeg -loglevel error -nostdin -f x11grab -framerate 30 -video_size " +
                           std::to_string(kWidth) + "x" + std::to_string(kHeight) + " -i " +
                           server.Name() + " -frames:v " + std::to_string(count) +
                           " -pix_fmt yuv420p -f null - > /dev/null 2>&1");
  };
  gstRun(kWarmUp);  // builds the plugin registry once
  const double gst = (gstRun(kWarmUp + kFrames) - gstRun(kWarmUp)) / kFrames;
  const double ffmpeg = (ffmpegRun(kWarmUp + kFrames) - ffmpegRun(kWarmUp)) / kFrames;
  std::printf("CPU ms per delivered 1920x1080 I420 frame (%d frames each)\n", kFrames);
  std::printf("  screen link (ours)     %8.3f\n", ours * 1e3);
  std::printf("  gstreamer ximagesrc    %8.3f\n", gst * 1e3);
  std::printf("  ffmpeg x11grab         %8.3f\n", ffmpeg * 1e3);
  if (ours > 0 && gst > 0) {
    std::printf("  ours / gstreamer       %8.2f\n", ours / gst);
  }
  if (ours > 0 && ffmpeg > 0) {
    std::printf("  ours / ffmpeg          %8.2f\n", ours / ffmpeg);
  }
  return ours > 0 ? 0 : 1;
}
