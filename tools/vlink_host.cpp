// A host program that drives libtavo_video_vlink.so the way the terminal's media process
// does: only through dlopen, the exported functions, the component tables and callbacks.
//
// --mode encode (default): a test-image input bound to an encoder output; every frame the
//   encoder callback hands over goes to a Y4M file and back with TavoVideoReleaseVEncFrame.
// --mode preview: a test-image input bound to a preview with two windows; the render
//   callback's frames are shown in X11 windows (when there is a display) and the last one
//   of each window is written as a PNG.
// --mode decode: frames read from a Y4M file (or a synthetic clip) are pushed as decoded
//   frames into a decoder input bound to two previews and a virtual camera; every frame
//   must come back through the release callback and reach every window.
//
// usage: vlink_host [--mode encode|preview|decode] [--library PATH] [--image PATH]
//                   [--frames N] [--out FILE.y4m] [--out-dir DIR] [--input FILE.y4m]
//                   [--fast] [--no-window] [--linger SECONDS] [--trace LEVEL]
// Without --image the test input shows the test pattern the build writes.
#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host_image.h"
#include "host_window.h"
#include "tavo_video_vlink.h"
#include "y4m_reader.h"

namespace {

enum class Mode { kEncode, kPreview, kDecode };

struct Options {
  Mode mode = Mode::kEncode;
  std::string library = "libtavo_video_vlink.so";
  std::string image;
  std::string out = "vlink_out.y4m";
  std::string outDir = "out";
  std::string input;
  int frames = 0;  // 0: the mode's own default
  int trace = 1;
  bool fast = false;
  bool window = true;
  double linger = 0;
};

// Component ids are the host's own numbers; the node ids go into the containers.
constexpr uint32_t kTestComponent = 100;
constexpr uint32_t kEncoderComponent = 101;
constexpr uint32_t kPreviewComponent = 102;
constexpr uint32_t kDecoderComponent = 110;
constexpr uint32_t kDecodePreviewComponents[2] = {111, 112};
constexpr uint32_t kVirtualCameraComponent = 113;
constexpr uint32_t kTestNodeId = 50;
constexpr uint32_t kEncoderNodeId = 5;
constexpr uint32_t kPreviewNodeId = 60;
// Image numbers 150 to 177 are the ones whose first frame in a window is reported.
constexpr uint32_t kDecoderNodeId = 150;
constexpr uint32_t kDecodePreviewNodeIds[2] = {61, 62};
constexpr uint32_t kVirtualCameraNodeId = 70;
constexpr uint64_t kPreviewWindows[2] = {0x101, 0x102};
constexpr uint64_t kDecodeWindows[2] = {0x201, 0x202};

constexpr int kDefaultEncodeFrames = 10;
constexpr int kDefaultPreviewFrames = 6;
// The synthetic clip of the decode mode: two seconds of 640x360 at 30 frames a second.
constexpr uint32_t kClipWidth = 640;
constexpr uint32_t kClipHeight = 360;
constexpr uint32_t kClipFrames = 60;
constexpr uint32_t kClipRate = 30;
// Decoded frames the host keeps in the link at most, as a decoder's output pool would.
constexpr size_t kPoolSize = 8;
// Without news for this long the link has stalled.
constexpr auto kStallLimit = std::chrono::seconds(10);

uint64_t NowUs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

double Ms(uint64_t us) { return static_cast<double>(us) / 1000.0; }

double Rate(uint64_t count, uint64_t spanUs) {
  return spanUs > 0 ? static_cast<double>(count) * 1e6 / static_cast<double>(spanUs) : 0.0;
}

// The library's exported functions, looked up by name.
struct Library {
  void* handle = nullptr;
  decltype(&TavoVideoVlinkInit) init = nullptr;
  decltype(&TavoVideoSetTraceLevel) setTraceLevel = nullptr;
  decltype(&TavoVideoRegisterTraceCallBack) registerTrace = nullptr;
  decltype(&TavoVideoGetDataContainer) getContainer = nullptr;
  decltype(&TavoVideoReleaseDataContainer) releaseContainer = nullptr;
  decltype(&TavoVideoGetCreateNodeFuncMap) getCreate = nullptr;
  decltype(&TavoVideoGetBindNodeFuncMap) getBind = nullptr;
  decltype(&TavoVideoGetUnBindNodeFuncMap) getUnbind = nullptr;
  decltype(&TavoVideoGetDestroyNodeFuncMap) getDestroy = nullptr;
  decltype(&TavoVideoReleaseVEncFrame) releaseFrame = nullptr;
  decltype(&TavoVideoReceiveVDecFrame) receiveDecFrame = nullptr;
  decltype(&TavoVideoSetWinReportCb) setWinReportCb = nullptr;

  template <class F>
  bool Bind(F& function, const char* name) {
    function = reinterpret_cast<F>(dlsym(handle, name));
    if (function == nullptr) {
      std::fprintf(stderr, "missing symbol %s\n", name);
    }
    return function != nullptr;
  }
  bool Load(const std::string& path) {
    handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      std::fprintf(stderr, "cannot load %s: %s\n", path.c_str(), dlerror());
      return false;
    }
    return Bind(init, "TavoVideoVlinkInit") && Bind(setTraceLevel, "TavoVideoSetTraceLevel") &&
           Bind(registerTrace, "TavoVideoRegisterTraceCallBack") &&
           Bind(getContainer, "TavoVideoGetDataContainer") &&
           Bind(releaseContainer, "TavoVideoReleaseDataContainer") &&
           Bind(getCreate, "TavoVideoGetCreateNodeFuncMap") &&
           Bind(getBind, "TavoVideoGetBindNodeFuncMap") &&
           Bind(getUnbind, "TavoVideoGetUnBindNodeFuncMap") &&
           Bind(getDestroy, "TavoVideoGetDestroyNodeFuncMap") &&
           Bind(releaseFrame, "TavoVideoReleaseVEncFrame") &&
           Bind(receiveDecFrame, "TavoVideoReceiveVDecFrame") &&
           Bind(setWinReportCb, "TavoVideoSetWinReportCb");
  }
};

template <class Row>
auto FindRow(const Row* table, uint32_t count, uint32_t type, uint32_t srcType = 0)
    -> decltype(table->func) {
  for (uint32_t i = 0; i < count; ++i) {
    if (table[i].type == type && table[i].srcType == srcType) {
      return table[i].func;
    }
  }
  return nullptr;
}

// The four tables this host uses, and the rows it needs from them.
struct Tables {
  const tagTavoVideoCreateFuncMap* create = nullptr;
  const tagTavoVideoBindFuncMap* bind = nullptr;
  const tagTavoVideoBindFuncMap* unbind = nullptr;
  const tagTavoVideoDestroyFuncMap* destroy = nullptr;
  uint32_t createCount = 0;
  uint32_t bindCount = 0;
  uint32_t unbindCount = 0;
  uint32_t destroyCount = 0;

  bool Fetch(const Library& lib) {
    if (lib.getCreate(&create, &createCount) != 0 || lib.getBind(&bind, &bindCount) != 0 ||
        lib.getUnbind(&unbind, &unbindCount) != 0 || lib.getDestroy(&destroy, &destroyCount) != 0) {
      std::fprintf(stderr, "cannot fetch the component tables\n");
      return false;
    }
    return true;
  }
  TavoVideoCreateNodeFunc Create(uint32_t type) const { return FindRow(create, createCount, type); }
  TavoVideoBindNodeFunc Bind(uint32_t sinkType, uint32_t sourceType) const {
    return FindRow(bind, bindCount, sinkType, sourceType);
  }
  TavoVideoBindNodeFunc Unbind(uint32_t sinkType, uint32_t sourceType) const {
    return FindRow(unbind, unbindCount, sinkType, sourceType);
  }
  TavoVideoDestroyNodeFunc Destroy(uint32_t type) const {
    return FindRow(destroy, destroyCount, type);
  }
};

std::string ContainerName(uint32_t component) {
  return "Node[" + std::to_string(component) + "]PresentParam";
}

// Each component's node id and port, where the library looks them up at creation.
void StoreNodeId(const Library& lib, uint32_t component, uint32_t node) {
  DataContainer* container = lib.getContainer(ContainerName(component).c_str());
  container->SetDataByString<uint32_t>("imgNo", node);
  container->SetDataByString<uint32_t>("portId", 0);
}

std::unique_ptr<tagTavoVideoComponentParam> NewRecord() {
  auto record = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(record.get(), 0, sizeof(*record));
  return record;
}

std::unique_ptr<tagTavoVideoComponentParam> TestImageRecord(const Options& options) {
  auto record = NewRecord();
  record->test.frameRate = 30;
  std::snprintf(record->test.fileName, sizeof(record->test.fileName), "%s", options.image.c_str());
  return record;
}

void OnTrace(uint32_t /*level*/, const char* text) {
  // Texts start with a line break and a coloured prefix; print them as one line.
  while (*text == '\r' || *text == '\n') {
    ++text;
  }
  std::fprintf(stderr, "%s\n", text);
}

// ---------------------------------------------------------------------------------------
// Encode mode.

// Frames handed over by the encoder callback, waiting for the host thread. The callback
// runs on a library worker and only queues: it must not block on the library.
struct Handoffs {
  std::mutex lock;  // guards everything below
  std::condition_variable arrived;
  std::deque<std::pair<VencOutFrame*, uint64_t>> frames;  // record, time received
  uint32_t encodersCreated = 0;
};
Handoffs g_handoffs;

uint32_t OnEncoderCreate(uint32_t imgNo, uint32_t /*hostKey*/, uint32_t /*hostSubKey*/) {
  std::printf("encoder %u created\n", imgNo);
  std::lock_guard<std::mutex> lock(g_handoffs.lock);
  ++g_handoffs.encodersCreated;
  return 0;
}

uint32_t OnEncoderFrame(uint32_t /*imgNo*/, uint32_t /*hostKey*/, uint32_t /*hostSubKey*/,
                        VencOutFrame* frame) {
  {
    std::lock_guard<std::mutex> lock(g_handoffs.lock);
    g_handoffs.frames.emplace_back(frame, NowUs());
  }
  g_handoffs.arrived.notify_one();
  return 1;  // exactly 1 accepts the frame
}

bool WriteY4mFrame(FILE* out, const OsvGraphicBuffer& buffer, bool& headerWritten) {
  const OsvGraphicBufferInfo info = buffer.GetImageInfo();
  if (info.format != TAVO_VIDEO_VLINK_FORMAT_I420 || buffer.GetImageAddr(0) == nullptr) {
    return false;
  }
  if (!headerWritten) {
    std::fprintf(out, "YUV4MPEG2 W%u H%u F2:1 Ip A1:1 C420jpeg\n", info.width, info.height);
    headerWritten = true;
  }
  std::fputs("FRAME\n", out);
  for (uint32_t plane = 0; plane < 3; ++plane) {
    const uint32_t rows = plane == 0 ? info.height : info.height / 2;
    const uint32_t bytes = plane == 0 ? info.width : info.width / 2;
    const uint8_t* row = buffer.GetImageAddr(plane);
    for (uint32_t y = 0; y < rows; ++y, row += info.stride[plane]) {
      std::fwrite(row, 1, bytes, out);
    }
  }
  return true;
}

int RunEncode(const Library& lib, const Tables& tables, const Options& options) {
  auto createTest = tables.Create(TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto createEncoder = tables.Create(TAVO_VIDEO_COMPONENT_ENCODER);
  auto bind = tables.Bind(TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto unbind = tables.Unbind(TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto destroyTest = tables.Destroy(TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto destroyEncoder = tables.Destroy(TAVO_VIDEO_COMPONENT_ENCODER);
  if (!createTest || !createEncoder || !bind || !unbind || !destroyTest || !destroyEncoder) {
    std::fprintf(stderr, "the tables lack a row this host needs\n");
    return 1;
  }
  const int frames = options.frames > 0 ? options.frames : kDefaultEncodeFrames;
  StoreNodeId(lib, kTestComponent, kTestNodeId);
  StoreNodeId(lib, kEncoderComponent, kEncoderNodeId);

  auto testParam = TestImageRecord(options);
  auto encoderParam = NewRecord();
  encoderParam->venc.width = 1280;
  encoderParam->venc.height = 720;
  encoderParam->venc.frameRate = 2;
  encoderParam->venc.hostKey = 7;
  encoderParam->venc.hostSubKey = 8;
  encoderParam->venc.encOutFunc = OnEncoderFrame;
  encoderParam->venc.encCreateFunc = OnEncoderCreate;

  std::printf("image: %s\n", options.image.empty() ? "(none)" : options.image.c_str());
  uint32_t result = createTest(kTestComponent, testParam.get());
  std::printf("create test image: %u\n", result);
  result |= createEncoder(kEncoderComponent, encoderParam.get());
  std::printf("create encoder: %u\n", result);
  if (result == 0) {
    result = bind(kEncoderComponent, kTestComponent);
    std::printf("bind encoder <- test image: %u\n", result);
  }

  FILE* out = std::fopen(options.out.c_str(), "wb");
  if (out == nullptr) {
    std::perror(options.out.c_str());
    return 1;
  }
  bool headerWritten = false;
  int received = 0;
  int written = 0;
  uint64_t delaySum = 0;
  uint64_t delayMax = 0;
  uint64_t lastSequence = 0;
  bool sequenceOk = true;
  const uint64_t start = NowUs();
  while (result == 0 && received < frames) {
    std::unique_lock<std::mutex> lock(g_handoffs.lock);
    // The test image comes twice a second: ten seconds without a frame is a stall.
    if (!g_handoffs.arrived.wait_for(lock, kStallLimit,
                                     [] { return !g_handoffs.frames.empty(); })) {
      std::fprintf(stderr, "no frame for 10 s; stopping\n");
      result = 1;
      break;
    }
    auto [frame, receivedAt] = g_handoffs.frames.front();
    g_handoffs.frames.pop_front();
    lock.unlock();

    const uint64_t delay = receivedAt - frame->timestampUs;
    delaySum += delay;
    delayMax = std::max(delayMax, delay);
    sequenceOk = sequenceOk && (received == 0 || frame->sequence == lastSequence + 1);
    lastSequence = frame->sequence;
    if (WriteY4mFrame(out, *frame->buffer, headerWritten)) {
      ++written;
    }
    const OsvGraphicBufferInfo info = frame->buffer->GetImageInfo();
    ++received;
    const double seconds = static_cast<double>(NowUs() - start) / 1e6;
    std::printf("frame %d: seq %llu %ux%u, %.2f frames/s, hand-off %llu us\n", received,
                static_cast<unsigned long long>(frame->sequence), info.width, info.height,
                seconds > 0 ? received / seconds : 0.0, static_cast<unsigned long long>(delay));
    std::fflush(stdout);
    lib.releaseFrame(frame);
  }
  const double seconds = static_cast<double>(NowUs() - start) / 1e6;

  uint32_t teardown = unbind(kEncoderComponent, kTestComponent);
  teardown |= destroyEncoder(kEncoderComponent);
  teardown |= destroyTest(kTestComponent);
  // Frames that arrived after the last one we wanted go back too.
  {
    std::lock_guard<std::mutex> lock(g_handoffs.lock);
    for (auto& [frame, at] : g_handoffs.frames) {
      lib.releaseFrame(frame);
    }
    g_handoffs.frames.clear();
  }
  lib.releaseContainer(ContainerName(kTestComponent).c_str());
  lib.releaseContainer(ContainerName(kEncoderComponent).c_str());
  std::fclose(out);

  std::printf("\nsummary: %d frames received in %.1f s (%.2f frames/s), %d written to %s\n",
              received, seconds, seconds > 0 ? received / seconds : 0.0, written,
              options.out.c_str());
  std::printf("hand-off delay to the host thread: mean %.0f us, max %llu us; sequence %s\n",
              received ? static_cast<double>(delaySum) / received : 0.0,
              static_cast<unsigned long long>(delayMax), sequenceOk ? "continuous" : "BROKEN");
  std::printf("teardown: %s\n", teardown == 0 ? "clean" : "failed");
  return result == 0 && teardown == 0 && received == frames && sequenceOk ? 0 : 1;
}

// ---------------------------------------------------------------------------------------
// Preview windows, shared by the preview and decode modes.

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
};

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

// The render callback is a plain function: it finds its windows here. The slots are set up
// before any component exists and never move.
struct Windows {
  std::array<WindowSlot, 2> slots;
  size_t count = 0;
  // Decode mode: when the frame whose memory the callback sees was pushed, or -1.
  int64_t (*pushedAt)(const uint8_t* data) = nullptr;

  std::mutex eventLock;  // guards events and reports
  std::condition_variable eventArrived;
  std::deque<FrameEvent> events;
  std::vector<FirstFrameReport> reports;
};
Windows g_windows;

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

int OnFirstFrame(TavoVideoDisplayWinInfo& info) {
  {
    std::lock_guard<std::mutex> lock(g_windows.eventLock);
    g_windows.reports.push_back({info.viPort, info.winId, info.firstFrameFlag});
  }
  g_windows.eventArrived.notify_one();
  return 0;
}

void SetUpWindows(const uint64_t* handles, size_t count, HostDisplay& display) {
  g_windows.count = count;
  for (size_t i = 0; i < count; ++i) {
    WindowSlot& slot = g_windows.slots[i];
    slot.handle = handles[i];
    char title[64];
    std::snprintf(title, sizeof(title), "vlink preview window 0x%llx",
                  static_cast<unsigned long long>(handles[i]));
    slot.display = display.IsOpen() ? display.AddWindow(title) : -1;
  }
}

uint32_t FramesOf(size_t window) {
  WindowSlot& slot = g_windows.slots[window];
  std::lock_guard<std::mutex> lock(slot.lock);
  return slot.frames;
}

const char* FormatName(uint32_t format) {
  return format == TAVO_VIDEO_RENDER_IMG_I420 ? "I420" : "RGB";
}

// Waits up to `wait` for news from the callbacks, then prints it (each frame when
// printFrames) and draws the windows' new frames. Returns true when there was news.
bool ServiceWindows(HostDisplay& display, std::chrono::microseconds wait, bool printFrames,
                    int target, size_t& reportsPrinted) {
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
      char latency[48] = "";
      if (e.latencyUs >= 0) {
        std::snprintf(latency, sizeof(latency), ", push to render %.2f ms",
                      Ms(static_cast<uint64_t>(e.latencyUs)));
      }
      std::printf(
          "window 0x%llx: frame %u/%d %ux%u %s, %.2f frames/s, interval %.1f ms, "
          "callback %.2f ms%s\n",
          static_cast<unsigned long long>(g_windows.slots[e.window].handle), e.frame, target,
          e.width, e.height, FormatName(e.format), e.rate, Ms(e.intervalUs), Ms(e.callbackUs),
          latency);
    }
  }
  std::fflush(stdout);
  if (display.IsOpen()) {
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
  return !events.empty() || !reports.empty();
}

// The last frame of every window as window_<handle>.png in dir; false when one failed.
bool WritePngs(const std::string& dir, std::vector<std::string>& paths) {
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
      paths.push_back(path);
    }
  }
  return ok;
}

// Prints one line per window; true when each got at least `expected` frames and every
// header could be read.
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

void PrintWindowTarget(const HostDisplay& display) {
  if (display.IsOpen()) {
    std::printf("windows: on screen and as PNG files\n");
  } else {
    std::printf("windows: PNG files only (%s)\n",
                display.Reason().empty() ? "--no-window" : display.Reason().c_str());
  }
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

// ---------------------------------------------------------------------------------------
// Preview mode.

int RunPreview(const Library& lib, const Tables& tables, const Options& options,
               HostDisplay& display) {
  auto createTest = tables.Create(TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto createPreview = tables.Create(TAVO_VIDEO_COMPONENT_PREVIEW);
  auto bind = tables.Bind(TAVO_VIDEO_COMPONENT_PREVIEW, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto unbind = tables.Unbind(TAVO_VIDEO_COMPONENT_PREVIEW, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto destroyTest = tables.Destroy(TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto destroyPreview = tables.Destroy(TAVO_VIDEO_COMPONENT_PREVIEW);
  if (!createTest || !createPreview || !bind || !unbind || !destroyTest || !destroyPreview) {
    std::fprintf(stderr, "the tables lack a row this host needs\n");
    return 1;
  }
  const int target = options.frames > 0 ? options.frames : kDefaultPreviewFrames;
  SetUpWindows(kPreviewWindows, 2, display);
  lib.setWinReportCb(OnFirstFrame);
  StoreNodeId(lib, kTestComponent, kTestNodeId);
  StoreNodeId(lib, kPreviewComponent, kPreviewNodeId);

  auto testParam = TestImageRecord(options);
  auto previewParam = NewRecord();
  tagTavoVideoVoChnParam& vo = previewParam->vo;
  vo.winNum = 2;
  for (uint32_t i = 0; i < vo.winNum; ++i) {
    vo.windows[i].winHandle = kPreviewWindows[i];
    vo.windows[i].imgNo = kTestNodeId;  // the test input stamps its node id on its frames
  }
  vo.renderCb = OnRender;

  std::printf("image: %s\n", options.image.empty() ? "(none)" : options.image.c_str());
  PrintWindowTarget(display);
  uint32_t result = createTest(kTestComponent, testParam.get());
  std::printf("create test image: %u\n", result);
  result |= createPreview(kPreviewComponent, previewParam.get());
  std::printf("create preview (windows 0x%llx, 0x%llx): %u\n",
              static_cast<unsigned long long>(kPreviewWindows[0]),
              static_cast<unsigned long long>(kPreviewWindows[1]), result);
  if (result == 0) {
    result = bind(kPreviewComponent, kTestComponent);
    std::printf("bind preview <- test image: %u\n", result);
  }
  std::fflush(stdout);

  size_t reportsPrinted = 0;
  const uint64_t start = NowUs();
  uint64_t lastNews = start;
  while (result == 0 && std::min(FramesOf(0), FramesOf(1)) < static_cast<uint32_t>(target)) {
    if (ServiceWindows(display, std::chrono::milliseconds(50), true, target, reportsPrinted)) {
      lastNews = NowUs();
    } else if (NowUs() - lastNews >
               static_cast<uint64_t>(std::chrono::microseconds(kStallLimit).count())) {
      std::fprintf(stderr, "no frame for 10 s; stopping\n");
      result = 1;
    }
  }
  const double seconds = static_cast<double>(NowUs() - start) / 1e6;

  uint32_t teardown = unbind(kPreviewComponent, kTestComponent);
  teardown |= destroyPreview(kPreviewComponent);
  teardown |= destroyTest(kTestComponent);
  lib.releaseContainer(ContainerName(kTestComponent).c_str());
  lib.releaseContainer(ContainerName(kPreviewComponent).c_str());
  // Frames rendered while the link came down: count them, draw the very last.
  ServiceWindows(display, std::chrono::microseconds(0), true, target, reportsPrinted);

  std::vector<std::string> pngs;
  const bool pngsOk = WritePngs(options.outDir, pngs);
  std::printf("\nsummary: %.1f s, target %d frames a window\n", seconds, target);
  const bool windowsOk = PrintWindowSummary(static_cast<uint32_t>(target), false);
  std::printf("first-frame reports: %zu (none expected for image number %u)\n", reportsPrinted,
              kTestNodeId);
  for (const std::string& path : pngs) {
    std::printf("last frame: %s\n", path.c_str());
  }
  std::printf("teardown: %s\n", teardown == 0 ? "clean" : "failed");
  std::fflush(stdout);
  Linger(display, options.linger);
  return result == 0 && teardown == 0 && windowsOk && pngsOk ? 0 : 1;
}

// ---------------------------------------------------------------------------------------
// Decode mode.

// The decoded frames the host owns: a record and a buffer each, in the link from the push
// until the release callback gives them back.
struct PoolSlot {
  tagOS_S_VIDEO_CODEC_IMG_INFO* record = nullptr;
  OsvGraphicBuffer* buffer = nullptr;
  const uint8_t* memory = nullptr;  // the buffer's memory, as the render callback sees it
  std::atomic<int64_t> pushedUs{-1};
  bool inFlight = false;  // guarded by Pool::lock
  uint32_t serial = 0;    // guarded by Pool::lock: which pushed frame it holds
};

struct Pool {
  std::array<PoolSlot, kPoolSize> slots;
  std::mutex lock;  // guards the slots' flags and everything below
  std::condition_variable returned;
  uint32_t returns = 0;
  uint32_t duplicates = 0;         // records given back while not in the link
  uint32_t strangers = 0;          // records this host never pushed
  uint32_t wrongNode = 0;          // records given back under another node id
  std::vector<uint8_t> returnsOf;  // per pushed frame
  uint64_t holdSumUs = 0;
  uint64_t holdMaxUs = 0;
};
Pool g_pool;

std::atomic<uint32_t> g_virtualCameraCalls{0};

uint32_t OnDecRelease(uint32_t nodeId, tagOS_S_VIDEO_CODEC_IMG_INFO* record) {
  const uint64_t now = NowUs();
  {
    std::lock_guard<std::mutex> lock(g_pool.lock);
    PoolSlot* slot = nullptr;
    for (PoolSlot& candidate : g_pool.slots) {
      if (candidate.record == record) {
        slot = &candidate;
      }
    }
    // Kept either way: the library must never free a record of this host's pool.
    if (slot == nullptr) {
      ++g_pool.strangers;
      return 1;
    }
    if (!slot->inFlight) {
      ++g_pool.duplicates;
      return 1;
    }
    if (nodeId != kDecoderNodeId) {
      ++g_pool.wrongNode;
    }
    slot->inFlight = false;
    ++g_pool.returns;
    if (slot->serial < g_pool.returnsOf.size()) {
      ++g_pool.returnsOf[slot->serial];
    }
    const uint64_t held = now - static_cast<uint64_t>(slot->pushedUs.load());
    g_pool.holdSumUs += held;
    g_pool.holdMaxUs = std::max(g_pool.holdMaxUs, held);
  }
  g_pool.returned.notify_all();
  return 1;  // taken back: the buffer and the record are reused
}

int64_t PushedAt(const uint8_t* data) {
  for (const PoolSlot& slot : g_pool.slots) {
    if (slot.memory == data) {
      return slot.pushedUs.load();
    }
  }
  return -1;
}

uint32_t OnVirtualOut(uint32_t /*port*/, void* /*target*/, uint32_t /*targetSize*/,
                      void* /*source*/, uint32_t /*sourceSize*/) {
  ++g_virtualCameraCalls;
  return 0;
}

// Copies a packed I420 frame into a buffer, row by row as its strides say.
void FillBuffer(const std::vector<uint8_t>& i420, const Y4mReader& reader,
                OsvGraphicBuffer& buffer) {
  const OsvGraphicBufferInfo info = buffer.GetImageInfo();
  const uint8_t* source = i420.data();
  for (uint32_t plane = 0; plane < 3; ++plane) {
    const uint32_t rows = plane == 0 ? reader.Height() : reader.ChromaHeight();
    const uint32_t bytes = plane == 0 ? reader.Width() : reader.ChromaWidth();
    uint8_t* row = buffer.GetImageAddr(plane);
    for (uint32_t y = 0; y < rows; ++y, row += info.stride[plane], source += bytes) {
      std::memcpy(row, source, bytes);
    }
  }
}

bool OpenInput(const Options& options, Y4mReader& reader) {
  if (!options.input.empty()) {
    if (!reader.Open(options.input)) {
      std::fprintf(stderr, "%s: %s\n", options.input.c_str(), reader.Error().c_str());
      return false;
    }
    std::printf("input: %s, %ux%u at %u/%u frames/s\n", options.input.c_str(), reader.Width(),
                reader.Height(), reader.RateNumerator(), reader.RateDenominator());
    return true;
  }
  std::vector<std::vector<uint8_t>> frames(kClipFrames);
  for (uint32_t i = 0; i < kClipFrames; ++i) {
    DrawMovingBars(kClipWidth, kClipHeight, i, kClipFrames, frames[i]);
  }
  if (!reader.OpenBytes(MakeY4m(kClipWidth, kClipHeight, kClipRate, 1, frames))) {
    std::fprintf(stderr, "synthetic clip: %s\n", reader.Error().c_str());
    return false;
  }
  std::printf("input: synthetic clip, %u frames %ux%u at %u frames/s\n", kClipFrames, kClipWidth,
              kClipHeight, kClipRate);
  return true;
}

int RunDecode(const Library& lib, const Tables& tables, const Options& options,
              HostDisplay& display) {
  auto createDecoder = tables.Create(TAVO_VIDEO_COMPONENT_DECODER);
  auto createPreview = tables.Create(TAVO_VIDEO_COMPONENT_PREVIEW);
  auto createCamera = tables.Create(TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA);
  auto bindPreview = tables.Bind(TAVO_VIDEO_COMPONENT_PREVIEW, TAVO_VIDEO_COMPONENT_DECODER);
  auto bindCamera = tables.Bind(TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, TAVO_VIDEO_COMPONENT_DECODER);
  auto unbindPreview = tables.Unbind(TAVO_VIDEO_COMPONENT_PREVIEW, TAVO_VIDEO_COMPONENT_DECODER);
  auto unbindCamera =
      tables.Unbind(TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, TAVO_VIDEO_COMPONENT_DECODER);
  auto destroyDecoder = tables.Destroy(TAVO_VIDEO_COMPONENT_DECODER);
  auto destroyPreview = tables.Destroy(TAVO_VIDEO_COMPONENT_PREVIEW);
  auto destroyCamera = tables.Destroy(TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA);
  if (!createDecoder || !createPreview || !createCamera || !bindPreview || !bindCamera ||
      !unbindPreview || !unbindCamera || !destroyDecoder || !destroyPreview || !destroyCamera) {
    std::fprintf(stderr, "the tables lack a row this host needs\n");
    return 1;
  }
  Y4mReader reader;
  if (!OpenInput(options, reader)) {
    return 1;
  }
  const uint32_t limit = options.frames > 0 ? static_cast<uint32_t>(options.frames) : UINT32_MAX;
  const uint64_t frameUs = uint64_t{1000000} * reader.RateDenominator() / reader.RateNumerator();

  for (PoolSlot& slot : g_pool.slots) {
    slot.record = static_cast<tagOS_S_VIDEO_CODEC_IMG_INFO*>(
        std::calloc(1, sizeof(tagOS_S_VIDEO_CODEC_IMG_INFO)));
    slot.buffer =
        new OsvGraphicBuffer(reader.Width(), reader.Height(), TAVO_VIDEO_VLINK_FORMAT_I420);
    if (slot.record == nullptr || slot.buffer->GetBufHandle() == nullptr) {
      std::fprintf(stderr, "no memory for the frame pool\n");
      return 1;
    }
    slot.memory = static_cast<const uint8_t*>(slot.buffer->GetBufHandle());
    slot.record->pBuffer = slot.buffer;
  }
  g_windows.pushedAt = PushedAt;
  SetUpWindows(kDecodeWindows, 2, display);
  lib.setWinReportCb(OnFirstFrame);

  StoreNodeId(lib, kDecoderComponent, kDecoderNodeId);
  StoreNodeId(lib, kVirtualCameraComponent, kVirtualCameraNodeId);
  for (size_t i = 0; i < 2; ++i) {
    StoreNodeId(lib, kDecodePreviewComponents[i], kDecodePreviewNodeIds[i]);
  }
  auto decoderParam = NewRecord();
  decoderParam->vdec.imgNo = kDecoderNodeId;
  decoderParam->vdec.decReleaseFunc = OnDecRelease;
  auto cameraParam = NewRecord();
  cameraParam->virCam.voPort = 0;
  cameraParam->virCam.width = reader.Width();
  cameraParam->virCam.height = reader.Height();
  cameraParam->virCam.frameRate =
      std::max<uint32_t>(1, reader.RateNumerator() / reader.RateDenominator());
  cameraParam->virCam.virtualOutFunc = OnVirtualOut;

  PrintWindowTarget(display);
  uint32_t result = createDecoder(kDecoderComponent, decoderParam.get());
  std::printf("create decoder input (image number %u): %u\n", kDecoderNodeId, result);
  for (size_t i = 0; i < 2; ++i) {
    auto previewParam = NewRecord();
    previewParam->vo.winNum = 1;
    previewParam->vo.windows[0].winHandle = kDecodeWindows[i];
    previewParam->vo.windows[0].imgNo = kDecoderNodeId;  // the decoder's image number
    previewParam->vo.renderCb = OnRender;
    const uint32_t created = createPreview(kDecodePreviewComponents[i], previewParam.get());
    std::printf("create preview %zu (window 0x%llx): %u\n", i + 1,
                static_cast<unsigned long long>(kDecodeWindows[i]), created);
    result |= created;
  }
  const uint32_t cameraCreated = createCamera(kVirtualCameraComponent, cameraParam.get());
  std::printf("create virtual camera: %u\n", cameraCreated);
  result |= cameraCreated;
  if (result == 0) {
    for (size_t i = 0; i < 2 && result == 0; ++i) {
      result = bindPreview(kDecodePreviewComponents[i], kDecoderComponent);
      std::printf("bind preview %zu <- decoder: %u\n", i + 1, result);
    }
  }
  if (result == 0) {
    result = bindCamera(kVirtualCameraComponent, kDecoderComponent);
    std::printf("bind virtual camera <- decoder: %u\n", result);
  }
  std::fflush(stdout);

  size_t reportsPrinted = 0;
  uint32_t pushed = 0;
  uint32_t refused = 0;
  bool inputOk = true;
  std::vector<uint8_t> frame;
  const uint64_t start = NowUs();
  uint64_t firstPushUs = start;
  while (result == 0 && pushed + refused < limit) {
    if (!reader.ReadFrame(frame)) {
      if (!reader.Error().empty()) {
        std::fprintf(stderr, "input: %s\n", reader.Error().c_str());
        inputOk = false;
      }
      break;
    }
    // A free record, or wait for the link to give one back.
    PoolSlot* slot = nullptr;
    const uint64_t waitFrom = NowUs();
    while (slot == nullptr) {
      {
        std::unique_lock<std::mutex> lock(g_pool.lock);
        g_pool.returned.wait_for(lock, std::chrono::milliseconds(20), [] {
          return std::any_of(g_pool.slots.begin(), g_pool.slots.end(),
                             [](const PoolSlot& s) { return !s.inFlight; });
        });
        for (PoolSlot& candidate : g_pool.slots) {
          if (!candidate.inFlight) {
            slot = &candidate;
            break;
          }
        }
        if (slot != nullptr) {
          slot->inFlight = true;  // before the push: the release may come at once
          slot->serial = static_cast<uint32_t>(g_pool.returnsOf.size());
          g_pool.returnsOf.push_back(0);
        }
      }
      if (slot == nullptr) {
        ServiceWindows(display, std::chrono::microseconds(0), false, 0, reportsPrinted);
        if (NowUs() - waitFrom >
            static_cast<uint64_t>(std::chrono::microseconds(kStallLimit).count())) {
          std::fprintf(stderr, "no frame came back for 10 s; stopping\n");
          result = 1;
          break;
        }
      }
    }
    if (slot == nullptr) {
      break;
    }
    if (!slot->buffer->IsAvailable()) {
      std::fprintf(stderr, "a returned buffer is still held (%u references)\n",
                   slot->buffer->GetRefCount());
    }
    FillBuffer(frame, reader, *slot->buffer);
    const uint64_t pushUs = NowUs();
    firstPushUs = pushed + refused == 0 ? pushUs : firstPushUs;
    slot->pushedUs.store(static_cast<int64_t>(pushUs));
    const uint32_t accepted = lib.receiveDecFrame(0, kDecoderNodeId, slot->record);
    uint32_t returnedSoFar = 0;
    {
      std::lock_guard<std::mutex> lock(g_pool.lock);
      if (accepted != 0) {
        slot->inFlight = false;  // not in the link: still ours
        g_pool.returnsOf.pop_back();
      }
      returnedSoFar = g_pool.returns;
    }
    if (accepted != 0) {
      ++refused;
      std::fprintf(stderr, "frame %u refused: %u\n", pushed + refused, accepted);
    } else {
      ++pushed;
    }
    const uint64_t now = NowUs();
    std::printf("frame %u pushed: returned %u, rendered 0x%llx:%u 0x%llx:%u, %.2f frames/s\n",
                pushed, returnedSoFar, static_cast<unsigned long long>(kDecodeWindows[0]),
                FramesOf(0), static_cast<unsigned long long>(kDecodeWindows[1]), FramesOf(1),
                Rate(pushed > 0 ? pushed - 1 : 0, now - firstPushUs));
    // Paced at the clip's rate unless --fast; the windows are served meanwhile.
    const uint64_t due = options.fast ? now : start + frameUs * (pushed + refused);
    do {
      const uint64_t left = due > NowUs() ? due - NowUs() : 0;
      ServiceWindows(display, std::chrono::microseconds(std::min<uint64_t>(left, 20000)), false, 0,
                     reportsPrinted);
    } while (NowUs() < due);
  }
  const double pushSeconds = static_cast<double>(NowUs() - start) / 1e6;

  // Every frame in the link must come back before the link comes down.
  bool drained = false;
  const uint64_t drainFrom = NowUs();
  while (!drained) {
    {
      std::unique_lock<std::mutex> lock(g_pool.lock);
      drained = g_pool.returned.wait_for(lock, std::chrono::milliseconds(20),
                                         [&] { return g_pool.returns >= pushed; });
    }
    ServiceWindows(display, std::chrono::microseconds(0), false, 0, reportsPrinted);
    if (!drained && NowUs() - drainFrom >
                        static_cast<uint64_t>(std::chrono::microseconds(kStallLimit).count())) {
      std::fprintf(stderr, "frames still in the link after 10 s\n");
      break;
    }
  }
  const double seconds = static_cast<double>(NowUs() - start) / 1e6;

  uint32_t teardown = 0;
  for (size_t i = 0; i < 2; ++i) {
    teardown |= unbindPreview(kDecodePreviewComponents[i], kDecoderComponent);
  }
  teardown |= unbindCamera(kVirtualCameraComponent, kDecoderComponent);
  for (size_t i = 0; i < 2; ++i) {
    teardown |= destroyPreview(kDecodePreviewComponents[i]);
  }
  teardown |= destroyCamera(kVirtualCameraComponent);
  teardown |= destroyDecoder(kDecoderComponent);
  lib.releaseContainer(ContainerName(kDecoderComponent).c_str());
  lib.releaseContainer(ContainerName(kVirtualCameraComponent).c_str());
  for (size_t i = 0; i < 2; ++i) {
    lib.releaseContainer(ContainerName(kDecodePreviewComponents[i]).c_str());
  }
  ServiceWindows(display, std::chrono::microseconds(0), false, 0, reportsPrinted);

  // Records still in the link are left to it: freeing them could pull memory from under a
  // library thread.
  uint32_t returns = 0;
  uint32_t once = 0;
  uint32_t leftInLink = 0;
  uint64_t holdSumUs = 0;
  uint64_t holdMaxUs = 0;
  uint32_t duplicates = 0;
  uint32_t strangers = 0;
  uint32_t wrongNode = 0;
  {
    std::lock_guard<std::mutex> lock(g_pool.lock);
    returns = g_pool.returns;
    once = static_cast<uint32_t>(
        std::count(g_pool.returnsOf.begin(), g_pool.returnsOf.end(), uint8_t{1}));
    holdSumUs = g_pool.holdSumUs;
    holdMaxUs = g_pool.holdMaxUs;
    duplicates = g_pool.duplicates;
    strangers = g_pool.strangers;
    wrongNode = g_pool.wrongNode;
    for (PoolSlot& slot : g_pool.slots) {
      if (slot.inFlight) {
        ++leftInLink;
        continue;
      }
      delete slot.buffer;
      std::free(slot.record);
      slot.buffer = nullptr;
      slot.record = nullptr;
    }
  }
  std::vector<std::string> pngs;
  const bool pngsOk = WritePngs(options.outDir, pngs);

  // One a window: the decoder's image number is one of those reported.
  const uint32_t expectedReports = 2;
  const uint32_t anomalies = duplicates + strangers + wrongNode;
  std::printf(
      "\nsummary: %u frames pushed in %.2f s (%.2f frames/s%s), %u refused, "
      "%.2f s to the last return\n",
      pushed, pushSeconds, Rate(pushed, static_cast<uint64_t>(pushSeconds * 1e6)),
      options.fast ? ", as fast as possible" : ", paced", refused, seconds);
  std::printf(
      "  returned through the release callback: %u of %u, each exactly once: %s, "
      "held in the link mean %.2f ms max %.2f ms\n",
      returns, pushed, once == pushed && returns == pushed ? "yes" : "NO",
      returns ? static_cast<double>(holdSumUs) / returns / 1000.0 : 0.0, Ms(holdMaxUs));
  if (anomalies != 0 || leftInLink != 0) {
    std::printf(
        "  release anomalies: %u duplicate, %u unknown, %u under another node id; "
        "%u records left in the link\n",
        duplicates, strangers, wrongNode, leftInLink);
  }
  const bool windowsOk = PrintWindowSummary(pushed, true);
  std::printf("  virtual camera: bound, %u output calls\n", g_virtualCameraCalls.load());
  std::printf("  first-frame reports: %zu of %u expected\n", reportsPrinted, expectedReports);
  for (const std::string& path : pngs) {
    std::printf("last frame: %s\n", path.c_str());
  }
  std::printf("teardown: %s\n", teardown == 0 ? "clean" : "failed");
  std::fflush(stdout);
  Linger(display, options.linger);
  const bool returnsOk = returns == pushed && once == pushed && anomalies == 0;
  return result == 0 && inputOk && pushed > 0 && returnsOk && windowsOk && pngsOk &&
                 teardown == 0 && reportsPrinted == expectedReports
             ? 0
             : 1;
}

// ---------------------------------------------------------------------------------------

// The test pattern the build writes beside the tools folder, or "" when there is none:
// without an image the test input has nothing to send.
std::string BuiltTestPattern() {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) {
    return "";
  }
  const std::filesystem::path pattern = self.parent_path().parent_path() / "test_pattern.bmp";
  return std::filesystem::is_regular_file(pattern, error) ? pattern.string() : "";
}

bool ParseOptions(int argc, char** argv, Options& options) {
  bool ok = true;
  for (int i = 1; i < argc && ok; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--mode" && hasValue) {
      const std::string mode = argv[++i];
      if (mode == "encode") {
        options.mode = Mode::kEncode;
      } else if (mode == "preview") {
        options.mode = Mode::kPreview;
      } else if (mode == "decode") {
        options.mode = Mode::kDecode;
      } else {
        ok = false;
      }
    } else if (arg == "--library" && hasValue) {
      options.library = argv[++i];
    } else if (arg == "--image" && hasValue) {
      options.image = argv[++i];
    } else if (arg == "--frames" && hasValue) {
      options.frames = std::atoi(argv[++i]);
      ok = options.frames > 0;
    } else if (arg == "--out" && hasValue) {
      options.out = argv[++i];
    } else if (arg == "--out-dir" && hasValue) {
      options.outDir = argv[++i];
    } else if (arg == "--input" && hasValue) {
      options.input = argv[++i];
    } else if (arg == "--fast") {
      options.fast = true;
    } else if (arg == "--no-window") {
      options.window = false;
    } else if (arg == "--linger" && hasValue) {
      options.linger = std::atof(argv[++i]);
    } else if (arg == "--trace" && hasValue) {
      options.trace = std::atoi(argv[++i]);
    } else {
      ok = false;
    }
  }
  if (!ok) {
    std::fprintf(stderr,
                 "usage: %s [--mode encode|preview|decode] [--library PATH] [--image PATH]\n"
                 "          [--frames N] [--out FILE.y4m] [--out-dir DIR] [--input FILE.y4m]\n"
                 "          [--fast] [--no-window] [--linger SECONDS] [--trace 0-4]\n",
                 argv[0]);
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    return 2;
  }
  if (options.image.empty()) {
    options.image = BuiltTestPattern();
  }
  Library lib;
  if (!lib.Load(options.library)) {
    return 1;
  }
  lib.init(0, 0, [] {});
  lib.registerTrace(0, OnTrace);
  lib.registerTrace(1, OnTrace);
  lib.registerTrace(2, OnTrace);
  lib.setTraceLevel(options.trace);
  Tables tables;
  if (!tables.Fetch(lib)) {
    return 1;
  }
  if (options.mode == Mode::kEncode) {
    return RunEncode(lib, tables, options);
  }
  HostDisplay display;
  if (options.window) {
    display.Open();
  }
  return options.mode == Mode::kPreview ? RunPreview(lib, tables, options, display)
                                        : RunDecode(lib, tables, options, display);
}
