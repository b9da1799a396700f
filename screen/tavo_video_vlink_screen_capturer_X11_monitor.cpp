// X11ScreenCapturer: choosing and following the monitor, port changes and snapshots.
#include "core/tavo_video_os_seams.h"
#include "screen/tavo_video_vlink_screen_capturer_X11.h"
#include "screen/tavo_video_vlink_screen_snapshot.h"
#include "screen/tavo_video_vlink_x11_capture_session.h"
#include "screen/tavo_video_vlink_x11_log.h"
#include "screen/tavo_video_vlink_x11_seams.h"

namespace {

constexpr uint32_t kSnapshotSettleMs = 50;

}  // namespace

uint32_t X11ScreenCapturer::FindTargetScreen() {
  Session& s = *m_session;
  std::lock_guard<std::recursive_mutex> lock(s.lock);
  if (!s.target.connection) {
    return 1;
  }
  Display* display = s.target.connection->Get();
  const X11MonitorChoice choice =
      ChooseX11Monitor(display, s.screenPort, s.isSorenKOS || s.isSorenUOS);
  if (choice.screen < 0) {
    X11_ERR("not find the screen[%u]!", s.screenPort);
    DestroyLocked(s);
    return 1;
  }
  if (choice.x != s.grabX.load() || choice.y != s.grabY.load()) {
    X11_INF("FindTargetScreen pos change index[%u] width[%u] height[%u] grabX[%d] grabY[%d]",
            choice.idx, s.capability.width, s.capability.height, choice.x, choice.y);
  }
  s.grabX = s.target.x = choice.x;
  s.grabY = s.target.y = choice.y;
  s.capability.width = s.target.width = choice.width;
  s.capability.height = s.target.height = choice.height;
  s.target.root = RootWindow(display, choice.screen);
  s.target.screenNum = static_cast<uint32_t>(choice.screen);
  s.target.monitorIdx = choice.idx;
  return 0;
}

uint32_t X11ScreenCapturer::CheckMonitorInfo() { return CheckMonitor(*m_session); }

uint32_t X11ScreenCapturer::CheckMonitor(Session& s) {
  std::lock_guard<std::recursive_mutex> lock(s.lock);
  if (!s.target.connection || s.target.connection->Lost()) {
    return 1;
  }
  Display* display = s.target.connection->Get();
  s.events.Read(display, [&](const XEvent& event) {
    s.monitorWatch.OnEvent(event);
    s.damage.OnEvent(event);
    s.cursorWatch.OnEvent(event);
  });
  if (s.monitorWatch.TakeChanged()) {
    s.monitorState = CheckX11Monitor(s.target);
  }
  const X11MonitorState state = s.monitorState;
  if (state.kind == X11MonitorState::kResized) {
    if (s.monitorChangeCount % kRefusalLogEvery == 0) {
      X11_ERR("wait recreate link! count[%u] oldWidth[%u] oldHeight[%u] newWidth[%d] newHeight[%d]",
              s.monitorChangeCount, s.capability.width, s.capability.height, state.width,
              state.height);
    }
    ++s.monitorChangeCount;
    return 1;
  }
  if (state.kind == X11MonitorState::kMoved) {
    s.grabX = s.target.x = state.x;
    s.grabY = s.target.y = state.y;
    s.fullNext = true;  // rows recorded so far belong to the old place
    s.monitorState.kind = X11MonitorState::kSame;
    TellCursorScreen(s);
    X11_INF("reset capturer MonitorInfo change! m_monitorIdx[%u] grabX[%u] grabY[%u]",
            s.target.monitorIdx, static_cast<uint32_t>(state.x), static_cast<uint32_t>(state.y));
  }
  return 0;
}

uint32_t X11ScreenCapturer::SetCaptureScreenPort(uint32_t port) {
  bool reset = false;
  {
    std::lock_guard<std::recursive_mutex> lock(m_session->lock);
    if (port == m_session->screenPort) {
      return 0;
    }
    X11_INF("change screen capture port [%u] -> [%u]", m_session->screenPort, port);
    m_session->screenPort = port;
    reset = IsStarted();
  }
  // Without the capturer lock: the reset joins the capture thread.
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
    std::lock_guard<std::recursive_mutex> lock(m_session->lock);
    m_session->checkFormat = true;
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
  Session& s = *m_session;
  if (s.target.connection || s.image.Ready()) {
    DestroyLocked(s);
  }
  X11Target target;
  if (OpenX11Target(m_capturerId, s.screenPort, s.isSorenKOS || s.isSorenUOS, s.target, &target) !=
      0) {
    return 1;
  }
  s.target = std::move(target);
  s.grabX = s.target.x;
  s.grabY = s.target.y;
  s.capability = {s.target.width, s.target.height, s.target.depth, kFormatArgb};
  if (s.image.Create(m_capturerId, s.target) != 0) {
    X11_ERR("InitShmImages failed!");
    return 1;
  }
  Seam<Clock>::Get().SleepMs(kSnapshotSettleMs);
  if (!s.image.Grab(s.target.root, s.grabX.load(), s.grabY.load())) {
    X11_ERR("XShmGetImage failed");
    return 1;
  }
  return 0;
}

uint32_t X11ScreenCapturer::CapturePictureImp(const TagTavoVideoSnapshotStorage& storage) {
  Session& s = *m_session;
  std::lock_guard<std::recursive_mutex> lock(s.lock);
  const bool prepared = !m_isInited;
  if (prepared) {
    const uint32_t result = CapturePictureInit();
    if (result != 0) {
      DestroyLocked(s);
      return result;
    }
  }
  uint32_t result = 1;
  if (!s.image.Ready()) {
    X11_ERR("libyuv::ARGBScale failed");
  } else {
    result = SnapshotToQueue(*s.image.Image(), s.capability.width, s.capability.height, storage);
  }
  if (prepared) {
    DestroyLocked(s);
  }
  return result;
}

uint32_t X11ScreenCapturer::WritePicureToQueue(const uint8_t* pixels, uint32_t size,
                                               const TagTavoVideoSnapshotStorage& storage) {
  return ::WritePicureToQueue(pixels, size, storage);
}
