// Orders across a link that other cases cannot see: a sink is linked before it starts, and
// the encoder's error callback runs without the encoder's locks.
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <thread>

#include "builder/tavo_video_vlink_builder_factory.h"
#include "codec/tavo_video_vlink_venc_node.h"
#include "tests/support/test_nodes.h"

namespace {

// An input the factory makes a builder for.
class FakeInput : public CountingNode {
 public:
  explicit FakeInput(uint32_t id) : CountingNode(id, OS_E_MPP_DEV_TEST) {}
};

// A sink that notes, when it starts, whether it already knows its input.
class StartProbe : public CountingNode {
 public:
  explicit StartProbe(uint32_t id) : CountingNode(id, OS_E_MPP_DEV_VO) {}
  std::atomic<int> starts{0};
  std::atomic<bool> linkedAtStart{false};
  std::atomic<bool> inputStartedFirst{false};

 protected:
  uint32_t OnStart() override {
    ++starts;
    const NodeList prev = GetPrevConnectListCopy();
    linkedAtStart = !prev.empty();
    inputStartedFirst = !prev.empty() && prev.front()->IsStarted();
    return 0;
  }
};

TEST(LinkOrderTest, SinkIsLinkedToItsStartedInputBeforeItStarts) {
  constexpr uint32_t kInput = 5101, kSink = 5102;
  ASSERT_TRUE(VideoVlinkNode::CreateNodeByUnique<FakeInput>(kInput));
  ASSERT_TRUE(VideoVlinkNode::CreateNodeByUnique<StartProbe>(kSink));
  std::shared_ptr<VlinkBuilder> builder = VlinkBuilderFactory::GetInstance().GetBuilder(kInput);
  ASSERT_TRUE(builder);
  ASSERT_EQ(builder->BindVo(kSink), 0U);
  auto sink = VideoVlinkNode::GetNodeByUnique<StartProbe>(kSink);
  EXPECT_EQ(sink->starts, 1);
  EXPECT_TRUE(sink->linkedAtStart) << "the sink was started before it was linked";
  EXPECT_TRUE(sink->inputStartedFirst);
  EXPECT_EQ(builder->UnBindVo(kSink), 0U);
  sink.reset();
  VideoVlinkNode::DeleteNodeByUnique(kSink);
  VideoVlinkNode::DeleteNodeByUnique(kInput);
  VlinkBuilderFactory::GetInstance().DeleteBuilder(kInput);
}

uint32_t EncCreate(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t EncOut(uint32_t, uint32_t, uint32_t, VencOutFrame*) { return 0; }

// The host may, from its error callback, have another thread change the encoder and wait
// for it.
TEST(LinkOrderTest, EncoderErrorCallbackMayWaitForAnotherThreadUsingTheEncoder) {
  auto encoder = std::make_shared<VirtualEncoderNode>(77);
  VencDevInfo info{};
  info.imgNo = 77;
  info.encOutFunc = EncOut;
  info.encCreateFunc = EncCreate;
  ASSERT_EQ(encoder->SetParam(info), 0U);
  ASSERT_EQ(encoder->StartProcess(), 0U);
  CountLatch finished;
  std::atomic<int> late{0};
  encoder->SetEncErrorCallBackFun([&](int) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> result = done->get_future();
    std::thread([&, done] {
      VencDevInfo changed = info;
      changed.hostKey = 9;
      EXPECT_EQ(encoder->SetParam(changed), 0U);
      done->set_value();
      finished.Add();
    }).detach();
    late += result.wait_for(std::chrono::seconds(10)) == std::future_status::ready ? 0 : 1;
    return 0;
  });
  EXPECT_EQ(encoder->ReportEncError(5), 0U);
  ASSERT_TRUE(finished.WaitFor(1));
  EXPECT_EQ(late, 0) << "the error callback ran under a lock the encoder's setters take";
  EXPECT_EQ(encoder->GetParam().hostKey, 9U);
  encoder->StopProcess();
}

}  // namespace
