// Faults around running links, driven through the host rows: a host that holds every frame
// or blocks in a callback, a camera unplugged and plugged back, an X server that dies and a
// new one, and frame memory that cannot be had. Each case checks what the rest of the link
// does meanwhile, and that every frame goes back exactly once.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "background/tavo_video_opencv_binding.h"
#include "camera/tavo_video_vlink_camera_capture_node.h"
#include "core/tavo_video_os_seams.h"
#include "platform/adapt_common/osv_graphic_buffer_fault.h"
#include "process/tavo_video_vlink_image_process_node.h"
#include "tavo_video_vlink.h"
#include "tests/support/fake_host.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_nodes.h"
#include "tests/support/wait.h"
#include "tools/common/fake_v4l2_device.h"
#include "tools/common/xvfb_server.h"

namespace {

constexpr uint32_t kDecoderNode = 30, kEncoderNode = 10, kPreviewNode = 151;
// More frames than the shared pool has workers: a preview blocked in its render callback
// ties up one worker, whatever the number of frames queued to it.
constexpr int kFramesToABlockedPreview = 29;

constexpr uint32_t kEnc = TAVO_VIDEO_COMPONENT_ENCODER, kVo = TAVO_VIDEO_COMPONENT_PREVIEW,
                   kDec = TAVO_VIDEO_COMPONENT_DECODER, kInput = TAVO_VIDEO_COMPONENT_INPUT,
                   kCamera = TAVO_VIDEO_COMPONENT_CAMERA, kScreen = TAVO_VIDEO_COMPONENT_SCREEN,
                   kTest = TAVO_VIDEO_COMPONENT_TEST_IMAGE;

HostParam EncoderParam(uint32_t width, uint32_t height) {
  HostParam p = FakeHost::EncoderParam(0, width, height);
  p->venc.frameRate = 30;
  return p;
}

class LinkFaultsTest : public ::testing::Test {
 protected:
  LogCapture m_log;
  FakeHost m_host{HostEntries::Linked()};
};

// ---- decoded frames: a host that holds or blocks -------------------------------------

// Decoder 30 feeds an encoder (through the generic input row) and a preview. Frames are per
// frame here: an encoder that never gives anything back costs the preview nothing, and
// unbinding it leaves its frames with the host until it gives them back. A render callback
// that blocks holds only the frames queued to its preview: the encoder (bound again) is
// offered every frame meanwhile. The callback runs under the preview's node lock, so an
// unbind of the preview waits for it; once unbound, the preview gets nothing more and the
// frames it had are all shown.
TEST_F(LinkFaultsTest, AStalledEncoderOrABlockedPreviewHoldsOnlyItsOwnFrames) {
  HostParam dec = FakeHost::DecoderParam(kDecoderNode), enc = EncoderParam(320, 240),
            vo = FakeHost::PreviewParam({{7, kDecoderNode}});
  ASSERT_EQ(m_host.Create(kDec, 1, kDecoderNode, dec.get()), 0U);
  ASSERT_EQ(m_host.Create(kEnc, 2, kEncoderNode, enc.get()), 0U);
  ASSERT_EQ(m_host.Create(kVo, 3, kPreviewNode, vo.get()), 0U);
  m_host.Store(4, kDecoderNode);  // the generic input component names the decoder
  ASSERT_EQ(m_host.Bind(kEnc, kInput, 2, 4), 0U);
  ASSERT_EQ(m_host.Bind(kVo, kDec, 3, 1), 0U);
  const auto push = [&](int count) {
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(m_host.Push(kDecoderNode, 0, 320, 240), 0U);
    }
  };

  constexpr int kFrames = 60;
  push(kFrames);
  ASSERT_TRUE(m_host.rendered.WaitFor(kFrames));
  ASSERT_TRUE(m_host.offered.WaitFor(kFrames));
  EXPECT_EQ(m_host.decodedBack.Get(), 0);  // each one still held by the encoder
  ASSERT_EQ(m_host.Unbind(kEnc, kInput, 2, 4), 0U);
  push(5);
  ASSERT_TRUE(m_host.decodedBack.WaitFor(5));  // only the preview holds the new ones
  EXPECT_TRUE(m_host.rendered.WaitFor(kFrames + 5));
  EXPECT_EQ(m_host.offered.Get(), kFrames);
  m_host.GiveBack();
  EXPECT_TRUE(m_host.decodedBack.WaitFor(kFrames + 5));

  constexpr int kShown = kFrames + 5, kOffered = kFrames;  // before the preview blocks
  ASSERT_EQ(m_host.Bind(kEnc, kInput, 2, 4), 0U);
  Gate gate;
  m_host.onRender = [&](uint32_t) { gate.Pass(); };
  push(kFramesToABlockedPreview);
  ASSERT_TRUE(m_host.offered.WaitFor(kOffered + kFramesToABlockedPreview));
  ASSERT_TRUE(m_host.renderEntered.WaitFor(kShown + 1));
  EXPECT_EQ(std::pair(m_host.rendered.Get(), m_host.decodedBack.Get()), std::pair(kShown, kShown));
  std::thread unbinder([&] { EXPECT_EQ(m_host.Unbind(kVo, kDec, 3, 1), 0U); });
  gate.Open();
  unbinder.join();
  push(20);  // off the link now: these reach the encoder alone
  EXPECT_TRUE(m_host.offered.WaitFor(kOffered + kFramesToABlockedPreview + 20));
  // Once every frame is back (the preview let go of all it had), it has shown the frames it
  // had when it was unbound, and no later one.
  m_host.GiveBack();
  EXPECT_TRUE(m_host.decodedBack.WaitFor(kShown + kFramesToABlockedPreview + 20));
  EXPECT_EQ(std::pair(m_host.rendered.Get(), m_host.renderEntered.Get()),
            std::pair(kShown + kFramesToABlockedPreview, kShown + kFramesToABlockedPreview));
}

// ---- frame memory that cannot be had --------------------------------------------------

std::atomic<bool> g_memoryShort{false};

// Platform frame memory cannot be had while one lives. The filter stays: a thread may still
// be calling it after a shortage.
struct MemoryShort {
  MemoryShort() {
    OsvSetAllocationFilter([](uint64_t) { return !g_memoryShort.load(); });
    g_memoryShort = true;
  }
  ~MemoryShort() { g_memoryShort = false; }
};

// ---- the camera ------------------------------------------------------------------------

constexpr const char* kBus = "usb-0000:00:14.0-7";

class CameraFaultsTest : public LinkFaultsTest {
 protected:
  CameraFaultsTest() : m_deviceOverride(m_device) {
    ResetOpencvBinding();
    PlugIn();
  }
  void TearDown() override {
    for (const auto& sink : m_sinks) {
      sink->DealTaskHandler(true);
      VideoVlinkNode::DeleteNodeByUnique(sink->GetNodeId());
    }
    EXPECT_EQ(std::pair(m_device.OpenDescriptors(), m_device.Mappings()), std::pair(0UL, 0UL));
    ResetOpencvBinding();
  }
  void PlugIn() {
    FakeCameraConfig config = TypicalCamera(kBus);
    config.formats = {DiscreteFormat(V4L2_PIX_FMT_YUYV, {{320, 240}}, {{1, 30}})};
    m_device.AddCamera(0, config);
  }
  std::shared_ptr<CameraCaptureNode> CreateCamera() {
    HostParam p = FakeHost::Zeroed();
    p->camera.width = 320;
    p->camera.height = 240;
    p->camera.frameRate = 30;
    std::memcpy(p->camera.cameraId, kBus, std::strlen(kBus));
    EXPECT_EQ(m_host.Create(kCamera, 910, 62, p.get()), 0U);
    return VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(62);
  }
  // A node the encoder row binds, standing in for the host's encoder.
  std::shared_ptr<CountingNode> AddSink(uint32_t component, uint32_t node) {
    m_host.Store(component, node);
    VideoVlinkNode::CreateNodeByUnique<CountingNode>(node);
    return m_sinks.emplace_back(VideoVlinkNode::GetNodeByUnique<CountingNode>(node));
  }

  FakeV4l2Device m_device;
  ScopedSeamOverride<CaptureDevice> m_deviceOverride;
  std::vector<std::shared_ptr<CountingNode>> m_sinks;
};

// Converted camera frames come from the heap one by one; this one runs short on demand.
class ShortFrameMemory final : public FrameMemory {
 public:
  void* Allocate(size_t bytes) override { return refuse ? nullptr : std::malloc(bytes); }
  std::atomic<bool> refuse{false};
};

// Camera frames are per frame: a sink holding all of them does not cost the other sink a
// single frame. The camera delivers only once both sinks are bound and is unplugged to end
// production; then each sink must have had every frame the camera dequeued. The host takes
// the link down and builds it again once the camera is back.
TEST_F(CameraFaultsTest, AHoldingSinkCostsNothingAndAnUnpluggedLinkIsBuiltAgain) {
  m_device.Faults(0, [](FakeCameraFaults& f) { f.neverDeliver = true; });
  auto camera = CreateCamera();
  auto stalled = AddSink(911, 27);
  auto other = AddSink(912, 28);
  // One frame at a time reaches a sink; the test reads this only once the sink has counted
  // every frame, which orders the reads after the writes.
  std::vector<FrameRef> held;
  stalled->keep = [&](FrameRef frame) { held.push_back(std::move(frame)); };
  ASSERT_EQ(m_host.Bind(kEnc, kCamera, 911, 910), 0U);
  ASSERT_EQ(m_host.Bind(kEnc, kCamera, 912, 910), 0U);
  m_device.Faults(0, [](FakeCameraFaults& f) { f.neverDeliver = false; });
  ASSERT_TRUE(stalled->handled.WaitFor(30));
  m_device.Unplug(0);
  ASSERT_TRUE(m_log.WaitFor("could not sync on a buffer on device", 2));
  const auto produced = static_cast<int>(m_device.FramesDelivered(0));
  EXPECT_TRUE(other->handled.WaitFor(produced));
  EXPECT_TRUE(stalled->handled.WaitFor(produced));
  EXPECT_EQ(std::pair(other->handled.Get(), stalled->handled.Get()), std::pair(produced, produced));
  EXPECT_EQ(camera->GetBufferCount(), static_cast<uint32_t>(produced));  // all still out
  EXPECT_EQ(m_host.Unbind(kEnc, kCamera, 911, 910), 0U);
  EXPECT_EQ(m_host.Unbind(kEnc, kCamera, 912, 910), 0U);
  EXPECT_EQ(m_host.Destroy(kCamera, 910), 0U);  // gives up after its bounded wait
  held.clear();                                 // the held frames come back now, once each
  camera->DealTaskHandler(true);
  EXPECT_EQ(camera->GetBufferCount(), 0U) << "a camera frame did not come back";
  camera.reset();

  // Back, but without memory for the converted copies: each frame is dropped at the camera,
  // capture goes on, and frames flow again as soon as memory is back.
  PlugIn();
  ShortFrameMemory memory;
  ScopedSeamOverride<FrameMemory> memoryOverride(memory);
  memory.refuse = true;
  camera = CreateCamera();
  ASSERT_NE(camera, nullptr);
  const int before = other->handled.Get();
  ASSERT_EQ(m_host.Bind(kEnc, kCamera, 912, 910), 0U);
  ASSERT_TRUE(m_log.WaitFor("alloc frame block failed"));  // paced: the first one shows
  ASSERT_TRUE(m_device.WaitForFrames(0, m_device.FramesDelivered(0) + 3));
  EXPECT_EQ(other->handled.Get(), before);
  EXPECT_EQ(camera->GetBufferCount(), 0U);
  memory.refuse = false;
  EXPECT_TRUE(other->handled.WaitFor(before + 3));
  EXPECT_EQ(m_host.Destroy(kCamera, 910), 0U);
  camera->DealTaskHandler(true);
  EXPECT_EQ(camera->GetBufferCount(), 0U) << "a camera frame did not come back";
}

// The test image is read into platform memory at its start: without memory the start (and
// so the first bind) fails and nothing is sent; the next bind with memory back starts it.
// The conversion node grows its pool a buffer at a time: a buffer it cannot have skips that
// frame for the converting sink only, and the next frame with memory back is converted.
TEST_F(LinkFaultsTest, WithoutMemoryATestImageFailsItsStartAndTheConversionNodeSkipsAFrame) {
  TempDir dir;
  HostParam test =
      FakeHost::TestParam(dir.Write("still.bmp", SolidBmp24(64, 48, 40, 120, 200)), 30);
  HostParam encoder = EncoderParam(64, 48);
  ASSERT_EQ(m_host.Create(kTest, 40, 50, test.get()), 0U);
  ASSERT_EQ(m_host.Create(kEnc, 41, 12, encoder.get()), 0U);
  auto node = std::make_shared<ImageProcessNode>(20011);
  ASSERT_EQ(node->StartProcess(), 0U);
  auto plain = std::make_shared<CountingNode>(1);
  auto converted = std::make_shared<CountingNode>(2);
  VideoNodeRequirement wants{1, 64, 48, TAVO_VIDEO_VLINK_FORMAT_I420};
  converted->SetRequirement(wants);
  for (const auto& sink : {plain, converted}) {
    ASSERT_EQ(sink->StartProcess(), 0U);
    ASSERT_EQ(node->ConnectToNode(sink), 0U);
  }
  auto* source = new OsvGraphicBuffer(64, 48, TAVO_VIDEO_VLINK_FORMAT_ARGB, true);
  const auto push = [&] {
    FrameRef frame = FrameRef::Share(source);
    EXPECT_EQ(node->HandleBuffer(frame), 0U);
    plain->DealTaskHandler(true);
    converted->DealTaskHandler(true);
    return std::tuple(plain->handled.Get(), converted->handled.Get(), node->GetPoolBufferCount());
  };
  {
    MemoryShort shortage;
    EXPECT_NE(m_host.Bind(kEnc, kTest, 41, 40), 0U);
    EXPECT_EQ(push(), std::tuple(1, 0, 0U));
  }
  EXPECT_EQ(push(), std::tuple(2, 1, 1U));
  node->StopProcess();
  node.reset();
  EXPECT_TRUE(source->IsAvailable()) << "the source frame was never given back";
  delete source;

  EXPECT_EQ(m_host.offered.Get(), 0);
  ASSERT_EQ(m_host.Bind(kEnc, kTest, 41, 40), 0U);
  EXPECT_TRUE(m_host.offered.WaitFor(1));
  EXPECT_EQ(m_host.Unbind(kEnc, kTest, 41, 40), 0U);
  // The image's memory is freed only with no frame out: the host gives every frame back
  // (those still queued to the encoder too) before the input goes.
  VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(12)->DealTaskHandler(true);
  m_host.GiveBack();
  EXPECT_EQ(m_host.Destroy(kTest, 40), 0U);
  EXPECT_FALSE(m_log.HasModule("Memory has not been released"));
  EXPECT_EQ(m_host.Destroy(kEnc, 41), 0U);
}

// ---- the screen ----------------------------------------------------------------------

constexpr uint32_t kScreenNode = 90, kScreenEncoderNode = 11;

// libyuv's I420 of the columns [x, x + width) of a picture of 0xAARRGGBB pixels `stride`
// pixels wide: what the screen must send for a monitor there, at its own size (even here).
std::vector<uint8_t> OracleI420(const std::vector<uint32_t>& argb, int stride, int x, int width,
                                int height) {
  std::vector<uint8_t> out(size_t(width) * height * 3 / 2);
  uint8_t* y = out.data();
  libyuv::ARGBToI420(reinterpret_cast<const uint8_t*>(argb.data() + x), stride * 4, y, width,
                     y + width * height, width / 2, y + width * height * 5 / 4, width / 2, width,
                     height);
  return out;
}

// The screen's five buffers are shared by its sinks: this host gives every encoder frame
// back as soon as it has it. The screen's second monitor moves while frames flow: every
// frame shows the monitor fully where it was or fully where it is now (a resized one is
// refused: the capturer's test). Then the X server dies: the link's capture fails on without
// a display; the host takes it down, and a screen on a new server works. No shared-memory
// segment is ever left, not even while in use (it would outlive a crashed host).
TEST_F(LinkFaultsTest, AMonitorMovedMidStreamThenAKilledXServerAndANewOne) {
  std::unique_ptr<XvfbServer> server;
  const auto startServer = [&] {
    server = std::make_unique<XvfbServer>(std::vector<XvfbScreen>{{640, 480}});
    ASSERT_TRUE(server->Ok()) << server->Error();
    setenv("DISPLAY", server->Name().c_str(), 1);  // the library opens the display named there
  };
  HostParam screen = FakeHost::Zeroed();
  screen->screen.width = 640;
  screen->screen.height = 480;
  screen->screen.frameRate = 30;
  startServer();
  ASSERT_TRUE(server->SplitScreen(0, 2));
  const auto drawn = PatternPixels(640, 480, 7);
  server->PutPixels(0, 0, 0, 640, 480, drawn);
  server->WarpPointer(0, 5, 5);  // the cursor stays off the monitor, out of the frames
  const auto before = OracleI420(drawn, 640, 320, 320, 480);
  const auto after = OracleI420(drawn, 640, 200, 320, 480);
  m_host.SetEncoder(FakeHost::Encoder::kGiveBack);
  HostParam encoder = EncoderParam(320, 480);
  ASSERT_EQ(m_host.Create(kEnc, 21, kScreenEncoderNode, encoder.get()), 0U);
  m_host.keepPixels = true;
  ASSERT_EQ(m_host.Create(kScreen, 24, kScreenNode + 1, screen.get()), 0U);  // port 1
  ASSERT_EQ(m_host.Bind(kEnc, kScreen, 21, 24), 0U);
  const auto lastIs = [&](const std::vector<uint8_t>& picture) {
    return m_host.offered.WaitUntil([&] {
      const std::vector<FakeHost::Encoded> frames = m_host.EncodedFrames();
      return !frames.empty() && frames.back().pixels == picture;
    });
  };
  EXPECT_TRUE(lastIs(before));
  EXPECT_EQ(CountOwnShmSegments(), 0U) << "a shared-memory segment left in use";
  ASSERT_TRUE(server->SetMonitor(0, "part1", 320, 480, 200, 0));
  EXPECT_TRUE(lastIs(after));
  const std::vector<FakeHost::Encoded> frames = m_host.EncodedFrames();
  for (size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].width, 320U) << "frame " << i;
    EXPECT_TRUE(frames[i].pixels == before || frames[i].pixels == after) << "frame " << i;
  }

  server->Kill();
  ASSERT_TRUE(m_log.WaitFor("ScreenCaptureProcess failed!"));
  EXPECT_EQ(m_host.Unbind(kEnc, kScreen, 21, 24), 0U);
  EXPECT_EQ(m_host.Destroy(kScreen, 24), 0U);
  EXPECT_EQ(VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(kScreenNode + 1), nullptr);
  startServer();
  ASSERT_EQ(m_host.Create(kScreen, 22, kScreenNode, screen.get()), 0U);
  ASSERT_EQ(m_host.Bind(kEnc, kScreen, 21, 22), 0U);
  const int first = m_host.offered.Get();
  ASSERT_TRUE(m_host.offered.WaitFor(first + 3));
  EXPECT_EQ(m_host.EncodedFrames().back().width, 320U);
  m_host.Finish();
  EXPECT_EQ(CountOwnShmSegments(), 0U) << "a shared-memory segment left behind";
}

}  // namespace
