// Grabs one monitor of the X11 desktop at a steady rate through a shared-memory image,
// draws the cursor into it when asked, converts it to I420 at the encoder's size into one
// of five pooled buffers and hands it to its owner. Also chooses and follows the monitor a
// screen port names, and takes single snapshots into the host's shared-memory queue.
//
// Lock order: m_lock (the capturer's recursive lock), then whatever the frame callback
// takes (the screen node's lock), then the cursor capturer's lock, then the output
// buffers' release lock. Never join the capture thread with m_lock held.
#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/XShm.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

#include "codec/tavo_video_vlink_vi_node.h"
#include "core/tavo_video_named_thread.h"
#include "osv_graphic_buffer.h"
#include "screen/tavo_video_vlink_cursor_capturer.h"
#include "screen/tavo_video_vlink_screen_types.h"

class PoolBufferTracker;

class X11ScreenCapturer {
 public:
  using SendFrameCallback = std::function<int(OsvGraphicBuffer*)>;

  static constexpr uint32_t kScaleBufferCount = 5;
  static constexpr uint32_t kUnusedDelayFrames = 60;
  static constexpr size_t kMaxUnusedBuffers = 2 * kScaleBufferCount;
  static constexpr uint32_t kFormatArgb = 12;
  static constexpr uint32_t kFormatUnknown = 16;
  static constexpr uint64_t kOrdinaryPeriodNs = 50000000ULL;
  static constexpr uint32_t kRefusalLogEvery = 100;
  // A server that dropped the connection (it resets when its last client leaves) is asked
  // again this many times, this far apart.
  static constexpr uint32_t kOpenAttempts = 20;
  static constexpr uint32_t kOpenRetryMs = 25;

  explicit X11ScreenCapturer(uint32_t id);
  virtual ~X11ScreenCapturer();
  X11ScreenCapturer(const X11ScreenCapturer&) = delete;
  X11ScreenCapturer& operator=(const X11ScreenCapturer&) = delete;

  virtual uint32_t Init();
  virtual uint32_t StartCapture();
  virtual uint32_t StopCapture();

  uint32_t SetCaptureParams(const ViDevInfo& info);
  uint32_t GetCaptureParams(ViDevInfo* out);
  uint32_t SetEncodeResolution(uint32_t width, uint32_t height);
  uint32_t SetCaptureScreenPort(uint32_t port);
  uint32_t SetCaptureCursorParams(const VlinkCursorParams& params);
  uint32_t GetCaptureCursorParams(VlinkCursorParams* out);
  uint32_t SetSendFrameCallback(SendFrameCallback callback);
  uint32_t DestroyVideoCapture();
  uint32_t ResetScaleSize(uint32_t width, uint32_t height);

  // Monitor choice, following and snapshots.
  uint32_t FindTargetScreen();
  uint32_t CheckMonitorInfo();
  uint32_t ResetCapture();
  uint32_t CapturePictureInit();
  uint32_t CapturePictureImp(const TagTavoVideoSnapshotStorage& storage);
  uint32_t WritePicureToQueue(const uint8_t* pixels, uint32_t size,
                              const TagTavoVideoSnapshotStorage& storage);

  // One frame of the capture loop: 0 when a frame went to the callback.
  uint32_t ScreenCaptureProcess();
  void CheckUnusedBuffer();
  void CheckImageFormat();
  void X11ImageDrawCursor();

  // State for the owner's diagnostics and the tests.
  bool IsInited();
  bool IsStarted() const { return m_isStarted.load(std::memory_order_acquire); }
  VideoCaptureCapability GetCapability();
  uint32_t GetScreenNum();
  uint32_t GetMonitorIdx();
  int32_t GetGrabX() const { return m_grabX.load(std::memory_order_acquire); }
  int32_t GetGrabY() const { return m_grabY.load(std::memory_order_acquire); }
  uint32_t GetBytesPerPixel();
  void GetColorOffsets(uint32_t* red, uint32_t* green, uint32_t* blue);
  size_t GetUnusedBufferCount();
  uint32_t GetMonitorChangeCount();
  bool GetDrawCursor();
  CursorCapturer* GetCursorCapturer() { return m_cursor.get(); }
  // The byte layout of a pixel of `bits` with these colour masks: bytes per pixel and the
  // red, green and blue byte offsets, from the known-layout table (the last matching row
  // wins). False, `layout` untouched, for a layout the table does not know.
  static bool FindPixelLayout(uint32_t bits, unsigned long redMask, unsigned long greenMask,
                              unsigned long blueMask, std::array<uint32_t, 4>* layout);
  // The period of the capture loop for the given capture fps on this processor.
  static uint64_t CapturePeriodNs(uint32_t captureFps, bool targetCpu);

 private:
  uint32_t InitWindowImage();
  uint32_t InitShmImages();
  uint32_t CreateScaleBuffers();
  void DeleteBuffers();
  void CaptureThreadFunc();
  Display* OpenDisplay();         // with the error handlers installed; null logged
  void CloseDisplay();            // m_lock held
  void TellCursorScreen();        // m_lock held
  bool ShouldLog(uint32_t site);  // paces repeating per-frame lines

  std::atomic<bool> m_isInited{false};
  std::atomic<bool> m_isStarted{false};
  bool m_checkFormat = true;
  const uint32_t m_capturerId;
  uint32_t m_screenPort = 0;
  uint32_t m_monitorIdx = 0;
  uint32_t m_screenNum = 0;
  std::atomic<int32_t> m_grabX{0};
  std::atomic<int32_t> m_grabY{0};
  uint32_t m_frameSize = 0;
  Display* m_display = nullptr;
  Window m_desktopWindow = 0;
  std::unique_ptr<XShmSegmentInfo> m_shmSegmentInfo;
  XImage* m_image = nullptr;
  VideoCaptureCapability m_capability{0, 0, 0, kFormatUnknown};
  NamedThread m_captureThread{"ScreenCapSendBufferToEnc"};
  // Guards every field of this class but the atomics, m_capturerId and the thread; the
  // host's frame callback runs under it (on the capture thread).
  std::recursive_mutex m_lock;
  const bool m_isSorenKOS;
  const bool m_isSorenUOS;
  uint32_t m_bytesPerPixel = 0;
  uint32_t m_redOffset = 0;
  uint32_t m_greenOffset = 0;
  uint32_t m_blueOffset = 0;
  ViDevInfo m_devInfo{};
  VlinkCursorParams m_mouseParam{};
  SendFrameCallback m_sendFrameCallback;
  std::unique_ptr<CursorCapturer> m_cursor;
  std::array<OsvGraphicBuffer*, kScaleBufferCount> m_scaleBuffers{};
  OsvGraphicBuffer* m_i420Buffer = nullptr;
  bool m_drawCursor = true;
  uint32_t m_monitorChangeCount = 0;
  uint32_t m_scaleWidth = 0;
  uint32_t m_scaleHeight = 0;
  std::list<OsvGraphicBuffer*> m_unusedBuffers;
  uint32_t m_unusedDelay = 0;
  // Knows which output buffers are downstream; frees retired ones when they come back.
  std::shared_ptr<PoolBufferTracker> m_tracker;
  std::array<uint32_t, 8> m_logCounts{};
};
