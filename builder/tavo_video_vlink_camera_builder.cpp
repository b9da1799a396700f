#include "builder/tavo_video_vlink_camera_builder.h"

#include "background/tavo_video_background_virtuality.h"
#include "camera/tavo_video_vlink_camera_capture_node.h"

uint32_t VlinkCameraBuilder::BuildCameraHead(const NodePtr& camera) {
  uint32_t result = camera->StartProcess();
  if (result != 0) {
    VLOG_ERR("Vi[%u] StartProcess failed!", m_viNodeId);
    return result;
  }
  const uint32_t bgNodeId = GenNodeId();
  VideoVlinkNode::CreateNodeByUnique<BackgroundVirtualityNode>(bgNodeId);
  std::shared_ptr<BackgroundVirtualityNode> bgNode =
      VideoVlinkNode::GetNodeByUnique<BackgroundVirtualityNode>(bgNodeId);
  CameraCaptureNode::SetBgVirtualNodeId(bgNodeId, m_viNodeId);
  VLOG_INF("VlinkCameraBuilder::BindVo bgVirtualNodeId :%d m_viNodeId:%d",
           static_cast<int>(bgNodeId), static_cast<int>(m_viNodeId));
  result = ConnectAndStartNode(camera, bgNode);
  if (result != 0) {
    VLOG_ERR("Vi[%u] mid[%u] ConnectAndStartNode failed!", m_viNodeId, bgNodeId);
    return result;
  }
  // The overlay settings stored before the link existed, with the camera's own size and
  // rate; a missing or unreadable image only leaves the node without a background.
  BackgroundVirtualityParams params{};
  CameraCaptureNode::GetBgVirtualParam(m_viNodeId, params);
  const tagCameraCaptureParams capture =
      std::static_pointer_cast<CameraCaptureNode>(camera)->GetParam();
  params.width = capture.uiWidth;
  params.height = capture.uiHeight;
  params.frameRate = capture.uiFrameRate;
  params.reserved = 0;
  bgNode->SetParam(params);
  bool enable = false;
  CameraCaptureNode::GetBgVirtualParamEnableStatus(m_viNodeId, enable);
  bgNode->SetEnable(enable);
  return 0;
}

uint32_t VlinkCameraBuilder::BindVo(uint32_t voNodeId) {
  std::lock_guard<std::mutex> lock(m_bindLock);
  VLOG_INF("VlinkCameraBuilder::BindVo start m_viNodeId:%d", static_cast<int>(m_viNodeId));
  std::shared_ptr<CameraCaptureNode> camera =
      VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(m_viNodeId);
  if (!camera) {
    VLOG_ERR("vi node is nullptr");
    return 1;
  }
  NodePtr sink = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(voNodeId);
  if (!sink) {
    VLOG_ERR("vo node is nullptr");
    return 1;
  }
  if (m_isFirstBind) {
    const uint32_t result = BuildCameraHead(camera);
    if (result != 0) {
      return result;
    }
  }
  uint32_t bgNodeId = 0;
  if (CameraCaptureNode::GetBgVirtualNodeId(m_viNodeId, bgNodeId) != 0) {
    VLOG_ERR("Vi[%u] mid[%u] GetBgVirtualNodeId failed!", m_viNodeId, bgNodeId);
    return 1;
  }
  NodePtr bgNode = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(bgNodeId);
  const uint32_t result = ConnectAndStartNode(bgNode, sink);
  if (result != 0) {
    VLOG_ERR("mid[%u] Vo[%u] ConnectAndStartNode failed!", bgNodeId, voNodeId);
    return result;
  }
  m_isFirstBind = false;
  VLOG_ERR("VlinkCameraBuilder::BindVo end");
  return 0;
}

uint32_t VlinkCameraBuilder::UnBindVo(uint32_t voNodeId) {
  std::lock_guard<std::mutex> lock(m_bindLock);
  NodePtr sink = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(voNodeId);
  if (!sink) {
    VLOG_ERR("node is nullptr");
    return 1;
  }
  if (!VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(m_viNodeId)) {
    VLOG_ERR("vi node is nullptr");
    return 1;
  }
  uint32_t bgNodeId = 0;
  if (CameraCaptureNode::GetBgVirtualNodeId(m_viNodeId, bgNodeId) != 0) {
    VLOG_ERR("mid[%u] m_viNodeId[%u] GetBgVirtualNodeId failed!", 0U, m_viNodeId);
    return 1;
  }
  NodePtr bgNode = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(bgNodeId);
  if (!bgNode) {
    return 1;
  }
  // The sink's half first: it stops taking frames from the node before the node lets go.
  const vlink::LinkResult unlink =
      vlink::UnlinkNodes(bgNode, sink, vlink::UnlinkOrder::kReceiverFirst);
  if (unlink.code != 0) {
    VLOG_ERR("UnBindNode voNodeId[%u] failed!", voNodeId);
    return unlink.code;
  }
  VLOG_ERR("VlinkCameraBuilder::UnBindVo end voNodeId[%u] midNodeId[%u]", voNodeId, bgNodeId);
  return 0;
}
