// Drives the built library only as a host does: dlopen, the component tables, the
// parameter containers, the exported functions and plain callbacks.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "tavo_video_vlink.h"
#include "tests/support/loaded_library.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace {

struct Host {
  std::mutex lock;  // guards records and accept
  std::vector<VencOutFrame*> records;
  uint32_t accept = 1;  // what the callback answers; 0 refuses
  CountLatch offered;
};
Host* g_host = nullptr;

uint32_t OnCreate(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t OnFrame(uint32_t, uint32_t, uint32_t, VencOutFrame* frame) {
  uint32_t accept = 0;
  {
    std::lock_guard<std::mutex> lock(g_host->lock);
    accept = g_host->accept;
    if (accept == 1) {
      g_host->records.push_back(frame);
    }
  }
  g_host->offered.Add();
  return accept;
}

// The host's decoder and renderer for the decode-link cases.
struct DecodeHost {
  std::mutex lock;  // guards the maps
  std::map<tagOS_S_VIDEO_CODEC_IMG_INFO*, int> returned;
  std::map<uint32_t, int> renderedByWindow;
  std::vector<TavoVideoDisplayWinInfo> reports;
  CountLatch back;
};
DecodeHost* g_decodeHost = nullptr;

uint32_t OnDecRelease(uint32_t, tagOS_S_VIDEO_CODEC_IMG_INFO* frame) {
  {
    std::lock_guard<std::mutex> lock(g_decodeHost->lock);
    ++g_decodeHost->returned[frame];
  }
  g_decodeHost->back.Add();
  return 1;
}

int OnRender(uint32_t winHandle, TavoVideoRenderImgHeader* header) {
  EXPECT_EQ(header->headerSize, 48U);
  std::lock_guard<std::mutex> lock(g_decodeHost->lock);
  ++g_decodeHost->renderedByWindow[winHandle];
  return 0;
}

class ComponentTableTest : public LoadedLibraryTest {
 protected:
  void SetUp() override {
    g_host = &m_host;
    ASSERT_EQ(Symbol<decltype(TavoVideoGetCreateNodeFuncMap)>("TavoVideoGetCreateNodeFuncMap")(
                  &m_create, &m_createCount),
              0U);
    ASSERT_EQ(Symbol<decltype(TavoVideoGetBindNodeFuncMap)>("TavoVideoGetBindNodeFuncMap")(
                  &m_bind, &m_bindCount),
              0U);
    ASSERT_EQ(Symbol<decltype(TavoVideoGetUnBindNodeFuncMap)>("TavoVideoGetUnBindNodeFuncMap")(
                  &m_unbind, &m_unbindCount),
              0U);
    ASSERT_EQ(Symbol<decltype(TavoVideoGetDestroyNodeFuncMap)>("TavoVideoGetDestroyNodeFuncMap")(
                  &m_destroy, &m_destroyCount),
              0U);
    m_release = Symbol<decltype(TavoVideoReleaseVEncFrame)>("TavoVideoReleaseVEncFrame");
    m_getContainer = Symbol<decltype(TavoVideoGetDataContainer)>("TavoVideoGetDataContainer");
  }
  void TearDown() override {
    for (VencOutFrame* record : m_host.records) {
      m_release(record);
    }
    g_host = nullptr;
  }

  void Store(uint32_t component, uint32_t node, bool withPort = true) {
    DataContainer* container =
        m_getContainer(("Node[" + std::to_string(component) + "]PresentParam").c_str());
    container->SetDataByString<uint32_t>("imgNo", node);
    if (withPort) {
      container->SetDataByString<uint32_t>("portId", 0);
    }
  }
  static std::unique_ptr<tagTavoVideoComponentParam> EncoderParam() {
    auto param = std::make_unique<tagTavoVideoComponentParam>();
    std::memset(param.get(), 0, sizeof(*param));
    param->venc.width = 64;
    param->venc.height = 32;
    param->venc.hostKey = 3;
    param->venc.encOutFunc = OnFrame;
    param->venc.encCreateFunc = OnCreate;
    return param;
  }
  static std::unique_ptr<tagTavoVideoComponentParam> TestParam(const std::string& file) {
    auto param = std::make_unique<tagTavoVideoComponentParam>();
    std::memset(param.get(), 0, sizeof(*param));
    param->test.frameRate = 25;
    std::snprintf(param->test.fileName, sizeof(param->test.fileName), "%s", file.c_str());
    return param;
  }
  uint32_t Create(uint32_t type, uint32_t component, tagTavoVideoComponentParam* param) {
    return Find(m_create, m_createCount, type)(component, param);
  }
  uint32_t Destroy(uint32_t type, uint32_t component) {
    return Find(m_destroy, m_destroyCount, type)(component);
  }

  Host m_host;
  const tagTavoVideoCreateFuncMap* m_create = nullptr;
  const tagTavoVideoBindFuncMap* m_bind = nullptr;
  const tagTavoVideoBindFuncMap* m_unbind = nullptr;
  const tagTavoVideoDestroyFuncMap* m_destroy = nullptr;
  uint32_t m_createCount = 0, m_bindCount = 0, m_unbindCount = 0, m_destroyCount = 0;
  decltype(&TavoVideoReleaseVEncFrame) m_release = nullptr;
  decltype(&TavoVideoGetDataContainer) m_getContainer = nullptr;
};

TEST_F(ComponentTableTest, TablesHaveTheirRowsInOrder) {
  const uint32_t createTypes[] = {10, 29, 0, 3, 2, 7, 13};
  ASSERT_EQ(m_createCount, 7U);
  for (uint32_t i = 0; i < 7; ++i) {
    EXPECT_EQ(m_create[i].type, createTypes[i]);
    EXPECT_NE(m_create[i].func, nullptr);
  }
  const uint32_t bindPairs[][2] = {{10, 0}, {13, 0}, {29, 3}, {29, 2}, {10, 2},
                                   {13, 2}, {10, 7}, {13, 3}, {10, 4}, {13, 4}};
  ASSERT_EQ(m_bindCount, 10U);
  ASSERT_EQ(m_unbindCount, 10U);
  for (uint32_t i = 0; i < 10; ++i) {
    EXPECT_EQ(m_bind[i].type, bindPairs[i][0]);
    EXPECT_EQ(m_bind[i].srcType, bindPairs[i][1]);
    EXPECT_EQ(m_unbind[i].srcType, bindPairs[i][1]);
  }
  const uint32_t destroyTypes[] = {10, 29, 0, 3, 2, 13, 7};
  ASSERT_EQ(m_destroyCount, 7U);
  for (uint32_t i = 0; i < 7; ++i) {
    EXPECT_EQ(m_destroy[i].type, destroyTypes[i]);
  }
  const tagTavoVideoSnapshotFuncMap* snapshot = nullptr;
  uint32_t count = 99;
  auto* getSnapshot = Symbol<decltype(TavoVideoGetSnapshotFuncMap)>("TavoVideoGetSnapshotFuncMap");
  EXPECT_EQ(getSnapshot(&snapshot, &count), 0U);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(getSnapshot(nullptr, &count), 1U);
  EXPECT_EQ(Symbol<decltype(TavoVideoFindFreeVoChnId)>("TavoVideoFindFreeVoChnId")(1, 2, 3), 1U);
  EXPECT_EQ(Symbol<decltype(TavoVideoKeepWindow)>("TavoVideoKeepWindow")(), 0U);
}

TEST_F(ComponentTableTest, TestImageToEncoderWholeCycle) {
  LogCapture logs;
  TempDir dir;
  const std::string image = dir.Write("bars.bmp", SolidBmp24(64, 32, 255, 0, 0));
  Store(200, 60);
  Store(201, 8);
  auto encoder = EncoderParam();
  auto test = TestParam(image);
  ASSERT_EQ(Create(TAVO_VIDEO_COMPONENT_TEST_IMAGE, 200, test.get()), 0U);
  ASSERT_EQ(Create(TAVO_VIDEO_COMPONENT_ENCODER, 201, encoder.get()), 0U);
  auto bind = Find(m_bind, m_bindCount, 10, 2);
  auto unbind = Find(m_unbind, m_unbindCount, 10, 2);
  ASSERT_EQ(bind(201, 200), 0U);
  EXPECT_TRUE(logs.HasModule("links: {TEST_60->(ENC_8) } ", 3));

  ASSERT_TRUE(m_host.offered.WaitFor(2));
  {
    std::lock_guard<std::mutex> lock(m_host.lock);
    ASSERT_GE(m_host.records.size(), 2U);
    const VencOutFrame* first = m_host.records[0];
    EXPECT_EQ(first->imgNo, 8U);
    EXPECT_EQ(first->hostKey, 3U);
    EXPECT_EQ(first->sequence, 0U);
    EXPECT_EQ(m_host.records[1]->sequence, 1U);
    const OsvGraphicBufferInfo info = first->buffer->GetImageInfo();
    EXPECT_EQ(info.width, 64U);  // the image's own size, not the encoder's
    EXPECT_EQ(info.height, 32U);
    EXPECT_EQ(first->buffer->GetSrcImgNo(), 60U);
  }
  {
    // Frames still on their way after the unbind are refused, and so come back by themselves.
    std::lock_guard<std::mutex> lock(m_host.lock);
    m_host.accept = 0;
  }
  EXPECT_EQ(unbind(201, 200), 0U);
  std::vector<VencOutFrame*> held;
  {
    std::lock_guard<std::mutex> lock(m_host.lock);
    held.swap(m_host.records);
  }
  VencOutFrame* orphan = held.back();
  held.pop_back();
  for (VencOutFrame* record : held) {
    EXPECT_EQ(m_release(record), 0U);  // never under a lock the callback takes
  }
  EXPECT_EQ(Destroy(TAVO_VIDEO_COMPONENT_ENCODER, 201), 0U);
  // A record whose encoder is gone is still freed (the leak checker would see it).
  EXPECT_EQ(m_release(orphan), 1U);
  EXPECT_TRUE(logs.HasModule("VirtualEncoderNode is nullptr", 1));
  // Every frame came back, so the test node frees its whole cache.
  EXPECT_EQ(Destroy(TAVO_VIDEO_COMPONENT_TEST_IMAGE, 200), 0U);
  EXPECT_EQ(Destroy(TAVO_VIDEO_COMPONENT_TEST_IMAGE, 200), 0U);  // "node has closed"
  EXPECT_FALSE(logs.HasModule("The cache release is fail"));
  EXPECT_EQ(m_release(nullptr), 1U);
  EXPECT_TRUE(logs.HasModule("data is nullptr", 1));
}

TEST_F(ComponentTableTest, BadComponentsAreRefused) {
  LogCapture logs;
  auto encoder = EncoderParam();
  EXPECT_EQ(Create(TAVO_VIDEO_COMPONENT_ENCODER, 300, nullptr), 1U);
  EXPECT_TRUE(logs.HasModule("null compParam! nodeId[300].", 1));

  Store(301, 9, false);  // no "portId"
  EXPECT_EQ(Create(TAVO_VIDEO_COMPONENT_ENCODER, 301, encoder.get()), 1U);
  EXPECT_TRUE(logs.HasModule("[Node[301]PresentParam]GetDataByString portId failed!", 1));

  Store(302, 226);
  EXPECT_EQ(Create(TAVO_VIDEO_COMPONENT_ENCODER, 302, encoder.get()), 1U);
  EXPECT_TRUE(logs.HasModule("[ENC_226] invalid imgNo[226]!", 1));

  // The same node id for a component of another class.
  Store(303, 226);
  TempDir dir;
  auto test = TestParam(dir.Write("t.bmp", SolidBmp24(8, 8, 0, 0, 0)));
  EXPECT_EQ(Create(TAVO_VIDEO_COMPONENT_TEST_IMAGE, 303, test.get()), 1U);
  EXPECT_TRUE(logs.HasModule("nodePtr still null", 1));

  // A 1024-character file name does not fit.
  std::memset(test->test.fileName, 'x', sizeof(test->test.fileName));
  Store(304, 61);
  EXPECT_EQ(Create(TAVO_VIDEO_COMPONENT_TEST_IMAGE, 304, test.get()), 1U);
  EXPECT_TRUE(logs.HasModule("strcpy_s fileName failed!", 1));

  // An encoder is no input: binding to it finds no builder.
  auto bind = Find(m_bind, m_bindCount, 10, 4);
  Store(305, 227);
  EXPECT_EQ(bind(305, 302), 1U);
  EXPECT_TRUE(logs.HasModule("BuilderFac no supoort vi type[5]", 1));
  EXPECT_TRUE(logs.HasModule("builder is nullptr", 1));

  EXPECT_EQ(Create(TAVO_VIDEO_COMPONENT_PREVIEW, 306, encoder.get()), 1U);
  EXPECT_EQ(Destroy(TAVO_VIDEO_COMPONENT_ENCODER, 999), 0U);
  for (uint32_t component : {302U, 304U}) {
    Destroy(TAVO_VIDEO_COMPONENT_ENCODER, component);
    Destroy(TAVO_VIDEO_COMPONENT_TEST_IMAGE, component);
  }
}

TEST_F(ComponentTableTest, RefusedFramesGoStraightBack) {
  m_host.accept = 0;
  TempDir dir;
  const std::string image = dir.Write("r.bmp", SolidBmp24(16, 16, 1, 1, 1));
  Store(400, 62);
  Store(401, 10);
  auto encoder = EncoderParam();
  auto test = TestParam(image);
  ASSERT_EQ(Create(TAVO_VIDEO_COMPONENT_TEST_IMAGE, 400, test.get()), 0U);
  ASSERT_EQ(Create(TAVO_VIDEO_COMPONENT_ENCODER, 401, encoder.get()), 0U);
  ASSERT_EQ(Find(m_bind, m_bindCount, 10, 2)(401, 400), 0U);
  ASSERT_TRUE(m_host.offered.WaitFor(2));
  EXPECT_EQ(Find(m_unbind, m_unbindCount, 10, 2)(401, 400), 0U);
  EXPECT_EQ(Destroy(TAVO_VIDEO_COMPONENT_ENCODER, 401), 0U);
  // Every refused frame came back, so the test node releases its whole cache.
  LogCapture logs;
  EXPECT_EQ(Destroy(TAVO_VIDEO_COMPONENT_TEST_IMAGE, 400), 0U);
  EXPECT_FALSE(logs.HasModule("The cache release is fail"));
}

}  // namespace

namespace {

TEST_F(ComponentTableTest, DecodedFramesReachPreviewsAndComeBackOnce) {
  LogCapture logs;
  DecodeHost host;
  g_decodeHost = &host;
  auto* receive = Symbol<decltype(TavoVideoReceiveVDecFrame)>("TavoVideoReceiveVDecFrame");
  auto* setReport = Symbol<decltype(TavoVideoSetWinReportCb)>("TavoVideoSetWinReportCb");
  auto* stopRender = Symbol<decltype(TavoVideoVlinkVoStopRender)>("TavoVideoVlinkVoStopRender");
  ASSERT_TRUE(receive && setReport && stopRender);
  EXPECT_EQ(setReport(nullptr), 1U);
  ASSERT_EQ(setReport([&host](TavoVideoDisplayWinInfo& info) {
              std::lock_guard<std::mutex> lock(host.lock);
              host.reports.push_back(info);
              return 0;
            }),
            0U);

  constexpr uint32_t kDecoder = 500, kPreview = 501, kCamera = 502;
  Store(kDecoder, 90);
  Store(kPreview, 91);
  Store(kCamera, 92);
  auto decoder = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(decoder.get(), 0, sizeof(*decoder));
  decoder->vdec.imgNo = 150;
  decoder->vdec.decReleaseFunc = OnDecRelease;
  auto preview = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(preview.get(), 0, sizeof(*preview));
  preview->vo.winNum = 2;
  preview->vo.windows[0] = {0, 150, {}, 0, {}, 0x71, {}};
  preview->vo.windows[1] = {0, 150, {}, 0, {}, 0x72, {}};
  preview->vo.renderCb = OnRender;
  auto camera = std::make_unique<tagTavoVideoComponentParam>();
  std::memset(camera.get(), 0, sizeof(*camera));
  camera->virCam.width = 64;
  camera->virCam.height = 32;
  camera->virCam.virtualOutFunc = [](uint32_t, void*, uint32_t, void*, uint32_t) -> uint32_t {
    return 0;
  };
  ASSERT_EQ(Create(TAVO_VIDEO_COMPONENT_DECODER, kDecoder, decoder.get()), 0U);
  ASSERT_EQ(Create(TAVO_VIDEO_COMPONENT_PREVIEW, kPreview, preview.get()), 0U);
  ASSERT_EQ(Create(TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, kCamera, camera.get()), 0U);

  // A decoder nobody bound yet is not started: the host keeps its frames.
  std::vector<tagOS_S_VIDEO_CODEC_IMG_INFO> records(6);
  std::vector<std::unique_ptr<OsvGraphicBuffer>> buffers;
  for (auto& record : records) {
    std::memset(&record, 0, sizeof(record));
    buffers.push_back(std::make_unique<OsvGraphicBuffer>(64, 32, TAVO_VIDEO_VLINK_FORMAT_I420));
    record.pBuffer = buffers.back().get();
  }
  EXPECT_EQ(receive(0, 90, &records[0]), 1U);
  EXPECT_EQ(receive(0, 93, &records[0]), 1U);  // no such decoder
  EXPECT_EQ(receive(0, 90, nullptr), 1U);
  EXPECT_TRUE(logs.HasModule("null pData! portId[90], decId[0].", 1));

  ASSERT_EQ(Find(m_bind, m_bindCount, 13, 3)(kPreview, kDecoder), 0U);
  ASSERT_EQ(Find(m_bind, m_bindCount, 29, 3)(kCamera, kDecoder), 0U);
  EXPECT_TRUE(logs.HasModule("links: {DEC_90->(VO_91,) } ", 3));
  EXPECT_EQ(receive(32, 90, &records[0]), 1U);  // decoder ids run to 31
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(receive(0, 90, &records[i]), 0U);
  }
  ASSERT_TRUE(host.back.WaitFor(4));
  // Window 0x72 stops rendering; the frames still come back.
  ASSERT_EQ(stopRender(kPreview, 0x72), 0U);
  ASSERT_EQ(receive(0, 90, &records[4]), 0U);
  ASSERT_TRUE(host.back.WaitFor(5));

  EXPECT_EQ(Find(m_unbind, m_unbindCount, 13, 3)(kPreview, kDecoder), 0U);
  EXPECT_EQ(Find(m_unbind, m_unbindCount, 29, 3)(kCamera, kDecoder), 0U);
  // No sink left: the frame goes straight back.
  ASSERT_EQ(receive(0, 90, &records[5]), 0U);
  ASSERT_TRUE(host.back.WaitFor(6));
  for (uint32_t type : {TAVO_VIDEO_COMPONENT_PREVIEW, TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA}) {
    EXPECT_EQ(Destroy(type, type == TAVO_VIDEO_COMPONENT_PREVIEW ? kPreview : kCamera), 0U);
  }
  EXPECT_EQ(Destroy(TAVO_VIDEO_COMPONENT_DECODER, kDecoder), 0U);

  std::lock_guard<std::mutex> lock(host.lock);
  ASSERT_EQ(host.returned.size(), 6U);
  for (const auto& [record, count] : host.returned) {
    EXPECT_EQ(count, 1);
  }
  EXPECT_EQ(host.renderedByWindow[0x71], 5);
  EXPECT_EQ(host.renderedByWindow[0x72], 4);
  ASSERT_EQ(host.reports.size(), 2U);
  EXPECT_EQ(host.reports[0].viPort, 62U);
  g_decodeHost = nullptr;
  Symbol<decltype(TavoVideoSetWinReportCb)>("TavoVideoSetWinReportCb")(
      [](TavoVideoDisplayWinInfo&) { return 0; });
}

TEST_F(ComponentTableTest, RenderEntryPointsTolerateNullManagers) {
  LogCapture logs;
  auto* frame = reinterpret_cast<decltype(&TavoVideoRenderFrame)>(
      dlsym(s_library, "_Z20TavoVideoRenderFrameP16DevRenderManagerP16OsvGraphicBuffer"));
  auto* remove = reinterpret_cast<decltype(&TavoVideoRenderDelete)>(
      dlsym(s_library, "_Z21TavoVideoRenderDeleteP16DevRenderManager"));
  ASSERT_TRUE(frame && remove);
  EXPECT_EQ(frame(nullptr, nullptr), 0U);
  EXPECT_TRUE(logs.HasModule("DevRenderManager is null", 1));
  EXPECT_EQ(remove(nullptr), 0U);
  auto* setDefault =
      Symbol<decltype(TavoVideoVlinkVoSetDefaultImage)>("TavoVideoVlinkVoSetDefaultImage");
  EXPECT_EQ(setDefault(4242), 1U);
}

}  // namespace
