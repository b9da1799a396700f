#include "screen/tavo_video_vlink_screen_capture_node.h"

#include <string>

#include "trace/tavo_video_vlink_log.h"

std::mutex ScreenCaptureNode::m_mouseLock;
std::map<uint32_t, VlinkCursorParams> ScreenCaptureNode::m_localMouseParam;

ScreenCaptureNode::ScreenCaptureNode(uint32_t nodeId) : VirtualViNode(nodeId) {
  m_nodeName = "SCREEN_" + std::to_string(nodeId);
  VLOG_INF("[%s] ScreenCaptureNode: create m_nodeId[%u] success", m_nodeName.c_str(), m_nodeId);
}

ScreenCaptureNode::~ScreenCaptureNode() {
  VLOG_INF("[%s] ScreenCaptureNode destory m_nodeId[%u] enter.", m_nodeName.c_str(), m_nodeId);
  std::unique_ptr<ScreenCapturer> capturer;
  {
    std::lock_guard<std::mutex> lock(m_screenLock);
    if (m_isRunning) {
      // Only a node that never went through the registry's shutdown gets here running.
      VLOG_ERR("[%s] DataAuxInLinkNode: m_nodeId[%u] is no closed", m_nodeName.c_str(), m_nodeId);
      StopCapturer();
    }
    capturer = std::move(m_capturer);
  }
  // Its capture thread calls back into this node: gone before the node's members are.
  capturer.reset();
  VLOG_INF("[%s] ScreenCaptureNode: destory m_nodeId[%u] Ok", m_nodeName.c_str(), m_nodeId);
}

uint32_t ScreenCaptureNode::GetPortId() { return GetParam().portId; }

uint32_t ScreenCaptureNode::SetCaptureFps(uint32_t /*fps*/) { return 0; }

uint32_t ScreenCaptureNode::SetEncodeResolution(uint32_t width, uint32_t height) {
  std::lock_guard<std::mutex> lock(m_screenLock);
  m_encWidth = width;
  m_encHeight = height;
  if (!m_capturer) {
    VLOG_WRN("[%s] m_capturer is nullptr", m_nodeName.c_str());
    return 0;
  }
  return m_capturer->SetEncodeResolution(width, height);
}

uint32_t ScreenCaptureNode::SendEncFrame(OsvGraphicBuffer* buffer) {
  if (buffer == nullptr) {
    VLOG_ERR("null pointer");
    return 1;
  }
  BufferOut();
  return SendBuffer(buffer);
}

bool ScreenCaptureNode::IsRunning() {
  std::lock_guard<std::mutex> lock(m_screenLock);
  return m_isRunning;
}

uint32_t ScreenCaptureNode::OnStartWhileStarted() {
  VLOG_INF("[%s] ScreenCaptureNode::Open enter", m_nodeName.c_str());
  VLOG_ERR("[%s] m_nodeId[%u] is already opened", m_nodeName.c_str(), m_nodeId);
  return 0;
}

uint32_t ScreenCaptureNode::OnStart() {
  VLOG_INF("[%s] ScreenCaptureNode::Open enter", m_nodeName.c_str());
  const ViDevInfo param = GetParam();
  {
    std::lock_guard<std::mutex> lock(m_screenLock);
    if (m_isRunning) {
      // Kept capturing through a stop while it fed other sinks.
      VLOG_ERR("[%s] m_nodeId[%u] is already opened", m_nodeName.c_str(), m_nodeId);
      return 0;
    }
    m_capturer = Seam<ScreenCapturerFactory>::Get().Create(m_nodeId);
    ScreenCapturer& capturer = *m_capturer;
    if (param.imgNo < kFirstScreenImgNo) {
      VLOG_ERR("[%s] m_nodeId[%u] invalid imgNo[%u]", m_nodeName.c_str(), m_nodeId, param.imgNo);
      return 1;
    }
    if (capturer.SetCaptureParams(param) != 0) {
      VLOG_ERR("m_nodeId[%u] Screen SetCaptureParams failed!", m_nodeId);
      return 1;
    }
    if (capturer.SetEncodeResolution(m_encWidth, m_encHeight) != 0) {
      VLOG_ERR("m_nodeId[%u] Screen SetEncodeResolution failed!", m_nodeId);
      return 1;
    }
    if (capturer.SetCaptureScreenPort(param.imgNo - kFirstScreenImgNo) != 0) {
      VLOG_ERR("m_nodeId[%u] Screen SetCaptureScreenPort failed!", m_nodeId);
      return 1;
    }
    VlinkCursorParams cursor{};
    if (GetGlobalMouseParam(m_nodeId, &cursor, /*quiet=*/true) == 0 &&
        capturer.SetCaptureCursorParams(cursor) != 0) {
      VLOG_ERR("m_nodeId[%u] SetCaptureCursorParams failed!", m_nodeId);
      return 1;
    }
    if (capturer.Init() != 0) {
      VLOG_ERR("m_nodeId[%u] Screen Capturer Init failed!", m_nodeId);
      return 1;
    }
    if (capturer.SetSendFrameCallback([this](const FrameRef& frame) {
          return static_cast<int>(SendEncFrame(frame.Get()));
        }) != 0) {
      VLOG_ERR("m_nodeId[%u] SetSendFrameCallback failed!", m_nodeId);
      return 1;
    }
    if (capturer.StartCapture() != 0) {
      VLOG_ERR("m_nodeId[%u] Screen Capturer start failed!", m_nodeId);
      return 1;
    }
    m_isRunning = true;
  }
  VLOG_INF("[%s] ScreenCaptureNode::Open success", m_nodeName.c_str());
  if (param.statusCallback != nullptr) {
    param.statusCallback(param.imgNo, 0);
  }
  return 0;
}

void ScreenCaptureNode::StopCapturer() {
  if (m_capturer && m_capturer->StopCapture() != 0) {
    VLOG_ERR("m_nodeId[%u] Screen Capturer stop failed!", m_nodeId);
    return;
  }
  m_isRunning = false;
}

uint32_t ScreenCaptureNode::OnStop() {
  VLOG_INF("[%s] ScreenCaptureNode StopProcess m_nodeId[%u] enter.", m_nodeName.c_str(), m_nodeId);
  std::lock_guard<std::mutex> lock(m_screenLock);
  if (!m_isRunning) {
    VLOG_ERR("[%s] m_nodeId[%u] already closed", m_nodeName.c_str(), m_nodeId);
    return 0;
  }
  if (GetNextConnectListCopy().size() > 1) {
    VLOG_ERR("[%s] m_nodeId[%u] is attach to another node", m_nodeName.c_str(), m_nodeId);
    return 0;
  }
  StopCapturer();
  if (m_isRunning) {
    return 1;
  }
  VLOG_INF("[%s] ScreenCaptureNode StopProcess m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
  return 0;
}

void ScreenCaptureNode::OnShutdown() {
  {
    std::lock_guard<std::mutex> lock(m_screenLock);
    if (m_isRunning) {
      StopCapturer();
    }
  }
  VirtualViNode::OnShutdown();
}

uint32_t ScreenCaptureNode::CapturePicture(uint32_t imgNo,
                                           const TagTavoVideoSnapshotStorage& storage) {
  std::lock_guard<std::mutex> lock(m_screenLock);
  if (!m_isRunning || !m_capturer) {
    m_capturer = Seam<ScreenCapturerFactory>::Get().Create(imgNo);
    if (imgNo < kFirstScreenImgNo) {
      VLOG_ERR("[%s] invalid imgNo[%u]", m_nodeName.c_str(), imgNo);
      return 1;
    }
    if (m_capturer->SetCaptureScreenPort(imgNo - kFirstScreenImgNo) != 0) {
      VLOG_ERR("imgNo[%u] Screen SetCaptureScreenPort failed!", imgNo);
      return 1;
    }
  }
  if (m_capturer->CapturePictureImp(storage) != 0) {
    VLOG_ERR("imgNo[%u] ScreenCaptureNode::CapturePicture failed!", imgNo);
    return 1;
  }
  VLOG_INF("[%s] ScreenCaptureNode::CapturePicture success", m_nodeName.c_str());
  return 0;
}

uint32_t ScreenCaptureNode::SetMouseParam(const VlinkCursorParams& params) {
  {
    std::lock_guard<std::mutex> lock(m_screenLock);
    if (!m_capturer) {
      VLOG_ERR("mouseParam is nullptr");
      return 1;
    }
    if (m_capturer->SetCaptureCursorParams(params) != 0) {
      VLOG_ERR("m_nodeId[%u] SetCaptureCursorParams failed!", m_nodeId);
      return 1;
    }
  }
  return SaveGlobalMouseParam(m_nodeId, params);
}

uint32_t ScreenCaptureNode::GetMouseParam(VlinkCursorParams* out) {
  std::lock_guard<std::mutex> lock(m_screenLock);
  if (!m_capturer || out == nullptr) {
    VLOG_ERR("mouseParam is nullptr");
    return 1;
  }
  if (m_capturer->GetCaptureCursorParams(out) != 0) {
    VLOG_ERR("m_nodeId[%u] GetCaptureCursorParams failed!", m_nodeId);
    return 1;
  }
  return 0;
}

uint32_t ScreenCaptureNode::SaveGlobalMouseParam(uint32_t uniqueId,
                                                 const VlinkCursorParams& params) {
  std::lock_guard<std::mutex> lock(m_mouseLock);
  m_localMouseParam[uniqueId] = params;
  return 0;
}

uint32_t ScreenCaptureNode::GetGlobalMouseParam(uint32_t uniqueId, VlinkCursorParams* out) {
  return GetGlobalMouseParam(uniqueId, out, false);
}

uint32_t ScreenCaptureNode::GetGlobalMouseParam(uint32_t uniqueId, VlinkCursorParams* out,
                                                bool quiet) {
  std::lock_guard<std::mutex> lock(m_mouseLock);
  auto it = m_localMouseParam.find(uniqueId);
  if (it == m_localMouseParam.end() || out == nullptr) {
    if (!quiet) {
      VLOG_ERR("cannot find uniqueId[%u]", uniqueId);
    }
    return 1;
  }
  *out = it->second;
  return 0;
}
