// Every link kind at once, churned from several host threads while frames flow: a test
// image, decoded frames, a screen (on a private Xvfb) and a camera (a fake V4L2 device, the
// virtual background on a fake inference client) feed encoders, previews and a virtual
// camera. Host threads unbind and rebind sinks, destroy and re-create them, update
// encoders, move the mouse settings, take snapshots, change the capture size and switch the
// background; two more race unsynchronised on a second test image and its encoder; render
// callbacks update their preview from inside, and the host gives back records the library
// never issued. At the end every host frame must have come back exactly once, and no thread,
// descriptor, shared-memory segment or frame may be left; resident memory must stay flat.
//
// VLINK_SOAK_SECONDS sets the run's length (default 30; the long run is documented in the
// README).
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "background/tavo_video_background_virtuality.h"
#include "camera/tavo_video_capture_device.h"
#include "core/tavo_video_seam.h"
#include "platform/adapt_common/os_shm_queue.h"
#include "tavo_video_vlink.h"
#include "tests/support/fake_computing_client.h"
#include "tests/support/fake_os.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wrapper_symbols.h"
#include "tools/common/fake_v4l2_device.h"
#include "tools/common/xvfb_server.h"

namespace {

using Clock = std::chrono::steady_clock;

// Node ids: inputs, then sinks. A preview window shows the frames stamped with its imgNo.
constexpr uint32_t kTestNode = 50, kDecoderNode = 30, kScreenNode = 90, kCameraNode = 60;
constexpr uint32_t kCameraBus = 0;
constexpr uint32_t kSnapshotQueue = 77;
constexpr uint32_t kBackgroundChannel = 5;
constexpr uint32_t kMouse = 1;

struct Component {
  uint32_t id;
  uint32_t type;
  uint32_t node;
};
// The screen's preview binds through the type-4 source row, whose component names the
// screen node.
const Component kTest{1, TAVO_VIDEO_COMPONENT_TEST_IMAGE, kTestNode};
const Component kEncTest{2, TAVO_VIDEO_COMPONENT_ENCODER, 10};
const Component kRacedTest{13, TAVO_VIDEO_COMPONENT_TEST_IMAGE, 51};
const Component kRacedEnc{14, TAVO_VIDEO_COMPONENT_ENCODER, 13};
const Component kDecoder{3, TAVO_VIDEO_COMPONENT_DECODER, kDecoderNode};
const Component kVoDecoder{4, TAVO_VIDEO_COMPONENT_PREVIEW, 151};
const Component kVirCam{5, TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, 40};
const Component kScreen{6, TAVO_VIDEO_COMPONENT_SCREEN, kScreenNode};
const Component kEncScreen{7, TAVO_VIDEO_COMPONENT_ENCODER, 11};
const Component kScreenAsInput{8, TAVO_VIDEO_COMPONENT_INPUT, kScreenNode};
const Component kVoScreen{9, TAVO_VIDEO_COMPONENT_PREVIEW, 152};
const Component kCamera{10, TAVO_VIDEO_COMPONENT_CAMERA, kCameraNode};
const Component kEncCamera{11, TAVO_VIDEO_COMPONENT_ENCODER, 12};
const Component kVoCamera{12, TAVO_VIDEO_COMPONENT_PREVIEW, 153};

struct Link {
  Component sink;
  Component source;
};
const Link kLinks[] = {{kEncTest, kTest},     {kVoDecoder, kDecoder},      {kVirCam, kDecoder},
                       {kEncScreen, kScreen}, {kVoScreen, kScreenAsInput}, {kEncCamera, kCamera},
                       {kVoCamera, kCamera}};

// What came back from the library, counted by the host's callbacks.
struct HostSide {
  std::mutex lock;  // guards heldEncoderFrames
  std::vector<VencOutFrame*> heldEncoderFrames;
  std::atomic<uint64_t> encoderFrames{0};
  std::atomic<uint64_t> decodedPushed{0};
  std::atomic<uint64_t> decodedBack{0};
  std::atomic<uint64_t> rendered{0};
  std::atomic<uint64_t> cursorRecords{0};
  std::function<void(uint32_t)> insideRender;  // set before links run, with the window
};
HostSide* g_host = nullptr;

uint32_t OnEncCreate(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t OnEncFrame(uint32_t, uint32_t, uint32_t, VencOutFrame* frame) {
  g_host->encoderFrames.fetch_add(1);
  std::lock_guard<std::mutex> lock(g_host->lock);
  g_host->heldEncoderFrames.push_back(frame);  // given back by the releaser thread
  return 1;
}
uint32_t OnDecRelease(uint32_t, tagOS_S_VIDEO_CODEC_IMG_INFO* frame) {
  g_host->decodedBack.fetch_add(1);
  delete frame->pBuffer;
  std::free(frame);
  return 1;  // the host took it
}
int OnRender(uint32_t window, TavoVideoRenderImgHeader*) {
  if (g_host->rendered.fetch_add(1) % 97 == 0 && g_host->insideRender) {
    g_host->insideRender(window);
  }
  return 0;
}
uint32_t OnVirtualOut(uint32_t, void*, uint32_t, void*, uint32_t) { return 0; }
int32_t OnCursor(VlinkCursorSendData*, uint32_t, uint32_t) {
  g_host->cursorRecords.fetch_add(1);
  return 0;
}

// What the process holds, read from /proc.
size_t CountEntries(const char* dir) {
  size_t count = 0;
  if (DIR* d = opendir(dir)) {
    while (readdir(d) != nullptr) {
      ++count;
    }
    closedir(d);
  }
  return count;
}
size_t Threads() { return CountEntries("/proc/self/task"); }
size_t Descriptors() { return CountEntries("/proc/self/fd"); }
size_t ResidentKb() {
  std::ifstream statm("/proc/self/statm");
  size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

class Soak : public ::testing::Test {
 protected:
  void SetUp() override {
    g_host = &m_host;
    ASSERT_EQ(TavoVideoGetCreateNodeFuncMap(&m_create, &m_createCount), 0U);
    ASSERT_EQ(TavoVideoGetBindNodeFuncMap(&m_bind, &m_bindCount), 0U);
    ASSERT_EQ(TavoVideoGetUnBindNodeFuncMap(&m_unbind, &m_unbindCount), 0U);
    ASSERT_EQ(TavoVideoGetDestroyNodeFuncMap(&m_destroy, &m_destroyCount), 0U);
    ASSERT_EQ(TavoVideoGetUpdateNodeFuncMap(&m_update, &m_updateCount), 0U);
  }
  void TearDown() override { g_host = nullptr; }

  template <class T>
  static auto Row(const T* table, uint32_t count, uint32_t type, uint32_t srcType = 0)
      -> decltype(table->func) {
    for (uint32_t i = 0; i < count; ++i) {
      if (table[i].type == type && table[i].srcType == srcType) {
        return table[i].func;
      }
    }
    return nullptr;
  }
  static void Store(const Component& c) {
    DataContainer* container =
        TavoVideoGetDataContainer(("Node[" + std::to_string(c.id) + "]PresentParam").c_str());
    container->SetDataByString<uint32_t>("imgNo", c.node);
    container->SetDataByString<uint32_t>("portId", 0);
  }
  uint32_t Create(const Component& c, tagTavoVideoComponentParam& param) {
    Store(c);
    return Row(m_create, m_createCount, c.type)(c.id, &param);
  }
  uint32_t Destroy(const Component& c) { return Row(m_destroy, m_destroyCount, c.type)(c.id); }
  uint32_t Bind(const Link& l) {
    return Row(m_bind, m_bindCount, l.sink.type, l.source.type)(l.sink.id, l.source.id);
  }
  uint32_t Unbind(const Link& l) {
    return Row(m_unbind, m_unbindCount, l.sink.type, l.source.type)(l.sink.id, l.source.id);
  }

  // The record each component is created with.
  tagTavoVideoComponentParam Record(const Component& c, uint32_t variant = 0) {
    tagTavoVideoComponentParam p;
    std::memset(&p, 0, sizeof(p));
    switch (c.type) {
      case TAVO_VIDEO_COMPONENT_ENCODER:
        p.venc.width = variant % 2 == 0 ? 640 : 320;
        p.venc.height = variant % 2 == 0 ? 360 : 180;
        p.venc.frameRate = 30;
        p.venc.encOutFunc = OnEncFrame;
        p.venc.encCreateFunc = OnEncCreate;
        break;
      case TAVO_VIDEO_COMPONENT_PREVIEW:
        p.vo.winNum = 1;
        p.vo.windows[0].winHandle = c.node;
        p.vo.windows[0].imgNo = c.id == kVoDecoder.id  ? kDecoderNode
                                : c.id == kVoScreen.id ? kScreenNode
                                                       : kCameraNode;
        p.vo.renderCb = OnRender;
        break;
      case TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA:
        p.virCam.width = 320;
        p.virCam.height = 240;
        p.virCam.frameRate = 30;
        p.virCam.virtualOutFunc = OnVirtualOut;
        break;
      case TAVO_VIDEO_COMPONENT_DECODER:
        p.vdec.imgNo = kDecoderNode;
        p.vdec.decReleaseFunc = OnDecRelease;
        break;
      case TAVO_VIDEO_COMPONENT_TEST_IMAGE:
        p.test.frameRate = 30;
        std::snprintf(p.test.fileName, sizeof(p.test.fileName), "%s", m_image.c_str());
        break;
      case TAVO_VIDEO_COMPONENT_SCREEN:
        p.screen.width = 1280;
        p.screen.height = 720;
        p.screen.frameRate = 15;
        break;
      case TAVO_VIDEO_COMPONENT_CAMERA:
        p.camera.width = 640;
        p.camera.height = 480;
        p.camera.frameRate = 30;
        std::snprintf(p.camera.cameraId, sizeof(p.camera.cameraId), "usb-soak-%u", kCameraBus);
        break;
      default:
        break;
    }
    return p;
  }

  void PushDecodedFrame(uint32_t sequence) {
    auto* frame = static_cast<tagOS_S_VIDEO_CODEC_IMG_INFO*>(
        std::calloc(1, sizeof(tagOS_S_VIDEO_CODEC_IMG_INFO)));
    frame->pBuffer = new OsvGraphicBuffer(320, 240, 0, true, false);
    m_host.decodedPushed.fetch_add(1);
    if (TavoVideoReceiveVDecFrame(sequence % 4, kDecoderNode, frame) != 0) {
      OnDecRelease(kDecoderNode, frame);  // refused: still ours
    }
  }
  void ReleaseEncoderFrames(size_t keep) {
    std::vector<VencOutFrame*> frames;
    {
      std::lock_guard<std::mutex> lock(m_host.lock);
      while (m_host.heldEncoderFrames.size() > keep) {
        frames.push_back(m_host.heldEncoderFrames.front());
        m_host.heldEncoderFrames.erase(m_host.heldEncoderFrames.begin());
      }
    }
    for (VencOutFrame* frame : frames) {
      TavoVideoReleaseVEncFrame(frame);
    }
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
    // Now and then a render callback updates its own preview (the same windows).
    m_host.insideRender = [this](uint32_t window) {
      for (const Component* vo : {&kVoDecoder, &kVoScreen, &kVoCamera}) {
        if (vo->node == window) {
          tagTavoVideoComponentParam p = Record(*vo);
          Row(m_update, m_updateCount, TAVO_VIDEO_COMPONENT_PREVIEW)(vo->id, &p);
        }
      }
    };
    for (const Component* c : {&kTest, &kEncTest, &kDecoder, &kVoDecoder, &kVirCam, &kScreen,
                               &kEncScreen, &kVoScreen, &kCamera, &kEncCamera, &kVoCamera}) {
      tagTavoVideoComponentParam p = Record(*c);
      EXPECT_EQ(Create(*c, p), 0U) << "component " << c->id;
    }
    Store(kScreenAsInput);
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
        PushDecodedFrame(i);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
    // The host's encoder gives frames back a few at a time, and records it never got.
    threads.emplace_back([&] {
      while (!stop) {
        VencOutFrame foreign{};
        foreign.imgNo = kEncTest.node;
        EXPECT_EQ(TavoVideoReleaseVEncFrame(&foreign), 1U);
        ReleaseEncoderFrames(3);
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
            tagTavoVideoComponentParam p = Record(link.sink, static_cast<uint32_t>(random()));
            EXPECT_EQ(Create(link.sink, p), 0U) << "component " << link.sink.id;
          }
        } else {
          EXPECT_EQ(Bind(link), 0U) << "sink " << link.sink.id;
          bound[i] = true;
        }
        m_calls.fetch_add(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 30));
      }
    });
    // Two host threads racing on one test image and its encoder, without any order.
    for (uint32_t seed : {4U, 5U}) {
      threads.emplace_back([&, seed] {
        std::minstd_rand random(seed);
        const Link raced{kRacedEnc, kRacedTest};
        while (!stop) {
          const Component& c = random() % 2 == 0 ? kRacedTest : kRacedEnc;
          tagTavoVideoComponentParam p = Record(c);
          switch (random() % 4) {
            case 0:
              Create(c, p);
              break;
            case 1:
              Bind(raced);
              break;
            case 2:
              Unbind(raced);
              break;
            default:
              Destroy(c);
          }
          m_calls.fetch_add(1);
          std::this_thread::sleep_for(std::chrono::milliseconds(random() % 10));
        }
      });
    }
    // Parameters: encoder updates, capture size, the background on and off.
    threads.emplace_back([&] {
      std::minstd_rand random(2);
      const std::pair<uint32_t, uint32_t> sizes[] = {{640, 480}, {320, 240}};
      while (!stop) {
        {
          std::lock_guard<std::mutex> lock(linkLock);
          const Component& enc = random() % 2 == 0 ? kEncScreen : kEncCamera;
          tagTavoVideoComponentParam p = Record(enc, static_cast<uint32_t>(random()));
          EXPECT_EQ(Row(m_update, m_updateCount, TAVO_VIDEO_COMPONENT_ENCODER)(enc.id, &p), 0U);
        }
        const auto& [w, h] = sizes[random() % 2];
        EXPECT_EQ(TavoVideoSetCapResolution(kCameraNode, w, h), 0U);
        EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(kBackgroundChannel, random() % 2), 0U);
        m_calls.fetch_add(3);
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 40));
      }
    });
    // The screen's mouse and snapshots.
    threads.emplace_back([&] {
      std::minstd_rand random(3);
      while (!stop) {
        tagTavoVideoMouseParam mouse{};
        mouse.screenComponentId = kScreen.id;
        mouse.independent = static_cast<uint8_t>(random() % 2);
        mouse.framerate = 30;
        mouse.shape = 7;
        mouse.cursorCallback = OnCursor;
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
        m_calls.fetch_add(4);
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
    Unbind({kRacedEnc, kRacedTest});
    EXPECT_EQ(Destroy(kRacedEnc), 0U);

    // Take everything down, as a host does: unbind, destroy the sinks (their last frames
    // have reached the host then), give back what the host holds, destroy the inputs (a
    // test image keeps frames still held at its destruction for good).
    for (size_t i = 0; i < std::size(kLinks); ++i) {
      if (bound[i]) {
        EXPECT_EQ(Unbind(kLinks[i]), 0U);
      }
    }
    for (const Component* c :
         {&kEncTest, &kVoDecoder, &kVirCam, &kEncScreen, &kVoScreen, &kEncCamera, &kVoCamera}) {
      EXPECT_EQ(Destroy(*c), 0U);
    }
    ReleaseEncoderFrames(0);
    for (const Component* c : {&kTest, &kRacedTest, &kDecoder, &kScreen, &kCamera}) {
      EXPECT_EQ(Destroy(*c), 0U);
    }
    m_host.insideRender = nullptr;  // no preview left to render
    EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(kBackgroundChannel), 0U);
    EXPECT_EQ(TavoVideoMouseStop(kMouse), 0U);
    return resident;
  }

  HostSide m_host;
  std::atomic<uint64_t> m_calls{0};
  std::string m_image;
  const tagTavoVideoCreateFuncMap* m_create = nullptr;
  const tagTavoVideoBindFuncMap* m_bind = nullptr;
  const tagTavoVideoBindFuncMap* m_unbind = nullptr;
  const tagTavoVideoDestroyFuncMap* m_destroy = nullptr;
  const tagTavoVideoUpdateFuncMap* m_update = nullptr;
  uint32_t m_createCount = 0, m_bindCount = 0, m_unbindCount = 0, m_destroyCount = 0,
           m_updateCount = 0;
};

TEST_F(Soak, EveryLinkKindChurnsWhileFramesFlow) {
  const char* secondsText = std::getenv("VLINK_SOAK_SECONDS");
  const int seconds = secondsText != nullptr ? std::max(1, std::atoi(secondsText)) : 30;

  XvfbServer xvfb({{1280, 720}});
  ASSERT_TRUE(xvfb.Ok()) << xvfb.Error();
  setenv("DISPLAY", xvfb.Name().c_str(), 1);
  TempDir dir;
  m_image = dir.Write("still.bmp", SolidBmp24(640, 360, 40, 120, 200));
  const std::string background = dir.Write("background.bmp", SolidBmp24(640, 480, 200, 60, 20));

  FakeV4l2Device camera;
  FakeCameraConfig config;
  config.busInfo = "usb-soak-" + std::to_string(kCameraBus);
  config.formats.push_back(
      FakeCameraFormat{V4L2_PIX_FMT_YUYV, {{640, 480}, {320, 240}}, {{1, 30}, {1, 15}}});
  camera.AddCamera(0, config);
  ScopedSeamOverride<CaptureDevice> useCamera(camera);
  FakeComputingClient client;
  FakeDynamicLoader loader;
  loader.AddLibrary(BackgroundVirtualityNode::kClientLibrary, FakeComputingClient::Symbols());
  loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols());
  ScopedSeamOverride<DynamicLoader> useLoader(loader);
  ASSERT_EQ(OsShmAdvancedQueueCreate(kSnapshotQueue, 4, 1280 * 720 * 4 + 4096), 0);

  // A short first run makes what lives for the process (the pool's threads, the image
  // library's own workers) before the counts are taken.
  RunLinks(1, background);
  const uint64_t underflows = OsvGraphicBuffer::GetUnderflowCount();
  const size_t threadsBefore = Threads();
  const size_t descriptorsBefore = Descriptors();
  const uint64_t pushedBefore = m_host.decodedPushed.load();
  const uint64_t backBefore = m_host.decodedBack.load();
  const std::vector<size_t> resident = RunLinks(seconds, background);

  EXPECT_EQ(m_host.decodedBack.load() - backBefore, m_host.decodedPushed.load() - pushedBefore)
      << "decoded frames lost";
  EXPECT_EQ(OsvGraphicBuffer::GetUnderflowCount(), underflows) << "a frame was released twice";
  EXPECT_GT(m_host.encoderFrames.load(), 0U);
  EXPECT_GT(m_host.rendered.load(), 0U);
  // Threads end when their nodes go; the worker pool and the fakes' threads were counted
  // before. Give the last joins a moment, with a limit.
  for (int i = 0; i < 200 && Threads() > threadsBefore; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_LE(Threads(), threadsBefore);
  EXPECT_LE(Descriptors(), descriptorsBefore);
  EXPECT_EQ(camera.OpenDescriptors(), 0U);
  EXPECT_EQ(camera.Mappings(), 0U);
  EXPECT_EQ(CountOwnShmSegments(), 0U);

  // The last third of the run must not grow: before it the allocators' arenas of every
  // thread reach their working size.
  const size_t warm = resident[resident.size() * 2 / 3];
  const size_t last = resident.back();
  std::printf(
      "soak: %d s, %llu host calls, %llu encoder frames, %llu decoded frames, "
      "%llu rendered, %llu cursor records; resident %zu kB "
      "two thirds in, %zu kB at the end\n",
      seconds, static_cast<unsigned long long>(m_calls.load()),
      static_cast<unsigned long long>(m_host.encoderFrames.load()),
      static_cast<unsigned long long>(m_host.decodedPushed.load()),
      static_cast<unsigned long long>(m_host.rendered.load()),
      static_cast<unsigned long long>(m_host.cursorRecords.load()), warm, last);
  for (size_t kb : resident) {
    std::printf(" %zu", kb / 1024);
  }
  std::printf(" MB resident, second by second\n");
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
}

}  // namespace
