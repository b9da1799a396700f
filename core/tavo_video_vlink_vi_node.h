// The virtual input base (the screen input derives from it): keeps the input parameter
// record and watches the input from its creation until the first frame leaves it. Without
// a frame for 5 seconds it tells the host once, through the record's status callback.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/tavo_video_named_thread.h"
#include "core/tavo_video_vlink_node.h"
#include "tavo_video_vlink_component.h"

using VlinkInputStatusCallback = TavoVideoInputStatusFunc;

// The parameter record of a virtual (screen) input.
struct ViDevInfo {
  uint32_t reserved0;  // 0
  uint32_t imgNo;      // node id given by the host; screens use 90 and up
  uint32_t portId;
  uint32_t width;       // asked by the host, non-zero
  uint32_t height;      // asked by the host, non-zero
  uint32_t fps;         // frame rate
  uint32_t captureFps;  // the rate the capturer paces itself by, non-zero
  uint32_t reserved[9];
  VlinkInputStatusCallback statusCallback;  // may be null
  uint64_t hostValue64;                     // carried unchanged
  uint32_t hostValue32;                     // carried unchanged
};

class VirtualViNode : public VideoVlinkNode {
 public:
  static constexpr uint64_t kNoFrameLimitMs = 5000;
  static constexpr uint32_t kStatusNoFrame = 3;

  // Starts the watchdog.
  explicit VirtualViNode(uint32_t id);
  ~VirtualViNode() override;

  // Checks and stores the record (under the node lock); the check's code when refused.
  virtual uint32_t SetParam(const ViDevInfo& info);
  uint32_t CheckParam(const ViDevInfo& info);
  ViDevInfo GetParam();
  // For every frame the input sends: the watchdog's work is done.
  void BufferOut();
  bool IsChecking() const { return m_isChecking.load(std::memory_order_acquire); }
  // True when `nowMs` is 5 s or more after `lastMs`.
  static bool NoFrameForTooLong(uint64_t nowMs, uint64_t lastMs) {
    return nowMs > lastMs && nowMs - lastMs >= kNoFrameLimitMs;
  }

 protected:
  // Ends the watchdog (it outlives stops: it guards the node's whole first 5 s).
  void OnShutdown() override;

 private:
  void BufferCheckThreadFunc();

  ViDevInfo m_param{};  // guarded by m_nodeLock
  std::atomic<bool> m_isChecking{true};
  std::atomic<uint64_t> m_lastFrameTime{0};  // ms on the Clock seam
  // Last member: stopped before the fields its body reads go away.
  NamedThread m_checkThread{"VlinkViCheck"};
};
