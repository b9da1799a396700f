#include "render/tavo_video_vlink_preview_node.h"

#include <cstring>
#include <utility>
#include <vector>

#include "platform/adapt_common/safe_string.h"

std::mutex VideoPreviewNode::s_winReportLock;
VideoPreviewNode::WinReportCallback VideoPreviewNode::m_winReportCb;

namespace {

unsigned int Low32(uint64_t handle) { return static_cast<unsigned int>(handle & 0xFFFFFFFFU); }

// The preview whose windows this thread is rendering: the render callback runs while the
// preview walks its windows, so what the host changes from inside it waits for the walk.
thread_local const VideoPreviewNode* t_renderingPreview = nullptr;

}  // namespace

VideoPreviewNode::VideoPreviewNode(uint32_t id) : VideoVlinkNode(id, OS_E_MPP_DEV_VO) {
  m_nodeName = "VO_" + std::to_string(id);
  VLOG_INF("[%s] create m_nodeId[%u] success", m_nodeName.c_str(), m_nodeId);
}

VideoPreviewNode::~VideoPreviewNode() {
  VLOG_INF("[%s] VideoPreviewNode destory m_nodeId[%u] enter.", m_nodeName.c_str(), m_nodeId);
  // Windows made by an update of a stopped node still own renderers.
  for (auto& [handle, render] : m_renderMap) {
    TavoVideoRenderDelete(render.manager);
  }
  VLOG_INF("[%s] VideoPreviewNode destory m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
}

bool VideoPreviewNode::ValidWinNum(const tagTavoVideoVoChnParam& param) {
  return param.winNum <= TAVO_VIDEO_MAX_VO_WINDOWS;
}

uint32_t VideoPreviewNode::SetParam(const tagTavoVideoVoChnParam& param) {
  if (!ValidWinNum(param)) {
    VLOG_ERR("[%s] invalid winNum[%u]!", m_nodeName.c_str(), param.winNum);
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_param = param;
  return 0;
}

tagTavoVideoVoChnParam VideoPreviewNode::GetParam() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_param;
}

size_t VideoPreviewNode::GetWindowCount() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_renderMap.size();
}

bool VideoPreviewNode::GetWaterMark(uint32_t imgNo, std::string& text) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  auto it = m_waterMarkMap.find(imgNo);
  if (it == m_waterMarkMap.end()) {
    return false;
  }
  text = it->second;
  return true;
}

bool VideoPreviewNode::IsNeedCreate(uint64_t winHandle) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_createdWins.count(winHandle) == 0;
}

uint32_t VideoPreviewNode::RenderCreate(uint64_t winHandle) {
  tagOS_S_SOFT_VO_CHN_PARAM channel{};
  channel.renderMode = kRenderMode;
  channel.winHandle = winHandle;
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  RenderParam& render = m_renderMap[winHandle];
  render = RenderParam{};
  const uint32_t result = TavoVideoRenderCreate(&channel, &render.manager);
  if (result != 0) {
    m_renderMap.erase(winHandle);
    VLOG_ERR("[%s] TavoVideoRenderCreate fail, ret:%d", m_nodeName.c_str(),
             static_cast<int>(result));
    return 1;
  }
  m_createdWins.insert(winHandle);
  VLOG_INF("[%s] RenderCreate[%#x] success", m_nodeName.c_str(), Low32(winHandle));
  return 0;
}

uint32_t VideoPreviewNode::RenderSetParam(uint64_t winHandle, bool /*flag*/) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  auto it = m_renderMap.find(winHandle);
  if (it == m_renderMap.end()) {
    VLOG_ERR("[%s] find winHandle failed.", m_nodeName.c_str());
    return 1;
  }
  PelvRenderParams params{};
  params.enable = 1;
  params.colorSpace = m_param.header[TAVO_VIDEO_VO_COLOR_SPACE_WORD];
  params.renderCb = m_param.renderCb;
  if (auto mark = m_waterMarkMap.find(it->second.imgNo); mark != m_waterMarkMap.end()) {
    params.watermarkOn = 1;
    // A text longer than 255 characters is refused whole and the window gets none.
    const errno_t copied =
        strcpy_s(params.watermarkText, sizeof(params.watermarkText), mark->second.c_str());
    if (copied != 0) {
      params.watermarkText[0] = '\0';
      VLOG_ERR("[%s] strcpy_s failed, ret[%d]", m_nodeName.c_str(), static_cast<int>(copied));
    }
  }
  return TavoVideoRenderSetParams(it->second.manager, params);
}

std::set<uint64_t> VideoPreviewNode::ApplyWindows() {
  std::set<uint64_t> wanted;
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  for (uint32_t i = 0; i < m_param.winNum; ++i) {
    const tagTavoVideoVoWinParam& window = m_param.windows[i];
    if (IsNeedCreate(window.winHandle)) {
      if (RenderCreate(window.winHandle) != 0) {
        VLOG_ERR("[%s] RenderCreate[%#x] fail", m_nodeName.c_str(), Low32(window.winHandle));
        continue;
      }
    }
    // The image number first, so that a new window gets its image's watermark at once.
    m_renderMap[window.winHandle].imgNo = window.imgNo;
    RenderSetParam(window.winHandle, window.flag != 0);
    wanted.insert(window.winHandle);
  }
  return wanted;
}

uint32_t VideoPreviewNode::UpdateParam(const tagTavoVideoVoChnParam& param) {
  if (!ValidWinNum(param)) {
    VLOG_ERR("[%s] invalid winNum[%u]!", m_nodeName.c_str(), param.winNum);
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (t_renderingPreview == this) {
    m_deferredParam = param;  // applied when the frame's walk over the windows is done
    return 0;
  }
  m_param = param;
  const std::set<uint64_t> wanted = ApplyWindows();
  const std::set<uint64_t> created = m_createdWins;
  for (uint64_t handle : created) {
    if (wanted.count(handle) == 0) {
      RenderStop(handle);
      RenderDelete(handle);
      VLOG_INF("[%s] Delete old handle[%#x]", m_nodeName.c_str(), Low32(handle));
    }
  }
  VLOG_INF("[%s] node:%d UpdateParam success", m_nodeName.c_str(), static_cast<int>(m_nodeId));
  return 0;
}

uint32_t VideoPreviewNode::HandleBuffer(FrameRef& frame) {
  if (!frame) {
    VLOG_ERR("[%s] buffer is null", m_nodeName.c_str());
    return 1;
  }
  OsvGraphicBuffer* buffer = frame.Get();
  const uint32_t imgNo = buffer->GetSrcImgNo();
  // Windows showing their first frame; only a window's first frame allocates here.
  std::vector<uint64_t> firstFrames;
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    const VideoPreviewNode* outer = std::exchange(t_renderingPreview, this);
    for (auto& [handle, render] : m_renderMap) {
      if (m_closeDeferred) {
        break;  // stopped from inside the callback
      }
      if (render.imgNo != imgNo) {
        continue;
      }
      if (render.frameCnt == 0) {
        firstFrames.push_back(handle);
      }
      ++render.frameCnt;
      TavoVideoRenderFrame(render.manager, buffer);
    }
    t_renderingPreview = outer;
    ApplyDeferred();
  }
  // The host hears of them without our locks: it may call back into this preview.
  for (uint64_t handle : firstFrames) {
    ReportFirstFrame(imgNo, handle);
  }
  return 0;  // rendering copies; the task drops the frame
}

void VideoPreviewNode::ReportFirstFrame(uint32_t imgNo, uint64_t winHandle) {
  WinReportCallback callback;
  {
    std::lock_guard<std::mutex> lock(s_winReportLock);
    callback = m_winReportCb;
  }
  if (!callback || imgNo < kFirstReportedImgNo || imgNo > kLastReportedImgNo) {
    return;
  }
  TavoVideoDisplayWinInfo info{};
  info.viPort = imgNo - kViPortOffset;
  info.firstFrameFlag = 1;
  info.winId = Low32(winHandle);
  callback(info);
  VLOG_INF("[%s] winId[%#x] viPort[%u] imgNo[%u] report first frame!", m_nodeName.c_str(),
           info.winId, info.viPort, imgNo);
}

uint32_t VideoPreviewNode::SetWinReportCb(WinReportCallback callback) {
  std::lock_guard<std::mutex> lock(s_winReportLock);
  m_winReportCb = std::move(callback);
  return 0;
}

void VideoPreviewNode::SetWaterMarkParam(uint32_t imgNo, bool enable, const std::string& content) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (enable) {
    m_waterMarkMap[imgNo] = content;
    VLOG_INF("[%s] SetWaterMarkParam imgNo:%d, content:%s", m_nodeName.c_str(),
             static_cast<int>(imgNo), content.c_str());
  } else {
    m_waterMarkMap.erase(imgNo);
  }
  for (const auto& [handle, render] : m_renderMap) {
    if (render.imgNo == imgNo) {
      RenderSetParam(handle, false);
    }
  }
}

uint32_t VideoPreviewNode::RenderStop(uint64_t winHandle) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  auto it = m_renderMap.find(winHandle);
  if (it == m_renderMap.end()) {
    VLOG_ERR("[%s] find winHandle failed.", m_nodeName.c_str());
    return 1;
  }
  return TavoVideoRenderStop(it->second.manager);
}

uint32_t VideoPreviewNode::RenderDelete(uint64_t winHandle) {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (auto it = m_renderMap.find(winHandle); it != m_renderMap.end()) {
    const uint32_t result = TavoVideoRenderDelete(it->second.manager);
    if (result != 0) {
      VLOG_ERR("[%s] TavoVideoRenderDelete fail, ret:%d", m_nodeName.c_str(),
               static_cast<int>(result));
    }
    m_renderMap.erase(it);
  }
  m_createdWins.erase(winHandle);
  VLOG_INF("[%s] RenderDelete[%#x] success", m_nodeName.c_str(), Low32(winHandle));
  return 0;
}

void VideoPreviewNode::ApplyDeferred() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  if (std::optional<tagTavoVideoVoChnParam> param = std::exchange(m_deferredParam, std::nullopt)) {
    UpdateParam(*param);
  }
  if (std::exchange(m_closeDeferred, false)) {
    CloseWindows();
  }
}

uint32_t VideoPreviewNode::OnStart() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_closeDeferred = false;  // stopped and started again inside one callback: windows stay
  ApplyWindows();
  return 0;
}

uint32_t VideoPreviewNode::OnStop() {
  VLOG_INF("[%s] VideoPreviewNode StopProcess m_nodeId[%u] enter.", m_nodeName.c_str(), m_nodeId);
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    if (t_renderingPreview == this) {
      // Stopped or destroyed from inside a render callback: the windows' renderers are in
      // use on this thread; they close when the frame is done.
      m_closeDeferred = true;
      m_deferredParam.reset();
      return 0;
    }
  }
  CloseWindows();
  return 0;
}

void VideoPreviewNode::CloseWindows() {
  std::set<uint64_t> created;
  {
    std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
    created = m_createdWins;
  }
  for (uint64_t handle : created) {
    VLOG_INF("[%s] VideoPreviewNode StopProcess m_nodeId[%u] start.", m_nodeName.c_str(), m_nodeId);
    RenderStop(handle);
    RenderDelete(handle);
    VLOG_INF("[%s] VideoPreviewNode StopProcess m_nodeId[%u] done.", m_nodeName.c_str(), m_nodeId);
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_renderMap.clear();
  m_createdWins.clear();
  VLOG_INF("[%s] VideoPreviewNode StopProcess m_nodeId[%u] Ok.", m_nodeName.c_str(), m_nodeId);
}
