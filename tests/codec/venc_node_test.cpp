#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <tuple>
#include <vector>

#include "codec/tavo_video_vlink_venc_node.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_nodes.h"

namespace {

// Host callbacks are plain function pointers, so what they see lives in statics.
struct HostSide {
  std::mutex lock;
  std::vector<VencOutFrame> copies;  // what each record held when it arrived
  std::vector<VencOutFrame*> records;
  uint32_t accept = 1;  // guarded by lock while frames flow
  int creates = 0;
  CountLatch offered;
};
HostSide* g_host = nullptr;

uint32_t OnCreate(uint32_t, uint32_t, uint32_t) {
  ++g_host->creates;
  return 0;
}

uint32_t OnFrame(uint32_t imgNo, uint32_t hostKey, uint32_t hostSubKey, VencOutFrame* frame) {
  EXPECT_EQ(imgNo, frame->imgNo);
  EXPECT_EQ(hostKey, frame->hostKey);
  EXPECT_EQ(hostSubKey, frame->hostSubKey);
  uint32_t accept = 0;
  {
    std::lock_guard<std::mutex> lock(g_host->lock);
    accept = g_host->accept;
    g_host->copies.push_back(*frame);
    if (accept == 1) {
      g_host->records.push_back(frame);
    }
  }
  g_host->offered.Add();
  return accept;
}

class VencNodeTest : public ::testing::Test {
 protected:
  void SetUp() override { g_host = &m_host; }
  void TearDown() override {
    for (VencOutFrame* record : m_host.records) {
      std::free(record);
    }
    g_host = nullptr;
  }

  static VencDevInfo ValidInfo(uint32_t imgNo) {
    VencDevInfo info{};
    info.imgNo = imgNo;
    info.hostTag = 0x7A6;
    info.hostKey = 11;
    info.hostSubKey = 12;
    info.width = 1280;
    info.height = 720;
    info.frameRate = 30;
    info.encOutFunc = OnFrame;
    info.encCreateFunc = OnCreate;
    return info;
  }

  HostSide m_host;
};

TEST_F(VencNodeTest, ParametersAreCheckedBeforeTheyAreKept) {
  LogCapture logs;
  VirtualEncoderNode node(5);
  EXPECT_EQ(node.GetNodeName(), "ENC_5");
  EXPECT_EQ(node.SetParam(ValidInfo(225)), 0U);
  EXPECT_EQ(node.SetParam(ValidInfo(226)), 1U);
  EXPECT_TRUE(logs.HasModule("[ENC_5] invalid imgNo[226]!", 1));
  VencDevInfo noCallback = ValidInfo(5);
  noCallback.encCreateFunc = nullptr;
  EXPECT_EQ(node.SetParam(noCallback), 1U);
  EXPECT_EQ(node.GetParam().imgNo, 225U);  // refused records are not kept

  VencDevInfo noWidth = ValidInfo(5);
  noWidth.width = 0;
  noWidth.height = 480;
  EXPECT_EQ(node.SetParam(noWidth), 0U);
  VideoNodeRequirement requirement{};
  node.GetRequirement(requirement);
  EXPECT_EQ(requirement.width, 1280U);  // a half-given size leaves the requirement alone
  EXPECT_EQ(requirement.height, 720U);
  uint32_t width = 0, height = 0, rate = 0;
  EXPECT_EQ(node.GetNodeResolution(width, height, rate), 0U);
  EXPECT_EQ(height, 480U);
}

TEST_F(VencNodeTest, HostEncoderIsCreatedOncePerStart) {
  VirtualEncoderNode node(5);
  ASSERT_EQ(node.SetParam(ValidInfo(5)), 0U);
  EXPECT_EQ(node.StartProcess(), 0U);
  EXPECT_EQ(node.StartProcess(), 0U);
  EXPECT_EQ(m_host.creates, 1);
  EXPECT_EQ(node.StopProcess(), 0U);
  EXPECT_EQ(node.StartProcess(), 0U);
  EXPECT_EQ(m_host.creates, 2);
}

TEST_F(VencNodeTest, RecordsCarryTheHostValuesAndCountEveryOfferedFrame) {
  auto source = std::make_shared<CountingNode>(50);
  auto encoder = std::make_shared<VirtualEncoderNode>(5);
  ASSERT_EQ(encoder->SetParam(ValidInfo(5)), 0U);
  ASSERT_EQ(encoder->StartProcess(), 0U);
  Link(source, encoder);
  OsvGraphicBuffer frame(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420);
  frame.SetReleaseTarget(source);

  source->SendBuffer(&frame);  // accepted
  ASSERT_TRUE(m_host.offered.WaitFor(1));
  {
    std::lock_guard<std::mutex> lock(m_host.lock);
    m_host.accept = 0;  // refused: the record is freed, the reference dropped
  }
  source->SendBuffer(&frame);
  ASSERT_TRUE(m_host.offered.WaitFor(2));
  encoder->DealTaskHandler(true);  // the refused frame's reference is checked below

  ASSERT_EQ(m_host.copies.size(), 2U);
  const VencOutFrame& first = m_host.copies[0];
  EXPECT_EQ(std::tuple(first.imgNo, first.hostKey, first.hostSubKey, first.hostTag, first.buffer,
                       first.sequence),
            std::tuple(5U, 11U, 12U, 0x7A6U, &frame, uint64_t{0}));
  EXPECT_EQ(m_host.copies[1].sequence, 1U);
  EXPECT_GE(m_host.copies[1].timestampUs, first.timestampUs);

  // The host still holds the accepted frame; giving it back returns it to its producer.
  EXPECT_EQ(frame.GetRefCount(), 1U);
  EXPECT_EQ(source->released.Get(), 0);
  encoder->ReleaseBuffer(m_host.records[0]->buffer);
  ASSERT_TRUE(source->released.WaitFor(1));
  source->DealTaskHandler(true);

  // Stop and start again: the sequence carries on.
  encoder->StopProcess();
  encoder->StartProcess();
  {
    std::lock_guard<std::mutex> lock(m_host.lock);
    m_host.accept = 1;
  }
  source->SendBuffer(&frame);
  ASSERT_TRUE(m_host.offered.WaitFor(3));
  EXPECT_EQ(m_host.copies[2].sequence, 2U);
  encoder->ReleaseBuffer(m_host.records[1]->buffer);
  ASSERT_TRUE(source->released.WaitFor(2));
  source->DealTaskHandler(true);
  Unlink(source, encoder);
}

TEST_F(VencNodeTest, DeletingAStartedNodeFromTheRegistryStopsItFirst) {
  constexpr uint32_t kId = 6;
  ASSERT_TRUE(VideoVlinkNode::CreateNodeByUnique<VirtualEncoderNode>(kId));
  auto node = VideoVlinkNode::GetNodeByUnique<VirtualEncoderNode>(kId);
  ASSERT_EQ(node->SetParam(ValidInfo(kId)), 0U);
  ASSERT_EQ(node->StartProcess(), 0U);
  EXPECT_EQ(VideoVlinkNode::DeleteNodeByUnique(kId), 0);
  EXPECT_FALSE(node->IsStarted());
}

}  // namespace
