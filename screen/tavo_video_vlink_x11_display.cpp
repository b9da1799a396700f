#include "screen/tavo_video_vlink_x11_display.h"

#include <X11/extensions/Xrandr.h>
#include <poll.h>
#include <sys/socket.h>

#include <mutex>
#include <vector>

#include "core/tavo_video_os_seams.h"
#include "screen/tavo_video_vlink_x11_log.h"
#include "screen/tavo_video_vlink_x11_seams.h"

namespace {

// A server that dropped the connection (it resets when its last client leaves) is asked
// again this many times, this far apart.
constexpr uint32_t kOpenAttempts = 20;
constexpr uint32_t kOpenRetryMs = 25;
constexpr uint32_t kXErrorLogEvery = 100;

std::atomic<uint32_t> g_xErrors{0};

// Xlib's default handlers end the process; a terminal's media process must survive an X
// error or a display that goes away. Errors are logged (paced) and the failing call
// reports failure.
int LogXError(Display* /*display*/, XErrorEvent* event) {
  const uint32_t seen = g_xErrors.fetch_add(1, std::memory_order_relaxed);
  if (seen % kXErrorLogEvery == 0) {
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

}  // namespace

void InstallX11ErrorHandlers(Display* display) {
  static std::once_flag once;
  std::call_once(once, [] {
    XSetErrorHandler(LogXError);
    XSetIOErrorHandler(LogXIoError);
  });
  XSetIOErrorExitHandler(display, KeepProcessOnIoError, nullptr);
}

namespace {

Display* OpenDisplay() {
  X11DisplaySystem& system = Seam<X11DisplaySystem>::Get();
  for (uint32_t attempt = 0; attempt < kOpenAttempts; ++attempt) {
    if (attempt > 0) {
      Seam<Clock>::Get().SleepMs(kOpenRetryMs);
    }
    bool tryAgain = false;
    Display* display = system.Open(&tryAgain);
    if (display != nullptr) {
      InstallX11ErrorHandlers(display);
      return display;
    }
    if (!tryAgain) {
      break;
    }
  }
  X11_ERR("XOpenDisplay failed!");
  return nullptr;
}

}  // namespace

uint32_t X11ErrorCount() { return g_xErrors.load(std::memory_order_relaxed); }

X11Connection::~X11Connection() {
  Seam<X11DisplaySystem>::Get().Close(m_display);
  // Also when it was found lost only by the close itself (its last sync): Xlib may give the
  // address to the next connection, which must not start out lost.
  ForgetX11DisplayLost(m_display);
}

bool X11Connection::Lost() const { return IsX11DisplayLost(m_display); }

bool X11Connection::Answers(uint32_t timeoutMs) const {
  return Lost() || X11ServerAnswers(DisplayString(m_display), timeoutMs);
}

void X11Connection::Cut() const {
  // Reading only: a call waiting for a reply sees the end of the stream and fails; nothing
  // written afterwards can raise SIGPIPE in the host process.
  shutdown(ConnectionNumber(m_display), SHUT_RD);
}

X11MonitorChoice ChooseX11Monitor(Display* display, uint32_t port, bool preferLeft) {
  X11MonitorChoice choice;
  const int screens = ScreenCount(display);
  const int defaultScreen = DefaultScreen(display);
  std::vector<int> order{defaultScreen};
  for (int screen = 0; screen < screens; ++screen) {
    if (screen != defaultScreen) {
      order.push_back(screen);
    }
  }
  uint32_t before = 0;
  for (const int screen : order) {
    int count = 0;
    XRRMonitorInfo* monitors = XRRGetMonitors(display, RootWindow(display, screen), True, &count);
    const uint32_t n = monitors != nullptr && count > 0 ? static_cast<uint32_t>(count) : 0;
    if (port < before + n) {
      uint32_t idx = port - before;
      if (preferLeft && (monitors[idx].x != 0 || monitors[idx].y != 0) && idx + 1 < n) {
        const XRRMonitorInfo& chosen = monitors[idx];
        const XRRMonitorInfo& next = monitors[idx + 1];
        if (chosen.x == next.x ? next.y < chosen.y : next.x < chosen.x) {
          ++idx;
        }
      }
      const XRRMonitorInfo& monitor = monitors[idx];
      choice = {screen,
                idx,
                monitor.x,
                monitor.y,
                static_cast<uint32_t>(monitor.width),
                static_cast<uint32_t>(monitor.height)};
      XRRFreeMonitors(monitors);
      return choice;
    }
    if (monitors != nullptr) {
      XRRFreeMonitors(monitors);
    }
    before += n;
  }
  return choice;
}

uint32_t OpenX11Target(uint32_t capturerId, uint32_t port, bool preferLeft,
                       const X11Target& previous, X11Target* out) {
  Display* display = OpenDisplay();
  if (display == nullptr) {
    return 1;
  }
  auto connection = std::make_shared<X11Connection>(display);
  const X11MonitorChoice choice = ChooseX11Monitor(display, port, preferLeft);
  if (choice.screen < 0) {
    X11_ERR("not find the screen[%u]!", port);
    return 1;
  }
  if (choice.x != previous.x || choice.y != previous.y) {
    X11_INF("FindTargetScreen pos change index[%u] width[%u] height[%u] grabX[%d] grabY[%d]",
            choice.idx, previous.width, previous.height, choice.x, choice.y);
  }
  X11Target target;
  target.connection = connection;
  target.root = RootWindow(display, choice.screen);
  target.screenNum = static_cast<uint32_t>(choice.screen);
  target.monitorIdx = choice.idx;
  target.x = choice.x;
  target.y = choice.y;
  target.width = choice.width;
  target.height = choice.height;
  XImage* image = XGetImage(display, target.root, target.x, target.y, target.width, target.height,
                            AllPlanes, ZPixmap);
  if (image == nullptr) {
    X11_ERR("XGetImage failed!");
    return 1;
  }
  target.depth = static_cast<uint32_t>(image->depth);
  const uint64_t frameSize =
      uint64_t{target.width} * target.height * static_cast<uint32_t>(image->bits_per_pixel) / 8;
  XDestroyImage(image);
  if (frameSize == 0 || frameSize > UINT32_MAX) {
    X11_ERR("XGetImage failed!");
    return 1;
  }
  target.frameSize = static_cast<uint32_t>(frameSize);
  *out = std::move(target);
  X11_INF("X11 Capturer[%u] InitWindowImage successful!", capturerId);
  return 0;
}

X11MonitorState CheckX11Monitor(const X11Target& target) {
  X11MonitorState state;
  int count = 0;
  XRRMonitorInfo* monitors = XRRGetMonitors(target.connection->Get(), target.root, True, &count);
  if (monitors == nullptr) {
    return state;
  }
  if (count < 0 || target.monitorIdx >= static_cast<uint32_t>(count)) {
    XRRFreeMonitors(monitors);
    return state;
  }
  const XRRMonitorInfo monitor = monitors[target.monitorIdx];
  XRRFreeMonitors(monitors);
  state.x = monitor.x;
  state.y = monitor.y;
  state.width = monitor.width;
  state.height = monitor.height;
  if (static_cast<uint32_t>(monitor.width) != target.width ||
      static_cast<uint32_t>(monitor.height) != target.height) {
    state.kind = X11MonitorState::kResized;
  } else if (monitor.x != target.x || monitor.y != target.y) {
    state.kind = X11MonitorState::kMoved;
  } else {
    state.kind = X11MonitorState::kSame;
  }
  return state;
}

bool X11MonitorWatch::Start(Display* display, Window root) {
  m_changed = true;
  int errorBase = 0;
  m_active = XRRQueryExtension(display, &m_eventBase, &errorBase) == True;
  if (m_active) {
    XRRSelectInput(display, root,
                   RRScreenChangeNotifyMask | RRCrtcChangeNotifyMask | RROutputChangeNotifyMask);
    XSelectInput(display, root, StructureNotifyMask);
  }
  return m_active;
}

void X11MonitorWatch::Stop() {
  m_active = false;
  m_changed = true;
}

void X11MonitorWatch::OnEvent(const XEvent& event) {
  if (!m_active) {
    return;
  }
  if (event.type == ConfigureNotify) {
    m_changed = true;
  } else if (event.type >= m_eventBase && event.type <= m_eventBase + RRNotify) {
    XRRUpdateConfiguration(const_cast<XEvent*>(&event));
    m_changed = true;
  }
}

bool X11MonitorWatch::TakeChanged() {
  const bool changed = m_changed || !m_active;
  m_changed = false;
  return changed;
}

bool X11EventReader::SocketReadable(Display* display) {
  pollfd socket{ConnectionNumber(display), POLLIN, 0};
  return poll(&socket, 1, 0) != 0;
}
