#include <gtest/gtest.h>

#include <memory>

#include "core/tavo_video_instance_manager.h"
#include "tests/support/test_nodes.h"

namespace {

class OtherNode : public CountingNode {
 public:
  explicit OtherNode(uint32_t id) : CountingNode(id, OS_E_MPP_DEV_VO) {}
};

// Looks itself up in the registry while being destroyed, as a node's pool tasks may.
class LookupOnDestroyNode : public CountingNode {
 public:
  explicit LookupOnDestroyNode(uint32_t id) : CountingNode(id) {}
  ~LookupOnDestroyNode() override {
    if (manager != nullptr) {
      manager->GetInstance<VideoVlinkNode>(GetNodeId());
    }
  }
  static inline InstanceManager<VideoVlinkNode>* manager = nullptr;
};

TEST(InstanceManagerTest, OneNodePerIdWhateverTheClassAndItOutlivesItsDeletionWhileHeld) {
  InstanceManager<VideoVlinkNode> registry;
  uint32_t id = 7;
  auto first = registry.CreateInstance<CountingNode>(id, id);
  ASSERT_TRUE(first && *first);
  EXPECT_FALSE(registry.CreateInstance<OtherNode>(id, id).has_value());
  auto found = registry.GetInstance<VideoVlinkNode>(7);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->get(), first->get());
  EXPECT_EQ((*found)->GetNodeType(), OS_E_MPP_DEV_VENC);
  // Asking for the wrong class finds nothing rather than a node of another class.
  EXPECT_FALSE(registry.GetInstance<OtherNode>(7).has_value());
  EXPECT_TRUE(registry.GetInstance<CountingNode>(7).has_value());
  // The same class twice gives the same node.
  EXPECT_EQ(registry.CreateInstance<CountingNode>(id, id)->get(), first->get());
  EXPECT_EQ(registry.GetCount(), 1U);
  EXPECT_EQ(registry.DeleteInstance(99), 1);
  // A deleted node lives on while held, and its id can be reused.
  std::shared_ptr<VideoVlinkNode> held = *first;
  first.reset();
  found.reset();
  std::weak_ptr<VideoVlinkNode> watch = held;
  EXPECT_EQ(registry.DeleteInstance(7), 0);
  EXPECT_EQ(registry.DeleteInstance(7), 1);
  EXPECT_EQ(registry.GetCount(), 0U);
  EXPECT_FALSE(registry.GetInstance<VideoVlinkNode>(7).has_value());
  EXPECT_EQ(held->GetNodeId(), 7U);  // still usable through the holder
  auto replacement = registry.CreateInstance<OtherNode>(id, id);
  ASSERT_TRUE(replacement && *replacement);
  EXPECT_NE(replacement->get(), held.get());
  held.reset();
  EXPECT_TRUE(watch.expired());
}

TEST(InstanceManagerTest, NodesAreDestroyedOutsideTheLock) {
  {
    InstanceManager<VideoVlinkNode> registry;
    LookupOnDestroyNode::manager = &registry;
    uint32_t a = 1;
    uint32_t b = 2;
    registry.CreateInstance<LookupOnDestroyNode>(a, a);
    registry.CreateInstance<LookupOnDestroyNode>(b, b);
    // Both the erase and the registry's own destruction would deadlock if the node were
    // destroyed under the registry lock.
    EXPECT_EQ(registry.DeleteInstance(1), 0);
  }
  LookupOnDestroyNode::manager = nullptr;
}

}  // namespace
