#include "camera/tavo_video_vlink_camera_capture_node.h"

#include <algorithm>
#include <cstdio>

#include "core/tavo_video_os_seams.h"

// The camera node speaks on trace channel 2, paced lines included.
#define VLOG_ERR_CAMERA(fmt, ...) VLOG_ERR_CH(2, fmt __VA_OPT__(, ) __VA_ARGS__)

std::mutex CameraCaptureNode::m_bgVirtualLock;
std::unordered_map<uint32_t, uint32_t> CameraCaptureNode::m_bgVirtualNodeMap;
std::unordered_map<uint32_t, BackgroundVirtualityParams> CameraCaptureNode::m_bgVirtualparamMap;
std::unordered_map<uint32_t, bool> CameraCaptureNode::m_bgVirtualEnableMap;

CameraCaptureNode::CameraCaptureNode(unsigned int nodeId)
    : VideoVlinkNode(nodeId, OS_E_MPP_DEV_CAMERA) {
  m_nodeName = "CAM_" + std::to_string(nodeId);
  VLOG_INF_CH(2, "CameraCaptureNode: create m_nodeId[%u] success", nodeId);
}

CameraCaptureNode::~CameraCaptureNode() {
  VLOG_INF_CH(2, "[%s] CameraCaptureNode destory m_nodeId[%u] enter.", m_nodeName.c_str(),
              m_nodeId);
  // Only a node the registry never shut down (process exit) can still be capturing here;
  // the registry is not called from a destructor.
  if (m_opened.load(std::memory_order_acquire)) {
    VLOG_ERR_CH(2, "CameraCaptureNode: m_nodeId[%u] is no closed", m_nodeId);
    std::lock_guard<std::mutex> lock(m_mutex);
    CloseCapture();
    m_opened.store(false, std::memory_order_release);
  }
  VLOG_INF_CH(2, "[%s] CameraCaptureNode destory m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
}

uint32_t CameraCaptureNode::SetParam(const tagCameraCaptureParams& params) {
  VLOG_INF_CH(2, "CameraCaptureNode::SetParam enter");
  const uint32_t result = CheckParam(params);
  if (result != 0) {
    VLOG_ERR_CH(2, "CameraCaptureNode CheckParam failed! ret[0x%x]", result);
    return result;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_captureParams = params;
  VLOG_INF_CH(2, "CameraCaptureNode::SetParam success, w[%u] h[%u] fps[%u] vi[%u]", params.uiWidth,
              params.uiHeight, params.uiFrameRate, params.viPort);
  // The host's identity may fill all 192 bytes: it is read within them.
  if (SetCameraInfo(CameraIdOf(params).c_str()) != 0) {
    VLOG_ERR_CH(2, "SetCameraInfo fail!");
    std::printf("SetCameraInfo fail!\n");
    return 1;
  }
  return 0;
}

uint32_t CameraCaptureNode::CheckParam(const tagCameraCaptureParams& params) {
  const uint32_t longSide = std::max(params.uiWidth, params.uiHeight);
  const uint32_t shortSide = std::min(params.uiWidth, params.uiHeight);
  if (shortSide == 0 || longSide > kMaxLongSide || shortSide > kMaxShortSide) {
    VLOG_ERR_CH(2, "CheckParam Failed, w[%u] h[%u]", params.uiWidth, params.uiHeight);
    return 1;
  }
  if (params.cameraId[0] == '\0') {
    VLOG_ERR_CH(2, "cameraId is null");
    return 1;
  }
  return 0;
}

void CameraCaptureNode::GetParam(tagCameraCaptureParams& out) {
  std::lock_guard<std::mutex> lock(m_mutex);
  out = m_captureParams;
}

tagCameraCaptureParams CameraCaptureNode::GetParam() {
  tagCameraCaptureParams params{};
  GetParam(params);
  return params;
}

uint32_t CameraCaptureNode::SetCameraInfo(const char* cameraId) {
  if (cameraId == nullptr || cameraId[0] == '\0') {
    VLOG_ERR_CH(2, "cameraId is null");
    return 1;
  }
  VLOG_INF_CH(2, "CameraCaptureNode cameraId = %s", cameraId);
  m_cameraId = cameraId;
  return 0;
}

uint32_t CameraCaptureNode::Init() {
  if (!m_devCaptureManager) {
    m_devCaptureManager = std::make_unique<DevCaptureManager>();
  }
  if (m_devCaptureManager->Init(m_cameraId) != 0) {
    VLOG_ERR_CH(2, "Init DevCaptureCamera Error.");
    return 1;
  }
  m_devCaptureManager->SetCaptureCallback(
      [this](_PEL_V_FRAME& frame) { return OnCaptureCbkFrame(frame); });
  return 0;
}

uint32_t CameraCaptureNode::OnStart() {
  VLOG_INF_CH(2, "CameraCaptureNode::StartProcess enter");
  std::lock_guard<std::mutex> lock(m_mutex);
  // Still opened after a stop that left the camera to another link.
  if (m_opened.load(std::memory_order_acquire)) {
    VLOG_ERR_CH(2, "m_nodeId[%u] is already opened", m_nodeId);
    return 0;
  }
  uint32_t result = CheckParam(m_captureParams);
  if (result != 0) {
    VLOG_ERR_CH(2, "CameraCaptureNode CheckParam failed! ret[0x%x]", result);
    return result;
  }
  VLOG_INF_CH(2, "CaptureStart uiWidth[%u], uiHeight[%u], uiFrameRate[%u]", m_captureParams.uiWidth,
              m_captureParams.uiHeight, m_captureParams.uiFrameRate);
  result = Init();
  if (result != 0) {
    VLOG_ERR_CH(2, "CameraCaptureNode init failed! ret[0x%x]", result);
    return result;
  }
  m_imgNo.store(m_captureParams.imgNo, std::memory_order_release);
  if (m_devCaptureManager->CaptureStart(&m_captureParams) != 0) {
    VLOG_ERR_CH(2, "m_nodeId[%u] Camera Capturer start failed!", m_nodeId);
    return 1;
  }
  m_opened.store(true, std::memory_order_release);
  VLOG_INF_CH(2, "CameraCaptureNode::StartProcess success");
  return 0;
}

uint32_t CameraCaptureNode::OnStartWhileStarted() {
  VLOG_INF_CH(2, "CameraCaptureNode::StartProcess enter");
  VLOG_ERR_CH(2, "m_nodeId[%u] is already opened", m_nodeId);
  return 0;
}

uint32_t CameraCaptureNode::OnStop() {
  VLOG_INF_CH(2, "[%s] CameraCaptureNode StopProcess m_nodeId[%u] enter.", m_nodeName.c_str(),
              m_nodeId);
  // Before, and whatever the outcome of, the checks below; outside m_mutex, since deleting
  // the node shuts it down (its thread and its pool tasks are waited for).
  RemoveBgVirtualNode();
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_opened.load(std::memory_order_acquire)) {
    VLOG_ERR_CH(2, "m_nodeId[%u] already closed", m_nodeId);
    return 0;
  }
  if (GetNextConnectListCopy().size() >= 2) {
    // Another link still uses the camera: it keeps capturing, and the next start finds it
    // opened.
    VLOG_ERR_CH(2, "m_nodeId[%u] is attach to another node", m_nodeId);
    return 0;
  }
  const uint32_t result = CloseCapture();
  if (result != 0) {
    return result;
  }
  m_opened.store(false, std::memory_order_release);
  VLOG_INF_CH(2, "[%s] CameraCaptureNode StopProcess m_nodeId[%u] Ok.", m_nodeName.c_str(),
              m_nodeId);
  return 0;
}

void CameraCaptureNode::OnShutdown() {
  RemoveBgVirtualNode();
  std::lock_guard<std::mutex> lock(m_mutex);
  // A stop that left the camera running (another link, a capturer that would not stop)
  // must not outlive the node.
  if (m_opened.load(std::memory_order_acquire)) {
    VLOG_ERR_CH(2, "CameraCaptureNode: m_nodeId[%u] is no closed", m_nodeId);
    CloseCapture();
    m_opened.store(false, std::memory_order_release);
  }
}

uint32_t CameraCaptureNode::CloseCapture() {
  if (!m_devCaptureManager || m_devCaptureManager->CaptureStop() != 0) {
    VLOG_ERR_CH(2, "m_nodeId[%u] Screen Capturer stop failed!", m_nodeId);
    return 1;
  }
  // The capture thread is joined: no frame is added from here on, only given back.
  std::unique_lock<std::mutex> lock(m_releaseLock);
  if (!Seam<Clock>::Get().WaitFor(lock, m_releaseCond, kReleaseWaitMs, [this] {
        return m_bufferCnt.load(std::memory_order_acquire) == 0;
      })) {
    VLOG_ERR_CH(2, "m_bufferCnt:%d not release!",
                static_cast<int>(m_bufferCnt.load(std::memory_order_acquire)));
  }
  return 0;
}

void CameraCaptureNode::RemoveBgVirtualNode() {
  uint32_t bgNodeId = 0;
  if (!TakeBgVirtualNodeId(m_nodeId, bgNodeId)) {
    return;
  }
  NodePtr bgNode = GetNodeByUnique<VideoVlinkNode>(bgNodeId);
  if (!bgNode) {
    return;
  }
  // Both halves of the link, so neither node keeps the other alive.
  if (NodePtr self = weak_from_this().lock()) {
    bgNode->DisconnectFromNode(self, false);
  }
  DisconnectFromNode(bgNode, true);
  const uint32_t result = bgNode->StopProcess();
  if (result != 0) {
    VLOG_ERR_CH(2, "[%s] bvNode StopProcess failed[%u]", bgNode->GetNodeName().c_str(),
                bgNode->GetNodeId());
  }
  // Sinks still bound hold the deleted node: unlink them too, or the node and its sinks
  // would hold each other for ever.
  for (const NodePtr& sink : bgNode->GetNextConnectListCopy()) {
    bgNode->DisconnectFromNode(sink, true);
    sink->DisconnectFromNode(bgNode, false);
  }
  DeleteNodeByUnique(bgNodeId);
}

int CameraCaptureNode::OnCaptureCbkFrame(_PEL_V_FRAME& frame) {
  // The converted block becomes the buffer's memory as it is: no pixel is copied.
  auto* buffer = new OsvGraphicBuffer(static_cast<void*>(frame.data));
  OsvGraphicBufferInfo info{};
  info.width = frame.width;
  info.height = frame.height;
  info.stride[0] = frame.width;
  info.stride[1] = frame.width / 2;
  info.stride[2] = frame.width / 2;
  info.size = frame.dataSize;
  info.format = TAVO_VIDEO_VLINK_FORMAT_I420;
  info.rotation = frame.rotation;
  info.mirror = frame.mirror;
  buffer->SetImageInfo(info);
  buffer->SetSrcImgNo(m_imgNo.load(std::memory_order_acquire));
  uint8_t* y = frame.data;
  uint8_t* u = y + size_t{frame.width} * frame.height;
  uint8_t* v = u + size_t{frame.width} * frame.height / 4;
  if (buffer->SetImageAddr(y, u, v) != 0) {
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR_CAMERA, "Capturer[%u] SetImageAddr failed!",
               m_nodeId);
    DevCaptureManager::ReleaseBuffer(frame.data);
    delete buffer;
    return 1;
  }
  m_bufferCnt.fetch_add(1, std::memory_order_acq_rel);
  if (SendEncFrame(buffer) != 0) {
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR_CAMERA,
               "Capturer[%u] SendEncFrame to Encoder failed!", m_nodeId);
    ReleaseFrame(buffer);
    return 1;
  }
  return 0;
}

uint32_t CameraCaptureNode::SendEncFrame(OsvGraphicBuffer* buffer) {
  if (m_firstFrame.exchange(false, std::memory_order_acq_rel)) {
    VLOG_INF_CH(2, "CameraCaptureNode SendEncFrame first frame nodeId=%u", m_nodeId);
  }
  if (buffer == nullptr) {
    VLOG_ERR_CH(2, "OsMemMalloc null pointer");
    return 1;
  }
  std::shared_ptr<VideoVlinkNode> self = weak_from_this().lock();
  if (!self) {
    return 1;  // a node being destroyed takes no frame out (the caller frees it)
  }
  // From here the frame comes back through ReleaseFrame when its last holder lets go, also
  // when no node takes it.
  buffer->SetReleaseTarget(std::move(self));
  return SendBuffer(buffer);
}

void CameraCaptureNode::ReleaseFrame(OsvGraphicBuffer* buffer) {
  if (buffer == nullptr) {
    VLOG_ERR_CH(2, "buffer is nullptr");
    return;
  }
  if (void* data = buffer->GetBufHandle()) {
    DevCaptureManager::ReleaseBuffer(data);
  }
  delete buffer;
  // Late releases after a stop gave up still count down, never below zero.
  uint32_t count = m_bufferCnt.load(std::memory_order_acquire);
  while (count > 0 &&
         !m_bufferCnt.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) {
  }
  std::lock_guard<std::mutex> lock(m_releaseLock);
  m_releaseCond.notify_all();
}

uint32_t CameraCaptureNode::SetIvrParam(int channel, const TavoVideoOverlayTextInfo* info) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_devCaptureManager) {
    return 1;
  }
  return m_devCaptureManager->SetIvrParam(channel, info);
}

uint32_t CameraCaptureNode::CloseIvr() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_devCaptureManager) {
    return 1;
  }
  return m_devCaptureManager->CloseIvr();
}

uint32_t CameraCaptureNode::GetBgVirtualNodeId(uint32_t cameraNodeId, uint32_t& out) {
  std::lock_guard<std::mutex> lock(m_bgVirtualLock);
  auto it = m_bgVirtualNodeMap.find(cameraNodeId);
  if (it == m_bgVirtualNodeMap.end()) {
    VLOG_ERR_CH(2, "imgNo[%u] m_bgVirtualNodeMap is empty", cameraNodeId);
    return 1;
  }
  out = it->second;
  return 0;
}

void CameraCaptureNode::SetBgVirtualNodeId(uint32_t bgNodeId, uint32_t cameraNodeId) {
  std::lock_guard<std::mutex> lock(m_bgVirtualLock);
  m_bgVirtualNodeMap[cameraNodeId] = bgNodeId;
}

bool CameraCaptureNode::TakeBgVirtualNodeId(uint32_t cameraNodeId, uint32_t& out) {
  std::lock_guard<std::mutex> lock(m_bgVirtualLock);
  auto it = m_bgVirtualNodeMap.find(cameraNodeId);
  if (it == m_bgVirtualNodeMap.end()) {
    return false;
  }
  out = it->second;
  m_bgVirtualNodeMap.erase(it);
  return true;
}

uint32_t CameraCaptureNode::GetBgVirtualParam(uint32_t cameraNodeId,
                                              BackgroundVirtualityParams& out) {
  std::lock_guard<std::mutex> lock(m_bgVirtualLock);
  auto it = m_bgVirtualparamMap.find(cameraNodeId);
  if (it == m_bgVirtualparamMap.end()) {
    VLOG_ERR_CH(2, "imgNo[%u] m_bgVirtualparamMap is empty", cameraNodeId);
    return 1;
  }
  out = it->second;
  return 0;
}

void CameraCaptureNode::SetBgVirtualParam(const BackgroundVirtualityParams& params,
                                          uint32_t cameraNodeId) {
  std::lock_guard<std::mutex> lock(m_bgVirtualLock);
  m_bgVirtualparamMap[cameraNodeId] = params;
}

uint32_t CameraCaptureNode::GetBgVirtualParamEnableStatus(uint32_t cameraNodeId, bool& out) {
  std::lock_guard<std::mutex> lock(m_bgVirtualLock);
  auto it = m_bgVirtualEnableMap.find(cameraNodeId);
  if (it == m_bgVirtualEnableMap.end()) {
    VLOG_ERR_CH(2, "imgNo[%u] m_bgVirtualEnableMap is empty", cameraNodeId);
    return 1;
  }
  out = it->second;
  return 0;
}

void CameraCaptureNode::SetBgVirtualParamEnableStatus(bool enable, uint32_t cameraNodeId) {
  std::lock_guard<std::mutex> lock(m_bgVirtualLock);
  m_bgVirtualEnableMap[cameraNodeId] = enable;
}
