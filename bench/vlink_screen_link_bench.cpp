// CPU time per delivered frame of a whole screen link (screen input to an encoder sink, as
// a host drives it through the built library) next to two other screen grabbers with the
// same output, I420 at 1920x1080, on one private 1920x1080x24 Xvfb, in two scenes drawn by
// a separate process (its time counts for nobody):
//   moving: a desktop with four shapes moving every 33 ms and a clock;
//   still:  the same desktop where only the clock's text changes, once a second.
// Peers (bench/install-peers.sh):
//   gst-launch-1.0 ximagesrc [use-damage=true in the still scene] ! videoconvert ! I420 ! fakesink
//   ffmpeg -f x11grab ... -pix_fmt yuv420p -f null -
// Our time is this process's (capture thread, pool workers, the host's callback); a peer's is
// its child process's; neither counts the X server. Also: our whole-process CPU over 10 s of
// the still scene, as a share of one core.
#include <X11/Xlib.h>
#include <dlfcn.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
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
constexpr int kFrames = 200;
constexpr int kWarmUp = 20;
constexpr int kIdleSeconds = 10;

extern "C" char** environ;

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

// The scene: a desktop, a window, a clock; in the moving scene four shapes move.
int RunScene(const char* display, bool moving) {
  Display* x = XOpenDisplay(display);
  if (x == nullptr) {
    return 1;
  }
  const Window root = DefaultRootWindow(x);
  const GC gc = XCreateGC(x, root, 0, nullptr);
  XSetForeground(x, gc, 0x2b4f7a);
  XFillRectangle(x, root, gc, 0, 0, kWidth, kHeight);
  XSetForeground(x, gc, 0xe8e8e8);
  XFillRectangle(x, root, gc, 200, 150, 900, 600);
  int last[4][2] = {};
  for (int frame = 0;; ++frame) {
    const double t = frame / 30.0;
    if (moving) {
      for (int i = 0; i < 4; ++i) {
        XSetForeground(x, gc, 0x2b4f7a);
        XFillRectangle(x, root, gc, last[i][0], last[i][1], 160, 120);
        const double phase = t * (0.6 + 0.25 * i) + i;
        last[i][0] = static_cast<int>((kWidth - 160) * (0.5 + 0.5 * std::sin(phase)));
        last[i][1] = static_cast<int>((kHeight - 120) * (0.5 + 0.5 * std::cos(phase * 1.3)));
        XSetForeground(x, gc, 0xe04040 + 0x3010 * static_cast<unsigned>(i));
        XFillRectangle(x, root, gc, last[i][0], last[i][1], 160, 120);
      }
    }
    if (frame % 30 == 0) {
      const std::string clock = "12:00:" + std::to_string(10 + (frame / 30) % 50);
      XSetForeground(x, gc, 0x202020);
      XFillRectangle(x, root, gc, kWidth - 120, kHeight - 30, 110, 24);
      XSetForeground(x, gc, 0xffffff);
      XDrawString(x, root, gc, kWidth - 110, kHeight - 12, clock.c_str(),
                  static_cast<int>(clock.size()));
    }
    XSync(x, False);
    usleep(33000);
  }
}

// This program again, drawing the scene on `display` until it is stopped.
pid_t StartScene(const std::string& display, bool moving) {
  const std::string self = "/proc/self/exe";
  const char* const argv[] = {self.c_str(), "--scene", display.c_str(), moving ? "moving" : "still",
                              nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, self.c_str(), nullptr, nullptr, const_cast<char* const*>(argv), environ) !=
      0) {
    return -1;
  }
  usleep(300000);  // its first picture is on the screen
  return pid;
}

void StopScene(pid_t pid) {
  if (pid > 0) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
}

// The host's encoder: gives every frame back at once from its own thread. Only that thread
// is woken per frame, after the lock is let go; the measuring thread only at the counts it
// waits for (a host has no such thread: its wake-ups are not the link's cost).
std::mutex g_lock;                        // guards g_pending, g_frames and g_quit
std::condition_variable g_pendingSignal;  // frames to give back, or quit
std::condition_variable g_countSignal;    // g_frames reached kWarmUp or kWarmUp + kFrames
std::vector<VencOutFrame*> g_pending;
int g_frames = 0;
bool g_quit = false;

uint32_t OnEncCreate(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t OnEncFrame(uint32_t, uint32_t, uint32_t, VencOutFrame* frame) {
  bool first = false;
  bool counted = false;
  {
    std::lock_guard<std::mutex> lock(g_lock);
    first = g_pending.empty();
    g_pending.push_back(frame);
    ++g_frames;
    counted = g_frames == kWarmUp || g_frames == kWarmUp + kFrames;
  }
  if (first) {
    g_pendingSignal.notify_one();
  }
  if (counted) {
    g_countSignal.notify_all();
  }
  return 1;
}

// What the process used over kIdleSeconds of a link left running.
struct IdleFigures {
  double coreShare = -1;  // of one core
  double framesPerSecond = 0;
};

int FramesSoFar() {
  std::lock_guard<std::mutex> lock(g_lock);
  return g_frames;
}

// Our link: CPU seconds per frame over kFrames frames after a warm-up (negative on
// failure); with `idle`, also what the process used over kIdleSeconds after them.
double OurLink(IdleFigures* idle) {
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

  std::thread releaser([&] {
    std::unique_lock<std::mutex> lock(g_lock);
    while (!g_quit) {
      g_pendingSignal.wait(lock, [&] { return g_quit || !g_pending.empty(); });
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
      g_countSignal.wait(lock, [] { return g_frames >= kWarmUp; });
      start = SelfCpuSeconds();
      g_countSignal.wait(lock, [] { return g_frames >= kWarmUp + kFrames; });
    }
    result = (SelfCpuSeconds() - start) / kFrames;
    if (idle != nullptr) {
      const int framesBefore = FramesSoFar();
      const double idleStart = SelfCpuSeconds();
      std::this_thread::sleep_for(std::chrono::seconds(kIdleSeconds));
      idle->coreShare = (SelfCpuSeconds() - idleStart) / kIdleSeconds;
      idle->framesPerSecond = static_cast<double>(FramesSoFar() - framesBefore) / kIdleSeconds;
    }
    Find(unbind, unbindCount, TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_SCREEN)(2, 1);
  }
  Find(destroy, destroyCount, TAVO_VIDEO_COMPONENT_SCREEN)(1);
  {
    std::lock_guard<std::mutex> lock(g_lock);
    g_quit = true;
    g_pendingSignal.notify_all();
  }
  releaser.join();
  g_frames = 0;
  g_quit = false;
  for (VencOutFrame* frame : g_pending) {
    release(frame);
  }
  Find(destroy, destroyCount, TAVO_VIDEO_COMPONENT_ENCODER)(2);
  return result;
}

struct Figures {
  double ours = -1;
  double gst = -1;
  double ffmpeg = -1;
};

Figures RunScenario(const XvfbServer& server, bool moving, IdleFigures* idle) {
  Figures figures;
  const pid_t scene = StartScene(server.Name(), moving);
  figures.ours = OurLink(idle);
  // A peer's start-up (plugin registry, device probing) is taken out: its time for a short
  // run is subtracted from its time for a run kFrames longer.
  const std::string damage = moving ? "" : " use-damage=true";
  const auto gstRun = [&](int count) {
    return ChildCpuSeconds("gst-launch-1.0 -q ximagesrc" + damage +
                           " num-buffers=" + std::to_string(count) +
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
  figures.gst = (gstRun(kWarmUp + kFrames) - gstRun(kWarmUp)) / kFrames;
  figures.ffmpeg = (ffmpegRun(kWarmUp + kFrames) - ffmpegRun(kWarmUp)) / kFrames;
  StopScene(scene);
  return figures;
}

void Print(const char* scene, const Figures& f) {
  std::printf("%s scene, CPU ms per delivered 1920x1080 I420 frame (%d frames each)\n", scene,
              kFrames);
  std::printf("  screen link (ours)     %8.3f\n", f.ours * 1e3);
  std::printf("  gstreamer ximagesrc    %8.3f\n", f.gst * 1e3);
  std::printf("  ffmpeg x11grab         %8.3f\n", f.ffmpeg * 1e3);
  if (f.ours > 0 && f.gst > 0) {
    std::printf("  gstreamer / ours       %8.2f\n", f.gst / f.ours);
  }
  if (f.ours > 0 && f.ffmpeg > 0) {
    std::printf("  ffmpeg / ours          %8.2f\n", f.ffmpeg / f.ours);
  }
}

void PrintIdle(const IdleFigures& idle) {
  std::printf("still scene, whole process over %d s: %.2f %% of one core (%.1f frames/s",
              kIdleSeconds, idle.coreShare * 100, idle.framesPerSecond);
  if (idle.framesPerSecond > 0) {
    std::printf(", %.3f ms a frame", idle.coreShare * 1e3 / idle.framesPerSecond);
  }
  std::printf(")\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--scene") == 0) {
    return RunScene(argv[2], std::strcmp(argv[3], "moving") == 0);
  }
  XvfbServer server({{kWidth, kHeight, 24}});
  if (!server.Ok()) {
    std::fprintf(stderr, "Xvfb: %s\n", server.Error().c_str());
    return 1;
  }
  setenv("DISPLAY", server.Name().c_str(), 1);
  if (argc == 2 && std::strcmp(argv[1], "--ours-only") == 0) {  // for profiling
    for (const bool moving : {true, false}) {
      const pid_t scene = StartScene(server.Name(), moving);
      IdleFigures idle;
      std::printf("%s scene: ours %.3f ms a frame\n", moving ? "moving" : "still",
                  OurLink(moving ? nullptr : &idle) * 1e3);
      if (!moving) {
        PrintIdle(idle);
      }
      StopScene(scene);
    }
    return 0;
  }
  const Figures moving = RunScenario(server, true, nullptr);
  IdleFigures idle;
  const Figures still = RunScenario(server, false, &idle);
  Print("moving", moving);
  Print("still", still);
  PrintIdle(idle);
  return moving.ours > 0 && still.ours > 0 ? 0 : 1;
}
