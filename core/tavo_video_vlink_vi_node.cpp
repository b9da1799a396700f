#include "core/tavo_video_vlink_vi_node.h"

#include <algorithm>

#include "core/tavo_video_os_seams.h"
#include "trace/tavo_video_vlink_log.h"

VirtualViNode::VirtualViNode(uint32_t id) : VideoVlinkNode(id, OS_E_MPP_DEV_VI) {
  m_lastFrameTime.store(Seam<Clock>::Get().NowMs(), std::memory_order_release);
  if (m_checkThread.Start([this] { BufferCheckThreadFunc(); }) != 0) {
    m_isChecking.store(false, std::memory_order_release);
  }
}

VirtualViNode::~VirtualViNode() = default;

void VirtualViNode::OnShutdown() {
  m_isChecking.store(false, std::memory_order_release);
  m_checkThread.Stop();
}

uint32_t VirtualViNode::CheckParam(const ViDevInfo& info) {
  if (info.width == 0 || info.height == 0) {
    VLOG_ERR("[%s] CheckParam Failed, w[%u] h[%u]", m_nodeName.c_str(), info.width, info.height);
    return 1;
  }
  return 0;
}

uint32_t VirtualViNode::SetParam(const ViDevInfo& info) {
  const uint32_t result = CheckParam(info);
  if (result != 0) {
    VLOG_ERR("ScreenCaptureNode CheckParam failed! ret[0x%x]", result);
    return result;
  }
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  m_param = info;
  VLOG_INF("[%s] ScreenCaptureNode::SetParam success, w[%u] h[%u] fps[%u]", m_nodeName.c_str(),
           info.width, info.height, info.fps);
  return 0;
}

ViDevInfo VirtualViNode::GetParam() {
  std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
  return m_param;
}

void VirtualViNode::BufferOut() {
  m_lastFrameTime.exchange(Seam<Clock>::Get().NowMs(), std::memory_order_acq_rel);
  if (m_isChecking.exchange(false, std::memory_order_acq_rel)) {
    m_checkThread.Wake();
  }
}

void VirtualViNode::BufferCheckThreadFunc() {
  // One wait up to the deadline, 5 s after the last frame (or the creation), instead of a
  // look every few milliseconds: a frame moves the deadline on and wakes the wait, and the
  // first one ends the watch.
  while (IsChecking()) {
    const uint64_t now = Seam<Clock>::Get().NowMs();
    const uint64_t last = m_lastFrameTime.load(std::memory_order_acquire);
    if (!NoFrameForTooLong(now, last)) {
      const uint64_t deadline = last + kNoFrameLimitMs;
      const uint64_t waitMs = deadline > now ? deadline - now : kNoFrameLimitMs;
      if (!m_checkThread.WaitFor(static_cast<uint32_t>(std::min<uint64_t>(waitMs, kNoFrameLimitMs)),
                                 [this] { return !IsChecking(); })) {
        return;
      }
      continue;
    }
    VlinkInputStatusCallback callback = nullptr;
    {
      std::lock_guard<std::recursive_mutex> lock(m_nodeLock);
      callback = m_param.statusCallback;
    }
    // A frame that left meanwhile wins: the report is made at most once, by whoever
    // clears the flag first.
    if (!m_isChecking.exchange(false, std::memory_order_acq_rel)) {
      return;
    }
    if (callback != nullptr) {
      VLOG_ERR("Report no frame error! curTime[%llu] lastTime[%llu]",
               static_cast<unsigned long long>(now), static_cast<unsigned long long>(last));
      callback(m_nodeId, kStatusNoFrame);
    }
    return;
  }
}
