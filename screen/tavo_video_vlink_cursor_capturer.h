// Sends the mouse cursor of a shared screen to the host as its own small record (position
// in the encoded picture and a cursor id), sampled at its own rate on the "CursorCapture"
// thread, instead of drawing it into the frames. A record goes out every period; the X
// server is asked again only for what it said changed (see X11CursorWatch).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "core/tavo_video_named_thread.h"
#include "screen/tavo_video_vlink_screen_types.h"
#include "screen/tavo_video_vlink_x11_cursor_watch.h"
#include "trace/tavo_video_log_pacer.h"

class CursorCapturer {
 public:
  static constexpr uint32_t kMaxFramerate = 60;
  static constexpr uint32_t kMaxEncodeWidth = 3840;
  static constexpr uint32_t kMaxEncodeHeight = 2160;

  CursorCapturer();
  virtual ~CursorCapturer();
  CursorCapturer(const CursorCapturer&) = delete;
  CursorCapturer& operator=(const CursorCapturer&) = delete;

  // Refuses (1) a null callback or a framerate of 0 or above 60, keeping the parameters in
  // force. A change of `independent` while running restarts the sampling.
  uint32_t SetCaptureParams(const VlinkCursorParams& params);
  VlinkCursorParams GetCaptureParams();
  // Positions are scaled to this size; above 3840x2160 is ignored (still 0).
  uint32_t SetEncodeResolution(uint32_t width, uint32_t height);
  uint32_t SetX11ScreenInfo(const VlinkX11ScreenInfo& info);
  uint32_t StartCapture();
  uint32_t StopCapture();
  bool IsRunning() const { return m_isRunning.load(std::memory_order_acquire); }
  bool IsSampling() const { return m_cursorThread.IsRunning(); }

  // The position of the pointer (root coordinates) in the encoded picture.
  void CalCursorPos(VlinkCursorSendData& record, int32_t rootX, int32_t rootY,
                    const VlinkX11ScreenInfo& screen) const;
  // One sample handed to the host. 0, or 1 when there is no callback or display, the
  // pointer cannot be queried or the host refused the record.
  uint32_t IndepedentCapture();
  // X requests the samples made (pointer and cursor image), for the tests.
  uint64_t GetServerAsks() const { return m_serverAsks.load(std::memory_order_relaxed); }

 private:
  // Lines that can repeat with every sample, logged the first time and every 100th after.
  enum FailureSite : uint32_t { kNoCallback, kNoDisplay, kQueryPointer, kHostRefused, kSample };
  bool ShouldLog(FailureSite site);
  void CursorCaptureThreadFunc();
  // Points the watch at the display in force and reads what it was told.
  void FollowScreen();
  uint32_t StartLocked();  // m_controlLock held
  uint32_t StopLocked();   // m_controlLock held

  std::atomic<bool> m_isRunning{false};
  // Guards m_screenInfo, m_cursorParam and m_hideFrames, and keeps the display from being
  // closed during a sample. The host's cursor callback runs without it.
  std::mutex m_cursorLock;
  VlinkX11ScreenInfo m_screenInfo{};
  VlinkCursorParams m_cursorParam{};
  uint32_t m_hideFrames = 0;
  // What the server last answered, reused while it tells of no change.
  bool m_pointerKnown = false;
  int32_t m_rootX = 0;
  int32_t m_rootY = 0;
  bool m_imageKnown = false;
  bool m_transparent = true;
  X11CursorWatch m_watch;  // the sampling thread's only
  std::atomic<uint32_t> m_encodeWidth{0};
  std::atomic<uint32_t> m_encodeHeight{0};
  // Start, stop and restart come one at a time (the host's control calls); guards the
  // running state across a restart.
  std::mutex m_controlLock;
  NamedThread m_cursorThread{"CursorCapture"};
  std::array<vlink::LogPacer, 5> m_failurePacers;
  std::atomic<uint64_t> m_serverAsks{0};
};
