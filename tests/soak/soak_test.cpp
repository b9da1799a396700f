// Every link kind at once, churned from several host threads while frames flow: a test
// image, decoded frames, a screen (on a private Xvfb) and a camera (a fake V4L2 device, the
// virtual background on a fake inference client) feed encoders, previews and a virtual
// camera. Host threads unbind and rebind sinks, destroy and re-create them, update
// encoders, move the mouse settings, take snapshots, change the capture size and switch the
// background. (Calls from inside callbacks, records given back wrongly and host threads
// racing on one link without any order are the careless host's tests.) At the end every
// host frame must have come back exactly once, and no thread, descriptor, shared-memory
// segment or frame may be left; resident memory must stay flat.
//
// VLINK_SOAK_SECONDS sets the run's length (default 30; the long run is documented in the
// README).
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "background/tavo_video_background_virtuality.h"
#include "background/tavo_video_opencv_binding.h"
#include "camera/tavo_video_capture_device.h"
#include "core/tavo_video_seam.h"
#include "platform/adapt_common/os_shm_queue.h"
#include "tavo_video_vlink.h"
#include "tests/support/fake_computing_client.h"
#include "tests/support/fake_host.h"
#include "tests/support/fake_os.h"
#include "tests/support/own_process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wrapper_symbols.h"
#include "tools/common/fake_v4l2_device.h"
#include "tools/common/xvfb_server.h"

namespace {

using Clock = std::chrono::steady_clock;

// Node ids: inputs, then sinks. A preview window shows the frames stamped with its imgNo.
constexpr uint32_t kTestNode = 50, kDecoderNode = 30, kScreenNode = 90, kCameraNode = 60;
constexpr uint32_t kSnapshotQueue = 77, kBackgroundChannel = 5, kMouse = 1;
constexpr const char* kCameraBus = "usb-soak-0";

struct Component {
  uint32_t id, type, node;
  uint32_t shows = 0;  // a preview's imgNo
};
// The screen's preview binds through the type-4 source row, whose component names the
// screen node.
const Component kTest{1, TAVO_VIDEO_COMPONENT_TEST_IMAGE, kTestNode};
const Component kEncTest{2, TAVO_VIDEO_COMPONENT_ENCODER, 10};
const Component kDecoder{3, TAVO_VIDEO_COMPONENT_DECODER, kDecoderNode};
const Component kVoDecoder{4, TAVO_VIDEO_COMPONENT_PREVIEW, 151, kDecoderNode};
const Component kVirCam{5, TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, 40};
const Component kScreen{6, TAVO_VIDEO_COMPONENT_SCREEN, kScreenNode};
const Component kEncScreen{7, TAVO_VIDEO_COMPONENT_ENCODER, 11};
const Component kScreenAsInput{8, TAVO_VIDEO_COMPONENT_INPUT, kScreenNode};
const Component kVoScreen{9, TAVO_VIDEO_COMPONENT_PREVIEW, 152, kScreenNode};
const Component kCamera{10, TAVO_VIDEO_COMPONENT_CAMERA, kCameraNode};
const Component kEncCamera{11, TAVO_VIDEO_COMPONENT_ENCODER, 12};
const Component kVoCamera{12, TAVO_VIDEO_COMPONENT_PREVIEW, 153, kCameraNode};

struct Link {
  Component sink;
  Component source;
};
const Link kLinks[] = {{kEncTest, kTest},     {kVoDecoder, kDecoder},      {kVirCam, kDecoder},
                       {kEncScreen, kScreen}, {kVoScreen, kScreenAsInput}, {kEncCamera, kCamera},
                       {kVoCamera, kCamera}};

uint32_t OnVirtualOut(uint32_t, void*, uint32_t, void*, uint32_t) { return 0; }
int32_t OnCursor(VlinkCursorSendData*, uint32_t, uint32_t) { return 0; }

size_t ResidentKb() {
  std::ifstream statm("/proc/self/statm");
  size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

class Soak : public ::testing::Test {
 protected:
  // Created with the record Record gives it.
  uint32_t Create(const Component& c, uint32_t variant = 0) {
    HostParam p = Record(c, variant);
    return m_host.Create(c.type, c.id, c.node, p.get());
  }
  uint32_t Destroy(const Component& c) { return m_host.Destroy(c.type, c.id); }
  uint32_t Bind(const Link& l) {
    return m_host.Bind(l.sink.type, l.source.type, l.sink.id, l.source.id);
  }
  uint32_t Unbind(const Link& l) {
    return m_host.Unbind(l.sink.type, l.source.type, l.sink.id, l.source.id);
  }

  // The record each component is created with; odd variants make smaller encoders.
  HostParam Record(const Component& c, uint32_t variant = 0) {
    HostParam p = FakeHost::Zeroed();
    switch (c.type) {
      case TAVO_VIDEO_COMPONENT_ENCODER:
        p = FakeHost::EncoderParam(0, variant % 2 == 0 ? 640 : 320, variant % 2 == 0 ? 360 : 180);
        p->venc.frameRate = 30;
        break;
      case TAVO_VIDEO_COMPONENT_PREVIEW:
        return FakeHost::PreviewParam({{c.node, c.shows}});
      case TAVO_VIDEO_COMPONENT_DECODER:
        return FakeHost::DecoderParam(kDecoderNode);
      case TAVO_VIDEO_COMPONENT_TEST_IMAGE:
        return FakeHost::TestParam(m_image, 30);
      case TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA:
        p->virCam.width = 320;
        p->virCam.height = 240;
        p->virCam.frameRate = 30;
        p->virCam.virtualOutFunc = OnVirtualOut;
        break;
      case TAVO_VIDEO_COMPONENT_SCREEN:
        p->screen.width = 1280;
        p->screen.height = 720;
        p->screen.frameRate = 15;
        break;
      case TAVO_VIDEO_COMPONENT_CAMERA:
        p->camera.width = 640;
        p->camera.height = 480;
        p->camera.frameRate = 30;
        std::snprintf(p->camera.cameraId, sizeof(p->camera.cameraId), "%s", kCameraBus);
        break;
      default:
        break;
    }
    return p;
  }

  // Builds every link, churns it for `seconds` from several host threads, takes it down
  // and gives back what the host holds. Returns resident memory sampled every second.
  std::vector<size_t> RunLinks(int seconds, const std::string& background) {
    // Build every link, with the background channel set up first, as a host does.
    uint32_t queue = 0;
    EXPECT_EQ(TavoVideoVlinkOverlayParamCreate(kCameraNode, kBackgroundChannel, &queue,
                                               TAVO_VIDEO_OVERLAY_VIRTUAL_BACKGROUND),
              0U);
    tagTavoVideoOverlayParam overlay{};
    std::snprintf(overlay.background.bgImagePath, sizeof(overlay.background.bgImagePath), "%s",
                  background.c_str());
    EXPECT_EQ(TavoVideoVlinkOverlayParamSet(kBackgroundChannel, &overlay), 0U);
    EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(kBackgroundChannel, 1), 0U);
    for (const Component* c : {&kTest, &kEncTest, &kDecoder, &kVoDecoder, &kVirCam, &kScreen,
                               &kEncScreen, &kVoScreen, &kCamera, &kEncCamera, &kVoCamera}) {
      EXPECT_EQ(Create(*c), 0U) << "component " << c->id;
    }
    m_host.Store(kScreenAsInput.id, kScreenAsInput.node);
    for (const Link& link : kLinks) {
      EXPECT_EQ(Bind(link), 0U) << "sink " << link.sink.id;
    }

    std::atomic<bool> stop{false};
    std::mutex linkLock;  // the host serialises calls on one component: guards `bound`
    std::vector<bool> bound(std::size(kLinks), true);
    std::vector<std::thread> threads;
    // Decoded frames at about 200 a second.
    threads.emplace_back([&] {
      for (uint32_t i = 0; !stop; ++i) {
        m_host.Push(kDecoderNode, i % 4, 320, 240);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
    // The host's encoder gives frames back a few at a time.
    threads.emplace_back([&] {
      while (!stop) {
        m_host.GiveBack(FakeHost::kAnyCode, 3);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    });
    // Links: unbind and rebind a random sink; now and then destroy and re-create it.
    threads.emplace_back([&] {
      std::minstd_rand random(1);
      while (!stop) {
        const size_t i = random() % std::size(kLinks);
        const Link& link = kLinks[i];
        std::lock_guard<std::mutex> lock(linkLock);
        if (bound[i]) {
          EXPECT_EQ(Unbind(link), 0U) << "sink " << link.sink.id;
          bound[i] = false;
          if (random() % 4 == 0) {
            EXPECT_EQ(Destroy(link.sink), 0U);
            EXPECT_EQ(Create(link.sink, static_cast<uint32_t>(random())), 0U)
                << "component " << link.sink.id;
          }
        } else {
          EXPECT_EQ(Bind(link), 0U) << "sink " << link.sink.id;
          bound[i] = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 30));
      }
    });
    // Settings: encoder updates, capture size, the background on and off, the screen's
    // mouse and snapshots.
    threads.emplace_back([&] {
      std::minstd_rand random(2);
      const std::pair<uint32_t, uint32_t> sizes[] = {{640, 480}, {320, 240}};
      tagTavoVideoMouseParam mouse{};
      mouse.screenComponentId = kScreen.id;
      mouse.framerate = 30;
      mouse.shape = 7;
      mouse.cursorCallback = OnCursor;
      while (!stop) {
        {
          std::lock_guard<std::mutex> lock(linkLock);
          const Component& enc = random() % 2 == 0 ? kEncScreen : kEncCamera;
          HostParam p = Record(enc, static_cast<uint32_t>(random()));
          EXPECT_EQ(m_host.Update(enc.type, enc.id, p.get()), 0U);
        }
        const auto& [w, h] = sizes[random() % 2];
        EXPECT_EQ(TavoVideoSetCapResolution(kCameraNode, w, h), 0U);
        EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(kBackgroundChannel, random() % 2), 0U);
        mouse.independent = static_cast<uint8_t>(random() % 2);
        EXPECT_EQ(TavoVideoMouseSetParam(kMouse, &mouse), 0U);
        EXPECT_EQ(random() % 2 == 0 ? TavoVideoShowMouse(kMouse) : TavoVideoHideMouse(kMouse), 0U);
        TagTavoVideoSnapshotStorage storage{};
        storage.width = 320;
        storage.height = 180;
        storage.queueId = kSnapshotQueue;
        storage.format = 3;
        EXPECT_EQ(TavoVideoVlinkSnapShot(kScreenNode, &storage), 0U);
        OsShmAdvancedBuffer* pictures[4] = {};
        const uint32_t taken = OsShmAdvancedReadBulkQueue(kSnapshotQueue, pictures, 4, 0);
        for (uint32_t i = 0; i < taken; ++i) {
          OsShmAdvancedMemFreeBuffer(pictures[i]);
        }
        if (random() % 8 == 0) {
          EXPECT_EQ(TavoVideoMouseStop(kMouse), 0U);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 50));
      }
    });

    // Resident memory, sampled every second; the first samples are the warm-up.
    std::vector<size_t> resident;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      resident.push_back(ResidentKb());
    }
    stop = true;
    for (std::thread& t : threads) {
      t.join();
    }

    // Take everything down, as a host does: unbind and destroy the sinks (their last frames
    // have reached the host then), give back what the host holds, destroy the inputs (a
    // test image keeps frames still held at its destruction for good).
    for (size_t i = 0; i < std::size(kLinks); ++i) {
      if (bound[i]) {
        EXPECT_EQ(Unbind(kLinks[i]), 0U);
      }
      EXPECT_EQ(Destroy(kLinks[i].sink), 0U);
    }
    m_host.GiveBack(FakeHost::kAnyCode);
    for (const Component* c : {&kTest, &kDecoder, &kScreen, &kCamera}) {
      EXPECT_EQ(Destroy(*c), 0U);
    }
    EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(kBackgroundChannel), 0U);
    EXPECT_EQ(TavoVideoMouseStop(kMouse), 0U);
    return resident;
  }

  FakeHost m_host{HostEntries::Linked()};
  std::string m_image;
};

TEST_F(Soak, EveryLinkKindChurnsWhileFramesFlow) {
  const char* secondsText = std::getenv("VLINK_SOAK_SECONDS");
  const int seconds = secondsText != nullptr ? std::max(1, std::atoi(secondsText)) : 30;
  // Pictures of a few hundred kB come and go with every restart of a test image: a fixed
  // threshold keeps them mapped apart, so resident memory shows what is held, not how the
  // allocator's dynamic threshold happened to place freed ones.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);

  XvfbServer xvfb({{1280, 720}});
  ASSERT_TRUE(xvfb.Ok()) << xvfb.Error();
  setenv("DISPLAY", xvfb.Name().c_str(), 1);
  TempDir dir;
  m_image = dir.Write("still.bmp", SolidBmp24(640, 360, 40, 120, 200));
  const std::string background = dir.Write("background.bmp", SolidBmp24(640, 480, 200, 60, 20));

  FakeV4l2Device camera;
  FakeCameraConfig config;
  config.busInfo = kCameraBus;
  config.formats.push_back(
      FakeCameraFormat{V4L2_PIX_FMT_YUYV, {{640, 480}, {320, 240}}, {{1, 30}, {1, 15}}});
  camera.AddCamera(0, config);
  ScopedSeamOverride<CaptureDevice> useCamera(camera);
  FakeComputingClient client;
  FakeDynamicLoader loader;
  loader.AddLibrary(BackgroundVirtualityNode::kClientLibrary, FakeComputingClient::Symbols());
  loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols());
  ResetOpencvBinding();  // whatever an earlier run bound goes with its loader
  ScopedSeamOverride<DynamicLoader> useLoader(loader);
  ASSERT_EQ(OsShmAdvancedQueueCreate(kSnapshotQueue, 4, 1280 * 720 * 4 + 4096), 0);

  // A short first run makes what lives for the process (the pool's threads, the image
  // library's own workers) before the counts are taken.
  RunLinks(1, background);
  const size_t threadsBefore = CountOwnThreads();
  const size_t descriptorsBefore = CountOwnDescriptors();
  const std::vector<size_t> resident = RunLinks(seconds, background);

  // The host checks at its end that every decoded frame came back exactly once and no frame
  // was released twice.
  EXPECT_GT(m_host.offered.Get(), 0);
  EXPECT_GT(m_host.rendered.Get(), 0);
  // Threads end when their nodes go; the worker pool and the fakes' threads were counted
  // before. Give the last joins a moment, with a limit.
  for (int i = 0; i < 200 && CountOwnThreads() > threadsBefore; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_LE(CountOwnThreads(), threadsBefore);
  EXPECT_LE(CountOwnDescriptors(), descriptorsBefore);
  EXPECT_EQ(std::pair(camera.OpenDescriptors(), camera.Mappings()), std::pair(0UL, 0UL));
  EXPECT_EQ(CountOwnShmSegments(), 0U);

  // The last third of the run must not grow over the middle one: before it the allocators'
  // arenas of every thread reach their working size. Medians, since frames in flight make
  // single samples swing.
  auto median = [&](size_t from, size_t to) {
    std::vector<size_t> part(resident.begin() + static_cast<std::ptrdiff_t>(from),
                             resident.begin() + static_cast<std::ptrdiff_t>(to));
    std::nth_element(part.begin(), part.begin() + static_cast<std::ptrdiff_t>(part.size() / 2),
                     part.end());
    return part[part.size() / 2];
  };
  ASSERT_GE(resident.size(), 3U) << "too short a run to judge memory";
  const size_t third = resident.size() / 3;
  const size_t warm = median(resident.size() - 2 * third, resident.size() - third);
  const size_t last = median(resident.size() - third, resident.size());
  std::printf(
      "soak: %d s, %d encoder frames, %d decoded accepted, %d rendered; resident %zu kB in the "
      "middle third, %zu kB in the last (medians)\n",
      seconds, m_host.offered.Get(), m_host.Accepted(), m_host.rendered.Get(), warm, last);
  RecordProperty("resident_growth_kb", static_cast<int>(last) - static_cast<int>(warm));
  // Flat: a sanitizer's quarantine and shadow fill up for a while; a plain build must not
  // grow by more than noise.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr size_t kGrowthLimitKb = 96 * 1024;
#else
  constexpr size_t kGrowthLimitKb = 16 * 1024;
#endif
  EXPECT_LT(last, warm + kGrowthLimitKb);
  OsShmAdvancedQueueDestroy(kSnapshotQueue);
  // The wrapper binding keeps its library handle for the process: not this test's loader's.
  ResetOpencvBinding();
}

}  // namespace
