// Grabs one monitor of the X11 desktop at a steady rate, draws the cursor into it when
// asked, converts it to I420 at the encoder's size into one of five pooled buffers and hands
// it to its owner; follows the monitor, changes port, takes single snapshots. It decides and
// paces; the roles live beside it: the display and monitor choice
// (tavo_video_vlink_x11_display), the shared-memory grab (tavo_video_vlink_x11_grabber), the
// cursor drawing (tavo_video_vlink_x11_cursor_drawer), the buffer pool
// (tavo_video_vlink_screen_buffer_pool) and the snapshot (tavo_video_vlink_screen_snapshot).
//
// Locks, in order: m_controlLock (start, stop and settings; never held across an X call or
// a join), the session lock (the display, image, pool and geometry; held for one frame's X
// calls and conversion, never while a frame goes to the owner), the cursor capturer's lock,
// the output buffers' release lock.
#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/Xfixes.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "core/tavo_video_named_thread.h"
#include "screen/tavo_video_vlink_cursor_capturer.h"
#include "screen/tavo_video_vlink_screen_capturer.h"
#include "screen/tavo_video_vlink_x11_damage.h"
#include "screen/tavo_video_vlink_x11_display.h"

class X11ScreenCapturer : public ScreenCapturer {
 public:
  static constexpr uint32_t kScaleBufferCount = 5;
  static constexpr uint32_t kFormatArgb = 12;
  static constexpr uint32_t kFormatUnknown = 16;
  static constexpr uint64_t kOrdinaryPeriodNs = 50000000ULL;
  static constexpr uint32_t kRefusalLogEvery = 100;
  // How long a stop waits for the capture thread before it cuts the connection of a server
  // that stopped answering.
  static constexpr uint32_t kStopWaitMs = 3000;

  explicit X11ScreenCapturer(uint32_t id);
  ~X11ScreenCapturer() override;
  X11ScreenCapturer(const X11ScreenCapturer&) = delete;
  X11ScreenCapturer& operator=(const X11ScreenCapturer&) = delete;

  uint32_t Init() override;
  uint32_t StartCapture() override;
  uint32_t StopCapture() override;

  uint32_t SetCaptureParams(const ViDevInfo& info) override;
  uint32_t GetCaptureParams(ViDevInfo* out);
  uint32_t SetEncodeResolution(uint32_t width, uint32_t height) override;
  uint32_t SetCaptureScreenPort(uint32_t port) override;
  uint32_t SetCaptureCursorParams(const VlinkCursorParams& params) override;
  uint32_t GetCaptureCursorParams(VlinkCursorParams* out) override;
  uint32_t SetSendFrameCallback(SendFrameCallback callback) override;
  uint32_t DestroyVideoCapture();
  uint32_t ResetScaleSize(uint32_t width, uint32_t height);

  // Monitor choice, following and snapshots.
  uint32_t FindTargetScreen();
  uint32_t CheckMonitorInfo();
  uint32_t ResetCapture();
  uint32_t CapturePictureInit();
  uint32_t CapturePictureImp(const TagTavoVideoSnapshotStorage& storage) override;
  static uint32_t WritePicureToQueue(const uint8_t* pixels, uint32_t size,
                                     const TagTavoVideoSnapshotStorage& storage);

  // One frame of the capture loop: 0 when a frame went to the callback.
  uint32_t ScreenCaptureProcess();
  void CheckUnusedBuffer();
  void CheckImageFormat();
  void X11ImageDrawCursor();

  // Damage-driven capture (on by default, where the server has DAMAGE); off, every frame is
  // grabbed whole. Taken at the next initialisation. For comparisons in tests and benches.
  void UseDamage(bool use);

  // State for the owner's diagnostics and the tests.
  bool IsInited();
  bool IsStarted() const { return m_isStarted.load(std::memory_order_acquire); }
  VideoCaptureCapability GetCapability();
  uint32_t GetScreenNum();
  uint32_t GetMonitorIdx();
  int32_t GetGrabX() const;
  int32_t GetGrabY() const;
  uint32_t GetBytesPerPixel();
  void GetColorOffsets(uint32_t* red, uint32_t* green, uint32_t* blue);
  size_t GetUnusedBufferCount();
  uint32_t GetMonitorChangeCount();
  bool GetDrawCursor();
  CursorCapturer* GetCursorCapturer() { return m_cursor.get(); }
  // The byte layout of a pixel of `bits` with these colour masks: bytes per pixel and the
  // red, green and blue byte offsets (the last matching row of the table wins). False,
  // `layout` untouched, for a layout the table does not know.
  static bool FindPixelLayout(uint32_t bits, unsigned long redMask, unsigned long greenMask,
                              unsigned long blueMask, std::array<uint32_t, 4>* layout);
  // The period of the capture loop for the given capture fps on this processor.
  static uint64_t CapturePeriodNs(uint32_t captureFps, bool targetCpu);

 private:
  struct Session;

  uint32_t InitLocked();  // session lock held
  // The connection in use, reachable without the session lock (which a thread stuck in the
  // server holds) so that a stop can cut it.
  void KeepConnection(const std::shared_ptr<X11Connection>& connection);
  void CutConnection();
  bool ConnectionAnswers();
  static void CheckImageFormatOf(Session& session);  // session lock held
  static void DrawCursorOf(Session& session, const XFixesCursorImage* cursor);
  static const XFixesCursorImage* CursorOf(Session& session, Display* display);
  static std::vector<RowBand> ChangedRows(Session& session, const XFixesCursorImage* cursor,
                                          bool drawn, bool* full);
  static int32_t Convert(Session& session, const std::vector<RowBand>& bands,
                         OsvGraphicBuffer* output);
  static int32_t CarryOver(Session& session, OsvGraphicBuffer* output);
  static void CaptureLoop(const std::shared_ptr<Session>& session, NamedThread& thread);
  static uint32_t FrameStep(Session& session);
  static uint32_t CheckMonitor(Session& session);
  static void TellCursorScreen(Session& session);  // session lock held
  static void DestroyLocked(Session& session);     // session lock held

  const uint32_t m_capturerId;
  std::atomic<bool> m_isInited{false};
  std::atomic<bool> m_isStarted{false};
  // Start, stop and restart come one at a time; guards m_captureThread and the swap of
  // m_session after a stuck stop. No X call, join or host callback runs under it.
  std::mutex m_controlLock;
  std::unique_ptr<NamedThread> m_captureThread;
  // What the capture thread works on, shared with it so that a thread stuck in the X server
  // can be left behind with it.
  std::shared_ptr<Session> m_session;
  std::shared_ptr<CursorCapturer> m_cursor;
  std::mutex m_connectionLock;  // guards m_connection; a leaf, no X call waits under it
  std::weak_ptr<X11Connection> m_connection;  // owned by the session
};
