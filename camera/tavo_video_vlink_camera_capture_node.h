// The source node of a camera link: owns one capture manager, starts and stops the camera
// through it, wraps every converted I420 block in a buffer without copying a pixel, stamps
// it with the link's image number and hands it on. Frames come back through ReleaseFrame,
// which frees the block; a stop waits a bounded time for the frames still out.
//
// It also keeps, per camera node id, the virtual-background node that follows the camera,
// that node's configuration and its on/off state. The camera builder and the overlay
// control fill them (before or after the link exists); the camera's stop removes the
// virtual-background node through the registry, knowing it only as a node, so this folder
// does not depend on the virtual-background classes.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "camera/tavo_video_vlink_capture_manager.h"
#include "core/tavo_video_background_virtuality_params.h"
#include "core/tavo_video_vlink_node.h"

class CameraCaptureNode : public VideoVlinkNode {
 public:
  // Frames still out when a stop gives up waiting for them.
  static constexpr uint32_t kReleaseWaitMs = 300;
  static constexpr uint32_t kMaxLongSide = 3840;
  static constexpr uint32_t kMaxShortSide = 2160;

  explicit CameraCaptureNode(unsigned int nodeId);
  ~CameraCaptureNode() override;

  // Checks and keeps the parameters; they take effect at the next start. 0, or 1.
  virtual uint32_t SetParam(const tagCameraCaptureParams& params);
  uint32_t CheckParam(const tagCameraCaptureParams& params);
  void GetParam(tagCameraCaptureParams& out);
  tagCameraCaptureParams GetParam();
  uint32_t SetCameraInfo(const char* cameraId);
  // Creates the capture manager on first use and hands it the camera and the frame callback.
  uint32_t Init();

  // The capture manager's per-frame callback (capture thread); owns frame.data from here.
  int OnCaptureCbkFrame(_PEL_V_FRAME& frame);
  uint32_t SendEncFrame(OsvGraphicBuffer* buffer);
  // Frees the frame's block and the buffer; runs on the pool when the last holder let go.
  void ReleaseFrame(OsvGraphicBuffer* buffer) override;

  // The text overlay of the capture manager; 1 while the node has none.
  uint32_t SetIvrParam(int channel, const TavoVideoOverlayTextInfo* info);
  uint32_t CloseIvr();

  // Frames handed on and not yet back.
  uint32_t GetBufferCount() const { return m_bufferCnt.load(std::memory_order_acquire); }
  bool IsOpened() const { return m_opened.load(std::memory_order_acquire); }

  // Per-camera tables, keyed by camera node id. A getter gives 0 and fills `out` when the
  // camera has an entry, else logs, leaves `out` alone and gives 1.
  static uint32_t GetBgVirtualNodeId(uint32_t cameraNodeId, uint32_t& out);
  static void SetBgVirtualNodeId(uint32_t bgNodeId, uint32_t cameraNodeId);
  static uint32_t GetBgVirtualParam(uint32_t cameraNodeId, BackgroundVirtualityParams& out);
  static void SetBgVirtualParam(const BackgroundVirtualityParams& params, uint32_t cameraNodeId);
  static uint32_t GetBgVirtualParamEnableStatus(uint32_t cameraNodeId, bool& out);
  static void SetBgVirtualParamEnableStatus(bool enable, uint32_t cameraNodeId);
  // Takes the camera's virtual-background node id out of its table; false when none.
  static bool TakeBgVirtualNodeId(uint32_t cameraNodeId, uint32_t& out);

 protected:
  uint32_t OnStart() override;
  uint32_t OnStartWhileStarted() override;
  uint32_t OnStop() override;
  void OnShutdown() override;

 private:
  // Stops, unlinks and deletes the camera's virtual-background node, if it has one.
  void RemoveBgVirtualNode();
  // Stops the camera and waits for the frames out; m_mutex held. 0, or 1 when the capturer
  // would not stop (the node stays opened).
  uint32_t CloseCapture();

  std::unique_ptr<DevCaptureManager> m_devCaptureManager;  // guarded by m_mutex
  // Pairs with m_releaseCond. Taken briefly by ReleaseFrame to wake a stop waiting for
  // frames; nothing else runs under it.
  std::mutex m_releaseLock;
  std::condition_variable m_releaseCond;
  // Serialises SetParam, start and stop, held across a stop's bounded wait for frames.
  // ReleaseFrame and the capture thread never take it, so no frame is queued under it (and
  // the frames waited for can come back); no host callback and no registry call runs under
  // it.
  std::mutex m_mutex;
  std::atomic<bool> m_firstFrame{true};
  std::atomic<uint32_t> m_bufferCnt{0};
  std::atomic<bool> m_opened{false};
  std::atomic<uint32_t> m_imgNo{0};          // stamped by the capture thread; set at each start
  std::string m_cameraId;                    // guarded by m_mutex
  tagCameraCaptureParams m_captureParams{};  // guarded by m_mutex

  // The three tables; host threads (binds, overlay control, destroys) race on them.
  static std::mutex m_bgVirtualLock;
  static std::unordered_map<uint32_t, uint32_t> m_bgVirtualNodeMap;
  static std::unordered_map<uint32_t, BackgroundVirtualityParams> m_bgVirtualparamMap;
  static std::unordered_map<uint32_t, bool> m_bgVirtualEnableMap;
};
