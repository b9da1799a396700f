#include <gtest/gtest.h>

#include "adapt/tavo_video_param_store.h"
#include "tests/support/log_capture.h"

namespace {

TEST(ParamStoreTest, ContainersAreFoundByNameUntilReleased) {
  DataContainer* first = TavoVideoGetDataContainer("Node[1]PresentParam");
  ASSERT_NE(first, nullptr);
  first->SetDataByString<uint32_t>("imgNo", 5);
  uint32_t imgNo = 0;
  EXPECT_EQ(GetImgNoFromNodeId(1, &imgNo), 0);
  EXPECT_EQ(imgNo, 5U);

  EXPECT_EQ(TavoVideoReleaseDataContainer("Node[1]PresentParam"), 0U);
  // A fresh, empty container replaces the released one.
  DataContainer* second = TavoVideoGetDataContainer("Node[1]PresentParam");
  ASSERT_NE(second, nullptr);
  imgNo = 77;
  EXPECT_EQ(second->GetDataByString<uint32_t>("imgNo", imgNo), 1);
  EXPECT_EQ(imgNo, 77U);
  EXPECT_EQ(TavoVideoReleaseDataContainer("Node[1]PresentParam"), 0U);
}

TEST(ParamStoreTest, ValuesOfTheWrongTypeReadAsAbsent) {
  LogCapture logs;
  DataContainer* container = TavoVideoGetDataContainer(PresentParamContainerName(2).c_str());
  container->SetDataByString<int32_t>("imgNo", 9);
  container->SetDataByString<uint64_t>("portId", 1);
  uint32_t imgNo = 123;
  uint32_t portId = 456;
  EXPECT_EQ(GetImgNoFromNodeId(2, &imgNo), 1);
  EXPECT_EQ(GetPortIdFromNodeId(2, &portId), 1);
  EXPECT_EQ(imgNo, 123U);
  EXPECT_EQ(portId, 456U);
  EXPECT_TRUE(logs.HasModule("GetDataByString imgNo failed!", 1));
  EXPECT_EQ(container->EraseDataByString("imgNo"), 0);
  EXPECT_EQ(container->EraseDataByString("imgNo"), 1);
  TavoVideoReleaseDataContainer(PresentParamContainerName(2).c_str());
}

TEST(ParamStoreTest, ReadingAnUnknownComponentCreatesItsContainer) {
  LogCapture logs;
  uint32_t imgNo = 0;
  EXPECT_EQ(GetImgNoFromNodeId(4294967295U, &imgNo), 1);
  EXPECT_EQ(GetImgNoFromNodeId(3, nullptr), 1);
  // The read left an empty container behind, so releasing it succeeds.
  EXPECT_EQ(TavoVideoReleaseDataContainer("Node[4294967295]PresentParam"), 0U);
  EXPECT_EQ(TavoVideoReleaseDataContainer("Node[4294967295]PresentParam"), 1U);
  EXPECT_TRUE(logs.HasModule("Cannot release dataContainer[Node[4294967295]PresentParam]", 1));
  EXPECT_EQ(TavoVideoGetDataContainer(nullptr), nullptr);
  EXPECT_EQ(TavoVideoReleaseDataContainer(nullptr), 1U);
}

}  // namespace
