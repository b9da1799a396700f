#include "codec/tavo_video_vlink_venc_node.h"

#include <cstdlib>
#include <mutex>
#include <unordered_set>

#include "platform/adapt_common/os_time.h"

namespace {

std::mutex g_recordsLock;  // guards Records(); held by no host callback
std::unordered_set<VencOutFrame*>& Records() {
  static std::unordered_set<VencOutFrame*> records;  // goes with the library at unload
  return records;
}

}  // namespace

void VirtualEncoderNode::IssueRecord(VencOutFrame* record) {
  std::lock_guard<std::mutex> lock(g_recordsLock);
  Records().insert(record);
}

bool VirtualEncoderNode::TakeBackRecord(VencOutFrame* record) {
  std::lock_guard<std::mutex> lock(g_recordsLock);
  return Records().erase(record) == 1;
}

VirtualEncoderNode::VirtualEncoderNode(uint32_t id) : VideoVlinkNode(id, OS_E_MPP_DEV_VENC) {
  m_nodeName = "ENC_" + std::to_string(id);
  VLOG_INF("[%s] create m_nodeId[%u] success", m_nodeName.c_str(), m_nodeId);
}

VirtualEncoderNode::~VirtualEncoderNode() {
  VLOG_INF("[%s] VirtualEncoderNode destory m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
}

uint32_t VirtualEncoderNode::CheckParam(const VencDevInfo& info) {
  if (info.imgNo > VO_MAX_IMGNO) {
    VLOG_ERR("[%s] invalid imgNo[%d]!", m_nodeName.c_str(), static_cast<int>(info.imgNo));
    return 1;
  }
  if (info.encOutFunc != nullptr && info.encCreateFunc != nullptr) {
    return 0;
  }
  VLOG_ERR("[%s] m_nodeId[%u] encOutFunc or encCreateFunc is nullptr!", m_nodeName.c_str(),
           m_nodeId);
  return 1;
}

uint32_t VirtualEncoderNode::SetParam(const VencDevInfo& info) {
  const uint32_t result = CheckParam(info);
  if (result != 0) {
    VLOG_ERR("ret[0x%x] failed!", result);
    return result;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_param = info;
  if (info.width != 0 && info.height != 0) {
    VideoNodeRequirement requirement{};
    GetRequirement(requirement);
    requirement.width = info.width;
    requirement.height = info.height;
    SetRequirement(requirement);
  }
  VLOG_INF("[%s] SetDeviceParam[%d] ok", m_nodeName.c_str(), static_cast<int>(m_nodeId));
  return 0;
}

VencDevInfo VirtualEncoderNode::GetParam() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_param;
}

uint32_t VirtualEncoderNode::GetNodeResolution(uint32_t& width, uint32_t& height,
                                               uint32_t& frameRate) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  width = m_param.width;
  height = m_param.height;
  frameRate = m_param.frameRate;
  return 0;
}

uint32_t VirtualEncoderNode::NotifyEncCreate() {
  // A copy: an update may change the parameters while the host's callback runs.
  const VencDevInfo param = GetParam();
  if (param.encCreateFunc == nullptr) {
    VLOG_ERR("encCreateFunc is nullptr");
    return 1;
  }
  return param.encCreateFunc(param.imgNo, param.hostKey, param.hostSubKey);
}

uint32_t VirtualEncoderNode::OnStart() {
  VLOG_INF("[%s] StartProcess Enter. Venc[%u] portId[%u] ", m_nodeName.c_str(), m_nodeId,
           GetParam().voPort);
  // The host's encoder is created once per start.
  const uint32_t result = NotifyEncCreate();
  if (result != 0) {
    VLOG_ERR("Venc[%u] NotifyEncCreate failed", m_nodeId);
    return result;
  }
  VLOG_INF("[%s] StartProcess Venc[%u] portId[%u] ok", m_nodeName.c_str(), m_nodeId,
           GetParam().voPort);
  return 0;
}

uint32_t VirtualEncoderNode::OnStop() {
  VLOG_INF("[%s] VirtualEncoderNode StopProcess m_nodeId[%u] Enter.", m_nodeName.c_str(), m_nodeId);
  const uint32_t voPort = GetParam().voPort;
  if (voPort != 1) {
    VLOG_INF("CloseVoDevice m_param.voPort[%u]", voPort);
  }
  VLOG_INF_CH(1, "[%s] VirtualEncoderNode StopProcess m_nodeId[%u] Ok.", m_nodeName.c_str(),
              m_nodeId);
  return 0;
}

uint32_t VirtualEncoderNode::HandleBuffer(FrameRef& frame) {
  if (!frame) {
    VLOG_ERR("[%s] m_nodeId[%u] buffer is nullptr", m_nodeName.c_str(), m_nodeId);
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (EncOutAfterAcquireBuffer(frame) != 0) {
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR, "[%s] EncOutAfterAcquireBuffer failed",
               m_nodeName.c_str());
    return 1;
  }
  return 0;
}

uint32_t VirtualEncoderNode::EncOutAfterAcquireBuffer(FrameRef& frame) {
  // Freed with free() by the release entry point, or here when the host refuses the frame.
  auto* record = static_cast<VencOutFrame*>(std::malloc(sizeof(VencOutFrame)));
  if (record == nullptr) {
    VLOG_ERR("data is nullptr");
    return 1;
  }
  record->imgNo = m_param.imgNo;
  record->buffer = frame.Get();
  record->hostTag = m_param.hostTag;
  record->hostKey = m_param.hostKey;
  record->hostSubKey = m_param.hostSubKey;
  record->sequence = m_frameSeq++;
  record->timestampUs = OsVLinkGetTimestampUs();
  if (m_param.encOutFunc == nullptr) {
    VLOG_ERR("m_param.encOutFunc is nullptr");
    std::free(record);
    return 1;
  }
  // Issued before the call and holding the frame's reference: the host may give the record
  // back from inside the callback or from another thread before the callback returns.
  OsvGraphicBuffer* held = frame.Detach();
  IssueRecord(record);
  const uint32_t accepted =
      m_param.encOutFunc(m_param.imgNo, m_param.hostKey, m_param.hostSubKey, record);
  if (accepted != 1) {
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_ERR, "encOutFunc failed ret[%d]",
               static_cast<int>(accepted));
    // Unless the host gave it back all the same, the record and its reference are ours.
    if (TakeBackRecord(record)) {
      FrameRef::Adopt(held).Reset();
      std::free(record);
    }
    return 1;
  }
  return 0;
}

void VirtualEncoderNode::ReleaseBuffer(OsvGraphicBuffer* buffer) {
  if (buffer == nullptr) {
    VLOG_ERR("m_uniqueId[%u] buffer is nullptr", m_nodeId);
    return;
  }
  FrameRef::Adopt(buffer).Reset();
}

uint32_t VirtualEncoderNode::ReportEncError(int code) {
  std::function<int(int)> callback;
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    callback = m_encErrorCb;
  }
  if (callback) {
    callback(code);
  }
  return 0;
}

void VirtualEncoderNode::SetEncErrorCallBackFun(std::function<int(int)> callback) {
  if (!callback) {
    VLOG_ERR("funcPtr is nullptr");
    return;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_encErrorCb = std::move(callback);
}

TavoVideoCodecType VirtualEncoderNode::GetCodecType() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_param.codecType;
}
