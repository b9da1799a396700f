#include "host_render_windows.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "host_clock.h"
#include "tools/common/host_image.h"

namespace {

// One preview window as the host keeps it. The render callback (a library thread) copies
// each frame in and counts; the main thread draws and reports.
struct WindowSlot {
  uint64_t handle = 0;
  int display = -1;          // index in the HostDisplay, or -1
  uint32_t shownFrames = 0;  // main thread only
  std::mutex lock;           // guards everything below
  RenderedFrame latest;
  uint32_t frames = 0;
  uint32_t bad = 0;  // headers this host could not read
  uint64_t firstUs = 0;
  uint64_t lastUs = 0;
  uint64_t intervalMaxUs = 0;
  uint64_t callbackSumUs = 0;
  uint64_t callbackMaxUs = 0;
  uint64_t latencySumUs = 0;
  uint64_t latencyMaxUs = 0;
  uint32_t latencyCount = 0;
  FILE* record = nullptr;  // RecordWindow's file
  uint32_t recordWidth = 0;
  uint32_t recordHeight = 0;
  uint32_t recorded = 0;
};

// Appends a copied I420 frame to a Y4M file whose header is written with the first one.
void RecordFrame(WindowSlot& slot, const RenderedFrame& frame) {
  if (frame.format != TAVO_VIDEO_RENDER_IMG_I420) {
    return;
  }
  if (slot.recorded == 0 && slot.recordWidth == 0) {
    slot.recordWidth = frame.width;
    slot.recordHeight = frame.height;
    std::fprintf(slot.record, "YUV4MPEG2 W%u H%u F30:1 Ip A1:1 C420jpeg\n", frame.width,
                 frame.height);
  }
  if (frame.width != slot.recordWidth || frame.height != slot.recordHeight) {
    return;
  }
  std::fputs("FRAME\n", slot.record);
  const uint8_t* plane = frame.bytes.data();
  const uint32_t chromaWidth = (frame.width + 1) / 2;
  const uint32_t chromaHeight = (frame.height + 1) / 2;
  for (uint32_t y = 0; y < frame.height; ++y) {
    std::fwrite(plane + static_cast<size_t>(y) * frame.stride0, 1, frame.width, slot.record);
  }
  plane += static_cast<size_t>(frame.stride0) * frame.height;
  for (int p = 0; p < 2; ++p) {
    for (uint32_t y = 0; y < chromaHeight; ++y) {
      std::fwrite(plane + static_cast<size_t>(y) * frame.stride1, 1, chromaWidth, slot.record);
    }
    plane += static_cast<size_t>(frame.stride1) * chromaHeight;
  }
  ++slot.recorded;
}

// What the render callback tells the main thread about each frame.
struct FrameEvent {
  size_t window;
  uint32_t frame;
  uint32_t width;
  uint32_t height;
  uint32_t format;
  double rate;
  uint64_t intervalUs;
  uint64_t callbackUs;
  int64_t latencyUs;  // push to render; -1 when unknown
};

struct FirstFrameReport {
  uint32_t viPort;
  uint32_t winId;
  uint32_t flag;
};

// The slots are set up before any component exists and never move.
struct Windows {
  std::array<WindowSlot, kMaxWindows> slots;
  size_t count = 0;
  int64_t (*pushedAt)(const uint8_t* data) = nullptr;

  std::mutex eventLock;  // guards events and reports
  std::condition_variable eventArrived;
  std::deque<FrameEvent> events;
  std::vector<FirstFrameReport> reports;

  // Main thread only.
  size_t reportsPrinted = 0;
  std::vector<std::string> pngs;
};
Windows g_windows;

int OnFirstFrame(TavoVideoDisplayWinInfo& info) {
  {
    std::lock_guard<std::mutex> lock(g_windows.eventLock);
    g_windows.reports.push_back({info.viPort, info.winId, info.firstFrameFlag});
  }
  g_windows.eventArrived.notify_one();
  return 0;
}

const char* FormatName(uint32_t format) {
  return format == TAVO_VIDEO_RENDER_IMG_I420 ? "I420" : "RGB";
}

void PrintFrameEvent(const FrameEvent& e, int target) {
  char latency[48] = "";
  if (e.latencyUs >= 0) {
    std::snprintf(latency, sizeof(latency), ", push to render %.2f ms",
                  Ms(static_cast<uint64_t>(e.latencyUs)));
  }
  std::printf(
      "window 0x%llx: frame %u/%d %ux%u %s, %.2f frames/s, interval %.1f ms, "
      "callback %.2f ms%s\n",
      static_cast<unsigned long long>(g_windows.slots[e.window].handle), e.frame, target, e.width,
      e.height, FormatName(e.format), e.rate, Ms(e.intervalUs), Ms(e.callbackUs), latency);
}

// Shows each window's newest frame, when it has one not shown yet.
void DrawWindows(HostDisplay& display) {
  for (size_t i = 0; i < g_windows.count; ++i) {
    WindowSlot& slot = g_windows.slots[i];
    RenderedFrame frame;
    {
      std::lock_guard<std::mutex> lock(slot.lock);
      if (slot.display < 0 || slot.frames == slot.shownFrames) {
        continue;
      }
      slot.shownFrames = slot.frames;
      frame = slot.latest;
    }
    RgbImage rgb;
    if (RenderedToRgb(frame, rgb)) {
      display.Show(slot.display, rgb);
    }
  }
  display.Pump();
}

// Keeps the windows on screen (drawing, answering exposures) for a while after the run.
void Linger(HostDisplay& display, double seconds) {
  if (!display.IsOpen() || seconds <= 0) {
    return;
  }
  std::printf("keeping the windows open for %.1f s\n", seconds);
  std::fflush(stdout);
  const auto until = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
  while (std::chrono::steady_clock::now() < until && display.OpenWindows() > 0) {
    display.Pump();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace

void SetUpWindows(const Library& lib, const uint64_t* handles, size_t count, HostDisplay& display,
                  int64_t (*pushedAt)(const uint8_t* data)) {
  g_windows.pushedAt = pushedAt;
  g_windows.count = std::min(count, kMaxWindows);
  for (size_t i = 0; i < g_windows.count; ++i) {
    WindowSlot& slot = g_windows.slots[i];
    slot.handle = handles[i];
    char title[64];
    std::snprintf(title, sizeof(title), "vlink preview window 0x%llx",
                  static_cast<unsigned long long>(handles[i]));
    slot.display = display.IsOpen() ? display.AddWindow(title) : -1;
  }
  lib.setWinReportCb(OnFirstFrame);
}

int OnRender(uint32_t winHandle, TavoVideoRenderImgHeader* header) {
  const uint64_t start = NowUs();
  size_t index = 0;
  while (index < g_windows.count &&
         static_cast<uint32_t>(g_windows.slots[index].handle) != winHandle) {
    ++index;
  }
  if (index == g_windows.count) {
    return -1;  // not one of this host's windows
  }
  WindowSlot& slot = g_windows.slots[index];
  FrameEvent event{};
  {
    std::lock_guard<std::mutex> lock(slot.lock);
    if (header == nullptr || !CopyRendered(*header, slot.latest)) {
      ++slot.bad;
      return -1;
    }
    if (slot.record != nullptr) {
      RecordFrame(slot, slot.latest);
    }
    int64_t latency = -1;
    if (g_windows.pushedAt != nullptr && header->format == TAVO_VIDEO_RENDER_IMG_I420) {
      const int64_t pushed = g_windows.pushedAt(header->data);
      latency = pushed >= 0 ? static_cast<int64_t>(start) - pushed : -1;
    }
    const uint64_t done = NowUs();
    ++slot.frames;
    event.intervalUs = slot.frames > 1 ? start - slot.lastUs : 0;
    if (slot.frames == 1) {
      slot.firstUs = start;
    }
    slot.lastUs = start;
    slot.intervalMaxUs = std::max(slot.intervalMaxUs, event.intervalUs);
    event.callbackUs = done - start;
    slot.callbackSumUs += event.callbackUs;
    slot.callbackMaxUs = std::max(slot.callbackMaxUs, event.callbackUs);
    if (latency >= 0) {
      slot.latencySumUs += static_cast<uint64_t>(latency);
      slot.latencyMaxUs = std::max(slot.latencyMaxUs, static_cast<uint64_t>(latency));
      ++slot.latencyCount;
    }
    event.window = index;
    event.frame = slot.frames;
    event.width = header->width;
    event.height = header->height;
    event.format = header->format;
    event.rate = Rate(slot.frames - 1, start - slot.firstUs);
    event.latencyUs = latency;
  }
  {
    std::lock_guard<std::mutex> lock(g_windows.eventLock);
    g_windows.events.push_back(event);
  }
  g_windows.eventArrived.notify_one();
  return 0;
}

uint32_t FramesOf(size_t window) {
  WindowSlot& slot = g_windows.slots[window];
  std::lock_guard<std::mutex> lock(slot.lock);
  return slot.frames;
}

bool ServiceWindows(HostDisplay& display, std::chrono::microseconds wait, bool printFrames,
                    int target) {
  size_t& reportsPrinted = g_windows.reportsPrinted;
  std::deque<FrameEvent> events;
  std::vector<FirstFrameReport> reports;
  {
    std::unique_lock<std::mutex> lock(g_windows.eventLock);
    g_windows.eventArrived.wait_for(lock, wait, [&] {
      return !g_windows.events.empty() || g_windows.reports.size() > reportsPrinted;
    });
    events.swap(g_windows.events);
    reports.assign(g_windows.reports.begin() + static_cast<long>(reportsPrinted),
                   g_windows.reports.end());
  }
  for (const FirstFrameReport& report : reports) {
    std::printf("first frame in window 0x%x: viPort %u, flag %u\n", report.winId, report.viPort,
                report.flag);
  }
  reportsPrinted += reports.size();
  if (printFrames) {
    for (const FrameEvent& e : events) {
      PrintFrameEvent(e, target);
    }
  }
  std::fflush(stdout);
  if (display.IsOpen()) {
    DrawWindows(display);
  }
  return !events.empty() || !reports.empty();
}

int WindowIndex(uint64_t handle) {
  for (size_t i = 0; i < g_windows.count; ++i) {
    if (g_windows.slots[i].handle == handle) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

bool RecordWindow(size_t window, const std::string& path) {
  WindowSlot& slot = g_windows.slots[window];
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    std::perror(path.c_str());
    return false;
  }
  std::lock_guard<std::mutex> lock(slot.lock);
  slot.record = file;
  return true;
}

uint32_t RecordedFrames(size_t window) {
  WindowSlot& slot = g_windows.slots[window];
  std::lock_guard<std::mutex> lock(slot.lock);
  return slot.recorded;
}

void StopRecording() {
  for (size_t i = 0; i < g_windows.count; ++i) {
    WindowSlot& slot = g_windows.slots[i];
    std::lock_guard<std::mutex> lock(slot.lock);
    if (slot.record != nullptr) {
      std::fclose(slot.record);
      slot.record = nullptr;
    }
  }
}

bool LatestImage(size_t window, RgbImage& out) {
  RenderedFrame frame;
  {
    WindowSlot& slot = g_windows.slots[window];
    std::lock_guard<std::mutex> lock(slot.lock);
    frame = slot.latest;
  }
  return RenderedToRgb(frame, out);
}

size_t ReportsPrinted() { return g_windows.reportsPrinted; }

void PrintWindowTarget(const HostDisplay& display) {
  if (display.IsOpen()) {
    std::printf("windows: on screen and as PNG files\n");
  } else {
    std::printf("windows: PNG files only (%s)\n",
                display.Reason().empty() ? "--no-window" : display.Reason().c_str());
  }
}

bool WritePngs(const std::string& dir) {
  std::error_code error;
  std::filesystem::create_directories(dir, error);
  bool ok = true;
  for (size_t i = 0; i < g_windows.count; ++i) {
    WindowSlot& slot = g_windows.slots[i];
    RenderedFrame frame;
    {
      std::lock_guard<std::mutex> lock(slot.lock);
      frame = slot.latest;
    }
    char name[64];
    std::snprintf(name, sizeof(name), "window_0x%llx.png",
                  static_cast<unsigned long long>(slot.handle));
    const std::string path = (std::filesystem::path(dir) / name).string();
    RgbImage rgb;
    std::string why;
    if (!RenderedToRgb(frame, rgb)) {
      std::fprintf(stderr, "window 0x%llx got no frame: no %s\n",
                   static_cast<unsigned long long>(slot.handle), path.c_str());
      ok = false;
    } else if (!WritePng(path, rgb, why)) {
      std::fprintf(stderr, "%s\n", why.c_str());
      ok = false;
    } else {
      g_windows.pngs.push_back(path);
    }
  }
  return ok;
}

bool PrintWindowSummary(uint32_t expected, bool exact) {
  bool ok = true;
  for (size_t i = 0; i < g_windows.count; ++i) {
    WindowSlot& slot = g_windows.slots[i];
    std::lock_guard<std::mutex> lock(slot.lock);
    const double meanCallback =
        slot.frames ? static_cast<double>(slot.callbackSumUs) / slot.frames / 1000.0 : 0.0;
    std::printf(
        "  window 0x%llx: %u frames rendered%s, %.2f frames/s, interval max %.1f ms, "
        "callback mean %.2f ms max %.2f ms",
        static_cast<unsigned long long>(slot.handle), slot.frames,
        slot.bad ? " (some unreadable)" : "",
        Rate(slot.frames > 0 ? slot.frames - 1 : 0, slot.lastUs - slot.firstUs),
        Ms(slot.intervalMaxUs), meanCallback, Ms(slot.callbackMaxUs));
    if (slot.latencyCount > 0) {
      std::printf(", push to render mean %.2f ms max %.2f ms",
                  static_cast<double>(slot.latencySumUs) / slot.latencyCount / 1000.0,
                  Ms(slot.latencyMaxUs));
    }
    std::printf("\n");
    ok = ok && slot.bad == 0 && (exact ? slot.frames == expected : slot.frames >= expected);
  }
  return ok;
}

void CloseSummary(uint32_t teardown, HostDisplay& display, double linger) {
  for (const std::string& path : g_windows.pngs) {
    std::printf("last frame: %s\n", path.c_str());
  }
  PrintTeardown(teardown);
  std::fflush(stdout);
  Linger(display, linger);
}
