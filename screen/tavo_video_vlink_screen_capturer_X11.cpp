#include "screen/tavo_video_vlink_screen_capturer_X11.h"

#include <X11/Xutil.h>
#include <X11/extensions/Xfixes.h>
#include <X11/extensions/Xrandr.h>
#include <sys/ipc.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <vector>

#include "core/tavo_video_frame_ref.h"
#include "core/tavo_video_os_seams.h"
#include "core/tavo_video_pool_buffer_tracker.h"
#include "platform/os_platform_check.h"
#include "platform/safe_string.h"
#include "platform/tavo_video_frame_convert.h"
#include "screen/tavo_video_vlink_capture_pacer.h"
#include "screen/tavo_video_vlink_x11_log.h"
#include "screen/tavo_video_vlink_x11_seams.h"

namespace {

struct PixelLayout {
  uint32_t bits;
  unsigned long redMask;
  unsigned long greenMask;
  unsigned long blueMask;
  uint32_t bytes;
  uint32_t red;
  uint32_t green;
  uint32_t blue;
};

constexpr PixelLayout kPixelLayouts[] = {
    {24, 0xff0000, 0xff00, 0xff, 3, 2, 1, 0},       {24, 0xff, 0xff00, 0xff0000, 3, 0, 1, 2},
    {32, 0xff0000, 0xff00, 0xff, 4, 2, 1, 0},       {32, 0xff, 0xff00, 0xff0000, 4, 0, 1, 2},
    {32, 0xff000000, 0xff0000, 0xff00, 4, 3, 2, 1}, {32, 0xff00, 0xff0000, 0xff000000, 4, 1, 2, 3},
};

constexpr int kShmFlags = IPC_CREAT | 0644;  // 932
constexpr uint32_t kSnapshotSettleMs = 50;
constexpr uint32_t kMaxSnapshotSide = 16384;

// Sites of per-frame lines that are paced.
enum LogSite : uint32_t {
  kSiteNoDisplay,
  kSiteNoWindow,
  kSiteGrab,
  kSiteNoBuffer,
  kSiteConvert,
  kSiteSend,
  kSiteProcess,
  kSiteCursor,
};

bool IsSorenCpu() { return IsTargetCpu("Soren 7A") == 1 || IsTargetCpu("Soren 8C") == 1; }

std::atomic<uint32_t> g_xErrors{0};

// Xlib's default handlers end the process; a terminal's media process must survive an X
// error or a display that goes away. Errors are logged (paced) and the failing call
// reports failure.
int LogXError(Display* /*display*/, XErrorEvent* event) {
  const uint32_t seen = g_xErrors.fetch_add(1, std::memory_order_relaxed);
  if (seen % X11ScreenCapturer::kRefusalLogEvery == 0) {
    X11_ERR("X error[%u] request[%u.%u] count[%u]", static_cast<uint32_t>(event->error_code),
            static_cast<uint32_t>(event->request_code), static_cast<uint32_t>(event->minor_code),
            seen + 1);
  }
  return 0;
}

int LogXIoError(Display* /*display*/) {
  X11_ERR("X display connection lost");
  return 0;
}

// Instead of ending the process: the connection is marked lost, and the display lock that
// Xlib takes for an exiting process is given back, so other threads' calls on it fail
// instead of blocking for good and the connection can be closed.
void KeepProcessOnIoError(Display* display, void* /*data*/) {
  MarkX11DisplayLost(display);
  XUnlockDisplay(display);
}

void InstallErrorHandlers(Display* display) {
  static std::once_flag once;
  std::call_once(once, [] {
    XSetErrorHandler(LogXError);
    XSetIOErrorHandler(LogXIoError);
  });
  if (display != nullptr) {
    XSetIOErrorExitHandler(display, KeepProcessOnIoError, nullptr);
  }
}

void Put32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    at[i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

}  // namespace

X11ScreenCapturer::X11ScreenCapturer(uint32_t id)
    : m_capturerId(id),
      m_isSorenKOS(IsSorenKOS() == 1),
      m_isSorenUOS(IsSorenUOS() == 1),
      m_cursor(std::make_unique<CursorCapturer>()),
      m_tracker(std::make_shared<PoolBufferTracker>()) {}

X11ScreenCapturer::~X11ScreenCapturer() {
  if (IsStarted()) {
    StopCapture();
  }
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  if (m_display != nullptr || m_image != nullptr) {
    DestroyVideoCapture();
  }
  DeleteBuffers();
  X11_INF("~X11ScreenCapturer");
}

bool X11ScreenCapturer::ShouldLog(uint32_t site) {
  return m_logCounts[site]++ % kRefusalLogEvery == 0;
}

uint64_t X11ScreenCapturer::CapturePeriodNs(uint32_t captureFps, bool targetCpu) {
  if (targetCpu && captureFps != 0) {
    return CapturePacer::kSecondNs / captureFps;
  }
  return kOrdinaryPeriodNs;
}

uint32_t X11ScreenCapturer::SetCaptureParams(const ViDevInfo& info) {
  if (info.width == 0 || info.height == 0 || info.captureFps == 0) {
    X11_ERR("Invalid param for screen capture!");
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  m_devInfo = info;
  return 0;
}

uint32_t X11ScreenCapturer::GetCaptureParams(ViDevInfo* out) {
  if (out == nullptr) {
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  *out = m_devInfo;
  return 0;
}

uint32_t X11ScreenCapturer::SetEncodeResolution(uint32_t width, uint32_t height) {
  {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (m_scaleWidth == 0 || m_scaleHeight == 0) {
      // Buffers made at the capture size for want of a size are replaced at once.
      if (m_scaleBuffers[0] != nullptr && width != 0 && height != 0) {
        ResetScaleSize(width, height);
      } else {
        m_scaleWidth = width;
        m_scaleHeight = height;
      }
    } else if (width != m_scaleWidth || height != m_scaleHeight) {
      ResetScaleSize(width, height);
    }
  }
  if (!m_cursor) {
    X11_ERR("m_cursor is nullptr");
    return 0;
  }
  return m_cursor->SetEncodeResolution(width, height);
}

uint32_t X11ScreenCapturer::SetCaptureCursorParams(const VlinkCursorParams& params) {
  VlinkCursorParams changed = params;
  if (IsSorenCpu() && IsTargetOs("Kylin") == 1) {
    changed.independent = 0;
    X11_INF("kos force not independent");
  }
  if (!m_cursor) {
    X11_ERR("cursor is nullptr");
    return 1;
  }
  {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    m_mouseParam = changed;
  }
  if (m_cursor->SetCaptureParams(changed) != 0) {
    X11_ERR("Capturer[%u] SetCaptureCursorParams failed!", m_capturerId);
    return 1;
  }
  return 0;
}

uint32_t X11ScreenCapturer::GetCaptureCursorParams(VlinkCursorParams* out) {
  if (out == nullptr) {
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  *out = m_mouseParam;
  return 0;
}

uint32_t X11ScreenCapturer::SetSendFrameCallback(SendFrameCallback callback) {
  if (!callback) {
    X11_ERR("SetSendFrameCallback failed, cb is nullptr!");
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  m_sendFrameCallback = std::move(callback);
  return 0;
}

uint32_t X11ScreenCapturer::Init() {
  if (Seam<X11DisplaySystem>::Get().InitThreads() == 0) {
    X11_ERR("XInitThreads failed");
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  if (m_isInited) {
    return 0;
  }
  if (m_display != nullptr || m_image != nullptr) {
    DestroyVideoCapture();  // left by a snapshot
  }
  uint32_t result = InitWindowImage();
  if (result != 0) {
    X11_ERR("InitWindowImage failed!");
    return result;
  }
  result = InitShmImages();
  if (result != 0) {
    X11_ERR("InitShmImages failed!");
    return result;
  }
  m_checkFormat = true;
  m_isInited = true;
  if (m_isSorenUOS) {
    m_drawCursor = false;
    X11_INF("soren7a or soren8c Uos not support draw cursor!");
  }
  X11_INF("X11 Capturer[%u] init sucessful!", m_capturerId);
  return 0;
}

uint32_t X11ScreenCapturer::InitWindowImage() {
  m_display = OpenDisplay();
  if (m_display == nullptr) {
    return 1;
  }
  if (FindTargetScreen() != 0) {
    return 1;
  }
  XImage* image = XGetImage(m_display, m_desktopWindow, GetGrabX(), GetGrabY(), m_capability.width,
                            m_capability.height, AllPlanes, ZPixmap);
  if (image == nullptr) {
    X11_ERR("XGetImage failed!");
    CloseDisplay();
    return 1;
  }
  m_capability.depth = static_cast<uint32_t>(image->depth);
  m_capability.format = kFormatArgb;
  const uint64_t frameSize = uint64_t{m_capability.width} * m_capability.height *
                             static_cast<uint32_t>(image->bits_per_pixel) / 8;
  XDestroyImage(image);
  if (frameSize == 0 || frameSize > UINT32_MAX) {
    X11_ERR("XGetImage failed!");
    CloseDisplay();
    return 1;
  }
  m_frameSize = static_cast<uint32_t>(frameSize);
  if (CreateScaleBuffers() != 0) {
    CloseDisplay();
    return 1;
  }
  TellCursorScreen();
  X11_INF("X11 Capturer[%u] InitWindowImage successful!", m_capturerId);
  return 0;
}

uint32_t X11ScreenCapturer::CreateScaleBuffers() {
  // No encoder size given yet: frames go out at the capture size.
  const uint32_t width =
      m_scaleWidth != 0 && m_scaleHeight != 0 ? m_scaleWidth : m_capability.width;
  const uint32_t height =
      m_scaleWidth != 0 && m_scaleHeight != 0 ? m_scaleHeight : m_capability.height;
  DeleteBuffers();
  for (OsvGraphicBuffer*& slot : m_scaleBuffers) {
    slot = new (std::nothrow) OsvGraphicBuffer(width, height, TAVO_VIDEO_VLINK_FORMAT_I420);
    if (slot == nullptr || slot->GetBufHandle() == nullptr) {
      X11_ERR("create OsvGraphicBuffer fail!");
      DeleteBuffers();
      return 1;
    }
    slot->SetReleaseTarget(m_tracker);
  }
  m_i420Buffer = new (std::nothrow)
      OsvGraphicBuffer(m_capability.width, m_capability.height, TAVO_VIDEO_VLINK_FORMAT_I420);
  if (m_i420Buffer == nullptr || m_i420Buffer->GetBufHandle() == nullptr) {
    X11_ERR("create OsvGraphicBuffer fail!");
    DeleteBuffers();
    return 1;
  }
  return 0;
}

void X11ScreenCapturer::DeleteBuffers() {
  for (OsvGraphicBuffer*& slot : m_scaleBuffers) {
    if (slot != nullptr) {
      m_tracker->Retire(slot);
      slot = nullptr;
    }
  }
  for (OsvGraphicBuffer* buffer : m_unusedBuffers) {
    m_tracker->Retire(buffer);
  }
  m_unusedBuffers.clear();
  delete m_i420Buffer;  // never leaves the capturer
  m_i420Buffer = nullptr;
}

uint32_t X11ScreenCapturer::InitShmImages() {
  SharedMemorySystem& memory = Seam<SharedMemorySystem>::Get();
  m_shmSegmentInfo.reset(new (std::nothrow) XShmSegmentInfo{});
  if (!m_shmSegmentInfo) {
    X11_ERR("New m_shmSegmentInfo failed");
    return 1;
  }
  m_shmSegmentInfo->shmid = -1;
  m_shmSegmentInfo->shmaddr = reinterpret_cast<char*>(-1);
  m_image = XShmCreateImage(m_display, DefaultVisual(m_display, static_cast<int>(m_screenNum)),
                            m_capability.depth, ZPixmap, nullptr, m_shmSegmentInfo.get(),
                            m_capability.width, m_capability.height);
  if (m_image == nullptr) {
    X11_ERR("XShmCreateImage fail");
    DestroyVideoCapture();
    return 1;
  }
  const size_t bytes = static_cast<size_t>(m_image->bytes_per_line) * m_image->height;
  const int id = memory.Get(bytes, kShmFlags);
  if (id == -1) {
    const int error = errno;
    X11_ERR("shmget failed, errono = %d, %s", error, std::strerror(error));
    DestroyVideoCapture();
    return 1;
  }
  m_shmSegmentInfo->shmid = id;
  void* address = memory.Attach(id);
  if (address == reinterpret_cast<void*>(-1)) {
    const int error = errno;
    X11_ERR("shmat failed, errono = %d, %s", error, std::strerror(error));
    DestroyVideoCapture();
    return 1;
  }
  m_shmSegmentInfo->shmaddr = static_cast<char*>(address);
  m_shmSegmentInfo->readOnly = False;
  m_image->data = static_cast<char*>(address);
  std::memset(address, 0, std::min<size_t>(m_frameSize, bytes));
  const uint32_t errorsBefore = g_xErrors.load(std::memory_order_relaxed);
  if (XShmAttach(m_display, m_shmSegmentInfo.get()) == 0 ||
      (XSync(m_display, False), g_xErrors.load(std::memory_order_relaxed) != errorsBefore)) {
    DestroyVideoCapture();
    X11_ERR("XShmAttach failed");
    return 1;
  }
  X11_INF("X11 Capturer[%u] InitShmImages successful", m_capturerId);
  return 0;
}

void X11ScreenCapturer::CloseDisplay() {
  if (m_display != nullptr) {
    // A lost connection is closed too: Xlib sends nothing on it and frees its socket and
    // memory.
    const bool lost = IsX11DisplayLost(m_display);
    Seam<X11DisplaySystem>::Get().Close(m_display);
    if (lost) {
      ForgetX11DisplayLost(m_display);
    }
    m_display = nullptr;
  }
}

Display* X11ScreenCapturer::OpenDisplay() {
  X11DisplaySystem& system = Seam<X11DisplaySystem>::Get();
  for (uint32_t attempt = 0; attempt < kOpenAttempts; ++attempt) {
    if (attempt > 0) {
      Seam<Clock>::Get().SleepMs(kOpenRetryMs);
    }
    bool tryAgain = false;
    Display* display = system.Open(&tryAgain);
    if (display != nullptr) {
      InstallErrorHandlers(display);
      return display;
    }
    if (!tryAgain) {
      break;
    }
  }
  X11_ERR("XOpenDisplay failed!");
  return nullptr;
}

void X11ScreenCapturer::TellCursorScreen() {
  if (m_cursor) {
    m_cursor->SetX11ScreenInfo({m_display, m_desktopWindow, m_capability.width, m_capability.height,
                                GetGrabX(), GetGrabY()});
  }
}

uint32_t X11ScreenCapturer::DestroyVideoCapture() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  SharedMemorySystem& memory = Seam<SharedMemorySystem>::Get();
  const bool attached = m_shmSegmentInfo && m_shmSegmentInfo->shmid != -1 &&
                        m_shmSegmentInfo->shmaddr != reinterpret_cast<char*>(-1);
  if (attached && m_display != nullptr && !IsX11DisplayLost(m_display)) {
    XShmDetach(m_display, m_shmSegmentInfo.get());
  }
  if (m_image != nullptr) {
    m_image->data = nullptr;  // the segment is not the image's to free
    XDestroyImage(m_image);
    m_image = nullptr;
  }
  if (m_shmSegmentInfo) {
    if (m_shmSegmentInfo->shmaddr != reinterpret_cast<char*>(-1)) {
      memory.Detach(m_shmSegmentInfo->shmaddr);
    }
    if (m_shmSegmentInfo->shmid != -1) {
      memory.Remove(m_shmSegmentInfo->shmid);
    }
    m_shmSegmentInfo->shmid = -1;
    m_shmSegmentInfo->shmaddr = reinterpret_cast<char*>(-1);
  }
  if (m_cursor) {
    m_cursor->SetX11ScreenInfo({});
  }
  m_desktopWindow = 0;
  CloseDisplay();
  X11_INF("DestroyVideoCapture success");
  return 0;
}

uint32_t X11ScreenCapturer::StartCapture() {
  {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (IsStarted()) {
      X11_WRN("Capture has started");
      return 0;
    }
    if (!m_isInited) {
      Init();
    }
    m_isStarted = true;
  }
  if (m_captureThread.Start([this] { CaptureThreadFunc(); }) != 0) {
    // Not started after all: the next start tries again, a stop has nothing to do.
    X11_ERR("Capturer[%u] capture thread not started", m_capturerId);
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    m_isStarted = false;
    return 1;
  }
  m_cursor->StartCapture();
  X11_INF("X11 Capturer[%u] StartCapture successful!", m_capturerId);
  return 0;
}

uint32_t X11ScreenCapturer::StopCapture() {
  {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (!IsStarted()) {
      X11_WRN("Capture has stopped");
      return 0;
    }
    m_isInited = false;
    m_isStarted = false;
  }
  // Joined without m_lock: every frame takes it.
  m_captureThread.Stop();
  m_cursor->StopCapture();
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  DestroyVideoCapture();
  DeleteBuffers();
  X11_INF("X11 Capturer[%u] StopCapture successful!", m_capturerId);
  return 0;
}

void X11ScreenCapturer::CaptureThreadFunc() {
  uint32_t fps = 0;
  {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    fps = m_devInfo.captureFps;
  }
  CapturePacer pacer(CapturePeriodNs(fps, IsSorenCpu()), fps, CaptureNowNs());
  while (IsStarted() && !m_captureThread.StopRequested()) {
    if (!pacer.WaitForDeadline(m_captureThread) || !IsStarted()) {
      break;
    }
    if (ScreenCaptureProcess() != 0) {
      std::lock_guard<std::recursive_mutex> lock(m_lock);
      if (ShouldLog(kSiteProcess)) {
        X11_ERR("Capturer[%u] ScreenCaptureProcess failed!", m_capturerId);
      }
    }
    CheckUnusedBuffer();
    pacer.Advance();
  }
}

uint32_t X11ScreenCapturer::ScreenCaptureProcess() {
  if (CheckMonitorInfo() != 0) {
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  if (m_display == nullptr || m_image == nullptr) {
    if (ShouldLog(kSiteNoDisplay)) {
      X11_ERR("m_display is nullptr");
    }
    return 1;
  }
  if (m_desktopWindow == 0) {
    if (ShouldLog(kSiteNoWindow)) {
      X11_ERR("m_desktopWindow is zero");
    }
    return 1;
  }
  if (!XShmGetImage(m_display, m_desktopWindow, m_image, GetGrabX(), GetGrabY(), AllPlanes)) {
    if (ShouldLog(kSiteGrab)) {
      X11_ERR("XShmGetImage failed! grabX[%u] grabY[%u]", static_cast<uint32_t>(GetGrabX()),
              static_cast<uint32_t>(GetGrabY()));
    }
    return 1;
  }
  if (m_checkFormat) {
    CheckImageFormat();
    m_checkFormat = false;
  }
  if (m_mouseParam.isHide == 0 && m_drawCursor && m_mouseParam.independent == 0) {
    X11ImageDrawCursor();
  }
  OsvGraphicBuffer image(m_image->data);
  OsvGraphicBufferInfo info{};
  info.width = m_capability.width;
  info.height = m_capability.height;
  info.stride[0] = 4 * m_capability.width;
  info.size = m_frameSize;
  info.format = TAVO_VIDEO_VLINK_FORMAT_ARGB;
  image.SetImageInfo(info);
  image.SetImageAddr(reinterpret_cast<uint8_t*>(m_image->data), nullptr, nullptr);

  OsvGraphicBuffer* output = nullptr;
  for (OsvGraphicBuffer* candidate : m_scaleBuffers) {
    if (candidate != nullptr && m_tracker->TryTake(candidate)) {
      output = candidate;
      break;
    }
  }
  if (output == nullptr) {
    if (ShouldLog(kSiteNoBuffer)) {
      X11_ERR("no available buffer!");
    }
    return 1;
  }
  // Held for the length of the hand-off: the buffer comes back to the tracker when the
  // last holder, possibly this one, lets go.
  FrameRef hold = FrameRef::Share(output);
  output->SetSrcImgNo(m_devInfo.imgNo);
  const OsvGraphicBufferInfo out = output->GetImageInfo();
  int32_t converted = 0;
  if (out.width != m_capability.width || out.height != m_capability.height) {
    converted = ConvertToI420(&image, m_i420Buffer);
    if (converted != 0) {
      if (ShouldLog(kSiteConvert)) {
        X11_ERR("Convert srcImg to I420 failed!");
      }
      return static_cast<uint32_t>(converted);
    }
    converted = I420Scale(m_i420Buffer, output);
    if (converted != 0) {
      if (ShouldLog(kSiteConvert)) {
        X11_ERR("I420Scale failed!");
      }
      return static_cast<uint32_t>(converted);
    }
  } else {
    converted = ConvertToI420(&image, output);
    if (converted != 0) {
      if (ShouldLog(kSiteConvert)) {
        X11_ERR("Convert srcImg to I420 failed!");
      }
      return static_cast<uint32_t>(converted);
    }
  }
  const int sent = m_sendFrameCallback ? m_sendFrameCallback(output) : 1;
  if (sent != 0) {
    if (ShouldLog(kSiteSend)) {
      X11_ERR("SendFrame to Encoder failed!");
    }
    return static_cast<uint32_t>(sent);
  }
  return 0;
}

void X11ScreenCapturer::CheckUnusedBuffer() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  if (m_unusedDelay > 0) {
    --m_unusedDelay;
    return;
  }
  for (auto it = m_unusedBuffers.begin(); it != m_unusedBuffers.end(); ++it) {
    if (m_tracker->IsFree(*it)) {
      m_tracker->Retire(*it);
      m_unusedBuffers.erase(it);
      return;
    }
  }
}

uint32_t X11ScreenCapturer::ResetScaleSize(uint32_t width, uint32_t height) {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  X11_INF("ResetScaleSize size: %u %u", width, height);
  if (m_scaleBuffers[0] == nullptr) {
    m_scaleWidth = width;  // made at this size by the next initialisation
    m_scaleHeight = height;
    return 0;
  }
  std::array<std::unique_ptr<OsvGraphicBuffer>, kScaleBufferCount> fresh;
  for (auto& buffer : fresh) {
    buffer.reset(new (std::nothrow) OsvGraphicBuffer(width, height, TAVO_VIDEO_VLINK_FORMAT_I420));
    if (!buffer || buffer->GetBufHandle() == nullptr) {
      X11_ERR("create OsvGraphicBuffer fail!");
      return 1;  // all slots keep their buffers
    }
    buffer->SetReleaseTarget(m_tracker);
  }
  for (uint32_t slot = 0; slot < kScaleBufferCount; ++slot) {
    if (m_scaleBuffers[slot] != nullptr) {
      m_unusedBuffers.push_back(m_scaleBuffers[slot]);
    }
    m_scaleBuffers[slot] = fresh[slot].release();
  }
  // Each change restarts the delay, so a host that resizes more often than the delay lasts
  // would keep every old set: beyond two sets the oldest go now (a busy one when its last
  // holder lets go).
  while (m_unusedBuffers.size() > kMaxUnusedBuffers) {
    m_tracker->Retire(m_unusedBuffers.front());
    m_unusedBuffers.pop_front();
  }
  m_scaleWidth = width;
  m_scaleHeight = height;
  m_unusedDelay = kUnusedDelayFrames;
  return 0;
}

bool X11ScreenCapturer::FindPixelLayout(uint32_t bits, unsigned long redMask,
                                        unsigned long greenMask, unsigned long blueMask,
                                        std::array<uint32_t, 4>* layout) {
  bool matched = false;
  for (const PixelLayout& row : kPixelLayouts) {
    if (bits == row.bits && redMask == row.redMask && greenMask == row.greenMask &&
        blueMask == row.blueMask) {
      *layout = {row.bytes, row.red, row.green, row.blue};
      matched = true;
    }
  }
  return matched;
}

void X11ScreenCapturer::CheckImageFormat() {
  std::array<uint32_t, 4> layout{};
  if (!FindPixelLayout(static_cast<uint32_t>(m_image->bits_per_pixel), m_image->red_mask,
                       m_image->green_mask, m_image->blue_mask, &layout)) {
    X11_ERR("The image format is incorrect!");
    return;
  }
  m_bytesPerPixel = layout[0];
  m_redOffset = layout[1];
  m_greenOffset = layout[2];
  m_blueOffset = layout[3];
}

void X11ScreenCapturer::X11ImageDrawCursor() {
  if (m_bytesPerPixel == 0) {
    return;  // layout unknown: nowhere safe to draw
  }
  XFixesCursorImage* cursor = XFixesGetCursorImage(m_display);
  if (cursor == nullptr) {
    if (ShouldLog(kSiteCursor)) {
      X11_ERR("XFixesGetCursorImage failed!");
    }
    return;
  }
  const size_t count = size_t{cursor->width} * cursor->height;
  bool visible = false;
  for (size_t i = 0; cursor->pixels != nullptr && i < count && !visible; ++i) {
    visible = (cursor->pixels[i] & 0xFFFFFFFFUL) != 0;
  }
  if (!visible) {
    X11_LOG(2, ::vlink::kToTrace, "cursor is hided!");
    XFree(cursor);
    return;
  }
  const int x0 = cursor->x - cursor->xhot - GetGrabX();
  const int y0 = cursor->y - cursor->yhot - GetGrabY();
  const int cursorWidth = cursor->width;
  const int cursorHeight = cursor->height;
  const int colBegin = std::max(0, -x0);
  const int colEnd = std::min(cursorWidth, m_image->width - x0);
  const int rowBegin = std::max(0, -y0);
  const int rowEnd = std::min(cursorHeight, m_image->height - y0);
  auto* pixels = reinterpret_cast<uint8_t*>(m_image->data);
  const size_t bytesPerLine = static_cast<size_t>(m_image->bytes_per_line);
  for (int row = rowBegin; row < rowEnd; ++row) {
    for (int col = colBegin; col < colEnd; ++col) {
      const auto argb =
          static_cast<uint32_t>(cursor->pixels[size_t(row) * size_t(cursorWidth) + size_t(col)]);
      const uint32_t alpha = argb >> 24;
      const uint8_t source[3] = {static_cast<uint8_t>(argb >> 16), static_cast<uint8_t>(argb >> 8),
                                 static_cast<uint8_t>(argb)};
      uint8_t* at = pixels + size_t(x0 + col) * m_bytesPerPixel + size_t(y0 + row) * bytesPerLine;
      const uint32_t offsets[3] = {m_redOffset, m_greenOffset, m_blueOffset};
      for (int c = 0; c < 3; ++c) {
        uint8_t& target = at[offsets[c]];
        target = alpha == 255
                     ? source[c]
                     : static_cast<uint8_t>(source[c] + ((255 - alpha) * target + 127) / 255);
      }
    }
  }
  XFree(cursor);
}

uint32_t X11ScreenCapturer::FindTargetScreen() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  if (m_display == nullptr) {
    return 1;
  }
  const int screens = ScreenCount(m_display);
  const int defaultScreen = DefaultScreen(m_display);
  std::vector<int> order{defaultScreen};
  for (int screen = 0; screen < screens; ++screen) {
    if (screen != defaultScreen) {
      order.push_back(screen);
    }
  }
  uint32_t before = 0;
  XRRMonitorInfo* monitors = nullptr;
  int count = 0;
  int chosenScreen = -1;
  uint32_t idx = 0;
  for (const int screen : order) {
    count = 0;
    monitors = XRRGetMonitors(m_display, RootWindow(m_display, screen), True, &count);
    const uint32_t n = monitors != nullptr && count > 0 ? static_cast<uint32_t>(count) : 0;
    if (m_screenPort < before + n) {
      chosenScreen = screen;
      idx = m_screenPort - before;
      break;
    }
    if (monitors != nullptr) {
      XRRFreeMonitors(monitors);
      monitors = nullptr;
    }
    before += n;
  }
  if (chosenScreen < 0) {
    X11_ERR("not find the screen[%u]!", m_screenPort);
    CloseDisplay();
    return 1;
  }
  if ((m_isSorenKOS || m_isSorenUOS) && (monitors[idx].x != 0 || monitors[idx].y != 0) &&
      idx + 1 < static_cast<uint32_t>(count)) {
    const XRRMonitorInfo& chosen = monitors[idx];
    const XRRMonitorInfo& next = monitors[idx + 1];
    if (chosen.x == next.x ? next.y < chosen.y : next.x < chosen.x) {
      ++idx;
    }
  }
  const XRRMonitorInfo& monitor = monitors[idx];
  if (monitor.x != GetGrabX() || monitor.y != GetGrabY()) {
    X11_INF("FindTargetScreen pos change index[%u] width[%u] height[%u] grabX[%d] grabY[%d]", idx,
            m_capability.width, m_capability.height, monitor.x, monitor.y);
  }
  m_grabX = monitor.x;
  m_grabY = monitor.y;
  m_capability.width = static_cast<uint32_t>(monitor.width);
  m_capability.height = static_cast<uint32_t>(monitor.height);
  m_desktopWindow = RootWindow(m_display, chosenScreen);
  m_screenNum = static_cast<uint32_t>(chosenScreen);
  m_monitorIdx = idx;
  XRRFreeMonitors(monitors);
  return 0;
}

uint32_t X11ScreenCapturer::CheckMonitorInfo() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  if (m_display == nullptr || IsX11DisplayLost(m_display)) {
    return 1;
  }
  int count = 0;
  XRRMonitorInfo* monitors = XRRGetMonitors(m_display, m_desktopWindow, True, &count);
  if (monitors == nullptr) {
    return 0;
  }
  if (count < 0 || m_monitorIdx >= static_cast<uint32_t>(count)) {
    XRRFreeMonitors(monitors);
    return 0;
  }
  const XRRMonitorInfo monitor = monitors[m_monitorIdx];
  XRRFreeMonitors(monitors);
  if (static_cast<uint32_t>(monitor.width) != m_capability.width ||
      static_cast<uint32_t>(monitor.height) != m_capability.height) {
    if (m_monitorChangeCount % kRefusalLogEvery == 0) {
      X11_ERR("wait recreate link! count[%u] oldWidth[%u] oldHeight[%u] newWidth[%d] newHeight[%d]",
              m_monitorChangeCount, m_capability.width, m_capability.height, monitor.width,
              monitor.height);
    }
    ++m_monitorChangeCount;
    return 1;
  }
  if (monitor.x != GetGrabX() || monitor.y != GetGrabY()) {
    m_grabX = monitor.x;
    m_grabY = monitor.y;
    TellCursorScreen();
    X11_INF("reset capturer MonitorInfo change! m_monitorIdx[%u] grabX[%u] grabY[%u]", m_monitorIdx,
            static_cast<uint32_t>(monitor.x), static_cast<uint32_t>(monitor.y));
  }
  return 0;
}

uint32_t X11ScreenCapturer::SetCaptureScreenPort(uint32_t port) {
  bool reset = false;
  {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (port == m_screenPort) {
      return 0;
    }
    X11_INF("change screen capture port [%u] -> [%u]", m_screenPort, port);
    m_screenPort = port;
    reset = IsStarted();
  }
  // Without m_lock: the reset joins the capture thread.
  if (reset && ResetCapture() != 0) {
    X11_ERR("ResetCapture failed!");
  }
  return 0;
}

uint32_t X11ScreenCapturer::ResetCapture() {
  uint32_t result = StopCapture();
  if (result != 0) {
    X11_ERR("StopCapture failed while resetting");
    return result;
  }
  result = Init();
  if (result != 0) {
    X11_ERR("InitCapture failed while resetting");
    return result;
  }
  {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    m_checkFormat = true;
  }
  result = StartCapture();
  if (result != 0) {
    X11_ERR("StartCapture failed while resetting");
    return result;
  }
  X11_INF("X11 Capturer[%u] reset sucessful!", m_capturerId);
  return 0;
}

uint32_t X11ScreenCapturer::CapturePictureInit() {
  if (Seam<X11DisplaySystem>::Get().InitThreads() == 0) {
    X11_ERR("XInitThreads failed");
    return 1;
  }
  if (m_display != nullptr || m_image != nullptr) {
    DestroyVideoCapture();
  }
  m_display = OpenDisplay();
  if (m_display == nullptr) {
    return 1;
  }
  if (FindTargetScreen() != 0) {
    return 1;
  }
  XImage* image = XGetImage(m_display, m_desktopWindow, GetGrabX(), GetGrabY(), m_capability.width,
                            m_capability.height, AllPlanes, ZPixmap);
  if (image == nullptr) {
    X11_ERR("XGetImage failed!");
    return 1;
  }
  m_capability.depth = static_cast<uint32_t>(image->depth);
  m_capability.format = kFormatArgb;
  const uint64_t frameSize = uint64_t{m_capability.width} * m_capability.height *
                             static_cast<uint32_t>(image->bits_per_pixel) / 8;
  XDestroyImage(image);
  if (frameSize == 0 || frameSize > UINT32_MAX) {
    X11_ERR("XGetImage failed!");
    return 1;
  }
  m_frameSize = static_cast<uint32_t>(frameSize);
  X11_INF("X11 Capturer[%u] InitWindowImage successful!", m_capturerId);
  const uint32_t result = InitShmImages();
  if (result != 0) {
    X11_ERR("InitShmImages failed!");
    return result;
  }
  Seam<Clock>::Get().SleepMs(kSnapshotSettleMs);
  if (!XShmGetImage(m_display, m_desktopWindow, m_image, GetGrabX(), GetGrabY(), AllPlanes)) {
    X11_ERR("XShmGetImage failed");
    return 1;
  }
  return 0;
}

uint32_t X11ScreenCapturer::CapturePictureImp(const TagTavoVideoSnapshotStorage& storage) {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  const bool prepared = !m_isInited;
  if (prepared) {
    const uint32_t result = CapturePictureInit();
    if (result != 0) {
      DestroyVideoCapture();
      return result;
    }
  }
  const auto finish = [&](uint32_t result) {
    if (prepared) {
      DestroyVideoCapture();
    }
    return result;
  };
  if (m_image == nullptr || m_image->data == nullptr || m_image->bits_per_pixel != 32) {
    X11_ERR("libyuv::ARGBScale failed");
    return finish(1);
  }
  TagTavoVideoSnapshotStorage picture = storage;
  if (picture.width == 0 || picture.height == 0) {
    picture.width = m_capability.width;
    picture.height = m_capability.height;
  }
  if (picture.width > kMaxSnapshotSide || picture.height > kMaxSnapshotSide) {
    X11_ERR("libyuv::ARGBScale failed");
    return finish(1);
  }
  const uint32_t size = picture.width * picture.height * 4;
  std::unique_ptr<uint8_t[]> pixels(new (std::nothrow) uint8_t[size]());
  if (!pixels) {
    X11_ERR("libyuv::ARGBScale failed");
    return finish(1);
  }
  const ArgbPlane source{reinterpret_cast<uint8_t*>(m_image->data), m_capability.width,
                         m_capability.height, static_cast<uint32_t>(m_image->bytes_per_line)};
  const ArgbPlane target{pixels.get(), picture.width, picture.height, picture.width * 4};
  int32_t scaled = 0;
  if (m_capability.width < m_capability.height && m_capability.width > picture.height) {
    // A portrait monitor in a landscape picture: its aspect kept, bars left and right.
    const auto region = static_cast<uint32_t>(static_cast<float>(picture.height) /
                                              static_cast<float>(picture.width) *
                                              static_cast<float>(picture.height));
    const uint32_t offset = (picture.width - region) / 2;
    scaled =
        region <= picture.width ? ARGBScale(source, target, region, picture.height, offset) : -1;
  } else {
    scaled = ARGBScale(source, target);
  }
  if (scaled != 0) {
    X11_ERR("libyuv::ARGBScale failed");
    return finish(1);
  }
  if (IsTargetCpu("Soren 7A") == 1 && IsTargetOs("Uos") == 1) {
    for (uint32_t at = 3; at < size; at += 4) {
      pixels[at] = 255;
    }
  }
  CompareArgbPixel(pixels.get(), size);
  if (WritePicureToQueue(pixels.get(), size, picture) != 0) {
    X11_ERR("WritePicureToQueue failed");
    return finish(1);
  }
  return finish(0);
}

uint32_t X11ScreenCapturer::WritePicureToQueue(const uint8_t* pixels, uint32_t size,
                                               const TagTavoVideoSnapshotStorage& storage) {
  if (pixels == nullptr) {
    X11_ERR("input null");
    return 1;
  }
  HostShmQueue& queue = Seam<HostShmQueue>::Get();
  if (size > UINT32_MAX - kSnapshotHeaderBytes) {
    X11_ERR("QueueBuffer is nullptr");
    return 1;
  }
  OsShmAdvancedBuffer* buffer = queue.Alloc(storage.queueId, size + kSnapshotHeaderBytes);
  if (buffer == nullptr || buffer->mem == nullptr) {
    X11_ERR("QueueBuffer is nullptr");
    queue.Free(buffer);
    return 1;
  }
  // The handle's first two fields (memory, used length) are all the platform gives: the
  // buffer holds what was asked for.
  auto* memory = static_cast<uint8_t*>(buffer->mem);
  const uint32_t bufferLength = size + kSnapshotHeaderBytes;
  if (memcpy_s(memory + kSnapshotHeaderBytes, bufferLength - kSnapshotHeaderBytes, pixels, size) !=
      0) {
    X11_ERR("memcpy failed, buffLen[%u], memLen[%u]", bufferLength, size);
    queue.Free(buffer);
    return 1;
  }
  Put32(memory + 0, size);
  Put32(memory + 4, storage.width);
  Put32(memory + 8, storage.height);
  Put32(memory + 20, 3);
  Put32(memory + 24, 1);
  memory[28] = 1;
  Put32(memory + 32, size);
  const auto address = reinterpret_cast<uint64_t>(pixels);
  Put32(memory + 40, static_cast<uint32_t>(address));
  Put32(memory + 44, static_cast<uint32_t>(address >> 32));
  buffer->usedLen = size + kSnapshotHeaderBytes;
  if (queue.Write(storage.queueId, &buffer, 1) != 0) {
    X11_ERR("OsShmAdvancedWriteBulkQueue fail");
    queue.Free(buffer);  // never reached the reader: ours to give back
    return 1;
  }
  return 0;
}

bool X11ScreenCapturer::IsInited() { return m_isInited.load(std::memory_order_acquire); }

VideoCaptureCapability X11ScreenCapturer::GetCapability() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  return m_capability;
}

uint32_t X11ScreenCapturer::GetScreenNum() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  return m_screenNum;
}

uint32_t X11ScreenCapturer::GetMonitorIdx() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  return m_monitorIdx;
}

uint32_t X11ScreenCapturer::GetBytesPerPixel() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  return m_bytesPerPixel;
}

void X11ScreenCapturer::GetColorOffsets(uint32_t* red, uint32_t* green, uint32_t* blue) {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  *red = m_redOffset;
  *green = m_greenOffset;
  *blue = m_blueOffset;
}

size_t X11ScreenCapturer::GetUnusedBufferCount() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  return m_unusedBuffers.size();
}

uint32_t X11ScreenCapturer::GetMonitorChangeCount() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  return m_monitorChangeCount;
}

bool X11ScreenCapturer::GetDrawCursor() {
  std::lock_guard<std::recursive_mutex> lock(m_lock);
  return m_drawCursor;
}
