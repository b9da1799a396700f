#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <tuple>
#include <utility>
#include <vector>

#include "builder/tavo_video_vlink_builder_factory.h"
#include "codec/tavo_video_vlink_vdec_node.h"
#include "codec/tavo_video_vlink_virtual_camera_node.h"
#include "render/tavo_video_vlink_preview_node.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_nodes.h"

namespace {

// The host's decoder: allocates records and buffers the way the library may free them.
struct HostDecoder {
  std::mutex lock;                                  // guards kept
  std::vector<tagOS_S_VIDEO_CODEC_IMG_INFO*> kept;  // frames the host took back
  // What decReleaseFunc returns (0 hands the frame to the library); changed only while no
  // frame is on its way back.
  uint32_t answer = 1;
  CountLatch backCount;
};
HostDecoder* g_decoder = nullptr;

uint32_t OnDecRelease(uint32_t /*nodeId*/, tagOS_S_VIDEO_CODEC_IMG_INFO* frame) {
  uint32_t answer = 0;
  {
    std::lock_guard<std::mutex> lock(g_decoder->lock);
    answer = g_decoder->answer;
    if (answer != 0) {
      g_decoder->kept.push_back(frame);
    }
  }
  g_decoder->backCount.Add();
  return answer;
}

tagOS_S_VIDEO_CODEC_IMG_INFO* NewFrame() {
  auto* frame = static_cast<tagOS_S_VIDEO_CODEC_IMG_INFO*>(
      std::calloc(1, sizeof(tagOS_S_VIDEO_CODEC_IMG_INFO)));
  frame->pBuffer = new OsvGraphicBuffer(16, 16, TAVO_VIDEO_VLINK_FORMAT_I420);
  return frame;
}

void DeleteFrame(tagOS_S_VIDEO_CODEC_IMG_INFO* frame) {
  delete frame->pBuffer;
  std::free(frame);
}

tagTavoVideoVDecParam DecParam(uint32_t imgNo, const char* watermark = nullptr) {
  tagTavoVideoVDecParam param{};
  param.imgNo = imgNo;
  param.decReleaseFunc = OnDecRelease;
  if (watermark != nullptr) {
    param.watermarkEnable = 1;
    std::strncpy(param.watermarkContent, watermark, sizeof(param.watermarkContent) - 1);
  }
  return param;
}

uint32_t g_outPort = 0;
uint32_t OnVirtualOut(uint32_t port, void* target, uint32_t targetSize, void* source,
                      uint32_t sourceSize) {
  g_outPort = port;
  EXPECT_EQ(std::tuple(target, targetSize, sourceSize), std::tuple(source, 152U, 152U));
  return 0;
}

// Bad frames stay with the host (frames before the start, or null, are the host rows' test),
// the freeze strategy reaches only the next frame, and frames the host refuses on their way
// back are freed by the library (the leak checker proves record and buffer were freed).
// That every frame comes back once, through any sinks or none, is the host rows' test.
// Then the watermark reaches previews as they are bound and when it changes; a virtual camera
// gets none, and hands records to the host only once the bind has started it. The decoder is
// registered, as builders find it there.
TEST(VdecNodeTest, ReceivedFramesFromCheckToReturnAndTheWatermarkFollowsBinds) {
  HostDecoder host;
  g_decoder = &host;
  LogCapture logs;
  auto decoder = std::static_pointer_cast<VirtualDecoderNode>(
      VideoVlinkNode::CreateNodeByUnique<VirtualDecoderNode>(70));
  ASSERT_TRUE(decoder);
  EXPECT_EQ(decoder->SetParam(DecParam(226)), 1U);
  ASSERT_EQ(decoder->SetParam(DecParam(70)), 0U);
  ASSERT_EQ(decoder->StartProcess(), 0U);
  tagOS_S_VIDEO_CODEC_IMG_INFO* frame = NewFrame();
  EXPECT_EQ(decoder->ReceiveVdecFrame(32, 70, frame), 1U);
  OsvGraphicBuffer* buffer = std::exchange(frame->pBuffer, nullptr);
  EXPECT_EQ(decoder->ReceiveVdecFrame(0, 70, frame), 1U);
  frame->pBuffer = buffer;
  DeleteFrame(frame);

  decoder->SetDecFreeze({});
  EXPECT_TRUE(logs.HasModule("[DEC_70] freeze strategy is empty.", 1));
  decoder->SetDecFreeze({7, 9});
  tagOS_S_VIDEO_CODEC_IMG_INFO* first = NewFrame();
  tagOS_S_VIDEO_CODEC_IMG_INFO* second = NewFrame();
  ASSERT_EQ(decoder->ReceiveVdecFrame(31, 70, first), 0U);  // 31 and negative ids pass
  ASSERT_EQ(decoder->ReceiveVdecFrame(-1, 70, second), 0U);
  ASSERT_TRUE(host.backCount.WaitFor(2));
  decoder->DealTaskHandler(true);
  EXPECT_EQ(std::pair(first->defreezeStrategy, second->defreezeStrategy), std::pair(7UL, 0UL));
  EXPECT_TRUE(logs.HasModule("[DEC_70] Vdec revice first frame.", 3));

  host.answer = 0;
  ASSERT_EQ(decoder->ReceiveVdecFrame(0, 70, NewFrame()), 0U);
  ASSERT_TRUE(host.backCount.WaitFor(3));
  decoder->DealTaskHandler(true);
  EXPECT_EQ(logs.CountModule("[DEC_70] ReleaseFrame failed! force delete buffer!", 1), 1U);

  g_outPort = 0;
  ASSERT_EQ(decoder->SetParam(DecParam(70, "ROOM 4")), 0U);
  auto vo41 = std::static_pointer_cast<VideoPreviewNode>(
      VideoVlinkNode::CreateNodeByUnique<VideoPreviewNode>(41));
  auto vo42 = std::static_pointer_cast<VideoPreviewNode>(
      VideoVlinkNode::CreateNodeByUnique<VideoPreviewNode>(42));
  auto camera = std::static_pointer_cast<VirtualCameraNode>(
      VideoVlinkNode::CreateNodeByUnique<VirtualCameraNode>(43));
  VoDevInfo info{};
  info.voPort = 3;
  info.height = 720;
  info.virtualOutFunc = OnVirtualOut;
  EXPECT_EQ(camera->SetParam(info), 1U);
  info.width = 1280;
  ASSERT_EQ(camera->SetParam(info), 0U);
  tagOS_S_VIDEO_CODEC_IMG_INFO record{};
  EXPECT_EQ(camera->AcquireBuffer(record), 1U);
  EXPECT_EQ(g_outPort, 0U);

  std::shared_ptr<VlinkBuilder> builder = VlinkBuilderFactory::GetInstance().GetBuilder(70);
  ASSERT_TRUE(builder);
  for (uint32_t id : {41U, 43U, 42U}) {
    ASSERT_EQ(builder->BindVo(id), 0U);
  }
  EXPECT_EQ(camera->AcquireBuffer(record), 0U);
  EXPECT_EQ(g_outPort, 3U);
  std::string text;
  EXPECT_TRUE(vo42->GetWaterMark(70, text));
  EXPECT_EQ(text, "ROOM 4");
  // Each bind pushes to every preview already linked: the first one heard it three times.
  EXPECT_EQ(logs.CountModule("[VO_41] SetWaterMarkParam imgNo:70, content:ROOM 4", 3), 3U);

  decoder->UpdateParam(DecParam(70));  // watermark off
  EXPECT_FALSE(vo41->GetWaterMark(70, text));
  EXPECT_FALSE(vo42->GetWaterMark(70, text));

  for (uint32_t id : {41U, 42U, 43U}) {
    EXPECT_EQ(builder->UnBindVo(id), 0U);
    VideoVlinkNode::DeleteNodeByUnique(id);
  }
  VlinkBuilderFactory::GetInstance().DeleteBuilder(70);
  VideoVlinkNode::DeleteNodeByUnique(70);
  for (tagOS_S_VIDEO_CODEC_IMG_INFO* kept : host.kept) {
    DeleteFrame(kept);
  }
  g_decoder = nullptr;
}

}  // namespace
