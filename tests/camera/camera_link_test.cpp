// Camera links as the host drives them: the camera rows of the component tables, binds of
// sinks behind the shared virtual-background node, the capture-size and overlay controls,
// and stops with frames still out, over a fake V4L2 camera and a fake inference client.
// Every frame the camera wraps must come back exactly once.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <set>
#include <vector>

#include "adapt/tavo_video_vlink_adapt.h"
#include "background/tavo_video_background_virtuality.h"
#include "background/tavo_video_opencv_binding.h"
#include "builder/tavo_video_vlink_builder_factory.h"
#include "camera/tavo_video_vlink_camera_capture_node.h"
#include "tavo_video_vlink.h"
#include "tests/support/build_tree_loader.h"
#include "tests/support/fake_computing_client.h"
#include "tests/support/fake_os.h"
#include "tests/support/fake_v4l2_device.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_nodes.h"
#include "tests/support/waitable_log.h"
#include "tests/support/wrapper_symbols.h"

namespace {

constexpr const char* kBus = "usb-0000:00:14.0-1";

// The row of a component table for (type, srcType).
template <class Row>
auto RowOf(uint32_t (*getter)(const Row**, uint32_t*), uint32_t type, uint32_t srcType = 0)
    -> decltype(Row::func) {
  const Row* table = nullptr;
  uint32_t count = 0;
  getter(&table, &count);
  for (uint32_t i = 0; i < count; ++i) {
    if (table[i].type == type && table[i].srcType == srcType) {
      return table[i].func;
    }
  }
  return nullptr;
}

// A node of the camera's type that is not a camera node.
struct CameraTypeNode : CountingNode {
  explicit CameraTypeNode(uint32_t id) : CountingNode(id, OS_E_MPP_DEV_CAMERA) {}
};

// A sink that records the size and stamp of every frame it gets.
struct SeenFrame {
  uint32_t width;
  uint32_t height;
  uint32_t imgNo;
};

class CameraLinkTest : public ::testing::Test {
 protected:
  CameraLinkTest() : m_deviceOverride(m_device) {
    FakeCameraConfig config = TypicalCamera(kBus);
    config.formats = {DiscreteFormat(V4L2_PIX_FMT_YUYV, {{320, 240}, {640, 480}}, {{1, 30}})};
    m_device.AddCamera(0, config);
  }

  void SetUp() override {
    ResetOpencvBinding();
    m_underflows = OsvGraphicBuffer::GetUnderflowCount();
  }

  void TearDown() override {
    for (uint32_t component : m_cameras) {
      EXPECT_EQ(RowOf(TavoVideoGetDestroyNodeFuncMap, TAVO_VIDEO_COMPONENT_CAMERA)(component), 0U);
    }
    for (auto& [id, sink] : m_sinks) {
      // Frames still queued to a sink are handed back before the counts are checked.
      sink->DealTaskHandler(true);
      VideoVlinkNode::DeleteNodeByUnique(id);
    }
    for (const std::shared_ptr<CameraCaptureNode>& camera : m_cameraNodes) {
      camera->DealTaskHandler(true);  // the releases those hand-backs queued
      EXPECT_EQ(camera->GetBufferCount(), 0U) << "a frame did not come back";
    }
    EXPECT_EQ(OsvGraphicBuffer::GetUnderflowCount(), m_underflows) << "a frame was released twice";
    EXPECT_EQ(m_device.OpenDescriptors(), 0U);
    EXPECT_EQ(m_device.Mappings(), 0U);
    ResetOpencvBinding();
  }

  static void Present(uint32_t component, uint32_t nodeId) {
    std::shared_ptr<DataContainer> container =
        DataContainer::GetInstance("Node[" + std::to_string(component) + "]PresentParam");
    container->SetDataByString<uint32_t>("imgNo", nodeId);
    container->SetDataByString<uint32_t>("portId", 0);
  }

  // The camera component through its create row; the node is kept for inspection.
  uint32_t CreateCamera(uint32_t component, uint32_t nodeId, uint32_t width, uint32_t height,
                        const char* cameraId = kBus) {
    Present(component, nodeId);
    tagTavoVideoComponentParam param{};
    param.camera.width = width;
    param.camera.height = height;
    param.camera.frameRate = 30;
    std::strncpy(param.camera.cameraId, cameraId, sizeof(param.camera.cameraId));
    const uint32_t result =
        RowOf(TavoVideoGetCreateNodeFuncMap, TAVO_VIDEO_COMPONENT_CAMERA)(component, &param);
    m_cameras.push_back(component);
    if (auto node = VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(nodeId)) {
      m_cameraNodes.push_back(node);
    }
    return result;
  }

  std::shared_ptr<CountingNode> AddSink(uint32_t component, uint32_t nodeId) {
    Present(component, nodeId);
    VideoVlinkNode::CreateNodeByUnique<CountingNode>(nodeId);
    auto sink = VideoVlinkNode::GetNodeByUnique<CountingNode>(nodeId);
    sink->onFrame = [this, nodeId](OsvGraphicBuffer* frame) {
      const OsvGraphicBufferInfo info = frame->GetImageInfo();
      std::lock_guard<std::mutex> lock(m_seenLock);
      m_seen[nodeId].push_back({info.width, info.height, frame->GetSrcImgNo()});
    };
    m_sinks[nodeId] = sink;
    return sink;
  }

  static uint32_t Bind(uint32_t sink, uint32_t source, bool bind = true) {
    auto getter = bind ? TavoVideoGetBindNodeFuncMap : TavoVideoGetUnBindNodeFuncMap;
    return RowOf(getter, TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_CAMERA)(sink, source);
  }

  std::vector<SeenFrame> Seen(uint32_t sinkId) {
    std::lock_guard<std::mutex> lock(m_seenLock);
    return m_seen[sinkId];
  }

  static std::shared_ptr<VideoVlinkNode> BgNodeOf(uint32_t cameraId) {
    uint32_t bgId = 0;
    if (CameraCaptureNode::GetBgVirtualNodeId(cameraId, bgId) != 0) {
      return nullptr;
    }
    return VideoVlinkNode::GetNodeByUnique<BackgroundVirtualityNode>(bgId);
  }

  FakeV4l2Device m_device;
  ScopedSeamOverride<CaptureDevice> m_deviceOverride;
  WaitableLog m_log;
  std::vector<uint32_t> m_cameras;
  std::vector<std::shared_ptr<CameraCaptureNode>> m_cameraNodes;
  std::map<uint32_t, std::shared_ptr<CountingNode>> m_sinks;
  std::mutex m_seenLock;  // guards m_seen
  std::map<uint32_t, std::vector<SeenFrame>> m_seen;
  uint64_t m_underflows = 0;
};

// The inference client and the image wrapper behind a fake loader.
class CameraEffectTest : public CameraLinkTest {
 protected:
  CameraEffectTest() : m_loaderOverride(m_loader) {
    m_loader.AddLibrary(BackgroundVirtualityNode::kClientLibrary, FakeComputingClient::Symbols());
    m_loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols());
  }
  FakeDynamicLoader m_loader;
  ScopedSeamOverride<DynamicLoader> m_loaderOverride;
  FakeComputingClient m_client;
};

TEST(CameraCaptureNodeTest, ParametersAreCheckedAgainstTheCaptureLimits) {
  struct Case {
    uint32_t width, height, result;
  };
  const Case cases[] = {{3840, 2160, 0}, {2160, 3840, 0}, {100, 2161, 0}, {1, 1, 0},
                        {3841, 100, 1},  {2200, 2161, 1}, {0, 480, 1},    {640, 0, 1}};
  auto node = std::make_shared<CameraCaptureNode>(31);
  EXPECT_EQ(node->GetNodeName(), "CAM_31");
  EXPECT_EQ(node->GetNodeType(), OS_E_MPP_DEV_CAMERA);
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
    WaitableLog log;
    tagCameraCaptureParams params{};
    params.uiWidth = c.width;
    params.uiHeight = c.height;
    std::strcpy(params.cameraId, kBus);
    EXPECT_EQ(node->SetParam(params), c.result);
    EXPECT_EQ(log.HasModule("CheckParam Failed, w[", 1), c.result != 0);
  }
  // The last accepted parameters stay: 1x1.
  EXPECT_EQ(node->GetParam().uiWidth, 1U);

  WaitableLog log;
  tagCameraCaptureParams noId{};
  noId.uiWidth = 640;
  noId.uiHeight = 480;
  EXPECT_EQ(node->SetParam(noId), 1U);
  EXPECT_TRUE(log.HasModule("cameraId is null", 1));
  // A node never given valid parameters cannot start either.
  auto fresh = std::make_shared<CameraCaptureNode>(32);
  EXPECT_EQ(fresh->StartProcess(), 1U);
  EXPECT_FALSE(fresh->IsStarted());
  EXPECT_EQ(fresh->SetIvrParam(1, nullptr), 1U);  // no capture manager before a start
  EXPECT_EQ(fresh->CloseIvr(), 1U);
}

TEST(CameraCaptureNodeTest, TablesOfAnUnconfiguredCameraAnswerWithTheirMessages) {
  WaitableLog log;
  uint32_t id = 77;
  BackgroundVirtualityParams params{};
  params.width = 9;
  bool enable = true;
  EXPECT_EQ(CameraCaptureNode::GetBgVirtualNodeId(4040, id), 1U);
  EXPECT_EQ(CameraCaptureNode::GetBgVirtualParam(4040, params), 1U);
  EXPECT_EQ(CameraCaptureNode::GetBgVirtualParamEnableStatus(4040, enable), 1U);
  EXPECT_EQ(id, 77U);  // left alone
  EXPECT_EQ(params.width, 9U);
  EXPECT_TRUE(enable);
  EXPECT_TRUE(log.HasModule("imgNo[4040] m_bgVirtualNodeMap is empty", 1));
  EXPECT_TRUE(log.HasModule("imgNo[4040] m_bgVirtualparamMap is empty", 1));
  EXPECT_TRUE(log.HasModule("imgNo[4040] m_bgVirtualEnableMap is empty", 1));
}

TEST_F(CameraLinkTest, CreateRowRefusesAnIdentityWithoutTerminator) {
  char full[192];
  std::memset(full, 'a', sizeof full);
  Present(711, 11);
  tagTavoVideoComponentParam param{};
  param.camera.width = 640;
  param.camera.height = 480;
  std::memcpy(param.camera.cameraId, full, sizeof full);
  EXPECT_EQ(RowOf(TavoVideoGetCreateNodeFuncMap, TAVO_VIDEO_COMPONENT_CAMERA)(711, &param), 1U);
  m_cameras.push_back(711);
  EXPECT_TRUE(m_log.HasModule("strcpy_s failed", 1));
  EXPECT_TRUE(m_log.HasModule("cameraId is null", 1));
  // 191 characters are a whole identity.
  full[191] = '\0';
  std::memcpy(param.camera.cameraId, full, sizeof full);
  EXPECT_EQ(RowOf(TavoVideoGetCreateNodeFuncMap, TAVO_VIDEO_COMPONENT_CAMERA)(711, &param), 0U);
  auto node = VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(11);
  ASSERT_TRUE(node);
  EXPECT_EQ(std::strlen(node->GetParam().cameraId), 191U);
  EXPECT_EQ(node->GetParam().imgNo, 11U);
}

// Two sinks share one virtual-background node; the camera starts once; unbinding one sink
// leaves the other receiving; destroying the camera removes the middle node.
TEST_F(CameraLinkTest, SinksShareTheBackgroundNodeAndComeAndGo) {
  ASSERT_EQ(CreateCamera(700, 5, 320, 240), 0U);
  auto first = AddSink(720, 21);
  auto second = AddSink(721, 22);
  ASSERT_EQ(Bind(720, 700), 0U);
  std::shared_ptr<VideoVlinkNode> bgNode = BgNodeOf(5);
  ASSERT_TRUE(bgNode);
  EXPECT_GE(bgNode->GetNodeId(), 10001U);
  EXPECT_EQ(bgNode->GetNodeName(), "BG_VIR_" + std::to_string(bgNode->GetNodeId()));
  ASSERT_TRUE(first->handled.WaitFor(3));

  ASSERT_EQ(Bind(721, 700), 0U);
  EXPECT_EQ(BgNodeOf(5), bgNode);
  EXPECT_EQ(m_log.CountModule("CameraCaptureNode::StartProcess success"), 1U);
  const std::string bg = bgNode->GetNodeName();
  EXPECT_NE(VlinkBuilderFactory::GetInstance().GetLinksText().find("CAM_5->(" + bg + ") " + bg +
                                                                   "->(TEST_21,TEST_22) "),
            std::string::npos);
  ASSERT_TRUE(second->handled.WaitFor(3));

  ASSERT_EQ(Bind(720, 700, false), 0U);
  first->DealTaskHandler(true);  // frames queued before the unbind have arrived
  const int firstCount = first->handled.Get();
  const int secondCount = second->handled.Get();
  ASSERT_TRUE(second->handled.WaitFor(secondCount + 5));
  EXPECT_EQ(first->handled.Get(), firstCount);
  EXPECT_TRUE(first->GetPrevConnectListCopy().empty());

  // Every frame is the camera's size and carries its image number.
  for (uint32_t sink : {21U, 22U}) {
    for (const SeenFrame& frame : Seen(sink)) {
      EXPECT_EQ(frame.width, 320U);
      EXPECT_EQ(frame.height, 240U);
      EXPECT_EQ(frame.imgNo, 5U);
    }
  }

  EXPECT_EQ(RowOf(TavoVideoGetDestroyNodeFuncMap, TAVO_VIDEO_COMPONENT_CAMERA)(700), 0U);
  m_cameras.clear();
  EXPECT_FALSE(VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(bgNode->GetNodeId()));
  EXPECT_FALSE(VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(5));
  EXPECT_TRUE(second->GetPrevConnectListCopy().empty());  // nothing holds the deleted node
  EXPECT_FALSE(VlinkBuilderFactory::GetInstance().GetBuilderNoCreate(5));
  EXPECT_FALSE(m_device.IsStreaming(0));
  // Destroyed twice: nothing left to do.
  EXPECT_EQ(RowOf(TavoVideoGetDestroyNodeFuncMap, TAVO_VIDEO_COMPONENT_CAMERA)(700), 0U);
}

TEST_F(CameraLinkTest, UnknownComponentsAndMissingMiddleNodesFailTheBind) {
  auto sink = AddSink(730, 23);
  Present(731, 6);  // a camera component that was never created
  EXPECT_EQ(Bind(730, 731), 1U);
  ASSERT_EQ(CreateCamera(732, 7, 320, 240), 0U);
  Present(733, 999);  // a sink that does not exist
  EXPECT_EQ(Bind(733, 732), 1U);
  EXPECT_TRUE(m_log.HasModule("vo node is nullptr", 1));
  EXPECT_FALSE(m_cameraNodes.back()->IsStarted());  // refused before the camera started
  // Unbinding a sink before any link exists: the camera has no middle node.
  EXPECT_EQ(Bind(730, 732, false), 1U);
  EXPECT_TRUE(m_log.HasModule("GetBgVirtualNodeId failed!", 1));

  ASSERT_EQ(Bind(730, 732), 0U);
  ASSERT_TRUE(sink->handled.WaitFor(1));
  // A stop erases the middle node: a later bind that is not the first cannot link.
  ASSERT_EQ(m_cameraNodes.back()->StopProcess(), 0U);
  AddSink(734, 24);
  EXPECT_EQ(Bind(734, 732), 1U);
  EXPECT_TRUE(m_log.HasModule("Vi[7] mid[0] GetBgVirtualNodeId failed!", 1));
}

// A sink that keeps frames: the stop gives up after its bounded wait, and the frames are
// freed once when the sink lets go of them.
TEST_F(CameraLinkTest, StopWithFramesHeldReturnsAfterTheBoundedWait) {
  ASSERT_EQ(CreateCamera(740, 8, 320, 240), 0U);
  auto sink = AddSink(741, 25);
  std::mutex heldLock;
  std::vector<FrameRef> held;
  sink->keep = [&](FrameRef frame) {
    std::lock_guard<std::mutex> lock(heldLock);
    if (held.size() < 3) {
      held.push_back(std::move(frame));
    }
  };
  ASSERT_EQ(Bind(741, 740), 0U);
  ASSERT_TRUE(sink->handled.WaitFor(5));
  std::shared_ptr<CameraCaptureNode> camera = m_cameraNodes.back();

  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(camera->StopProcess(), 0U);
  const auto waited = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(waited, std::chrono::milliseconds(CameraCaptureNode::kReleaseWaitMs));
  EXPECT_LT(waited, kGenerousTimeout);
  EXPECT_TRUE(m_log.HasModule("m_bufferCnt:3 not release!", 1));
  EXPECT_FALSE(camera->IsOpened());
  EXPECT_EQ(camera->GetBufferCount(), 3U);

  {
    std::lock_guard<std::mutex> lock(heldLock);
    held.clear();
  }
  camera->DealTaskHandler(true);
  EXPECT_EQ(camera->GetBufferCount(), 0U);
  // A stopped camera stops again without waiting.
  EXPECT_EQ(camera->StopProcess(), 0U);
}

// The new size is kept at once and captured from the next start; sizes outside the limits
// and inputs of other kinds are answered without a change.
TEST_F(CameraLinkTest, CaptureSizeTakesEffectAtTheNextStart) {
  ASSERT_EQ(CreateCamera(750, 9, 320, 240), 0U);
  EXPECT_EQ(TavoVideoSetCapResolution(9, 640, 480), 0U);
  auto sink = AddSink(751, 26);
  ASSERT_EQ(Bind(751, 750), 0U);
  ASSERT_TRUE(sink->handled.WaitFor(2));
  EXPECT_EQ(Seen(26).front().width, 640U);

  EXPECT_EQ(TavoVideoSetCapResolution(9, 3841, 100), 1U);
  EXPECT_EQ(TavoVideoSetCapResolution(9, 320, 240), 0U);
  EXPECT_EQ(m_cameraNodes.back()->GetParam().uiWidth, 320U);
  EXPECT_EQ(m_device.CurrentFormat(0).width, 640U);  // still capturing the old size
  std::shared_ptr<CameraCaptureNode> camera = m_cameraNodes.back();
  ASSERT_EQ(camera->StopProcess(), 0U);
  ASSERT_EQ(camera->StartProcess(), 0U);
  EXPECT_EQ(m_device.CurrentFormat(0).width, 320U);
  EXPECT_EQ(m_device.CurrentFormat(0).height, 240U);

  // Other kinds of node: an encoder-type node is left alone, a camera-type node of another
  // class is refused, an unknown id is refused.
  AddSink(752, 27);
  VideoVlinkNode::CreateNodeByUnique<CameraTypeNode>(28);
  EXPECT_EQ(TavoVideoSetCapResolution(27, 640, 480), 0U);
  EXPECT_EQ(TavoVideoSetCapResolution(28, 640, 480), 1U);
  EXPECT_TRUE(m_log.HasModule("CameraCaptureNode isn't exist! viPort[28]", 1));
  EXPECT_EQ(TavoVideoSetCapResolution(12345, 640, 480), 1U);
  EXPECT_TRUE(m_log.HasModule("node isn't exist! viPort[12345]", 1));
  VideoVlinkNode::DeleteNodeByUnique(28);
}

// The unplugged camera stops delivering; the link is destroyed cleanly afterwards.
TEST_F(CameraLinkTest, UnpluggedCameraIsDestroyedCleanly) {
  m_device.Faults(0, [](FakeCameraFaults& f) { f.unplugAfterFrames = 4; });
  ASSERT_EQ(CreateCamera(760, 13, 320, 240), 0U);
  auto sink = AddSink(761, 29);
  ASSERT_EQ(Bind(761, 760), 0U);
  ASSERT_TRUE(m_log.WaitFor("could not sync on a buffer on device"));
  ASSERT_TRUE(sink->handled.WaitFor(3));
  EXPECT_LE(m_device.FramesDelivered(0), 4U);
}

// Overlay settings given before the camera exists reach the virtual-background node at
// bind; later ones reach it at once.
TEST_F(CameraEffectTest, OverlaySettingsStoredBeforeTheLinkApplyAtBind) {
  TempDir dir;
  const std::string bgPath = dir.Write("bg.bmp", SolidBmp24(16, 9, 255, 0, 0));
  uint32_t queue = 0;
  ASSERT_EQ(
      TavoVideoVlinkOverlayParamCreate(14, 801, &queue, TAVO_VIDEO_OVERLAY_VIRTUAL_BACKGROUND), 0U);
  tagTavoVideoOverlayParam overlay{};
  std::strcpy(overlay.background.bgImagePath, bgPath.c_str());
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(801, &overlay), 0U);
  EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(801, 0x101), 0U);  // low 8 bits: on
  EXPECT_TRUE(m_log.HasModule("GetNodeByUnique fail, imgNo:14 channelId:801", 1));

  ASSERT_EQ(CreateCamera(770, 14, 320, 240), 0U);
  auto sink = AddSink(771, 30);
  ASSERT_EQ(Bind(771, 770), 0U);
  auto bgNode = std::static_pointer_cast<BackgroundVirtualityNode>(BgNodeOf(14));
  ASSERT_TRUE(bgNode);
  EXPECT_TRUE(bgNode->IsRunning());
  const BackgroundVirtualityParams applied = bgNode->GetParam();
  EXPECT_STREQ(applied.bgImagePath, bgPath.c_str());
  EXPECT_EQ(applied.width, 320U);
  EXPECT_EQ(applied.height, 240U);
  EXPECT_EQ(applied.frameRate, 30U);
  ASSERT_TRUE(m_client.requests.WaitFor(3));
  ASSERT_TRUE(sink->handled.WaitFor(3));  // blended frames reach the sink

  EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(801, 0), 0U);
  EXPECT_FALSE(bgNode->IsRunning());
  const int handled = sink->handled.Get();
  ASSERT_TRUE(sink->handled.WaitFor(handled + 3));  // passed through while off

  // An unterminated path is refused and changes nothing.
  std::memset(overlay.background.bgImagePath, 'x', kBackgroundImagePathLength);
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(801, &overlay), 1U);
  EXPECT_STREQ(bgNode->GetParam().bgImagePath, bgPath.c_str());
  EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(801), 0U);
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(801, &overlay), 1U);  // gone
}

TEST_F(CameraLinkTest, TextOverlayChannelsAnswerAsWithoutAnOverlayProxy) {
  uint32_t queue = 0;
  ASSERT_EQ(TavoVideoVlinkOverlayParamCreate(15, 802, &queue, TAVO_VIDEO_OVERLAY_TEXT), 0U);
  ASSERT_EQ(TavoVideoVlinkOverlayParamCreate(15, 803, &queue, 5), 0U);  // kept nowhere
  tagTavoVideoOverlayParam overlay{};
  std::strcpy(overlay.text.overlayText, "hello");
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(802, &overlay), 1U);  // no camera yet
  EXPECT_TRUE(m_log.HasModule("GetNodeByUnique fail, imgNo:15", 1));

  ASSERT_EQ(CreateCamera(780, 15, 320, 240), 0U);
  auto sink = AddSink(781, 31);
  ASSERT_EQ(Bind(781, 780), 0U);
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(802, &overlay), 1U);
  EXPECT_TRUE(m_log.HasModule("m_csnProxy is null", 1));
  EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(802, 1), 0U);  // on: nothing to do
  EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(802, 0), 1U);  // off: closes the text overlay
  EXPECT_TRUE(m_log.HasModule("m_csnProxy is null", 3));
  EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(802), 1U);

  for (uint32_t channel : {803U, 804U}) {
    EXPECT_EQ(TavoVideoVlinkOverlayParamSet(channel, &overlay), 1U);
    EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(channel, 0), 1U);
    EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(channel, 1), 0U);
    EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(channel), 0U);
  }
  EXPECT_TRUE(m_log.HasModule("channel:804 not create!", 1));
  ASSERT_TRUE(sink->handled.WaitFor(1));  // the link never noticed
}

// The real inference client and wrapper, where the model is installed.
TEST_F(CameraLinkTest, EffectRunsWithTheRealInferenceClient) {
  BuildTreeLoader loader(VLINK_LOADABLE_DIR);
  ScopedSeamOverride<DynamicLoader> use(loader);
  uint32_t queue = 0;
  ASSERT_EQ(
      TavoVideoVlinkOverlayParamCreate(16, 805, &queue, TAVO_VIDEO_OVERLAY_VIRTUAL_BACKGROUND), 0U);
  TempDir dir;
  tagTavoVideoOverlayParam overlay{};
  std::strcpy(overlay.background.bgImagePath,
              dir.Write("green.bmp", SolidBmp24(32, 18, 0, 255, 0)).c_str());
  ASSERT_EQ(TavoVideoVlinkOverlayParamSet(805, &overlay), 0U);
  ASSERT_EQ(TavoVideoVlinkOverlayParamEnable(805, 1), 0U);
  ASSERT_EQ(CreateCamera(790, 16, 640, 480), 0U);
  auto sink = AddSink(791, 32);
  ASSERT_EQ(Bind(791, 790), 0U);
  auto bgNode = std::static_pointer_cast<BackgroundVirtualityNode>(BgNodeOf(16));
  ASSERT_TRUE(bgNode);
  if (!bgNode->IsRunning()) {
    EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(805), 0U);
    EXPECT_EQ(RowOf(TavoVideoGetDestroyNodeFuncMap, TAVO_VIDEO_COMPONENT_CAMERA)(790), 0U);
    m_cameras.clear();
    GTEST_SKIP() << "no segmentation model installed (scripts/install-models.sh)";
  }
  ASSERT_TRUE(sink->handled.WaitFor(5));
  EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(805), 0U);
  EXPECT_FALSE(bgNode->IsRunning());
  // Taken down while the real libraries are still the loader's.
  EXPECT_EQ(RowOf(TavoVideoGetDestroyNodeFuncMap, TAVO_VIDEO_COMPONENT_CAMERA)(790), 0U);
  m_cameras.clear();
}

}  // namespace
