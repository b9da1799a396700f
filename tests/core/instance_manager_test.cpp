#include <gtest/gtest.h>

#include <memory>

#include "core/tavo_video_instance_manager.h"
#include "tests/support/test_nodes.h"

namespace {

// Of another class, and looks itself up in the registry while being destroyed, as a node's
// pool tasks may: destroyed under the registry lock, it would deadlock.
class LookupOnDestroyNode : public CountingNode {
 public:
  explicit LookupOnDestroyNode(uint32_t id) : CountingNode(id, OS_E_MPP_DEV_VO) {}
  ~LookupOnDestroyNode() override { manager->GetInstance<VideoVlinkNode>(GetNodeId()); }
  static inline InstanceManager<VideoVlinkNode>* manager = nullptr;
};

TEST(InstanceManagerTest, OneNodePerIdWhateverTheClassDestroyedOutsideTheLockOnceLetGo) {
  InstanceManager<VideoVlinkNode> registry;
  LookupOnDestroyNode::manager = &registry;
  uint32_t id = 7;
  auto first = registry.CreateInstance<CountingNode>(id, id);
  ASSERT_TRUE(first && *first);
  EXPECT_FALSE(registry.CreateInstance<LookupOnDestroyNode>(id, id).has_value());
  EXPECT_EQ(registry.GetInstance<VideoVlinkNode>(7).value_or(nullptr), *first);
  // Asking for the wrong class finds nothing rather than a node of another class.
  EXPECT_FALSE(registry.GetInstance<LookupOnDestroyNode>(7).has_value());
  // The same class twice gives the same node.
  EXPECT_EQ(registry.CreateInstance<CountingNode>(id, id).value_or(nullptr), *first);
  EXPECT_EQ(registry.GetCount(), 1U);
  EXPECT_EQ(registry.DeleteInstance(99), 1);
  // A deleted node lives on while held, and its id can be reused.
  std::weak_ptr<VideoVlinkNode> watch = *first;
  EXPECT_EQ(registry.DeleteInstance(7), 0);
  EXPECT_EQ(registry.DeleteInstance(7), 1);
  EXPECT_EQ(registry.GetCount(), 0U);
  EXPECT_FALSE(registry.GetInstance<VideoVlinkNode>(7).has_value());
  EXPECT_FALSE(watch.expired());
  first.reset();
  EXPECT_TRUE(watch.expired());
  // Both the erase and the registry's own destruction (of node 8) would deadlock if the
  // node were destroyed under the registry lock.
  uint32_t other = 8;
  ASSERT_TRUE(registry.CreateInstance<LookupOnDestroyNode>(id, id).has_value());
  ASSERT_TRUE(registry.CreateInstance<LookupOnDestroyNode>(other, other).has_value());
  EXPECT_EQ(registry.DeleteInstance(7), 0);
}

}  // namespace
