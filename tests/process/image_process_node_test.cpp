// The conversion node's task tree, pools and parked buffers, driven in-process with counting
// sinks, and its placement between an input and a sink by the screen builder.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "builder/tavo_video_vlink_screen_builder.h"
#include "process/tavo_video_vlink_image_process_node.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_nodes.h"
#include "tests/support/wait.h"

namespace {

constexpr uint32_t kSrcImgNo = 90;

// A sink with a requirement that records every frame it was handed and may keep them.
class Sink {
 public:
  Sink(uint32_t id, bool process, uint32_t width = 0, uint32_t height = 0, uint32_t format = 0,
       bool hold = false)
      : node(std::make_shared<CountingNode>(id)), holding(hold) {
    VideoNodeRequirement requirement{static_cast<uint8_t>(process ? 1 : 0), width, height, format};
    node->SetRequirement(requirement);
    node->keep = [this](FrameRef frame) {
      std::lock_guard<std::mutex> lock(m_lock);
      frames.push_back(frame.Get());
      if (holding) {
        held.push_back(std::move(frame));
      }
    };
    node->StartProcess();
  }
  // A frame still on its way when a test ends would write into a gone sink: wait it out.
  ~Sink() { node->StopProcess(); }
  void ReleaseHeld() {
    std::vector<FrameRef> dropped;
    std::lock_guard<std::mutex> lock(m_lock);
    dropped.swap(held);
  }

  std::shared_ptr<CountingNode> node;
  // Guards the vectors while frames come; the test reads them once a sink's count showed them.
  std::mutex m_lock;
  std::vector<OsvGraphicBuffer*> frames;
  std::vector<FrameRef> held;
  bool holding;
  int pushed = 0;  // frames waited for: each Push names every sink its frame reaches
};

class ImageProcessNodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_underflows = OsvGraphicBuffer::GetUnderflowCount();
    m_node = std::make_shared<ImageProcessNode>(20001);
    ASSERT_EQ(m_node->StartProcess(), 0U);
  }
  void TearDown() override {
    m_sinks.clear();  // stopped first: each waits out the frames still on their way to it
    m_node->StopProcess();
    m_node.reset();
    for (const auto& source : m_sources) {
      EXPECT_TRUE(source->IsAvailable()) << "a source frame was never given back";
    }
    EXPECT_EQ(OsvGraphicBuffer::GetUnderflowCount(), m_underflows);
  }
  OsvGraphicBuffer* Source(uint32_t width, uint32_t height, uint32_t format) {
    auto& source =
        m_sources.emplace_back(std::make_unique<OsvGraphicBuffer>(width, height, format, true));
    source->SetSrcImgNo(kSrcImgNo);
    return source.get();
  }
  // A sink (made from Sink's arguments) linked after the node, kept until the test ends.
  template <class... Args>
  Sink& Add(Args... args) {
    Sink& sink = *m_sinks.emplace_back(std::make_unique<Sink>(args...));
    EXPECT_EQ(m_node->ConnectToNode(sink.node), 0U);
    return sink;
  }
  // Hands one frame to the node as the pool would, and waits until each sink got it.
  void Push(OsvGraphicBuffer* source, const std::vector<Sink*>& sinks) {
    FrameRef frame = FrameRef::Share(source);
    EXPECT_EQ(m_node->HandleBuffer(frame), 0U);
    for (Sink* sink : sinks) {
      ASSERT_TRUE(sink->node->handled.WaitFor(++sink->pushed));
    }
  }

  LogCapture m_logs;
  uint64_t m_underflows = 0;
  std::shared_ptr<ImageProcessNode> m_node;
  std::vector<std::unique_ptr<OsvGraphicBuffer>> m_sources;
  std::vector<std::unique_ptr<Sink>> m_sinks;
};

// Every branch of the size decision: a sink gets the converted frame itself only when both
// sides match, a scaled copy (libyuv's box filter, which shows at these ratios) when
// either differs; sinks with one requirement share one buffer per frame, and sinks whose
// wanted sizes share only one side get tasks of their own. Each pool allocates only while
// its buffers are all out.
TEST_F(ImageProcessNodeTest, EachWantedSizeGetsExactlyItsSizeAndEqualOnesShareIt) {
  const struct {
    uint32_t width, height;
  } cases[] = {{96, 64}, {96, 30}, {40, 64}, {40, 30}, {40, 30}};
  std::vector<Sink*> sinks = {&Add(9, false)};  // the first takes the frame as it comes
  for (const auto& c : cases) {
    sinks.push_back(&Add(static_cast<uint32_t>(10 + sinks.size()), true, c.width, c.height,
                         TAVO_VIDEO_VLINK_FORMAT_I420));
  }
  EXPECT_EQ(m_node->GetFormatTaskCount(), 1U);
  EXPECT_EQ(m_node->GetSizeTaskCount(), 4U);
  OsvGraphicBuffer* source = Source(96, 64, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  auto* argb = reinterpret_cast<uint32_t*>(source->GetImageAddr(0));
  for (uint32_t i = 0; i < 96 * 64; ++i) {
    argb[i] = 0xFF000000U | (i * 2654435761U >> 8);
  }
  constexpr size_t kFrames = 4;
  for (size_t i = 0; i < kFrames; ++i) {
    Push(source, sinks);
  }
  std::vector<uint8_t> full(96 * 64 * 3 / 2);
  libyuv::ARGBToI420(reinterpret_cast<uint8_t*>(argb), 96 * 4, full.data(), 96,
                     full.data() + 96 * 64, 48, full.data() + 96 * 64 * 5 / 4, 48, 96, 64);
  for (size_t i = 0; i < std::size(cases); ++i) {
    const int w = static_cast<int>(cases[i].width), h = static_cast<int>(cases[i].height);
    SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
    Sink& sink = *sinks[i + 1];
    const OsvGraphicBufferInfo info = sink.frames.at(0)->GetImageInfo();
    ASSERT_EQ(
        (std::vector{info.width, info.height, info.format}),
        (std::vector<uint32_t>{cases[i].width, cases[i].height, TAVO_VIDEO_VLINK_FORMAT_I420}));
    std::vector<uint8_t> want(size_t(w) * h * 3 / 2);
    libyuv::I420Scale(full.data(), 96, full.data() + 96 * 64, 48, full.data() + 96 * 64 * 5 / 4, 48,
                      96, 64, want.data(), w, want.data() + w * h, w / 2,
                      want.data() + w * h * 5 / 4, w / 2, w, h, libyuv::kFilterBox);
    EXPECT_TRUE(std::equal(want.begin(), want.end(), sink.frames.at(0)->GetImageAddr(0)));
    EXPECT_EQ(sink.frames.size(), kFrames);
    EXPECT_EQ(sink.frames.back()->GetSrcImgNo(), kSrcImgNo);
  }
  EXPECT_EQ(sinks[0]->frames, std::vector<OsvGraphicBuffer*>(kFrames, source));
  EXPECT_EQ(sinks[4]->frames, sinks[5]->frames);
  EXPECT_EQ(m_logs.CountModule("[IMG_20001] new buffer: width[40] height[30] format[0]"),
            std::set<OsvGraphicBuffer*>(sinks[4]->frames.begin(), sinks[4]->frames.end()).size());
}

// Per-frame failure lines are paced per process (the first, then every hundredth): a run
// repeated in one process sees them the first time only.
bool FirstRun() {
  static std::set<std::string> ran;
  return ran.insert(::testing::UnitTest::GetInstance()->current_test_info()->name()).second;
}

// An ARGB source cannot be scaled as ARGB, an I420 one cannot become ARGB, and a branch whose
// ten buffers are all held is refused until one comes back: each skips only its branch.
TEST_F(ImageProcessNodeTest, UnsupportedStepsAndFullPoolsSkipOnlyTheirBranch) {
  const bool first = FirstRun();
  Sink& pass = Add(1, false);
  Sink& argbSame = Add(2, true, 64, 48, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  Sink& argbSmall = Add(3, true, 32, 24, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  // Holds the conversion's own buffers.
  Sink& slow = Add(4, true, 64, 48, TAVO_VIDEO_VLINK_FORMAT_I420, true);
  OsvGraphicBuffer* argb = Source(64, 48, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  for (size_t i = 0; i < ImageProcessNode::kMaxBuffersPerTask; ++i) {
    Push(argb, {&pass, &argbSame, &slow});
  }
  EXPECT_EQ(argbSame.frames.at(0), argb);
  EXPECT_TRUE(!first || m_logs.HasModule("[IMG_20001] not support format[12]!"));
  Push(argb, {&pass, &argbSame});  // the eleventh: refused for the held branch only
  EXPECT_EQ(std::pair(slow.node->handled.Get(), argbSmall.node->handled.Get()), std::pair(10, 0));
  // Plus the one the ARGB scaling takes before it gives up.
  const size_t pooled = ImageProcessNode::kMaxBuffersPerTask + 1;
  EXPECT_EQ(m_node->GetPoolBufferCount(), pooled);
  slow.ReleaseHeld();
  Push(argb, {&pass, &argbSame, &slow});
  EXPECT_EQ(m_node->GetPoolBufferCount(), pooled);
  slow.holding = false;
  slow.ReleaseHeld();

  Push(Source(64, 48, TAVO_VIDEO_VLINK_FORMAT_I420), {&pass, &slow});
  EXPECT_TRUE(!first || m_logs.HasModule("[IMG_20001] not support format[0]->format[12]!"));
}

// A sink moved to a new size leaves the old one to the other sink; the last sink of a size
// goes while both hold its buffers (unbound without being stopped): they stay valid for their
// holders (the address checker sees any use after a free) until the last one lets go.
TEST_F(ImageProcessNodeTest, ResettingAndRemovingSinksParksHeldBuffers) {
  Sink& a = Add(2, true, 32, 24, TAVO_VIDEO_VLINK_FORMAT_I420, true);
  Sink& b = Add(3, true, 32, 24, TAVO_VIDEO_VLINK_FORMAT_I420, true);
  OsvGraphicBuffer* source = Source(64, 48, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  Push(source, {&a, &b});
  EXPECT_EQ(m_node->RemoveImageProcess(std::make_shared<CountingNode>(4), true), 1U);
  EXPECT_TRUE(m_logs.HasModule("[IMG_20001] can't find task!"));

  VideoNodeRequirement requirement{1, 16, 12, TAVO_VIDEO_VLINK_FORMAT_I420};
  b.node->SetRequirement(requirement);
  ASSERT_EQ(m_node->ResetImageProcess(b.node), 0U);
  EXPECT_EQ(m_node->GetSizeTaskCount(), 2U);  // a still uses the old size
  b.holding = false;
  Push(source, {&a, &b});
  EXPECT_EQ(b.frames.at(1)->GetImageInfo().width, 16U);
  EXPECT_EQ(m_node->GetReleaseBufferCount(), 0U);

  ASSERT_EQ(m_node->DisconnectFromNode(b.node, true), 0U);
  ASSERT_EQ(m_node->DisconnectFromNode(a.node, true), 0U);
  EXPECT_EQ(m_node->GetSizeTaskCount(), 0U);
  EXPECT_EQ(m_node->GetFormatTaskCount(), 0U);
  EXPECT_EQ(m_node->GetReleaseBufferCount(), 2U);
  EXPECT_EQ(a.held.at(0)->GetImageInfo().width, 32U);
  b.ReleaseHeld();
  EXPECT_EQ(m_node->GetReleaseBufferCount(), 2U);
  a.ReleaseHeld();
  EXPECT_EQ(m_node->GetReleaseBufferCount(), 0U);
}

// The screen builder places a conversion node between its input and one sink; unbinding the
// sink removes it again.
TEST(ScreenBuilderProcessNodeTest, PlacesAndRemovesAConversionNode) {
  constexpr uint32_t kInput = 93;
  constexpr uint32_t kSinkId = 31;
  auto input = VideoVlinkNode::CreateNodeByUnique<CountingNode>(kInput);
  auto sink = VideoVlinkNode::CreateNodeByUnique<CountingNode>(kSinkId);
  VlinkScreenBuilder builder(kInput, OS_E_MPP_DEV_VI);
  ASSERT_EQ(builder.CreateProcessNode(32, 24, input, sink), 0U);
  const uint32_t processId = builder.GetProcessNodeId();
  EXPECT_GT(processId, VlinkScreenBuilder::kNoProcessNode);
  auto process = VideoVlinkNode::GetNodeByUnique<ImageProcessNode>(processId);
  ASSERT_TRUE(process);
  EXPECT_TRUE(process->IsStarted());
  EXPECT_EQ(process->GetSizeTaskCount(), 1U);
  VideoNodeRequirement requirement{};  // a size task exists: it asks for processing
  sink->GetRequirement(requirement);
  EXPECT_EQ(requirement.width, 32U);
  EXPECT_EQ(VlinkBuilder::GetNodeString(input), "TEST_93->(IMG_" + std::to_string(processId) +
                                                    ") IMG_" + std::to_string(processId) +
                                                    "->(TEST_31) ");
  process.reset();

  ASSERT_EQ(builder.UnBindVo(kSinkId), 0U);
  EXPECT_FALSE(VideoVlinkNode::GetNodeByUnique<ImageProcessNode>(processId));
  EXPECT_FALSE(input->HasNextNodes());
  EXPECT_EQ(builder.GetProcessNodeId(), VlinkScreenBuilder::kNoProcessNode);
  VideoVlinkNode::DeleteNodeByUnique(kInput);
  VideoVlinkNode::DeleteNodeByUnique(kSinkId);
}

}  // namespace
