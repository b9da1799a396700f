// A careless or hostile host, driving the built library only as a host does (dlopen, the
// exported functions, the component rows): trace channels, calls made from inside the
// library's callbacks, unloading with links running, host threads racing on one link,
// a test image that is not a regular file, encoder records given back wrongly.
// Every test loads the library afresh and unloads it at the end.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tavo_video_render_interface.h"
#include "tavo_video_vlink.h"
#include "tests/support/loaded_library.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

constexpr uint32_t kEnc = TAVO_VIDEO_COMPONENT_ENCODER;
constexpr uint32_t kDec = TAVO_VIDEO_COMPONENT_DECODER;
constexpr uint32_t kVo = TAVO_VIDEO_COMPONENT_PREVIEW;
constexpr uint32_t kTest = TAVO_VIDEO_COMPONENT_TEST_IMAGE;
constexpr uint32_t kCam = TAVO_VIDEO_COMPONENT_CAMERA;
constexpr auto kCallLimit = std::chrono::seconds(5);

// What the host's callbacks saw. A hook, when set, runs inside the callback.
struct Host {
  std::mutex lock;  // guards the hooks and held
  std::function<void(VencOutFrame*)> onEncode;
  std::function<void()> onRender;
  std::function<void()> onRelease;
  std::function<void()> onCreate;
  std::vector<VencOutFrame*> held;
  std::atomic<bool> encoderGone{false};
  std::atomic<int> lateFrames{0};  // encoder frames offered after encoderGone
  CountLatch encoded;
  CountLatch rendered;
  CountLatch released;
  std::mutex traceLock;  // guards channel2
  std::vector<std::string> channel2;
};
Host* g_host = nullptr;

template <class Hook>
Hook CopyHook(const Hook& hook) {
  std::lock_guard<std::mutex> lock(g_host->lock);
  return hook;
}

uint32_t OnEncCreate(uint32_t, uint32_t, uint32_t) {
  if (auto hook = CopyHook(g_host->onCreate)) {
    hook();
  }
  return 0;
}
uint32_t OnEncFrame(uint32_t, uint32_t, uint32_t, VencOutFrame* frame) {
  if (g_host->encoderGone.load()) {
    ++g_host->lateFrames;
  }
  if (auto hook = CopyHook(g_host->onEncode)) {
    hook(frame);
  }
  {
    std::lock_guard<std::mutex> lock(g_host->lock);
    g_host->held.push_back(frame);
  }
  g_host->encoded.Add();
  return 1;
}
int OnRender(uint32_t, TavoVideoRenderImgHeader*) {
  if (auto hook = CopyHook(g_host->onRender)) {
    hook();
  }
  g_host->rendered.Add();
  return 0;
}
uint32_t OnDecRelease(uint32_t, tagOS_S_VIDEO_CODEC_IMG_INFO* frame) {
  if (auto hook = CopyHook(g_host->onRelease)) {
    hook();
  }
  delete frame->pBuffer;
  std::free(frame);
  g_host->released.Add();
  return 1;
}
void OnTrace2(uint32_t, const char* text) {
  std::lock_guard<std::mutex> lock(g_host->traceLock);
  g_host->channel2.emplace_back(text);
}

// Runs call on another thread: false when it has not returned within the limit. A call that
// hangs inside the library cannot be unloaded under, so the process ends there.
bool ReturnsInTime(const std::function<void()>& call) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> returned = done->get_future();
  std::thread([done, call] {
    call();
    done->set_value();
  }).detach();
  if (returned.wait_for(kCallLimit) == std::future_status::ready) {
    return true;
  }
  std::fprintf(stderr, "a call into the library did not return: %s\n",
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
  std::_Exit(1);
}

// Threads of this process with the given name.
int ThreadsNamed(const std::string& name) {
  int count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string text;
    if (std::getline(comm, text) && text == name) {
      ++count;
    }
  }
  return count;
}

using Param = std::unique_ptr<tagTavoVideoComponentParam>;
Param Zeroed() {
  Param param = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(param.get(), 0, sizeof(*param));
  return param;
}

// Public: the table-driven test drives it from lambdas.
class CarelessHostTest : public ::testing::Test {
 public:
  void SetUp() override {
    g_host = &m_host;
    Load();
  }
  void TearDown() override {
    GiveBackEncoderFrames();
    Unload();  // nodes the test left running are stopped by the unload
    g_host = nullptr;
  }
  void Load() {
    m_library = dlopen(VLINK_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(m_library, nullptr) << dlerror();
    ASSERT_EQ(Sym<decltype(TavoVideoVlinkInit)>("TavoVideoVlinkInit")(0, 0, [] {}), 0U);
    uint32_t count = 0;
    Sym<decltype(TavoVideoGetCreateNodeFuncMap)>("TavoVideoGetCreateNodeFuncMap")(&m_create,
                                                                                  &count);
    Sym<decltype(TavoVideoGetBindNodeFuncMap)>("TavoVideoGetBindNodeFuncMap")(&m_bind, &count);
    Sym<decltype(TavoVideoGetUnBindNodeFuncMap)>("TavoVideoGetUnBindNodeFuncMap")(&m_unbind,
                                                                                  &count);
    Sym<decltype(TavoVideoGetDestroyNodeFuncMap)>("TavoVideoGetDestroyNodeFuncMap")(&m_destroy,
                                                                                    &count);
    Sym<decltype(TavoVideoGetUpdateNodeFuncMap)>("TavoVideoGetUpdateNodeFuncMap")(&m_update,
                                                                                  &count);
    m_releaseEnc = Sym<decltype(TavoVideoReleaseVEncFrame)>("TavoVideoReleaseVEncFrame");
  }
  void Unload() {
    ASSERT_EQ(dlclose(m_library), 0);
    // Really gone: a library kept loaded would hide what the unload leaves running.
    EXPECT_EQ(dlopen(VLINK_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
    m_library = nullptr;
  }
  template <class F>
  F* Sym(const char* name) {
    auto* function = reinterpret_cast<F*>(dlsym(m_library, name));
    EXPECT_NE(function, nullptr) << name;
    return function;
  }
  uint32_t Create(uint32_t type, uint32_t component, uint32_t node, tagTavoVideoComponentParam* p) {
    DataContainer* container =
        Sym<decltype(TavoVideoGetDataContainer)>("TavoVideoGetDataContainer")(
            ("Node[" + std::to_string(component) + "]PresentParam").c_str());
    container->SetDataByString<uint32_t>("imgNo", node);
    container->SetDataByString<uint32_t>("portId", 0);
    return Find(m_create, 7, type)(component, p);
  }
  uint32_t Bind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source) {
    return Find(m_bind, 10, sinkType, srcType)(sink, source);
  }
  uint32_t Unbind(uint32_t sinkType, uint32_t srcType, uint32_t sink, uint32_t source) {
    return Find(m_unbind, 10, sinkType, srcType)(sink, source);
  }
  uint32_t Destroy(uint32_t type, uint32_t component) {
    return Find(m_destroy, 7, type)(component);
  }
  uint32_t Update(uint32_t type, uint32_t component, tagTavoVideoComponentParam* p) {
    return Find(m_update, 3, type)(component, p);
  }

  static Param EncoderParam() {
    Param param = Zeroed();
    param->venc.width = 16;
    param->venc.height = 16;
    param->venc.encOutFunc = OnEncFrame;
    param->venc.encCreateFunc = OnEncCreate;
    return param;
  }
  static Param TestParam(const std::string& file) {
    Param param = Zeroed();
    param->test.width = 16;
    param->test.height = 16;
    param->test.frameRate = 30;
    std::snprintf(param->test.fileName, sizeof(param->test.fileName), "%s", file.c_str());
    return param;
  }
  static Param PreviewParam(uint64_t window, uint32_t imgNo) {
    Param param = Zeroed();
    param->vo.windows[0].winHandle = window;
    param->vo.windows[0].imgNo = imgNo;
    param->vo.winNum = 1;
    param->vo.renderCb = OnRender;
    return param;
  }
  // A raw 16x16 I420 picture (the letters of "dat" in the name mark it raw).
  std::string Picture() { return m_dir.Write("picture.dat", std::vector<uint8_t>(384, 0x80)); }
  // Test image `component` (node `node`) into encoder component `component + 1` (node 5).
  void TestIntoEncoder(uint32_t component, uint32_t node, const std::string& file) {
    Param test = TestParam(file);
    Param encoder = EncoderParam();
    ASSERT_EQ(Create(kTest, component, node, test.get()), 0U);
    ASSERT_EQ(Create(kEnc, component + 1, 5, encoder.get()), 0U);
    ASSERT_TRUE(ReturnsInTime([&] { EXPECT_EQ(Bind(kEnc, kTest, component + 1, component), 0U); }));
  }
  // A decoder (node 20, imgNo 150) into a preview (node 21) with window 0x51.
  void DecoderIntoPreview() {
    Param decoder = Zeroed();
    decoder->vdec.imgNo = 150;
    decoder->vdec.decReleaseFunc = OnDecRelease;
    Param preview = PreviewParam(0x51, 150);
    ASSERT_EQ(Create(kDec, 300, 20, decoder.get()), 0U);
    ASSERT_EQ(Create(kVo, 301, 21, preview.get()), 0U);
    ASSERT_EQ(Bind(kVo, kDec, 301, 300), 0U);
  }
  uint32_t Push() {
    auto* record = static_cast<tagOS_S_VIDEO_CODEC_IMG_INFO*>(
        std::calloc(1, sizeof(tagOS_S_VIDEO_CODEC_IMG_INFO)));
    record->pBuffer = new OsvGraphicBuffer(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420);
    const uint32_t result =
        Sym<decltype(TavoVideoReceiveVDecFrame)>("TavoVideoReceiveVDecFrame")(0, 20, record);
    if (result != 0) {
      delete record->pBuffer;
      std::free(record);
    }
    return result;
  }
  void GiveBackEncoderFrames() {
    std::vector<VencOutFrame*> held;
    {
      std::lock_guard<std::mutex> lock(m_host.lock);
      held.swap(m_host.held);
    }
    for (VencOutFrame* record : held) {
      m_releaseEnc(record);
    }
  }

  Host m_host;
  TempDir m_dir;
  void* m_library = nullptr;
  const tagTavoVideoCreateFuncMap* m_create = nullptr;
  const tagTavoVideoBindFuncMap* m_bind = nullptr;
  const tagTavoVideoBindFuncMap* m_unbind = nullptr;
  const tagTavoVideoDestroyFuncMap* m_destroy = nullptr;
  const tagTavoVideoUpdateFuncMap* m_update = nullptr;
  decltype(&TavoVideoReleaseVEncFrame) m_releaseEnc = nullptr;
};

// The camera node and the virtual-background node's start speak on channel 2 (the camera
// is the file camera this test program is linked with).
TEST_F(CarelessHostTest, CameraAndBackgroundStartSpeakOnChannelTwo) {
  ASSERT_EQ(Sym<decltype(TavoVideoSetTraceLevel)>("TavoVideoSetTraceLevel")(3), 0U);
  ASSERT_EQ(
      Sym<decltype(TavoVideoRegisterTraceCallBack)>("TavoVideoRegisterTraceCallBack")(2, OnTrace2),
      0U);
  std::string clip = "YUV4MPEG2 W32 H32 F30:1 Ip A1:1 C420jpeg\n";
  for (int frame = 0; frame < 3; ++frame) {
    clip += "FRAME\n" + std::string(32 * 32 * 3 / 2, static_cast<char>(0x40 + frame));
  }
  const std::string path = m_dir.Write("clip.y4m", std::vector<uint8_t>(clip.begin(), clip.end()));
  setenv("VLINK_FAKE_CAMERA_CLIP", path.c_str(), 1);  // read at the camera's first open
  Param camera = Zeroed();
  camera->camera.width = 32;
  camera->camera.height = 32;
  camera->camera.frameRate = 30;
  std::snprintf(camera->camera.cameraId, sizeof(camera->camera.cameraId), "usb-vlink-file");
  Param encoder = EncoderParam();
  ASSERT_EQ(Create(kCam, 400, 30, camera.get()), 0U);
  ASSERT_EQ(Create(kEnc, 401, 5, encoder.get()), 0U);
  ASSERT_EQ(Bind(kEnc, kCam, 401, 400), 0U);
  ASSERT_TRUE(m_host.encoded.WaitFor(1));
  EXPECT_EQ(Unbind(kEnc, kCam, 401, 400), 0U);
  std::lock_guard<std::mutex> lock(m_host.traceLock);
  auto heard = [&](const char* text) {
    return std::any_of(
        m_host.channel2.begin(), m_host.channel2.end(),
        [&](const std::string& line) { return line.find(text) != std::string::npos; });
  };
  EXPECT_TRUE(heard("CameraCaptureNode::StartProcess success"));
  EXPECT_TRUE(heard("BackgroundVirtualityBaseNode StartProcess"));
}

// Each call a host may make from inside a callback returns, with the code of the table in
// README.md, and takes effect.
TEST_F(CarelessHostTest, CallsFromInsideCallbacksReturn) {
  using Manager = DevRenderManager;
  struct Case {
    const char* name;
    std::function<void(CarelessHostTest&)> run;
  };
  const std::vector<Case> cases = {
      {"stop rendering a preview window from its render callback",
       [](CarelessHostTest& t) {
         t.DecoderIntoPreview();
         auto stop = t.Sym<decltype(TavoVideoVlinkVoStopRender)>("TavoVideoVlinkVoStopRender");
         std::atomic<uint32_t> code{99};
         t.m_host.onRender = [&] { code = stop(301, 0x51); };
         ASSERT_EQ(t.Push(), 0U);
         ASSERT_TRUE(t.m_host.released.WaitFor(1));
         EXPECT_EQ(code.load(), 0U);
         ASSERT_EQ(t.Push(), 0U);  // shown no more
         ASSERT_TRUE(t.m_host.released.WaitFor(2));
         EXPECT_EQ(t.m_host.rendered.Get(), 1);
       }},
      {"update and destroy a preview from its render callback",
       [](CarelessHostTest& t) {
         t.DecoderIntoPreview();
         Param moved = PreviewParam(0x52, 150);
         std::atomic<uint32_t> updated{99};
         std::atomic<uint32_t> destroyed{99};
         t.m_host.onRender = [&] {
           if (updated == 99U) {
             updated = t.Update(kVo, 301, moved.get());
           } else if (destroyed == 99U) {
             destroyed = t.Destroy(kVo, 301);
           }
         };
         ASSERT_EQ(t.Push(), 0U);
         ASSERT_TRUE(t.m_host.released.WaitFor(1));
         EXPECT_EQ(updated.load(), 0U);
         ASSERT_EQ(t.Push(), 0U);  // into the new window, which destroys the preview
         ASSERT_TRUE(t.m_host.released.WaitFor(2));
         EXPECT_EQ(destroyed.load(), 0U);
         EXPECT_EQ(t.m_host.rendered.Get(), 2);
         EXPECT_EQ(t.Push(), 0U);  // the decoder has no sink left
         ASSERT_TRUE(t.m_host.released.WaitFor(3));
         EXPECT_EQ(t.m_host.rendered.Get(), 2);
       }},
      {"stop, change and delete a host's renderer from its callback",
       [](CarelessHostTest& t) {
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
         channel.params.renderCb = OnRender;
         Manager* manager = nullptr;
         ASSERT_EQ(create(&channel, &manager), 0U);
         OsvGraphicBuffer buffer(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420);
         std::vector<uint32_t> codes;
         t.m_host.onRender = [&] {
           codes = {set(manager, channel.params), stop(manager), remove(manager)};
         };
         ASSERT_TRUE(ReturnsInTime([&] { EXPECT_EQ(frame(manager, &buffer), 0U); }));
         EXPECT_EQ(codes, (std::vector<uint32_t>{0, 0, 0}));
       }},
      {"destroy an encoder from its encoder callback",
       [](CarelessHostTest& t) {
         std::atomic<uint32_t> code{99};
         t.m_host.onEncode = [&](VencOutFrame*) {
           if (code == 99U) {
             code = t.Destroy(kEnc, 501);
             t.m_host.encoderGone = true;
           }
         };
         t.TestIntoEncoder(500, 40, t.Picture());
         ASSERT_TRUE(t.m_host.encoded.WaitFor(1));
         EXPECT_EQ(code.load(), 0U);
         t.GiveBackEncoderFrames();  // before the image goes, as a host must
         EXPECT_EQ(t.Destroy(kTest, 500), 0U);  // no frame left to come
         EXPECT_EQ(t.m_host.lateFrames.load(), 0);
       }},
      {"destroy an encoder from its create callback",
       [](CarelessHostTest& t) {
         std::atomic<uint32_t> code{99};
         std::atomic<uint32_t> rebind{99};
         t.m_host.onCreate = [&] {
           rebind = t.Bind(kEnc, kTest, 501, 500);
           code = t.Destroy(kEnc, 501);
         };
         Param test = TestParam(t.Picture());
         Param encoder = EncoderParam();
         ASSERT_EQ(t.Create(kTest, 500, 40, test.get()), 0U);
         ASSERT_EQ(t.Create(kEnc, 501, 5, encoder.get()), 0U);
         EXPECT_EQ(t.Bind(kEnc, kTest, 501, 500), 1U);  // its start undone
         EXPECT_EQ(rebind.load(), 1U);
         EXPECT_EQ(code.load(), 0U);
         EXPECT_EQ(t.Destroy(kTest, 500), 0U);
         EXPECT_EQ(t.m_host.encoded.Get(), 0);
       }},
      {"destroy a decoder from its release callback",
       [](CarelessHostTest& t) {
         t.DecoderIntoPreview();
         std::atomic<uint32_t> code{99};
         t.m_host.onRelease = [&] { code = t.Destroy(kDec, 300); };
         ASSERT_EQ(t.Push(), 0U);
         ASSERT_TRUE(t.m_host.released.WaitFor(1));
         EXPECT_EQ(code.load(), 0U);
         EXPECT_NE(t.Push(), 0U);  // gone
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(ReturnsInTime([&] { c.run(*this); }));
    {
      std::lock_guard<std::mutex> lock(m_host.lock);
      m_host.onRender = nullptr;
      m_host.onEncode = nullptr;
      m_host.onRelease = nullptr;
      m_host.onCreate = nullptr;
    }
    GiveBackEncoderFrames();
    Unload();  // the next case starts on a fresh library
    m_host.rendered.Add(-m_host.rendered.Get());
    m_host.released.Add(-m_host.released.Get());
    m_host.encoded.Add(-m_host.encoded.Get());
    Load();
  }
}

// Unloaded with a test-image link running, the library stops it and lets its threads end
// first; loaded again, it runs links as before.
TEST_F(CarelessHostTest, UnloadWithALinkRunningThenLoadAgain) {
  for (int round = 0; round < 2; ++round) {
    TestIntoEncoder(600, 41, Picture());
    ASSERT_TRUE(m_host.encoded.WaitFor(1 + round));
    EXPECT_EQ(ThreadsNamed("VLINK_TEST_SEND"), 1);
    GiveBackEncoderFrames();
    m_host.encoderGone = true;
    Unload();  // nothing destroyed
    EXPECT_EQ(ThreadsNamed("VLINK_TEST_SEND"), 0);
    m_host.encoderGone = false;
    Load();
  }
}

// Two host threads racing on one test image and its encoder: once the last destroy has
// returned, no sender thread is left and no encoder frame comes.
TEST_F(CarelessHostTest, RacingHostThreadsLeaveNothingRunning) {
  const std::string picture = Picture();
  Param test = TestParam(picture);
  Param encoder = EncoderParam();
  m_host.onEncode = [this](VencOutFrame* frame) {
    std::thread([this, frame] { m_releaseEnc(frame); }).detach();  // given back at once
  };
  auto race = [&](int seed) {
    for (int i = 0; i < 200; ++i) {
      switch ((i + seed) % 4) {
        case 0:
          Create(kTest, 700, 42, test.get());
          Create(kEnc, 701, 6, encoder.get());
          break;
        case 1:
          Bind(kEnc, kTest, 701, 700);
          break;
        case 2:
          Unbind(kEnc, kTest, 701, 700);
          break;
        default:
          Destroy(((i / 4) % 2) == 0 ? kTest : kEnc, ((i / 4) % 2) == 0 ? 700 : 701);
      }
    }
  };
  std::thread other(race, 1);
  race(0);
  other.join();
  Unbind(kEnc, kTest, 701, 700);
  EXPECT_EQ(Destroy(kTest, 700), 0U);
  EXPECT_EQ(Destroy(kEnc, 701), 0U);
  m_host.encoderGone = true;
  EXPECT_EQ(ThreadsNamed("VLINK_TEST_SEND"), 0);
  {
    std::lock_guard<std::mutex> lock(m_host.lock);
    m_host.held.clear();  // given back by the hook
  }
  Unload();  // joins whatever the library still runs: a late frame would show now
  EXPECT_EQ(m_host.lateFrames.load(), 0);
  Load();
}

// A test image that is not a regular file is one that cannot be opened: the bind returns
// and the black picture goes out.
TEST_F(CarelessHostTest, TestImageThatIsNotARegularFileGivesTheBlackPicture) {
  const std::string fifo = (m_dir.Path() / "pipe.dat").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string folder = (m_dir.Path() / "folder.dat").string();
  std::filesystem::create_directory(folder);
  uint32_t component = 800;
  for (const std::string& path : {fifo, folder}) {
    SCOPED_TRACE(path);
    LogCapture logs;
    m_host.encoded.Add(-m_host.encoded.Get());
    TestIntoEncoder(component, 43, path);
    ASSERT_TRUE(m_host.encoded.WaitFor(1));
    {
      std::lock_guard<std::mutex> lock(m_host.lock);
      const OsvGraphicBufferInfo info = m_host.held.front()->buffer->GetImageInfo();
      EXPECT_EQ(info.width, 1920U);
      EXPECT_EQ(info.height, 1080U);
    }
    EXPECT_TRUE(logs.HasModule("Failed to open file!", 1));
    EXPECT_EQ(Unbind(kEnc, kTest, component + 1, component), 0U);
    GiveBackEncoderFrames();
    EXPECT_EQ(Destroy(kTest, component), 0U);
    component += 2;
  }
}

// Encoder records given back twice, or never handed out, are refused and left alone.
TEST_F(CarelessHostTest, EncoderRecordsGivenBackWronglyAreRefused) {
  TestIntoEncoder(900, 44, Picture());
  ASSERT_TRUE(m_host.encoded.WaitFor(1));
  VencOutFrame* record = nullptr;
  {
    std::lock_guard<std::mutex> lock(m_host.lock);
    record = m_host.held.front();
    m_host.held.erase(m_host.held.begin());
  }
  EXPECT_EQ(m_releaseEnc(record), 0U);
  EXPECT_EQ(m_releaseEnc(record), 1U);  // already given back
  auto* foreign = static_cast<VencOutFrame*>(std::calloc(1, sizeof(VencOutFrame)));
  foreign->imgNo = 5;
  EXPECT_EQ(m_releaseEnc(foreign), 1U);
  std::free(foreign);  // still the host's: the library freed nothing
  VencOutFrame local{};
  local.imgNo = 5;
  EXPECT_EQ(m_releaseEnc(&local), 1U);
}

}  // namespace
