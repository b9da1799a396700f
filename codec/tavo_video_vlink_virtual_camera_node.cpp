#include "codec/tavo_video_vlink_virtual_camera_node.h"

VirtualCameraNode::VirtualCameraNode(uint32_t id)
    : VideoVlinkNode(id, OS_E_MPP_DEV_VIRTUAL_CAMERA) {
  VLOG_INF("[%s] create m_nodeId[%u] success", m_nodeName.c_str(), m_nodeId);
}

VirtualCameraNode::~VirtualCameraNode() {
  VLOG_INF("[%s] VirtualCameraNode destory m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
}

uint32_t VirtualCameraNode::CheckParam(const VoDevInfo& info) {
  if (info.virtualOutFunc == nullptr) {
    VLOG_ERR("[%s] virtualOutFunc is nullptr!", m_nodeName.c_str());
    return 1;
  }
  if (info.width == 0 || info.height == 0) {
    VLOG_ERR("[%s] invalid width [%u] or height [%u]!", m_nodeName.c_str(), info.width,
             info.height);
    return 1;
  }
  return 0;
}

uint32_t VirtualCameraNode::SetParam(const VoDevInfo& info) {
  const uint32_t result = CheckParam(info);
  if (result != 0) {
    VLOG_ERR("ret[0x%x] failed!", result);
    return result;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_param = info;
  VLOG_INF("VirCamNode[%u] connect to vo port[%u] success", m_nodeId, m_param.voPort);
  return 0;
}

VoDevInfo VirtualCameraNode::GetParam() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_param;
}

uint32_t VirtualCameraNode::OnStartWhileStarted() {
  VLOG_INF("[%s] m_nodeId[%d] is already opened", m_nodeName.c_str(), static_cast<int>(m_nodeId));
  return 0;
}

uint32_t VirtualCameraNode::OnStop() {
  VLOG_INF("[%s] VirtualCameraNode StopProcess m_nodeId[%u] enter.", m_nodeName.c_str(), m_nodeId);
  VLOG_INF("[%s] VirtualCameraNode StopProcess m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
  return 0;
}

uint32_t VirtualCameraNode::AcquireBuffer(tagOS_S_VIDEO_CODEC_IMG_INFO& info) {
  TavoVideoVirtualOutFunc out = nullptr;
  uint32_t port = 0;
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    if (!m_isStart) {
      VLOG_ERR("[%s] m_nodeId[%d] is not inited or opened!", m_nodeName.c_str(),
               static_cast<int>(m_nodeId));
      return 1;
    }
    out = m_param.virtualOutFunc;
    port = m_param.voPort;
  }
  if (out == nullptr) {
    VLOG_ERR("virtualOutFunc is nullptr!");
    return 1;
  }
  const uint32_t result = out(port, &info, sizeof(info), &info, sizeof(info));
  if (result != 0) {
    VLOG_ERR("VirCam[%u] Process buffer failed!", m_nodeId);
  }
  return result;
}
