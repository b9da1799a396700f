// A host program that drives libtavo_video_vlink.so the way the terminal's media process
// does: only through dlopen, the exported functions, the component tables and callbacks.
//
// It creates a test-image input and an encoder output, binds them, takes every frame the
// encoder callback hands over, writes it to a Y4M file, gives each record back with
// TavoVideoReleaseVEncFrame, then unbinds and destroys both components.
//
// usage: vlink_host [--library PATH] [--image PATH] [--frames N] [--out FILE.y4m]
//                   [--trace LEVEL]
#include <dlfcn.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "tavo_video_vlink.h"

namespace {

struct Options {
  std::string library = "libtavo_video_vlink.so";
  std::string image;
  std::string out = "vlink_out.y4m";
  int frames = 10;
  int trace = 1;
};

// Component ids are the host's own numbers; the node ids go into the containers.
constexpr uint32_t kTestComponent = 100;
constexpr uint32_t kEncoderComponent = 101;
constexpr uint32_t kTestNodeId = 50;
constexpr uint32_t kEncoderNodeId = 5;

uint64_t NowUs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
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
           Bind(releaseFrame, "TavoVideoReleaseVEncFrame");
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

void OnTrace(uint32_t /*level*/, const char* text) {
  // Texts start with a line break and a coloured prefix; print them as one line.
  while (*text == '\r' || *text == '\n') {
    ++text;
  }
  std::fprintf(stderr, "%s\n", text);
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

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--library" && hasValue) {
      options.library = argv[++i];
    } else if (arg == "--image" && hasValue) {
      options.image = argv[++i];
    } else if (arg == "--frames" && hasValue) {
      options.frames = std::atoi(argv[++i]);
    } else if (arg == "--out" && hasValue) {
      options.out = argv[++i];
    } else if (arg == "--trace" && hasValue) {
      options.trace = std::atoi(argv[++i]);
    } else {
      std::fprintf(stderr,
                   "usage: %s [--library PATH] [--image PATH] [--frames N] [--out FILE.y4m] "
                   "[--trace 0-4]\n",
                   argv[0]);
      return false;
    }
  }
  return options.frames > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    return 2;
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

  const tagTavoVideoCreateFuncMap* createTable = nullptr;
  const tagTavoVideoBindFuncMap* bindTable = nullptr;
  const tagTavoVideoBindFuncMap* unbindTable = nullptr;
  const tagTavoVideoDestroyFuncMap* destroyTable = nullptr;
  uint32_t createCount = 0;
  uint32_t bindCount = 0;
  uint32_t unbindCount = 0;
  uint32_t destroyCount = 0;
  if (lib.getCreate(&createTable, &createCount) != 0 || lib.getBind(&bindTable, &bindCount) != 0 ||
      lib.getUnbind(&unbindTable, &unbindCount) != 0 ||
      lib.getDestroy(&destroyTable, &destroyCount) != 0) {
    std::fprintf(stderr, "cannot fetch the component tables\n");
    return 1;
  }
  auto createTest = FindRow(createTable, createCount, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto createEncoder = FindRow(createTable, createCount, TAVO_VIDEO_COMPONENT_ENCODER);
  auto bind = FindRow(bindTable, bindCount, TAVO_VIDEO_COMPONENT_ENCODER,
                      TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto unbind = FindRow(unbindTable, unbindCount, TAVO_VIDEO_COMPONENT_ENCODER,
                        TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto destroyTest = FindRow(destroyTable, destroyCount, TAVO_VIDEO_COMPONENT_TEST_IMAGE);
  auto destroyEncoder = FindRow(destroyTable, destroyCount, TAVO_VIDEO_COMPONENT_ENCODER);
  if (!createTest || !createEncoder || !bind || !unbind || !destroyTest || !destroyEncoder) {
    std::fprintf(stderr, "the tables lack a row this host needs\n");
    return 1;
  }

  // Each component's node id and port, where the library looks them up.
  const struct {
    uint32_t component;
    uint32_t node;
  } components[] = {{kTestComponent, kTestNodeId}, {kEncoderComponent, kEncoderNodeId}};
  for (const auto& c : components) {
    const std::string name = "Node[" + std::to_string(c.component) + "]PresentParam";
    DataContainer* container = lib.getContainer(name.c_str());
    container->SetDataByString<uint32_t>("imgNo", c.node);
    container->SetDataByString<uint32_t>("portId", 0);
  }

  auto testParam = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(testParam.get(), 0, sizeof(*testParam));
  testParam->test.frameRate = 30;
  std::snprintf(testParam->test.fileName, sizeof(testParam->test.fileName), "%s",
                options.image.c_str());
  auto encoderParam = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(encoderParam.get(), 0, sizeof(*encoderParam));
  encoderParam->venc.width = 1280;
  encoderParam->venc.height = 720;
  encoderParam->venc.frameRate = 2;
  encoderParam->venc.hostKey = 7;
  encoderParam->venc.hostSubKey = 8;
  encoderParam->venc.encOutFunc = OnEncoderFrame;
  encoderParam->venc.encCreateFunc = OnEncoderCreate;

  std::printf("image: %s\n", options.image.empty() ? "(none: black picture)" : options.image.c_str());
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
  while (result == 0 && received < options.frames) {
    std::unique_lock<std::mutex> lock(g_handoffs.lock);
    // The test image comes twice a second: ten seconds without a frame is a stall.
    if (!g_handoffs.arrived.wait_for(lock, std::chrono::seconds(10),
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
  for (const auto& c : components) {
    lib.releaseContainer(("Node[" + std::to_string(c.component) + "]PresentParam").c_str());
  }
  std::fclose(out);

  std::printf("\nsummary: %d frames received in %.1f s (%.2f frames/s), %d written to %s\n",
              received, seconds, seconds > 0 ? received / seconds : 0.0, written,
              options.out.c_str());
  std::printf("hand-off delay to the host thread: mean %.0f us, max %llu us; sequence %s\n",
              received ? static_cast<double>(delaySum) / received : 0.0,
              static_cast<unsigned long long>(delayMax), sequenceOk ? "continuous" : "BROKEN");
  std::printf("teardown: %s\n", teardown == 0 ? "clean" : "failed");
  return result == 0 && teardown == 0 && received == options.frames && sequenceOk ? 0 : 1;
}
