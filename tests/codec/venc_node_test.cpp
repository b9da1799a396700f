#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "codec/tavo_video_vlink_venc_node.h"
#include "tests/support/test_nodes.h"

namespace {

// Host callbacks are plain function pointers, so what they see lives in statics.
struct HostSide {
  std::mutex lock;
  std::vector<VencOutFrame> copies;  // what each record held when it arrived
  std::vector<VencOutFrame*> records;
  uint32_t accept = 1;  // changed only while no frame is on its way to the host
  int creates = 0;
  CountLatch offered;
};
HostSide* g_host = nullptr;

uint32_t OnCreate(uint32_t, uint32_t, uint32_t) {
  ++g_host->creates;
  return 0;
}

uint32_t OnFrame(uint32_t imgNo, uint32_t hostKey, uint32_t hostSubKey, VencOutFrame* frame) {
  EXPECT_EQ(std::tuple(imgNo, hostKey, hostSubKey),
            std::tuple(frame->imgNo, frame->hostKey, frame->hostSubKey));
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

VencDevInfo ValidInfo(uint32_t imgNo) {
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

// Refused records are not kept. Records carry the host's values, and their sequence runs on
// across a stop; each start creates the host encoder once. A host error callback may use the
// encoder from another thread, and deleting a started node from the registry stops it first.
TEST(VencNodeTest, ParametersRecordsStartsErrorsAndDeletion) {
  HostSide host;
  g_host = &host;
  ASSERT_TRUE(VideoVlinkNode::CreateNodeByUnique<VirtualEncoderNode>(6));
  auto node = VideoVlinkNode::GetNodeByUnique<VirtualEncoderNode>(6);
  EXPECT_EQ(node->SetParam(ValidInfo(225)), 0U);
  EXPECT_EQ(node->SetParam(ValidInfo(226)), 1U);
  VencDevInfo info = ValidInfo(6);
  info.encCreateFunc = nullptr;
  EXPECT_EQ(node->SetParam(info), 1U);
  EXPECT_EQ(node->GetParam().imgNo, 225U);  // refused records are not kept

  info = ValidInfo(6);
  info.width = 0;
  info.height = 480;
  EXPECT_EQ(node->SetParam(info), 0U);
  VideoNodeRequirement requirement{};
  node->GetRequirement(requirement);
  // A half-given size leaves the requirement alone.
  EXPECT_EQ(std::pair(requirement.width, requirement.height), std::pair(1280U, 720U));

  EXPECT_EQ(node->StartProcess(), 0U);
  EXPECT_EQ(node->StartProcess(), 0U);
  EXPECT_EQ(host.creates, 1);
  auto source = std::make_shared<CountingNode>(50);
  Link(source, node);
  OsvGraphicBuffer frame(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420);
  frame.SetReleaseTarget(source);
  // Offered with the host answering `accept`; an accepted frame is then given back. Each
  // offered frame returns to its producer once.
  auto offer = [&](uint32_t accept, int offered) {
    host.accept = accept;
    source->SendBuffer(&frame);
    ASSERT_TRUE(host.offered.WaitFor(offered));
    node->DealTaskHandler(true);
    if (accept == 1) {
      EXPECT_EQ(frame.GetRefCount(), 1U);  // the host still holds it
      node->ReleaseBuffer(host.records.back()->buffer);
    }
    ASSERT_TRUE(source->released.WaitFor(offered));
    source->DealTaskHandler(true);
  };
  offer(1, 1);
  offer(0, 2);  // refused: the record is freed, the reference dropped
  ASSERT_EQ(host.copies.size(), 2U);
  const VencOutFrame& first = host.copies[0];
  EXPECT_EQ(std::tuple(first.imgNo, first.hostKey, first.hostSubKey, first.hostTag, first.buffer,
                       first.sequence),
            std::tuple(6U, 11U, 12U, 0x7A6U, &frame, uint64_t{0}));
  EXPECT_EQ(host.copies[1].sequence, 1U);
  EXPECT_EQ(node->StopProcess(), 0U);
  EXPECT_EQ(node->StartProcess(), 0U);
  EXPECT_EQ(host.creates, 2);
  offer(1, 3);
  EXPECT_EQ(host.copies[2].sequence, 2U);
  Unlink(source, node);

  // The host may, from its error callback, have another thread change the encoder and wait
  // for it: the callback runs without the encoder's locks.
  CountLatch changed;
  bool late = false;
  node->SetEncErrorCallBackFun([&](int) {
    std::thread([&] {
      info.hostKey = 9;
      EXPECT_EQ(node->SetParam(info), 0U);
      changed.Add();
    }).detach();
    late = !changed.WaitFor(1, std::chrono::seconds(10));
    return 0;
  });
  EXPECT_EQ(node->ReportEncError(5), 0U);
  ASSERT_TRUE(changed.WaitFor(1));
  EXPECT_FALSE(late) << "the error callback ran under a lock the encoder's setters take";
  EXPECT_EQ(node->GetParam().hostKey, 9U);
  EXPECT_EQ(VideoVlinkNode::DeleteNodeByUnique(6), 0);
  EXPECT_FALSE(node->IsStarted());
  for (VencOutFrame* record : host.records) {
    std::free(record);
  }
  g_host = nullptr;
}

}  // namespace
