#include "screen/tavo_video_vlink_cursor_capturer.h"

#include <X11/extensions/Xfixes.h>

#include "core/tavo_video_os_seams.h"
#include "platform/adapt_common/os_platform_check.h"
#include "screen/tavo_video_vlink_capture_pacer.h"
#include "screen/tavo_video_vlink_x11_seams.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

bool IsSorenCpu() { return IsTargetCpu("Soren 7A") == 1 || IsTargetCpu("Soren 8C") == 1; }

// True when the cursor image shows nothing: no image, no pixels, or every pixel 0.
bool IsTransparent(const XFixesCursorImage* image) {
  if (image == nullptr || image->pixels == nullptr || image->width == 0 || image->height == 0) {
    return true;
  }
  const size_t count = size_t{image->width} * image->height;
  for (size_t i = 0; i < count; ++i) {
    if ((image->pixels[i] & 0xFFFFFFFFUL) != 0) {
      return false;
    }
  }
  return true;
}

}  // namespace

CursorCapturer::CursorCapturer() = default;

CursorCapturer::~CursorCapturer() {
  if (IsRunning()) {
    StopCapture();
  }
}

uint32_t CursorCapturer::SetCaptureParams(const VlinkCursorParams& params) {
  if (params.cursorCallback == nullptr) {
    VLOG_ERR("cursor callback is nullptr");
    return 1;
  }
  if (params.framerate == 0 || params.framerate > kMaxFramerate) {
    VLOG_ERR("Invalid framerate [%u]", params.framerate);
    return 1;
  }
  std::lock_guard<std::mutex> control(m_controlLock);
  bool restart = false;
  {
    std::lock_guard<std::mutex> lock(m_cursorLock);
    restart = IsRunning() && m_cursorParam.independent != params.independent;
  }
  if (restart) {
    StopLocked();
  }
  {
    std::lock_guard<std::mutex> lock(m_cursorLock);
    m_cursorParam = params;
  }
  VLOG_INF_TRACE("Cursor SetCaptureParams success, independent[%u] fps[%u] shape [%u] isHide[%d]",
                 static_cast<uint32_t>(params.independent), params.framerate, params.shape,
                 static_cast<int>(params.isHide));
  return restart ? StartLocked() : 0;
}

VlinkCursorParams CursorCapturer::GetCaptureParams() {
  std::lock_guard<std::mutex> lock(m_cursorLock);
  return m_cursorParam;
}

uint32_t CursorCapturer::SetEncodeResolution(uint32_t width, uint32_t height) {
  if (width > kMaxEncodeWidth || height > kMaxEncodeHeight) {
    VLOG_ERR("invalid width[%u] height[%u]", width, height);
    return 0;
  }
  m_encodeWidth.store(width, std::memory_order_relaxed);
  m_encodeHeight.store(height, std::memory_order_relaxed);
  return 0;
}

uint32_t CursorCapturer::SetX11ScreenInfo(const VlinkX11ScreenInfo& info) {
  std::lock_guard<std::mutex> lock(m_cursorLock);
  m_screenInfo = info;
  return 0;
}

uint32_t CursorCapturer::StartCapture() {
  std::lock_guard<std::mutex> control(m_controlLock);
  return StartLocked();
}

uint32_t CursorCapturer::StartLocked() {
  if (IsRunning()) {
    VLOG_INF_TRACE("cursor has been started");
    return 0;
  }
  m_isRunning.store(true, std::memory_order_release);
  {
    std::lock_guard<std::mutex> lock(m_cursorLock);
    if (m_cursorParam.independent == 0) {
      return 0;
    }
    if (IsSorenCpu() && IsTargetOs("Uos") == 1) {
      VLOG_INF_TRACE("soren7a or soren8c Uos not support independent cursor!");
      return 0;
    }
    m_hideFrames = 2 * m_cursorParam.framerate;
  }
  if (m_cursorThread.Start([this] { CursorCaptureThreadFunc(); }) != 0) {
    m_isRunning.store(false, std::memory_order_release);
    return 1;
  }
  return 0;
}

uint32_t CursorCapturer::StopCapture() {
  std::lock_guard<std::mutex> control(m_controlLock);
  return StopLocked();
}

uint32_t CursorCapturer::StopLocked() {
  if (!IsRunning()) {
    VLOG_INF_TRACE("cursor has been stopped!");
    return 0;
  }
  m_isRunning.store(false, std::memory_order_release);
  m_cursorThread.Stop();
  return 0;
}

bool CursorCapturer::ShouldLog(FailureSite site) { return m_failurePacers[site].Due(); }

void CursorCapturer::CursorCaptureThreadFunc() {
  uint32_t fps = GetCaptureParams().framerate;
  VLOG_INF_TRACE("m_cursorParam.framerate: %u", fps);
  CapturePacer pacer(fps, CaptureNowNs());
  while (IsRunning() && !m_cursorThread.StopRequested()) {
    if (!pacer.WaitForDeadline(m_cursorThread)) {
      break;
    }
    FollowScreen();
    if (IndepedentCapture() != 0) {
      if (ShouldLog(kSample)) {
        VLOG_ERR("Cursor capture failed!");
      }
    }
    pacer.Advance();
    const uint32_t wanted = GetCaptureParams().framerate;
    if (wanted != fps && wanted != 0) {
      VLOG_INF_TRACE("FPS change[%u -> %u]", fps, wanted);
      fps = wanted;
      pacer.SetRate(fps);
    }
  }
  m_watch.Follow({}, 0);  // our connection closes with the loop
}

void CursorCapturer::FollowScreen() {
  std::string name;
  Window root = 0;
  {
    std::lock_guard<std::mutex> lock(m_cursorLock);
    if (m_screenInfo.display != nullptr && !IsX11DisplayLost(m_screenInfo.display)) {
      name = DisplayString(m_screenInfo.display);
      root = m_screenInfo.root;
    }
  }
  // Outside the lock: opening a connection may wait for the server.
  m_watch.Follow(name, root);
  m_watch.ReadNotifications();
}

void CursorCapturer::CalCursorPos(VlinkCursorSendData& record, int32_t rootX, int32_t rootY,
                                  const VlinkX11ScreenInfo& screen) const {
  const int32_t dx = rootX - screen.grabX;
  const int32_t dy = rootY - screen.grabY;
  const uint32_t encodeWidth = m_encodeWidth.load(std::memory_order_relaxed);
  const uint32_t encodeHeight = m_encodeHeight.load(std::memory_order_relaxed);
  if (screen.width == encodeWidth && screen.height == encodeHeight) {
    record.x = static_cast<int16_t>(dx);
    record.y = static_cast<int16_t>(dy);
    return;
  }
  if (screen.width == 0 || screen.height == 0) {
    record.x = 0;
    record.y = 0;
    return;
  }
  const int32_t width = static_cast<int16_t>(encodeWidth);
  const int32_t height = static_cast<int16_t>(encodeHeight);
  record.x = static_cast<int16_t>(width * dx / static_cast<int32_t>(screen.width));
  record.y = static_cast<int16_t>(height * dy / static_cast<int32_t>(screen.height));
}

uint32_t CursorCapturer::IndepedentCapture() {
  VlinkCursorSendData record{};
  record.value1 = 32;
  record.value2 = 32;
  record.value3 = 32;
  record.value4 = 128;
  VlinkCursorCallback callback = nullptr;
  uint32_t userData = 0;
  {
    std::lock_guard<std::mutex> lock(m_cursorLock);
    callback = m_cursorParam.cursorCallback;
    userData = m_cursorParam.userData;
    if (callback == nullptr) {
      if (ShouldLog(kNoCallback)) {
        VLOG_ERR("cursor independent transport callback is nullptr");
      }
      return 1;
    }
    const VlinkX11ScreenInfo screen = m_screenInfo;
    if (screen.display == nullptr || IsX11DisplayLost(screen.display)) {
      if (ShouldLog(kNoDisplay)) {
        VLOG_ERR("display is nullptr");
      }
      return 1;
    }
    if (m_watch.TakePointerDue(Seam<Clock>::Get().NowUs()) || !m_pointerKnown) {
      m_serverAsks.fetch_add(1, std::memory_order_relaxed);
      Window rootReturn = 0;
      Window child = 0;
      int rootX = 0;
      int rootY = 0;
      int winX = 0;
      int winY = 0;
      unsigned int mask = 0;
      m_pointerKnown = XQueryPointer(screen.display, screen.root, &rootReturn, &child, &rootX,
                                     &rootY, &winX, &winY, &mask) == True;
      if (!m_pointerKnown) {
        if (ShouldLog(kQueryPointer)) {
          VLOG_ERR("XQueryPointer failed");
        }
        return 1;
      }
      m_rootX = rootX;
      m_rootY = rootY;
    }
    if (m_watch.TakeImageDue() || !m_imageKnown) {
      m_serverAsks.fetch_add(1, std::memory_order_relaxed);
      XFixesCursorImage* image = XFixesGetCursorImage(screen.display);
      m_transparent = IsTransparent(image);
      m_imageKnown = image != nullptr;
      if (image != nullptr) {
        XFree(image);
      }
    }
    CalCursorPos(record, m_rootX, m_rootY, screen);
    uint32_t cursorId = (m_cursorParam.isHide != 0 || m_transparent) ? 0 : m_cursorParam.shape;
    if (m_hideFrames > 0) {
      cursorId = 0;
      --m_hideFrames;
    } else if (record.x < 0 || record.y < 0 || record.x > static_cast<int16_t>(screen.width) ||
               record.y > static_cast<int16_t>(screen.height)) {
      cursorId = 0;
    }
    record.cursorId = cursorId;
  }
  VLINK_LOG(0, 4, ::vlink::kToTrace, "sendMouseLocation CursorID = %d x = %d y = %d",
            static_cast<int>(record.cursorId), static_cast<int>(record.x),
            static_cast<int>(record.y));
  if (callback(&record, sizeof(record), userData) != 0) {
    if (ShouldLog(kHostRefused)) {
      VLOG_ERR("failed to send cursorData!");
    }
    return 1;
  }
  return 0;
}
