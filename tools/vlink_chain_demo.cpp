// A small host: loads libtavo_video_vlink.so, sets a trace level and callback, fills a
// component's parameter container, then pushes frames through a chain of nodes
// (source -> relay -> three sinks) on the worker pool and prints what arrived.
//
// usage: vlink_chain_demo [library path] [frame count]
#include <dlfcn.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "core/tavo_video_vlink_node.h"
#include "platform/os_time.h"
#include "tavo_video_vlink.h"
#include "tests/support/wait.h"

namespace {

void PrintTrace(uint32_t level, const char* text) { std::printf("[trace %u]%s\n", level, text); }

class DemoNode : public VideoVlinkNode {
 public:
  DemoNode(uint32_t id, const char* name, bool relay)
      : VideoVlinkNode(id, OS_E_MPP_DEV_TEST), m_relay(relay) {
    m_nodeName = name;
  }
  ~DemoNode() override { DealTaskHandler(true); }
  uint32_t StartProcess() override {
    m_isStart = true;
    return 0;
  }
  uint32_t HandleBuffer(OsvGraphicBuffer* buffer) override {
    if (m_relay) {
      SendBuffer(buffer);
    } else {
      const uint64_t latency = OsVLinkGetTimestampUs() - m_sentAt[buffer->GetSrcImgNo() % kSlots];
      m_latencySum.fetch_add(latency);
      arrived.Add();
    }
    buffer->DecreaseRef();
    return 0;
  }
  void ReleaseFrame(OsvGraphicBuffer* buffer) override {
    inFlight[buffer->GetSrcImgNo() % kPoolSize] = false;
    returned.Add();
  }

  static constexpr uint32_t kSlots = 4096;
  static constexpr uint32_t kPoolSize = 16;
  static inline std::atomic<bool> inFlight[kPoolSize];
  static inline std::atomic<uint64_t> m_sentAt[kSlots];
  std::atomic<uint64_t> m_latencySum{0};
  CountLatch arrived;
  CountLatch returned;

 private:
  bool m_relay;
};

}  // namespace

int main(int argc, char** argv) {
  const char* libraryPath = argc > 1 ? argv[1] : "libtavo_video_vlink.so";
  const int frames = argc > 2 ? std::atoi(argv[2]) : 300;
  void* library = dlopen(libraryPath, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "cannot load %s: %s\n", libraryPath, dlerror());
    return 1;
  }
  auto init = reinterpret_cast<decltype(&TavoVideoVlinkInit)>(dlsym(library, "TavoVideoVlinkInit"));
  auto setLevel =
      reinterpret_cast<decltype(&TavoVideoSetTraceLevel)>(dlsym(library, "TavoVideoSetTraceLevel"));
  auto registerTrace = reinterpret_cast<decltype(&TavoVideoRegisterTraceCallBack)>(
      dlsym(library, "TavoVideoRegisterTraceCallBack"));
  auto getContainer = reinterpret_cast<decltype(&TavoVideoGetDataContainer)>(
      dlsym(library, "TavoVideoGetDataContainer"));
  auto releaseContainer = reinterpret_cast<decltype(&TavoVideoReleaseDataContainer)>(
      dlsym(library, "TavoVideoReleaseDataContainer"));
  if (!init || !setLevel || !registerTrace || !getContainer || !releaseContainer) {
    std::fprintf(stderr, "%s lacks the host interface\n", libraryPath);
    return 1;
  }
  std::printf("init: %u\n", init(0, 0, [] {}));
  std::printf("register trace channel 0: %u\n", registerTrace(0, PrintTrace));
  std::printf("trace level 3: %u\n", setLevel(3));
  DataContainer* container = getContainer("Node[1]PresentParam");
  container->SetDataByString<uint32_t>("imgNo", 13);
  container->SetDataByString<uint32_t>("portId", 0);
  std::printf("release unknown container (expect 1 and an error trace): %u\n",
              releaseContainer("Node[999]PresentParam"));

  auto source = std::make_shared<DemoNode>(13, "TEST_13", false);
  auto relay = std::make_shared<DemoNode>(10001, "IMG_10001", true);
  std::vector<std::shared_ptr<DemoNode>> sinks;
  for (uint32_t i = 0; i < 3; ++i) {
    sinks.push_back(std::make_shared<DemoNode>(20 + i, "ENC", false));
  }
  source->ConnectToNode(relay);
  relay->ConnectFromNode(source);
  for (auto& sink : sinks) {
    relay->ConnectToNode(sink);
    sink->ConnectFromNode(relay);
    sink->StartProcess();
  }
  relay->StartProcess();
  source->StartProcess();

  // A pool of 16 frames, as a still-image input keeps: a frame is reused once free.
  std::vector<std::unique_ptr<OsvGraphicBuffer>> pool;
  for (uint32_t i = 0; i < DemoNode::kPoolSize; ++i) {
    pool.push_back(
        std::make_unique<OsvGraphicBuffer>(1280, 720, TAVO_VIDEO_VLINK_FORMAT_I420, true));
    pool.back()->SetReleaseTarget(source);
  }
  const uint64_t start = OsVLinkGetTimestampUs();
  for (int i = 0; i < frames; ++i) {
    const uint32_t slot = static_cast<uint32_t>(i) % DemoNode::kPoolSize;
    OsvGraphicBuffer* frame = pool[slot].get();
    // A frame is reused only once it came back to the source.
    if (!source->returned.WaitUntil([slot] { return !DemoNode::inFlight[slot].load(); })) {
      std::fprintf(stderr, "frame %u never came back\n", slot);
      break;
    }
    DemoNode::inFlight[slot] = true;
    frame->SetSrcImgNo(static_cast<uint32_t>(i));
    DemoNode::m_sentAt[static_cast<uint32_t>(i) % DemoNode::kSlots] = OsVLinkGetTimestampUs();
    source->SendBuffer(frame);
  }
  bool complete = source->returned.WaitFor(frames);
  const double seconds = static_cast<double>(OsVLinkGetTimestampUs() - start) / 1e6;
  for (size_t i = 0; i < sinks.size(); ++i) {
    const int arrived = sinks[i]->arrived.Get();
    std::printf("sink %zu: %d frames arrived, mean hand-off latency %.1f us\n", i, arrived,
                arrived ? static_cast<double>(sinks[i]->m_latencySum.load()) / arrived : 0.0);
  }
  std::printf("%d frames sent, %d returned to the source, %.0f frames/s\n", frames,
              source->returned.Get(), frames / seconds);

  for (auto& sink : sinks) {
    relay->DisconnectFromNode(sink, true);
    sink->DisconnectFromNode(relay, false);
  }
  source->DisconnectFromNode(relay, true);
  relay->DisconnectFromNode(source, false);
  releaseContainer("Node[1]PresentParam");
  setLevel(0);
  return complete ? 0 : 1;
}
