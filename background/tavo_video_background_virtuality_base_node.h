// The abstract base of the virtual-background node: configuration, the on/off switch and
// the two locks its subclass works under. On/off is independent of started/stopped: the
// camera builder starts the node when it links it and then applies the stored switch.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "core/tavo_video_background_virtuality_params.h"
#include "core/tavo_video_vlink_node.h"

class BackgroundVirtualityBaseNode : public VideoVlinkNode {
 public:
  explicit BackgroundVirtualityBaseNode(unsigned int nodeId);
  ~BackgroundVirtualityBaseNode() override = default;

  // Copies the whole record (under the node lock). 0.
  virtual uint32_t SetParam(const BackgroundVirtualityParams& param);
  // Switches the effect: Start() on, Stop() off. A request equal to the last one accepted
  // does nothing; the new value is kept even when Start or Stop fails. 0, or 1 on failure.
  uint32_t SetEnable(bool enable);
  // Drops one reference of a frame the node holds.
  void ReleaseBuffer(FrameRef& frame);

  virtual uint32_t Start() = 0;
  virtual uint32_t Stop() = 0;
  // Submits one frame for inference; on 0 the frame has been moved out of `frame`.
  virtual uint32_t Overlayer(FrameRef& frame) = 0;

  BackgroundVirtualityParams GetParam();
  bool IsRunning() const { return m_isRunning.load(std::memory_order_acquire); }

 protected:
  uint32_t OnStart() override;
  uint32_t OnStartWhileStarted() override;

  uint32_t m_taskId = 0;
  BackgroundVirtualityParams m_param{};  // guarded by m_nodeLock
  bool m_enable = false;                 // guarded by m_enableLock
  std::atomic<bool> m_isRunning{false};
  // Lock order: m_enableLock, then m_stateMutex, then m_imageMutex, then a sender's node
  // lock (SendBuffer). No host callback runs under any of them.
  std::mutex m_enableLock;  // serialises on/off requests
  std::mutex m_imageMutex;  // guards the background image and its use
  // Guards start, stop and the per-frame decision. A frame passed through with the effect
  // off is queued under it, so a frame sent after a switch never overtakes one from before.
  std::mutex m_stateMutex;
};
