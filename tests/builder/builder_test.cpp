#include <gtest/gtest.h>

#include <atomic>

#include "builder/tavo_video_vlink_builder_factory.h"
#include "tests/support/test_nodes.h"

namespace {

using NodePtr = VideoVlinkNode::NodePtr;

// A stand-in builder that only exposes the shared tear-down.
class PlainBuilder : public VlinkBuilder {
 public:
  explicit PlainBuilder(uint32_t viNodeId) : VlinkBuilder(viNodeId, OS_E_MPP_DEV_TEST) {}
  uint32_t BindVo(uint32_t) override { return 0; }
  uint32_t UnBindVo(uint32_t voNodeId) override {
    return UnBindNode(m_viNodeId, VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(voNodeId));
  }
};

// Of the test-input type, so that the factory makes builders for them.
class NamedNode : public CountingNode {
 public:
  explicit NamedNode(uint32_t id) : CountingNode(id, OS_E_MPP_DEV_TEST) {
    m_nodeName = "N" + std::to_string(id);
  }
};

NodePtr Register(uint32_t id, bool processing = false) {
  NodePtr node = VideoVlinkNode::CreateNodeByUnique<NamedNode>(id);
  if (processing) {
    node->SetNotViVoFlag();
  }
  node->StartProcess();
  return node;
}

// A sink that takes no upstream link.
class RefusingSink : public NamedNode {
 public:
  explicit RefusingSink(uint32_t id) : NamedNode(id) {}
  uint32_t ConnectFromNode(NodePtr) override { return 7; }
};

// input 1 -> processing 10 -> processing 11 -> {output 20, output 21}
TEST(BuilderTest, TearDownClimbsOnlyThroughNodesLeftWithoutOutputsAndFailedBindsStay) {
  NodePtr input = Register(1);
  NodePtr outer = Register(10, true);
  NodePtr inner = Register(11, true);
  NodePtr a = Register(20);
  NodePtr b = Register(21);
  for (auto [from, to] : {std::pair{input, outer}, {outer, inner}, {inner, a}, {inner, b}}) {
    ASSERT_EQ(VlinkBuilder::ConnectAndStartNode(from, to), 0U);
  }
  EXPECT_EQ(VlinkBuilder::GetNodeString(input), "N1->(N10) N10->(N11) N11->(N20,N21) ");

  PlainBuilder builder(1);
  EXPECT_EQ(builder.UnBindVo(20), 0U);
  EXPECT_EQ(VlinkBuilder::GetNodeString(input), "N1->(N10) N10->(N11) N11->(N21) ");
  EXPECT_TRUE(inner->IsStarted());

  EXPECT_EQ(builder.UnBindVo(21), 0U);
  EXPECT_FALSE(input->HasNextNodes());
  EXPECT_EQ(VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(10), nullptr);
  EXPECT_EQ(VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(11), nullptr);
  // Stopped, but for the input and the outputs.
  EXPECT_EQ(std::vector<bool>(
                {inner->IsStarted(), outer->IsStarted(), input->IsStarted(), b->IsStarted()}),
            std::vector<bool>({false, false, true, true}));

  EXPECT_EQ(builder.UnBindVo(21), 1U);

  // A bind failing after the forward link rolls nothing back: the forward link stays, and the
  // sink is neither linked back nor started (so the core sends it nothing).
  NodePtr refusing = VideoVlinkNode::CreateNodeByUnique<RefusingSink>(23);
  EXPECT_EQ(VlinkBuilder::ConnectAndStartNode(input, refusing), 7U);
  EXPECT_EQ(input->GetNextConnectListCopy(), (VideoVlinkNode::NodeList{refusing}));
  EXPECT_TRUE(refusing->GetPrevConnectListCopy().empty());
  EXPECT_FALSE(refusing->IsStarted());
  input->DisconnectFromNode(refusing, true);
  for (uint32_t id : {1U, 20U, 21U, 23U}) {
    VideoVlinkNode::DeleteNodeByUnique(id);
  }
}

// A sink that notes, when it starts, whether it already knows its started input.
class StartProbe : public CountingNode {
 public:
  explicit StartProbe(uint32_t id) : CountingNode(id, OS_E_MPP_DEV_VO) {}
  std::atomic<bool> linkedToStartedInput{false};

 protected:
  uint32_t OnStart() override {
    const NodeList prev = GetPrevConnectListCopy();
    linkedToStartedInput = !prev.empty() && prev.front()->IsStarted();
    return 0;
  }
};

// Builders for input types that have none, and the printed links, are the host rows' tests.
TEST(BuilderFactoryTest, IdsTypesAndASinkLinkedToItsStartedInputBeforeItStarts) {
  // Ids are never reused in a process: the first is 10001 only on the first run.
  static bool s_firstRun = true;
  const uint32_t id = VlinkBuilder::GenNodeId();
  EXPECT_TRUE(!s_firstRun || id == 10001U) << id;
  s_firstRun = false;
  EXPECT_EQ(VlinkBuilder::GenNodeId(), id + 1);
  EXPECT_EQ(VlinkBuilder::GetNodeType(424242), 17U);
  EXPECT_EQ(VlinkBuilderFactory::GetInstance().GetBuilder(999), nullptr);

  Register(5101);
  auto sink =
      std::static_pointer_cast<StartProbe>(VideoVlinkNode::CreateNodeByUnique<StartProbe>(5102));
  std::shared_ptr<VlinkBuilder> builder = VlinkBuilderFactory::GetInstance().GetBuilder(5101);
  ASSERT_TRUE(builder);
  ASSERT_EQ(builder->BindVo(5102), 0U);
  EXPECT_TRUE(sink->linkedToStartedInput) << "the sink was started before it was linked";
  EXPECT_EQ(builder->UnBindVo(5102), 0U);
  VideoVlinkNode::DeleteNodeByUnique(5102);
  VideoVlinkNode::DeleteNodeByUnique(5101);
  VlinkBuilderFactory::GetInstance().DeleteBuilder(5101);
}

}  // namespace
