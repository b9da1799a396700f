#include "builder/tavo_video_vlink_test_builder.h"

uint32_t VlinkTestBuilder::BindVo(uint32_t voNodeId) {
  NodePtr testNode = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(m_viNodeId);
  if (!testNode) {
    VLOG_ERR("vi node is nullptr");
    return 1;
  }
  NodePtr sink = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(voNodeId);
  if (!sink) {
    VLOG_ERR("vo node is nullptr");
    return 1;
  }
  if (m_isFirstBind) {
    const uint32_t result = testNode->StartProcess();
    if (result != 0) {
      VLOG_ERR("Vi[%u] StartProcess failed!", m_viNodeId);
      return result;
    }
  }
  const uint32_t result = ConnectAndStartNode(testNode, sink);
  if (result != 0) {
    VLOG_ERR("Vi[%u] Vo[%u] ConnectAndStartNode failed!", m_viNodeId, voNodeId);
    return result;
  }
  m_isFirstBind = false;
  return 0;
}

uint32_t VlinkTestBuilder::UnBindVo(uint32_t voNodeId) { return UnBindDirectSink(voNodeId); }
