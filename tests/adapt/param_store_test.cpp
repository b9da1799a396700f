#include <gtest/gtest.h>

#include <utility>

#include "adapt/tavo_video_param_store.h"
#include "tests/support/log_capture.h"

namespace {

// A component's values are read from the container named after it, only at their own type;
// a read creates the container, and a released one is replaced by a fresh, empty one.
TEST(ParamStoreTest, ContainersAreFoundByNameUntilReleased) {
  LogCapture logs;
  DataContainer* container = TavoVideoGetDataContainer("Node[4294967295]PresentParam");
  ASSERT_NE(container, nullptr);
  container->SetDataByString<uint32_t>("portId", 5);
  container->SetDataByString<int32_t>("imgNo", 9);
  uint32_t portId = 0;
  uint32_t imgNo = 123;
  EXPECT_EQ(GetPortIdFromNodeId(4294967295U, &portId), 0);
  EXPECT_EQ(GetImgNoFromNodeId(4294967295U, &imgNo), 1);
  EXPECT_EQ(std::pair(portId, imgNo), std::pair(5U, 123U));
  EXPECT_TRUE(logs.HasModule("GetDataByString imgNo failed!", 1));
  EXPECT_EQ(container->EraseDataByString("imgNo"), 0);
  EXPECT_EQ(container->EraseDataByString("imgNo"), 1);

  EXPECT_EQ(TavoVideoReleaseDataContainer(PresentParamContainerName(4294967295U).c_str()), 0U);
  EXPECT_EQ(GetPortIdFromNodeId(4294967295U, &portId), 1);
  EXPECT_EQ(GetImgNoFromNodeId(3, nullptr), 1);
  // The read made a fresh one (a second release is refused: the exported controls' test).
  EXPECT_EQ(TavoVideoReleaseDataContainer("Node[4294967295]PresentParam"), 0U);
  EXPECT_EQ(TavoVideoGetDataContainer(nullptr), nullptr);
  EXPECT_EQ(TavoVideoReleaseDataContainer(nullptr), 1U);
}

}  // namespace
