#include "background/tavo_video_background_virtuality_base_node.h"

BackgroundVirtualityBaseNode::BackgroundVirtualityBaseNode(unsigned int nodeId)
    : VideoVlinkNode(nodeId, OS_E_MPP_DEV_BACKGROUND) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_nodeName = "BG_VIR_" + std::to_string(nodeId);
  VLOG_INF("[%s] create m_nodeId[%u] success", m_nodeName.c_str(), nodeId);
}

uint32_t BackgroundVirtualityBaseNode::SetParam(const BackgroundVirtualityParams& param) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_param = param;
  VLOG_INF_TRACE("SetDeviceParam[%d] ok", m_nodeId);
  return 0;
}

BackgroundVirtualityParams BackgroundVirtualityBaseNode::GetParam() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_param;
}

uint32_t BackgroundVirtualityBaseNode::SetEnable(bool enable) {
  std::lock_guard<std::mutex> lock(m_enableLock);
  VLOG_INF_CH(2, "BackgroundVirtualityBaseNode::SetEnable enter enable:%d", enable ? 1 : 0);
  if (enable == m_enable) {
    return 0;
  }
  m_enable = enable;
  if (enable) {
    VLOG_INF_CH(2, "BackgroundVirtualityBaseNode start");
    if (Start() != 0) {
      VLOG_ERR_CH(2, "SetEnable Start failed[%u]", m_nodeId);
      return 1;
    }
  } else {
    VLOG_INF_CH(2, "BackgroundVirtualityBaseNode stop");
    if (Stop() != 0) {
      VLOG_ERR_CH(2, "SetEnable Stop failed[%u]", m_nodeId);
      return 1;
    }
  }
  VLOG_INF_CH(2, "BackgroundVirtualityBaseNode::SetEnable end");
  return 0;
}

void BackgroundVirtualityBaseNode::ReleaseBuffer(FrameRef& frame) {
  if (!frame) {
    VLOG_ERR("buffer is nullptr");
    return;
  }
  frame.Reset();
}

uint32_t BackgroundVirtualityBaseNode::OnStart() {
  VLOG_INF_CH(2, "BackgroundVirtualityBaseNode StartProcess");
  return 0;
}

uint32_t BackgroundVirtualityBaseNode::OnStartWhileStarted() {
  VLOG_INF_CH(2, "BackgroundVirtualityBaseNode StartProcess");
  VLOG_ERR_CH(2, "m_nodeId[%u] is already opened", m_nodeId);
  return 0;
}
