#include "codec/tavo_video_vlink_vdec_node.h"

#include <cstdlib>
#include <cstring>

#include "platform/adapt_common/os_time.h"

FrameRateRecorder::FrameRateRecorder(std::string name, uint64_t capacity)
    : m_name(std::move(name)), m_capacity(capacity) {}

void FrameRateRecorder::Record() {
  std::lock_guard<std::mutex> lock(m_lock);
  if (m_times.size() >= m_capacity) {
    m_times.pop_front();
  }
  m_times.push_back(OsVLinkGetTimestampNs());
}

double FrameRateRecorder::GetRate() {
  std::lock_guard<std::mutex> lock(m_lock);
  const size_t samples = m_times.size();
  if (samples < m_minSamples) {
    return 0;
  }
  const uint64_t spanMs = (m_times.back() - m_times.front()) / 1000000ULL;
  if (spanMs == 0) {
    return 0;
  }
  return static_cast<double>(samples) * 1000.0 / static_cast<double>(spanMs);
}

VirtualDecoderNode::VirtualDecoderNode(uint32_t id) : VideoVlinkNode(id, OS_E_MPP_DEV_VDEC) {
  m_nodeName = "DEC_" + std::to_string(id);
  VLOG_INF("[%s] create m_nodeId[%u] success", m_nodeName.c_str(), m_nodeId);
}

VirtualDecoderNode::~VirtualDecoderNode() {
  VLOG_INF("[%s] VirtualDecoderNode destory m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
}

uint32_t VirtualDecoderNode::CheckParam(const tagTavoVideoVDecParam& param) {
  if (param.imgNo > VDEC_MAX_IMGNO) {
    VLOG_ERR("[%s] invalid imgNo[%d]!", m_nodeName.c_str(), static_cast<int>(param.imgNo));
    return 1;
  }
  return 0;
}

uint32_t VirtualDecoderNode::SetParam(const tagTavoVideoVDecParam& param) {
  const uint32_t result = CheckParam(param);
  if (result != 0) {
    VLOG_ERR("ret[0x%x] failed!", result);
    return result;
  }
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    m_param = param;
    m_param.watermarkContent[sizeof(m_param.watermarkContent) - 1] = '\0';
    if (m_param.watermarkEnable != 0) {
      SetLinkedVoWaterMarkParam();
    }
  }
  VLOG_INF("[%s] SetDeviceParam[%d] ok", m_nodeName.c_str(), static_cast<int>(m_nodeId));
  return 0;
}

tagTavoVideoVDecParam VirtualDecoderNode::GetParam() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_param;
}

size_t VirtualDecoderNode::GetFramesInFlight() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_frameMap.size();
}

uint32_t VirtualDecoderNode::UpdateParam(const tagTavoVideoVDecParam& param) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  const bool sameMark = param.watermarkEnable == m_param.watermarkEnable &&
                        strncmp(param.watermarkContent, m_param.watermarkContent,
                                sizeof(param.watermarkContent)) == 0;
  m_param = param;
  m_param.watermarkContent[sizeof(m_param.watermarkContent) - 1] = '\0';
  if (!sameMark) {
    VLOG_INF("Update watermark, enable:%d, watermarkContent:%s",
             static_cast<int>(m_param.watermarkEnable), m_param.watermarkContent);
    SetLinkedVoWaterMarkParam();  // also when switched off, so the previews learn it
  }
  return 0;
}

void VirtualDecoderNode::SetLinkedVoWaterMarkParam() {
  tagTavoVideoVDecParam param;
  NodeList next;
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    param = m_param;
    next = GetNextConnectList();
  }
  const std::string content(param.watermarkContent,
                            strnlen(param.watermarkContent, sizeof(param.watermarkContent)));
  for (const NodePtr& node : next) {
    node->SetWaterMarkParam(param.imgNo, param.watermarkEnable != 0, content);
  }
}

uint32_t VirtualDecoderNode::OnStart() {
  VLOG_INF("[%s] StartProcess DecoderNode Enter. m_nodeId[%u]", m_nodeName.c_str(), m_nodeId);
  VLOG_INF("[%s] StartProcess DecoderNode success. m_nodeId[%u]", m_nodeName.c_str(), m_nodeId);
  return 0;
}

uint32_t VirtualDecoderNode::OnStop() {
  VLOG_INF("[%s] VirtualDecoderNode StopProcess m_nodeId[%u] Enter.", m_nodeName.c_str(), m_nodeId);
  VLOG_INF("[%s] VirtualDecoderNode StopProcess m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
  return 0;
}

uint32_t VirtualDecoderNode::CheckReceiveVdecFrameParam(int vdecId,
                                                        tagOS_S_VIDEO_CODEC_IMG_INFO* info) {
  if (info == nullptr) {
    VLOG_ERR("null pMPPVideoCodecImgInfo!");
    return 1;
  }
  if (info->pBuffer == nullptr) {
    VLOG_ERR("null pBuffer!");
    return 1;
  }
  if (vdecId > kMaxVdecId) {
    VLOG_ERR("invalid vdecId[%d]!", vdecId);
    return 1;
  }
  return 0;
}

uint32_t VirtualDecoderNode::ReceiveVdecFrame(int vdecId, uint32_t /*imgNo*/,
                                              tagOS_S_VIDEO_CODEC_IMG_INFO* info) {
  if (!m_isStart) {
    VLOG_PACED(::vlink::kPerFrameLogEvery, VLOG_WRN, "m_nodeId[%d] is not opened",
               static_cast<int>(m_nodeId));
    return 1;
  }
  if (CheckReceiveVdecFrameParam(vdecId, info) != 0) {
    VLOG_ERR("ReceiveVdecFrame param check failed");
    return 1;
  }
  CalcFrameRate();
  OsvGraphicBuffer* buffer = info->pBuffer;
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    buffer->SetSrcImgNo(m_param.imgNo);
    // The frame keeps this node alive until it has come back.
    buffer->SetReleaseTarget(shared_from_this());
    m_frameMap[info] = buffer;
  }
  if (!m_freezeApplied.exchange(true)) {
    info->defreezeStrategy = m_freezeStrategy.load();
  }
  SendBuffer(buffer);
  return 0;
}

void VirtualDecoderNode::ReleaseFrame(OsvGraphicBuffer* buffer) {
  if (buffer == nullptr) {
    VLOG_ERR("buffer is nullptr");
    return;
  }
  tagOS_S_VIDEO_CODEC_IMG_INFO* record = nullptr;
  TavoVideoDecReleaseFunc release = nullptr;
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    for (auto it = m_frameMap.begin(); it != m_frameMap.end(); ++it) {
      if (it->second == buffer) {
        record = it->first;
        m_frameMap.erase(it);
        break;
      }
    }
    if (record == nullptr) {
      VLOG_ERR("ReleaseFrame failed");
      return;
    }
    release = m_param.decReleaseFunc;
  }
  // Called without the node lock: the host may push the next frame from inside it.
  if (release != nullptr && release(m_nodeId, record) != 0) {
    return;
  }
  VLOG_ERR("[%s] ReleaseFrame failed! force delete buffer!", m_nodeName.c_str());
  delete buffer;
  std::free(record);
}

void VirtualDecoderNode::SetDecFreeze(const std::vector<TavoVideoDefreezeStrategy>& strategies) {
  if (strategies.empty()) {
    VLOG_ERR("[%s] freeze strategy is empty.", m_nodeName.c_str());
    return;
  }
  // Stored before the latch opens, so a frame that sees the latch sees this strategy.
  m_freezeStrategy.store(strategies.front());
  m_freezeApplied.exchange(false);
}

uint32_t VirtualDecoderNode::CalcFrameRate() {
  std::lock_guard<std::mutex> lock(m_rateLock);
  if (!m_frameRateRecorder) {
    m_frameRateRecorder = std::make_unique<FrameRateRecorder>("FrameRateRecorder", 200);
  }
  m_frameRateRecorder->Record();
  const uint64_t now = OsVLinkGetTimestampUs();
  if (frameNum == 0) {
    VLOG_INF("[%s] Vdec revice first frame.", m_nodeName.c_str());
    m_rateLog.Start(now);
    frameNum = 1;
    return 0;
  }
  ++frameNum;
  if (m_rateLog.Due(now)) {
    VLOG_INF("[%s] m_nodeId[%d]: frameNum[%d] fps[%f]", m_nodeName.c_str(),
             static_cast<int>(m_nodeId), static_cast<int>(frameNum),
             m_frameRateRecorder->GetRate());
  }
  return 0;
}
