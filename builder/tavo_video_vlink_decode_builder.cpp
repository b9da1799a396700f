#include "builder/tavo_video_vlink_decode_builder.h"

#include "codec/tavo_video_vlink_vdec_node.h"

uint32_t VlinkDecodeBuilder::BindVo(uint32_t voNodeId) {
  std::shared_ptr<VirtualDecoderNode> decoder =
      VideoVlinkNode::GetNodeByUnique<VirtualDecoderNode>(m_viNodeId);
  if (!decoder) {
    VLOG_ERR("vi node is nullptr");
    return 1;
  }
  NodePtr sink = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(voNodeId);
  if (!sink) {
    VLOG_ERR("vo node is nullptr");
    return 1;
  }
  if (m_isFirstBind) {
    const uint32_t result = decoder->StartProcess();
    if (result != 0) {
      VLOG_ERR("Vi[%u] StartProcess failed!", m_viNodeId);
      return result;
    }
  }
  const uint32_t result = ConnectAndStartNode(decoder, sink);
  // Also after a failed connect: previews already linked still get the setting.
  decoder->SetLinkedVoWaterMarkParam();
  if (result != 0) {
    VLOG_ERR("Vi[%u] Vo[%u] ConnectAndStartNode failed!", m_viNodeId, voNodeId);
    return result;
  }
  m_isFirstBind = false;
  return 0;
}

uint32_t VlinkDecodeBuilder::UnBindVo(uint32_t voNodeId) { return UnBindDirectSink(voNodeId); }
