// Camera links as the host drives them (camera rows, binds behind the shared virtual-background
// node, capture-size and overlay controls, stops with frames out) over a fake V4L2 camera.
// Every frame the camera wraps must come back exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "adapt/tavo_video_vlink_adapt.h"
#include "background/tavo_video_background_virtuality.h"
#include "background/tavo_video_opencv_binding.h"
#include "builder/tavo_video_vlink_builder_factory.h"
#include "tavo_video_vlink.h"
#include "tests/support/fake_computing_client.h"
#include "tests/support/fake_host.h"
#include "tests/support/fake_os.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_nodes.h"
#include "tests/support/wrapper_symbols.h"
#include "tools/common/fake_v4l2_device.h"

namespace {

constexpr const char* kBus = "usb-0000:00:14.0-1";
constexpr uint32_t kCamera = TAVO_VIDEO_COMPONENT_CAMERA, kEnc = TAVO_VIDEO_COMPONENT_ENCODER;

struct CameraTypeNode : CountingNode {  // the camera's node type, another class
  explicit CameraTypeNode(uint32_t id) : CountingNode(id, OS_E_MPP_DEV_CAMERA) {}
};

class CameraLinkTest : public ::testing::Test {
 protected:
  // The camera behind a fake V4L2 device; the inference client and the image wrapper behind a
  // fake loader.
  CameraLinkTest() : m_deviceOverride(m_device), m_loaderOverride(m_loader) {
    m_loader.AddLibrary(BackgroundVirtualityNode::kClientLibrary, FakeComputingClient::Symbols());
    m_loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols());
    FakeCameraConfig config = TypicalCamera(kBus);
    config.formats = {DiscreteFormat(V4L2_PIX_FMT_YUYV, {{320, 240}, {640, 480}}, {{1, 30}})};
    m_device.AddCamera(0, config);
    ResetOpencvBinding();
  }

  uint32_t Bind(uint32_t sink, uint32_t source, bool bind = true) {
    return bind ? m_host.Bind(kEnc, kCamera, sink, source)
                : m_host.Unbind(kEnc, kCamera, sink, source);
  }

  void TearDown() override {
    LetGo();
    m_host.Finish();  // unbinds and destroys what the test made
    for (auto& [id, sink] : m_sinks) {
      sink->DealTaskHandler(true);  // frames still queued to it go back first
      VideoVlinkNode::DeleteNodeByUnique(id);
    }
    for (const std::shared_ptr<CameraCaptureNode>& camera : m_cameraNodes) {
      camera->DealTaskHandler(true);  // the releases those queued
      EXPECT_EQ(camera->GetBufferCount(), 0U) << "a frame did not come back";
    }
    EXPECT_EQ(std::pair(m_device.OpenDescriptors(), m_device.Mappings()), std::pair(0UL, 0UL));
    ResetOpencvBinding();
  }

  uint32_t CreateCamera(uint32_t component, uint32_t nodeId, uint32_t width, uint32_t height,
                        const char* cameraId = kBus) {
    HostParam param = FakeHost::Zeroed();
    param->camera.width = width;
    param->camera.height = height;
    param->camera.frameRate = 30;
    std::memcpy(param->camera.cameraId, cameraId, std::min<size_t>(192, std::strlen(cameraId)));
    const uint32_t result = m_host.Create(kCamera, component, nodeId, param.get());
    if (auto node = VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(nodeId)) {
      m_cameraNodes.push_back(node);
    }
    m_stamp = nodeId;
    return result;
  }

  // A sink that checks every frame against the expected stamp and size.
  std::shared_ptr<CountingNode> AddSink(uint32_t component, uint32_t nodeId) {
    m_host.Store(component, nodeId);
    VideoVlinkNode::CreateNodeByUnique<CountingNode>(nodeId);
    auto sink = VideoVlinkNode::GetNodeByUnique<CountingNode>(nodeId);
    sink->onFrame = [this](OsvGraphicBuffer* frame) {
      m_lastWidth = frame->GetImageInfo().width;
      m_wrongStamps += frame->GetSrcImgNo() != m_stamp ? 1 : 0;
    };
    m_sinks[nodeId] = sink;
    return sink;
  }

  // A camera bound to a sink that keeps up to `keep` of its frames until LetGo, once frames
  // flow.
  std::pair<std::shared_ptr<CameraCaptureNode>, std::shared_ptr<CountingNode>>
  CameraWithHoldingSink(uint32_t component, uint32_t nodeId, uint32_t sinkComponent,
                        uint32_t sinkId, size_t keep) {
    EXPECT_EQ(CreateCamera(component, nodeId, 320, 240), 0U);
    auto sink = AddSink(sinkComponent, sinkId);
    sink->keep = [this, keep](FrameRef frame) {
      std::lock_guard<std::mutex> lock(m_seenLock);
      if (m_held.size() < keep) {
        m_held.push_back(std::move(frame));
      }
    };
    EXPECT_EQ(Bind(sinkComponent, component), 0U);
    EXPECT_TRUE(sink->handled.WaitFor(5));
    return {m_cameraNodes.back(), sink};
  }
  void LetGo() {
    std::vector<FrameRef> dropped;
    std::lock_guard<std::mutex> lock(m_seenLock);
    dropped.swap(m_held);
  }

  FakeHost m_host{HostEntries::Linked()};  // checks no frame reference is dropped twice
  FakeV4l2Device m_device;
  ScopedSeamOverride<CaptureDevice> m_deviceOverride;
  FakeDynamicLoader m_loader;
  ScopedSeamOverride<DynamicLoader> m_loaderOverride;
  FakeComputingClient m_client;
  LogCapture m_log;
  std::vector<std::shared_ptr<CameraCaptureNode>> m_cameraNodes;
  std::map<uint32_t, std::shared_ptr<CountingNode>> m_sinks;
  std::mutex m_seenLock;             // guards m_held
  std::atomic<uint32_t> m_stamp{0};  // the image number of the last camera made
  std::atomic<uint32_t> m_lastWidth{0};
  std::atomic<int> m_wrongStamps{0};
  std::vector<FrameRef> m_held;
};

// Ids without terminator, unknown components and missing middle nodes are refused. A capture size
// is checked against the capture limits and kept at once, captured from the next start; other kinds
// of node are left alone. A node never given valid parameters cannot start, and has no overlay to
// reach.
TEST_F(CameraLinkTest, BadIdsSizesComponentsAndMissingMiddleNodesAreRefused) {
  const std::string full(192, 'a');
  EXPECT_EQ(CreateCamera(711, 11, 640, 480, full.c_str()), 1U);
  EXPECT_EQ(CreateCamera(711, 11, 640, 480, ""), 1U);
  EXPECT_EQ(CreateCamera(711, 11, 640, 480, full.substr(0, 191).c_str()), 0U);
  EXPECT_EQ(std::strlen(m_cameraNodes.back()->GetParam().cameraId), 191U);
  auto sink = AddSink(730, 23);
  m_host.Store(731, 6);  // a camera component never created
  EXPECT_EQ(Bind(730, 731), 1U);
  ASSERT_EQ(CreateCamera(732, 7, 320, 240), 0U);
  std::shared_ptr<CameraCaptureNode> camera = m_cameraNodes.back();
  m_host.Store(733, 999);  // a sink that does not exist
  EXPECT_EQ(Bind(733, 732), 1U);
  EXPECT_FALSE(camera->IsStarted());
  EXPECT_EQ(Bind(730, 732, false), 1U);  // no link yet, so no middle node
  ASSERT_EQ(Bind(730, 732), 0U);
  ASSERT_TRUE(sink->handled.WaitFor(1));
  // The last accepted size is the one kept.
  const uint32_t limits[][3] = {{3840, 2160, 0}, {2160, 3840, 0}, {100, 2161, 0},
                                {1, 1, 0},       {640, 480, 0},   {3841, 100, 1},
                                {2200, 2161, 1}, {0, 480, 1},     {640, 0, 1}};
  for (const auto& [width, height, result] : limits) {
    EXPECT_EQ(TavoVideoSetCapResolution(7, width, height), result) << width << "x" << height;
  }
  EXPECT_EQ(m_device.CurrentFormat(0).width, 320U);  // still the old size
  // A stop erases the middle node: a bind that is not the first cannot link any more.
  ASSERT_EQ(camera->StopProcess(), 0U);
  AddSink(734, 24);
  EXPECT_EQ(Bind(734, 732), 1U);
  ASSERT_EQ(camera->StartProcess(), 0U);
  EXPECT_EQ(m_device.CurrentFormat(0).width, 640U);

  AddSink(752, 27);  // an encoder
  VideoVlinkNode::CreateNodeByUnique<CameraTypeNode>(28);
  EXPECT_EQ(TavoVideoSetCapResolution(27, 640, 480), 0U);
  EXPECT_EQ(TavoVideoSetCapResolution(28, 640, 480), 1U);
  EXPECT_EQ(TavoVideoSetCapResolution(12345, 640, 480), 1U);
  VideoVlinkNode::DeleteNodeByUnique(28);
  auto fresh = std::make_shared<CameraCaptureNode>(32);
  EXPECT_EQ(fresh->StartProcess(), 1U);
  EXPECT_EQ(fresh->CloseIvr(), 1U);
}

// The stop gives up after its bounded wait; held frames are freed once when let go. Frames
// that come back while the stop waits end the wait at once, not at its limit.
TEST_F(CameraLinkTest, StopWithFramesHeldWaitsUntilTheyComeBackOrItsLimit) {
  auto [camera, sink] = CameraWithHoldingSink(740, 8, 741, 25, 3);
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(camera->StopProcess(), 0U);
  EXPECT_GE(std::chrono::steady_clock::now() - begin,
            std::chrono::milliseconds(CameraCaptureNode::kReleaseWaitMs));
  EXPECT_FALSE(camera->IsOpened());
  LetGo();  // TearDown checks that every frame came back

  auto [quick, quickSink] = CameraWithHoldingSink(745, 10, 746, 33, 1000);
  // Let go of the frames once capture has stopped, i.e. while the stop waits for them.
  std::thread host([&, quickSink = quickSink] {
    for (int i = 0; i < 20000 && m_device.IsStreaming(0); ++i) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    quickSink->DealTaskHandler(true);
    LetGo();
  });
  begin = std::chrono::steady_clock::now();
  EXPECT_EQ(quick->StopProcess(), 0U);
  const auto took = std::chrono::steady_clock::now() - begin;
  host.join();
  EXPECT_LT(took, std::chrono::milliseconds(CameraCaptureNode::kReleaseWaitMs));
}

// Settings given before the camera exists reach the virtual-background node at bind; two sinks
// share that node and the camera starts once; unbinding one leaves the other receiving; destroying
// the camera removes the middle node. Text channels answer as without an overlay proxy; channels of
// another kind, or never made, are kept nowhere.
TEST_F(CameraLinkTest, SinksShareTheBackgroundNodeWhichTakesTheSettingsStoredBefore) {
  TempDir dir;
  const std::string bgPath = dir.Write("bg.bmp", SolidBmp24(16, 9, 255, 0, 0));
  uint32_t queue = 0;
  ASSERT_EQ(TavoVideoVlinkOverlayParamCreate(5, 801, &queue, TAVO_VIDEO_OVERLAY_VIRTUAL_BACKGROUND),
            0U);
  ASSERT_EQ(TavoVideoVlinkOverlayParamCreate(5, 802, &queue, TAVO_VIDEO_OVERLAY_TEXT), 0U);
  ASSERT_EQ(TavoVideoVlinkOverlayParamCreate(5, 803, &queue, 5), 0U);
  tagTavoVideoOverlayParam overlay{};
  std::strcpy(overlay.background.bgImagePath, bgPath.c_str());
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(801, &overlay), 0U);
  EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(801, 0x101), 0U);  // low 8 bits: on
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(802, &overlay), 1U);  // no camera yet

  ASSERT_EQ(CreateCamera(700, 5, 320, 240), 0U);
  auto first = AddSink(720, 21);
  auto second = AddSink(721, 22);
  ASSERT_EQ(Bind(720, 700), 0U);
  uint32_t bgId = 0;
  ASSERT_EQ(CameraCaptureNode::GetBgVirtualNodeId(5, bgId), 0U);
  auto bgNode = VideoVlinkNode::GetNodeByUnique<BackgroundVirtualityNode>(bgId);
  ASSERT_TRUE(bgNode);
  EXPECT_TRUE(bgNode->IsRunning());
  EXPECT_STREQ(bgNode->GetParam().bgImagePath, bgPath.c_str());
  EXPECT_EQ(bgNode->GetParam().height, 240U);
  ASSERT_TRUE(m_client.requests.WaitFor(3));
  ASSERT_TRUE(first->handled.WaitFor(3));
  ASSERT_EQ(Bind(721, 700), 0U);
  EXPECT_EQ(m_log.CountModule("CameraCaptureNode::StartProcess success"), 1U);
  const std::string bg = "BG_VIR_" + std::to_string(bgNode->GetNodeId());
  EXPECT_NE(VlinkBuilderFactory::GetInstance().GetLinksText().find("CAM_5->(" + bg + ") " + bg +
                                                                   "->(TEST_21,TEST_22) "),
            std::string::npos);

  EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(801, 0), 0U);
  EXPECT_FALSE(bgNode->IsRunning());
  ASSERT_TRUE(first->handled.WaitFor(first->handled.Get() + 3));  // passed through while off
  // An unterminated path is refused and changes nothing.
  std::memset(overlay.background.bgImagePath, 'x', kBackgroundImagePathLength);
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(801, &overlay), 1U);
  EXPECT_STREQ(bgNode->GetParam().bgImagePath, bgPath.c_str());
  EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(801), 0U);
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(801, &overlay), 1U);

  std::strcpy(overlay.text.overlayText, "hello");
  EXPECT_EQ(TavoVideoVlinkOverlayParamSet(802, &overlay), 1U);
  EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(802, 1), 0U);  // on: nothing to do
  EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(802, 0), 1U);  // off: closes the text overlay
  EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(802), 1U);
  for (uint32_t channel : {803U, 804U}) {
    EXPECT_EQ(TavoVideoVlinkOverlayParamSet(channel, &overlay), 1U);
    EXPECT_EQ(TavoVideoVlinkOverlayParamEnable(channel, 0), 1U);
    EXPECT_EQ(TavoVideoVlinkOverlayParamDestroy(channel), 0U);
  }

  ASSERT_EQ(Bind(720, 700, false), 0U);
  first->DealTaskHandler(true);  // frames queued before the unbind have arrived
  const int firstCount = first->handled.Get();
  ASSERT_TRUE(second->handled.WaitFor(second->handled.Get() + 5));
  EXPECT_EQ(first->handled.Get(), firstCount);
  EXPECT_EQ(m_lastWidth, 320U);
  EXPECT_EQ(m_wrongStamps, 0);

  EXPECT_EQ(m_host.Destroy(kCamera, 700), 0U);
  EXPECT_FALSE(VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(bgNode->GetNodeId()));
  EXPECT_FALSE(VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(5));
  EXPECT_TRUE(second->GetPrevConnectListCopy().empty());  // nothing holds the deleted node
}

}  // namespace
