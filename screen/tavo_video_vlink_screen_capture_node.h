// The input node of a screen-share link: owns one screen capturer (X11 on the real side),
// configures it from the node's record when the link starts and hands every captured frame to the
// sinks. It also keeps the cursor settings of every screen input (they outlive the nodes, so
// settings given before a screen exists are applied when its capturer is made) and takes snapshots.
//
// Lock order: m_screenLock, then the capturer's lock, then the node lock. The capture
// thread's frame callback takes only the node lock (inside SendBuffer), never m_screenLock,
// so the capturer may be stopped and joined with m_screenLock held.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "core/tavo_video_vlink_vi_node.h"
#include "screen/tavo_video_vlink_screen_capturer.h"

class ScreenCaptureNode : public VirtualViNode {
 public:
  // Screens use node ids from 90 up; the screen port is the id minus 90.
  static constexpr uint32_t kFirstScreenImgNo = 90;

  explicit ScreenCaptureNode(uint32_t nodeId);
  ~ScreenCaptureNode() override;

  uint32_t GetPortId();
  // Accepted and ignored: the capturer paces itself by the record's capture fps.
  uint32_t SetCaptureFps(uint32_t fps);
  // Kept for the next start and passed to a capturer that exists.
  uint32_t SetEncodeResolution(uint32_t width, uint32_t height);
  // The capturer's frame callback (capture thread).
  uint32_t SendEncFrame(OsvGraphicBuffer* buffer);
  // One picture of screen imgNo into the host's queue; a node that is not capturing makes
  // a fresh capturer for it.
  uint32_t CapturePicture(uint32_t imgNo, const TagTavoVideoSnapshotStorage& storage);

  // The cursor of this screen's capturer (1 without a capturer).
  uint32_t SetMouseParam(const VlinkCursorParams& params);
  uint32_t GetMouseParam(VlinkCursorParams* out);
  // The process-wide store of cursor settings by screen node id, applied at every start.
  static uint32_t SaveGlobalMouseParam(uint32_t uniqueId, const VlinkCursorParams& params);
  static uint32_t GetGlobalMouseParam(uint32_t uniqueId, VlinkCursorParams* out);
  // The same without the error line: a start asks for a record that may not be there.
  static uint32_t GetGlobalMouseParam(uint32_t uniqueId, VlinkCursorParams* out, bool quiet);

  // True from a complete open to a successful close (capture running).
  bool IsRunning();

 protected:
  uint32_t OnStart() override;
  uint32_t OnStartWhileStarted() override;
  // A node that still feeds more than one sink keeps capturing (the soft case: 0).
  uint32_t OnStop() override;
  // Destroy: capture stops whatever feeds on it.
  void OnShutdown() override;

 private:
  void StopCapturer();  // m_screenLock held

  // Guards m_capturer, m_encWidth, m_encHeight and m_isRunning. No host callback runs under
  // it (the status callback is called after it is let go).
  std::mutex m_screenLock;
  uint32_t m_encWidth = 0;
  uint32_t m_encHeight = 0;
  bool m_isRunning = false;
  std::unique_ptr<ScreenCapturer> m_capturer;  // from the ScreenCapturerFactory seam

  // Host control calls use it, but nothing stops two host threads from racing on it.
  static std::mutex m_mouseLock;  // guards m_localMouseParam; no host callback runs under it
  static std::map<uint32_t, VlinkCursorParams> m_localMouseParam;
};
