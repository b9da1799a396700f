#include "screen/tavo_video_vlink_screen_capturer_X11.h"

#include <utility>

#include "core/tavo_video_os_seams.h"
#include "platform/adapt_common/os_platform_check.h"
#include "screen/tavo_video_vlink_capture_pacer.h"
#include "screen/tavo_video_vlink_screen_buffer_pool.h"
#include "screen/tavo_video_vlink_screen_snapshot.h"
#include "screen/tavo_video_vlink_x11_capture_session.h"
#include "screen/tavo_video_vlink_x11_display.h"
#include "screen/tavo_video_vlink_x11_grabber.h"
#include "screen/tavo_video_vlink_x11_log.h"
#include "screen/tavo_video_vlink_x11_seams.h"

namespace {

bool IsSorenCpu() { return IsTargetCpu("Soren 7A") == 1 || IsTargetCpu("Soren 8C") == 1; }

class X11ScreenCapturerFactory final : public ScreenCapturerFactory {
 public:
  std::unique_ptr<ScreenCapturer> Create(uint32_t capturerId) override {
    return std::make_unique<X11ScreenCapturer>(capturerId);
  }
};

}  // namespace

ScreenCapturerFactory& ScreenCapturerFactory::Real() {
  static X11ScreenCapturerFactory factory;
  return factory;
}

X11ScreenCapturer::X11ScreenCapturer(uint32_t id)
    : m_capturerId(id),
      m_captureThread(std::make_unique<NamedThread>("ScreenCapSendBufferToEnc")),
      m_cursor(std::make_shared<CursorCapturer>()) {
  m_session = std::make_shared<Session>(id, m_cursor);
}

X11ScreenCapturer::~X11ScreenCapturer() {
  if (IsStarted()) {
    StopCapture();
  }
  {
    std::lock_guard<std::recursive_mutex> lock(m_session->lock);
    if (m_session->target.connection || m_session->image.Ready()) {
      DestroyLocked(*m_session);
    }
    m_session->pool.Delete();
  }
  m_session->Abandon();
  X11_INF("~X11ScreenCapturer");
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
  {
    std::lock_guard<std::recursive_mutex> lock(m_session->lock);
    m_session->devInfo = info;
  }
  return 0;
}

uint32_t X11ScreenCapturer::GetCaptureParams(ViDevInfo* out) {
  if (out == nullptr) {
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  *out = m_session->devInfo;
  return 0;
}

uint32_t X11ScreenCapturer::SetEncodeResolution(uint32_t width, uint32_t height) {
  {
    Session& s = *m_session;
    std::lock_guard<std::recursive_mutex> lock(s.lock);
    if (s.scaleWidth == 0 || s.scaleHeight == 0) {
      // Buffers made at the capture size for want of a size are replaced at once.
      if (!s.pool.Empty() && width != 0 && height != 0) {
        ResetScaleSize(width, height);
      } else {
        s.scaleWidth = width;
        s.scaleHeight = height;
      }
    } else if (width != s.scaleWidth || height != s.scaleHeight) {
      ResetScaleSize(width, height);
    }
  }
  return m_cursor->SetEncodeResolution(width, height);
}

uint32_t X11ScreenCapturer::ResetScaleSize(uint32_t width, uint32_t height) {
  Session& s = *m_session;
  std::lock_guard<std::recursive_mutex> lock(s.lock);
  X11_INF("ResetScaleSize size: %u %u", width, height);
  if (!s.pool.Empty() && s.pool.Resize(width, height) != 0) {
    return 1;
  }
  s.previous = nullptr;  // retired with its set
  s.fullNext = true;
  // Without buffers the size is taken by the next initialisation.
  s.scaleWidth = width;
  s.scaleHeight = height;
  return 0;
}

uint32_t X11ScreenCapturer::SetCaptureCursorParams(const VlinkCursorParams& params) {
  VlinkCursorParams changed = params;
  if (IsSorenCpu() && IsTargetOs("Kylin") == 1) {
    changed.independent = 0;
    X11_INF("kos force not independent");
  }
  {
    std::lock_guard<std::recursive_mutex> lock(m_session->lock);
    m_session->mouseParam = changed;
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
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  *out = m_session->mouseParam;
  return 0;
}

uint32_t X11ScreenCapturer::SetSendFrameCallback(SendFrameCallback callback) {
  if (!callback) {
    X11_ERR("SetSendFrameCallback failed, cb is nullptr!");
    return 1;
  }
  std::lock_guard<std::mutex> lock(m_session->outletLock);
  m_session->callback = std::move(callback);
  return 0;
}

uint32_t X11ScreenCapturer::Init() {
  if (Seam<X11DisplaySystem>::Get().InitThreads() == 0) {
    X11_ERR("XInitThreads failed");
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  return InitLocked();
}

uint32_t X11ScreenCapturer::InitLocked() {
  Session& s = *m_session;
  if (m_isInited) {
    return 0;
  }
  if (s.target.connection || s.image.Ready()) {
    DestroyLocked(s);  // left by a snapshot
  }
  X11Target target;
  if (OpenX11Target(m_capturerId, s.screenPort, s.isSorenKOS || s.isSorenUOS, s.target, &target) !=
      0) {
    X11_ERR("InitWindowImage failed!");
    return 1;
  }
  s.target = std::move(target);
  KeepConnection(s.target.connection);
  s.grabX = s.target.x;
  s.grabY = s.target.y;
  s.capability = {s.target.width, s.target.height, s.target.depth, kFormatArgb};
  if (s.pool.Create(s.scaleWidth, s.scaleHeight, s.target.width, s.target.height) != 0) {
    s.target = X11Target{};
    X11_ERR("InitWindowImage failed!");
    return 1;
  }
  TellCursorScreen(s);
  if (s.image.Create(m_capturerId, s.target) != 0) {
    DestroyLocked(s);
    X11_ERR("InitShmImages failed!");
    return 1;
  }
  s.monitorWatch.Start(s.target.connection->Get(), s.target.root);
  s.cursorWatch.Select(s.target.connection->Get(), s.target.root);
  s.cursorImage.reset();
  // Without DAMAGE every frame is grabbed whole.
  if (s.useDamage) {
    s.damage.Start(s.target.connection->Get(), s.target.root);
  }
  s.fullNext = true;
  s.previous = nullptr;
  s.checkFormat = true;
  m_isInited = true;
  if (s.isSorenUOS) {
    s.drawCursor = false;
    X11_INF("soren7a or soren8c Uos not support draw cursor!");
  }
  X11_INF("X11 Capturer[%u] init sucessful!", m_capturerId);
  return 0;
}

void X11ScreenCapturer::KeepConnection(const std::shared_ptr<X11Connection>& connection) {
  std::lock_guard<std::mutex> guard(m_connectionLock);
  m_connection = connection;
}

void X11ScreenCapturer::CutConnection() {
  std::shared_ptr<X11Connection> connection;
  {
    std::lock_guard<std::mutex> guard(m_connectionLock);
    connection = m_connection.lock();
  }
  if (connection) {
    connection->Cut();
  }
}

bool X11ScreenCapturer::ConnectionAnswers() {
  std::shared_ptr<X11Connection> connection;
  {
    std::lock_guard<std::mutex> guard(m_connectionLock);
    connection = m_connection.lock();
  }
  return !connection || connection->Answers();
}

void X11ScreenCapturer::TellCursorScreen(Session& s) {
  if (!s.EnterOutlets()) {
    return;
  }
  Display* display = s.target.connection ? s.target.connection->Get() : nullptr;
  if (display == nullptr) {
    s.cursor->SetX11ScreenInfo({});
  } else {
    s.cursor->SetX11ScreenInfo(
        {display, s.target.root, s.target.width, s.target.height, s.grabX.load(), s.grabY.load()});
  }
  s.LeaveOutlets();
}

void X11ScreenCapturer::DestroyLocked(Session& s) {
  s.image.Destroy();
  if (s.target.connection && !s.target.connection->Lost()) {
    s.damage.Stop(s.target.connection->Get());
  }
  s.monitorWatch.Stop();
  s.events.Forget();
  s.cursorWatch.Reset();
  s.cursorImage.reset();
  s.previous = nullptr;
  s.fullNext = true;
  X11Target none;
  std::swap(none, s.target);
  TellCursorScreen(s);  // before the connection goes
  none = X11Target{};
  X11_INF("DestroyVideoCapture success");
}

uint32_t X11ScreenCapturer::DestroyVideoCapture() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  DestroyLocked(*m_session);
  return 0;
}

uint32_t X11ScreenCapturer::StartCapture() {
  std::lock_guard<std::mutex> control(m_controlLock);
  {
    std::lock_guard<std::recursive_mutex> lock(m_session->lock);
    if (IsStarted()) {
      X11_WRN("Capture has started");
      return 0;
    }
    if (!m_isInited) {
      InitLocked();
    }
    m_isStarted = true;
  }
  std::shared_ptr<Session> session = m_session;
  NamedThread& thread = *m_captureThread;
  if (m_captureThread->Start([session, &thread] { CaptureLoop(session, thread); }) != 0) {
    // Not started after all: the next start tries again, a stop has nothing to do.
    X11_ERR("Capturer[%u] capture thread not started", m_capturerId);
    m_isStarted = false;
    return 1;
  }
  m_cursor->StartCapture();
  X11_INF("X11 Capturer[%u] StartCapture successful!", m_capturerId);
  return 0;
}

uint32_t X11ScreenCapturer::StopCapture() {
  std::unique_lock<std::mutex> control(m_controlLock);
  if (!IsStarted()) {
    X11_WRN("Capture has stopped");
    return 0;
  }
  m_isInited = false;
  m_isStarted = false;
  m_captureThread->RequestStop();
  // A thread stuck in a server that stopped answering gets its connection cut: the call it
  // waits in fails and the loop ends.
  if (!m_session->WaitEnded(kStopWaitMs)) {
    X11_ERR("Capturer[%u] capture thread stuck in the X server, connection cut", m_capturerId);
    CutConnection();
  }
  m_captureThread->Stop();
  {
    std::lock_guard<std::mutex> guard(m_session->endLock);
    m_session->ended = false;
  }
  control.unlock();
  // Nothing of the teardown (nor the cursor's stop) may wait for a server that no longer
  // answers.
  if (!ConnectionAnswers()) {
    CutConnection();
  }
  m_cursor->StopCapture();
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  DestroyLocked(*m_session);
  m_session->pool.Delete();
  m_session->previous = nullptr;
  X11_INF("X11 Capturer[%u] StopCapture successful!", m_capturerId);
  return 0;
}

void X11ScreenCapturer::CaptureLoop(const std::shared_ptr<Session>& session, NamedThread& thread) {
  Session& s = *session;
  uint32_t fps = 0;
  {
    std::lock_guard<std::recursive_mutex> lock(s.lock);
    fps = s.devInfo.captureFps;
  }
  CapturePacer pacer(CapturePeriodNs(fps, IsSorenCpu()), fps, CaptureNowNs());
  while (!thread.StopRequested()) {
    if (!pacer.WaitForDeadline(thread)) {
      break;
    }
    if (FrameStep(s) != 0 && s.ShouldLog(kSiteProcess)) {
      X11_ERR("Capturer[%u] ScreenCaptureProcess failed!", s.capturerId);
    }
    {
      std::lock_guard<std::recursive_mutex> lock(s.lock);
      s.pool.CheckUnused();
    }
    pacer.Advance();
  }
  s.MarkEnded();
}

uint32_t X11ScreenCapturer::ScreenCaptureProcess() { return FrameStep(*m_session); }

void X11ScreenCapturer::CheckUnusedBuffer() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  m_session->pool.CheckUnused();
}

bool X11ScreenCapturer::FindPixelLayout(uint32_t bits, unsigned long redMask,
                                        unsigned long greenMask, unsigned long blueMask,
                                        std::array<uint32_t, 4>* layout) {
  X11PixelLayout found;
  if (!FindX11PixelLayout(bits, redMask, greenMask, blueMask, &found)) {
    return false;
  }
  *layout = {found.bytesPerPixel, found.red, found.green, found.blue};
  return true;
}

void X11ScreenCapturer::CheckImageFormatOf(Session& s) {
  const XImage* image = s.image.Image();
  if (!FindX11PixelLayout(static_cast<uint32_t>(image->bits_per_pixel), image->red_mask,
                          image->green_mask, image->blue_mask, &s.layout)) {
    X11_ERR("The image format is incorrect!");
  }
}

void X11ScreenCapturer::CheckImageFormat() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  if (m_session->image.Ready()) {
    CheckImageFormatOf(*m_session);
  }
}

void X11ScreenCapturer::UseDamage(bool use) {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  m_session->useDamage = use;
}

bool X11ScreenCapturer::IsInited() { return m_isInited.load(std::memory_order_acquire); }

VideoCaptureCapability X11ScreenCapturer::GetCapability() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  return m_session->capability;
}

uint32_t X11ScreenCapturer::GetScreenNum() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  return m_session->target.screenNum;
}

uint32_t X11ScreenCapturer::GetMonitorIdx() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  return m_session->target.monitorIdx;
}

int32_t X11ScreenCapturer::GetGrabX() const { return m_session->grabX.load(); }
int32_t X11ScreenCapturer::GetGrabY() const { return m_session->grabY.load(); }

uint32_t X11ScreenCapturer::GetBytesPerPixel() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  return m_session->layout.bytesPerPixel;
}

void X11ScreenCapturer::GetColorOffsets(uint32_t* red, uint32_t* green, uint32_t* blue) {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  *red = m_session->layout.red;
  *green = m_session->layout.green;
  *blue = m_session->layout.blue;
}

size_t X11ScreenCapturer::GetUnusedBufferCount() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  return m_session->pool.UnusedCount();
}

uint32_t X11ScreenCapturer::GetMonitorChangeCount() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  return m_session->monitorChangeCount;
}

bool X11ScreenCapturer::GetDrawCursor() {
  std::lock_guard<std::recursive_mutex> lock(m_session->lock);
  return m_session->drawCursor;
}
