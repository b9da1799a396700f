// A careless or hostile host, driving the built library only as a host does (dlopen, the
// exported functions, the component rows): trace channels, calls made from inside the
// library's callbacks, unloading with links running, host threads racing on one link,
// a test image that is not a regular file, encoder records given back wrongly.
// Every test loads the library afresh and unloads it at the end.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tavo_video_render_interface.h"
#include "tavo_video_vlink.h"
#include "tests/support/fake_host.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

constexpr uint32_t kEnc = TAVO_VIDEO_COMPONENT_ENCODER, kDec = TAVO_VIDEO_COMPONENT_DECODER,
                   kVo = TAVO_VIDEO_COMPONENT_PREVIEW, kTest = TAVO_VIDEO_COMPONENT_TEST_IMAGE,
                   kCam = TAVO_VIDEO_COMPONENT_CAMERA;
constexpr auto kCallLimit = std::chrono::seconds(5);

// Lines heard on trace channel 2: bit 0 the camera's start, bit 1 the background node's.
std::atomic<int> g_heard{0};
void OnTrace2(uint32_t, const char* text) {
  g_heard |= (std::strstr(text, "CameraCaptureNode::StartProcess success") != nullptr ? 1 : 0) |
             (std::strstr(text, "BackgroundVirtualityBaseNode StartProcess") != nullptr ? 2 : 0);
}

// Runs call on another thread and waits for it to return, with a limit. A call that hangs
// inside the library cannot be unloaded under, so the process ends there.
void RunWithinLimit(const std::function<void()>& call) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> returned = done->get_future();
  std::thread([done, call] {
    call();
    done->set_value();
  }).detach();
  if (returned.wait_for(kCallLimit) != std::future_status::ready) {
    std::fprintf(stderr, "a call into the library did not return: %s\n",
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::_Exit(1);
  }
}

// Public: the table-driven test drives it from lambdas.
class CarelessHostTest : public ::testing::Test {
 public:
  void SetUp() override { Load(); }
  void TearDown() override {
    if (m_library != nullptr) {
      Unload();
    }
  }
  void Load() {
    m_library = dlopen(VLINK_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(m_library, nullptr) << dlerror();
    ASSERT_EQ(Sym<decltype(TavoVideoVlinkInit)>("TavoVideoVlinkInit")(0, 0, [] {}), 0U);
    m_host.emplace(HostEntries::From(m_library));
  }
  // With teardown the host first undoes its links as a host does; without, the unload
  // stops whatever still runs.
  void Unload(bool teardown = true) {
    teardown ? m_host->Finish() : m_host->Abandon();
    // The host outlives the unload: a running link calls it until then.
    ASSERT_EQ(dlclose(m_library), 0);
    // Really gone: a library kept loaded would hide what the unload leaves running.
    EXPECT_EQ(dlopen(VLINK_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
    m_library = nullptr;
    m_lateCheck = m_host->offered.Get();
    m_host.reset();
  }
  template <class F>
  F* Sym(const char* name) {
    auto* function = reinterpret_cast<F*>(dlsym(m_library, name));
    EXPECT_NE(function, nullptr) << name;
    return function;
  }
  FakeHost& Host() { return *m_host; }

  // A 16x16 picture, its size read from the file.
  std::string Picture() { return m_dir.Write("picture.bmp", SolidBmp24(16, 16, 40, 120, 200)); }
  // Test image `component` (node `node`) into encoder component `component + 1` (node 5),
  // the bind answering `bound`.
  void TestIntoEncoder(uint32_t component, uint32_t node, const std::string& file,
                       uint32_t bound = 0) {
    HostParam test = FakeHost::TestParam(file, 30);
    HostParam encoder = FakeHost::EncoderParam(0);
    ASSERT_EQ(Host().Create(kTest, component, node, test.get()), 0U);
    ASSERT_EQ(Host().Create(kEnc, component + 1, 5, encoder.get()), 0U);
    RunWithinLimit([&] { EXPECT_EQ(Host().Bind(kEnc, kTest, component + 1, component), bound); });
  }
  // A decoder (node 20, imgNo 150) into a preview (node 21) with window 0x51.
  void DecoderIntoPreview() {
    HostParam decoder = FakeHost::DecoderParam(150);
    HostParam preview = FakeHost::PreviewParam({{0x51, 150}});
    ASSERT_EQ(Host().Create(kDec, 300, 20, decoder.get()), 0U);
    ASSERT_EQ(Host().Create(kVo, 301, 21, preview.get()), 0U);
    ASSERT_EQ(Host().Bind(kVo, kDec, 301, 300), 0U);
  }
  // A frame pushed into that decoder, then waited for until `back` frames came back.
  void PushUntilBack(int back) {
    ASSERT_EQ(Host().Push(20), 0U);
    ASSERT_TRUE(Host().decodedBack.WaitFor(back));
  }

  TempDir m_dir;
  void* m_library = nullptr;
  std::optional<FakeHost> m_host;
  int m_lateCheck = 0;  // frames the last host was offered, counted after its unload
};

// The camera node and the virtual-background node's start speak on channel 2 (the camera
// is the file camera this test program is linked with).
TEST_F(CarelessHostTest, CameraAndBackgroundStartSpeakOnChannelTwo) {
  g_heard = 0;
  ASSERT_EQ(Sym<decltype(TavoVideoSetTraceLevel)>("TavoVideoSetTraceLevel")(3), 0U);
  ASSERT_EQ(
      Sym<decltype(TavoVideoRegisterTraceCallBack)>("TavoVideoRegisterTraceCallBack")(2, OnTrace2),
      0U);
  const std::string clip =
      "YUV4MPEG2 W32 H32 F30:1 Ip A1:1 C420jpeg\nFRAME\n" + std::string(32 * 32 * 3 / 2, '\x40');
  const std::string path = m_dir.Write("clip.y4m", std::vector<uint8_t>(clip.begin(), clip.end()));
  setenv("VLINK_FAKE_CAMERA_CLIP", path.c_str(), 1);  // read at the camera's first open
  HostParam camera = FakeHost::Zeroed();
  camera->camera.width = 32;
  camera->camera.height = 32;
  camera->camera.frameRate = 30;
  std::snprintf(camera->camera.cameraId, sizeof(camera->camera.cameraId), "usb-vlink-file");
  HostParam encoder = FakeHost::EncoderParam(0);
  ASSERT_EQ(Host().Create(kCam, 400, 30, camera.get()), 0U);
  ASSERT_EQ(Host().Create(kEnc, 401, 5, encoder.get()), 0U);
  ASSERT_EQ(Host().Bind(kEnc, kCam, 401, 400), 0U);
  ASSERT_TRUE(Host().offered.WaitFor(1));
  EXPECT_EQ(Host().Unbind(kEnc, kCam, 401, 400), 0U);
  EXPECT_EQ(g_heard.load(), 3);
}

// Each call a host may make from inside a callback returns, with the code of the table in
// README.md, and takes effect.
TEST_F(CarelessHostTest, CallsFromInsideCallbacksReturn) {
  using Manager = DevRenderManager;
  struct Case {
    const char* name;
    std::function<void(CarelessHostTest&, FakeHost&)> run;
  };
  const std::vector<Case> cases = {
      {"stop rendering a preview window from its render callback, then destroy the decoder "
       "from its release callback",
       [](CarelessHostTest& t, FakeHost& host) {
         t.DecoderIntoPreview();
         std::atomic<uint32_t> stopped{99}, destroyed{99};
         host.onRender = [&](uint32_t) { stopped = host.entries().stopRender(301, 0x51); };
         t.PushUntilBack(1);
         EXPECT_EQ(stopped.load(), 0U);
         t.PushUntilBack(2);  // shown no more
         EXPECT_EQ(host.rendered.Get(), 1);
         // No release callback is running once the frames are back.
         host.onRelease = [&](tagOS_S_VIDEO_CODEC_IMG_INFO*) {
           destroyed = host.Destroy(kDec, 300);
         };
         t.PushUntilBack(3);
         EXPECT_EQ(destroyed.load(), 0U);
         EXPECT_NE(host.Push(20), 0U);  // gone
       }},
      {"update and destroy a preview from its render callback",
       [](CarelessHostTest& t, FakeHost& host) {
         t.DecoderIntoPreview();
         HostParam moved = FakeHost::PreviewParam({{0x52, 150}});
         std::atomic<uint32_t> updated{99}, destroyed{99};
         host.onRender = [&](uint32_t) {
           if (updated == 99U) {
             updated = host.Update(kVo, 301, moved.get());
           } else if (destroyed == 99U) {
             destroyed = host.Destroy(kVo, 301);
           }
         };
         t.PushUntilBack(1);
         EXPECT_EQ(updated.load(), 0U);
         t.PushUntilBack(2);  // into the new window, which destroys the preview
         EXPECT_EQ(std::pair(destroyed.load(), host.Rendered(0x52)), std::pair(0U, 1));
         t.PushUntilBack(3);  // the decoder has no sink left
         EXPECT_EQ(host.rendered.Get(), 2);
       }},
      {"stop, change and delete a host's renderer from its callback",
       [](CarelessHostTest& t, FakeHost& host) {
         auto create = t.Sym<uint32_t(tagOS_S_SOFT_VO_CHN_PARAM*, Manager**)>(
             "_Z21TavoVideoRenderCreateP25tagOS_S_SOFT_VO_CHN_PARAMPP16DevRenderManager");
         auto frame = t.Sym<uint32_t(Manager*, OsvGraphicBuffer*)>(
             "_Z20TavoVideoRenderFrameP16DevRenderManagerP16OsvGraphicBuffer");
         auto stop = t.Sym<uint32_t(Manager*)>("_Z19TavoVideoRenderStopP16DevRenderManager");
         auto set = t.Sym<uint32_t(Manager*, PelvRenderParams&)>(
             "_Z24TavoVideoRenderSetParamsP16DevRenderManagerR16PelvRenderParams");
         auto remove = t.Sym<uint32_t(Manager*)>("_Z21TavoVideoRenderDeleteP16DevRenderManager");
         tagOS_S_SOFT_VO_CHN_PARAM channel{};
         channel.renderMode = 40;
         channel.winHandle = 0x61;
         channel.params.renderCb = FakeHost::PreviewParam({})->vo.renderCb;
         Manager* manager = nullptr;
         ASSERT_EQ(create(&channel, &manager), 0U);
         OsvGraphicBuffer buffer(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420);
         std::vector<uint32_t> codes;
         host.onRender = [&](uint32_t) {
           codes = {set(manager, channel.params), stop(manager), remove(manager)};
         };
         RunWithinLimit([&] { EXPECT_EQ(frame(manager, &buffer), 0U); });
         EXPECT_EQ(codes, (std::vector<uint32_t>{0, 0, 0}));
       }},
      {"destroy an encoder from its encoder callback",
       [](CarelessHostTest& t, FakeHost& host) {
         std::atomic<uint32_t> code{99};
         host.onEncode = [&](VencOutFrame*) {
           if (code == 99U) {
             code = host.Destroy(kEnc, 501);
           }
         };
         t.TestIntoEncoder(500, 40, t.Picture());
         ASSERT_TRUE(host.offered.WaitFor(1));
         EXPECT_EQ(code.load(), 0U);
         host.GiveBack(FakeHost::kAnyCode);        // its encoder is gone
         EXPECT_EQ(host.Destroy(kTest, 500), 0U);  // no frame left to come
         EXPECT_EQ(host.offered.Get(), 1);
       }},
      {"destroy an encoder from its create callback",
       [](CarelessHostTest& t, FakeHost& host) {
         std::atomic<uint32_t> code{99}, rebind{99};
         host.onCreate = [&] {
           rebind = host.Bind(kEnc, kTest, 501, 500);
           code = host.Destroy(kEnc, 501);
         };
         t.TestIntoEncoder(500, 40, t.Picture(), 1);  // its start undone
         EXPECT_EQ(std::pair(rebind.load(), code.load()), std::pair(1U, 0U));
         EXPECT_EQ(host.Destroy(kTest, 500), 0U);
         EXPECT_EQ(host.offered.Get(), 0);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RunWithinLimit([&] { c.run(*this, Host()); });
    Unload();  // the next case starts on a fresh library and host
    Load();
  }
}

// Unloaded with a test-image link running, the library stops it and lets its threads end
// first; loaded again, it runs links as before. A test image that is not a regular file (a
// FIFO, a folder) is one that cannot be opened: the bind returns and the black picture goes
// out. Encoder records given back twice, or never handed out, are refused and left alone.
TEST_F(CarelessHostTest, UnloadWithALinkRunningBadImageFilesAndRecordsGivenBackWrongly) {
  const std::string picture = Picture(), fifo = (m_dir.Path() / "pipe.dat").string(),
                    folder = (m_dir.Path() / "folder.dat").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_directory(folder);
  for (const std::string& path : {picture, fifo, folder}) {
    SCOPED_TRACE(path);
    LogCapture logs;
    TestIntoEncoder(600, 41, path);
    ASSERT_TRUE(Host().offered.WaitFor(1));
    const FakeHost::Encoded first = Host().EncodedFrames().at(0);
    const bool black = path != picture;
    EXPECT_EQ(std::pair(first.width, first.height),
              black ? std::pair(1920U, 1080U) : std::pair(16U, 16U));
    EXPECT_EQ(logs.HasModule("Failed to open file!", 1), black);
    EXPECT_EQ(CountOwnThreadsNamed("VLINK_TEST_SEND"), 1U);
    VencOutFrame* record = Host().TakeHeld();
    auto release = Host().entries().releaseEnc;
    VencOutFrame foreign{};  // freeing it would abort: still the host's
    foreign.imgNo = 5;
    EXPECT_EQ(std::vector<uint32_t>({release(record), release(record), release(&foreign)}),
              (std::vector<uint32_t>{0, 1, 1}));  // the second: already given back
    Host().GiveBack();
    Unload(false);  // nothing destroyed
    EXPECT_EQ(CountOwnThreadsNamed("VLINK_TEST_SEND"), 0U);
    Load();
  }
}

// Two host threads racing on one test image and its encoder: once the last destroy has
// returned, no sender thread is left and no encoder frame comes.
TEST_F(CarelessHostTest, RacingHostThreadsLeaveNothingRunning) {
  HostParam test = FakeHost::TestParam(Picture(), 30);
  HostParam encoder = FakeHost::EncoderParam(0);
  FakeHost& host = Host();
  host.SetEncoder(FakeHost::Encoder::kRefuse);  // every frame goes back at once
  auto race = [&](int seed) {
    for (int i = 0; i < 200; ++i) {
      const int step = (i + seed) % 4;
      if (step == 0) {
        host.Create(kTest, 700, 42, test.get());
        host.Create(kEnc, 701, 6, encoder.get());
      } else if (step == 1) {
        host.Bind(kEnc, kTest, 701, 700);
      } else if (step == 2) {
        host.Unbind(kEnc, kTest, 701, 700);
      } else {
        host.Destroy(((i / 4) % 2) == 0 ? kTest : kEnc, ((i / 4) % 2) == 0 ? 700 : 701);
      }
    }
  };
  std::thread other(race, 1);
  race(0);
  other.join();
  host.Unbind(kEnc, kTest, 701, 700);
  EXPECT_EQ(host.Destroy(kTest, 700), 0U);
  EXPECT_EQ(host.Destroy(kEnc, 701), 0U);
  EXPECT_EQ(CountOwnThreadsNamed("VLINK_TEST_SEND"), 0U);
  const int offered = host.offered.Get();
  Unload();  // joins whatever the library still runs: a late frame would show now
  EXPECT_EQ(offered, m_lateCheck) << "a frame came after the last destroy";
}

}  // namespace
