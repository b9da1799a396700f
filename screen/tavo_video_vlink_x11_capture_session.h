// What the X11 screen capturer's capture thread works on: the display, the shared-memory
// image, the buffer pool, the geometry and the settings of one capture, and the owner's
// outlets (frame callback, cursor capturer), which close for good when the capturer goes.
#pragma once

#include <X11/extensions/Xfixes.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/adapt_common/os_platform_check.h"
#include "screen/tavo_video_vlink_screen_buffer_pool.h"
#include "screen/tavo_video_vlink_screen_capturer_X11.h"
#include "screen/tavo_video_vlink_x11_cursor_watch.h"
#include "screen/tavo_video_vlink_x11_damage.h"
#include "screen/tavo_video_vlink_x11_display.h"
#include "screen/tavo_video_vlink_x11_grabber.h"
#include "trace/tavo_video_log_pacer.h"

// Sites of per-frame lines that are paced.
enum X11LogSite : uint32_t {
  kSiteNoDisplay,
  kSiteNoWindow,
  kSiteGrab,
  kSiteNoBuffer,
  kSiteConvert,
  kSiteSend,
  kSiteProcess,
  kSiteCursor,
  kSiteCount,
};

struct XFreeDeleter {
  void operator()(void* memory) const {
    if (memory != nullptr) {
      XFree(memory);
    }
  }
};

struct X11ScreenCapturer::Session {
  Session(uint32_t id, std::shared_ptr<CursorCapturer> cursorCapturer)
      : capturerId(id),
        isSorenKOS(IsSorenKOS() == 1),
        isSorenUOS(IsSorenUOS() == 1),
        cursor(std::move(cursorCapturer)) {}
  ~Session() {
    std::lock_guard<std::recursive_mutex> guard(lock);
    image.Destroy();
    if (target.connection && !target.connection->Lost()) {
      damage.Stop(target.connection->Get());
    }
    target = X11Target{};
    pool.Delete();
  }
  bool ShouldLog(X11LogSite site) { return logPacers[site].Due(); }
  // The owner's outlets (frame callback, cursor capturer) are used between Enter and Leave;
  // once abandoned, never again.
  bool EnterOutlets() {
    std::lock_guard<std::mutex> guard(outletLock);
    if (abandoned) {
      return false;
    }
    ++outletUsers;
    return true;
  }
  void LeaveOutlets() {
    std::lock_guard<std::mutex> guard(outletLock);
    if (--outletUsers == 0) {
      outletsIdle.notify_all();
    }
  }
  void Abandon() {
    std::unique_lock<std::mutex> guard(outletLock);
    abandoned = true;
    outletsIdle.wait(guard, [&] { return outletUsers == 0; });
  }
  // The capture loop's end, awaited by a stop for a bounded time.
  void MarkEnded() {
    std::lock_guard<std::mutex> guard(endLock);
    ended = true;
    endSignal.notify_all();
  }
  bool WaitEnded(uint32_t milliseconds) {
    std::unique_lock<std::mutex> guard(endLock);
    return endSignal.wait_for(guard, std::chrono::milliseconds(milliseconds),
                              [&] { return ended; });
  }

  const uint32_t capturerId;
  const bool isSorenKOS;
  const bool isSorenUOS;
  // The capturer lock: guards everything below up to the outlets. Held for one frame's X
  // calls and conversion, never while the frame goes to the owner.
  std::recursive_mutex lock;
  uint32_t screenPort = 0;
  X11Target target;
  std::atomic<int32_t> grabX{0};
  std::atomic<int32_t> grabY{0};
  VideoCaptureCapability capability{0, 0, 0, kFormatUnknown};
  X11ShmImage image;
  ScreenBufferPool pool;
  X11PixelLayout layout;
  bool checkFormat = true;
  ViDevInfo devInfo{};
  VlinkCursorParams mouseParam{};
  bool drawCursor = true;
  uint32_t scaleWidth = 0;
  uint32_t scaleHeight = 0;
  uint32_t monitorChangeCount = 0;
  X11MonitorWatch monitorWatch;
  X11EventReader events;         // of target.connection, once a frame
  X11MonitorState monitorState;  // as last read
  // Damage-driven capture: what the next frame may build on.
  X11DamageTracker damage;
  bool useDamage = true;
  bool fullNext = true;                  // grab and convert the whole monitor
  OsvGraphicBuffer* previous = nullptr;  // the last output (a current pool buffer)
  bool cursorDrawn = false;              // the cursor was drawn into the image
  bool cursorRowsValid = false;          // and covers cursorRows
  RowBand cursorRows{0, 0};
  int16_t cursorX = 0;
  int16_t cursorY = 0;
  unsigned long cursorSerial = 0;
  // The cursor image drawn in, asked for again only after the server told of a motion or a
  // new cursor.
  X11CursorWatch cursorWatch;
  std::unique_ptr<XFixesCursorImage, XFreeDeleter> cursorImage;
  std::array<vlink::LogPacer, kSiteCount> logPacers;

  std::mutex outletLock;  // guards the four below; no callback runs under it
  std::condition_variable outletsIdle;
  bool abandoned = false;
  uint32_t outletUsers = 0;
  SendFrameCallback callback;
  std::shared_ptr<CursorCapturer> cursor;

  std::mutex endLock;  // guards ended
  std::condition_variable endSignal;
  bool ended = false;
};
