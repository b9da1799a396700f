// The X11 screen capturer's display side: the connection, the one procedure that opens the
// display and chooses and probes the monitor of a screen port (first start, re-initialisation
// after a port change and snapshots all go through it), and the per-frame check that follows
// the monitor.
#pragma once

#include <X11/Xlib.h>

#include <atomic>
#include <cstdint>
#include <memory>

// One display connection, closed when its last holder lets go (a lost one too: Xlib sends
// nothing on it then and frees its socket and memory).
class X11Connection {
 public:
  explicit X11Connection(Display* display) : m_display(display) {}
  ~X11Connection();
  X11Connection(const X11Connection&) = delete;
  X11Connection& operator=(const X11Connection&) = delete;
  Display* Get() const { return m_display; }
  bool Lost() const;
  // Whether the server answers a new connection within the time: a stopped server does
  // not, and any request on this connection would then wait for ever.
  bool Answers(uint32_t timeoutMs = kStopAnswerTimeoutMs) const;
  // Shuts the socket down: every call waiting on it fails at once (the connection is then
  // lost) and the connection can still be closed. Safe from any thread.
  void Cut() const;

  static constexpr uint32_t kStopAnswerTimeoutMs = 1000;

 private:
  Display* const m_display;
};

// The monitor a screen port names and how it is read.
struct X11Target {
  std::shared_ptr<X11Connection> connection;
  Window root = 0;
  uint32_t screenNum = 0;
  uint32_t monitorIdx = 0;
  int32_t x = 0;
  int32_t y = 0;
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t depth = 0;
  uint32_t frameSize = 0;  // width x height x bits per pixel / 8
};

// Which monitor a port names: screens default first, monitors in RandR order. With
// `preferLeft` (the Kylin and UOS desktops) a chosen monitor off the origin gives way to the
// next one when that lies further left (or, level, higher).
struct X11MonitorChoice {
  int screen = -1;  // -1: no screen holds the port
  uint32_t idx = 0;
  int32_t x = 0;
  int32_t y = 0;
  uint32_t width = 0;
  uint32_t height = 0;
};
X11MonitorChoice ChooseX11Monitor(Display* display, uint32_t port, bool preferLeft);

// Opens the display (asking a server that dropped the connection again), chooses the
// monitor of `port` and reads one image of it for its depth. `previous` is the target in
// force (for the position-change line). 0, or 1 with the failure logged and nothing kept
// open.
uint32_t OpenX11Target(uint32_t capturerId, uint32_t port, bool preferLeft,
                       const X11Target& previous, X11Target* out);

// The per-frame look at the captured monitor.
struct X11MonitorState {
  enum Kind { kSame, kMoved, kResized, kUnknown } kind = kUnknown;
  int32_t x = 0;
  int32_t y = 0;
  int32_t width = 0;
  int32_t height = 0;
};
X11MonitorState CheckX11Monitor(const X11Target& target);

// Monitor changes as the server announces them on the capture connection, so the monitors
// are read again only after a change instead of once a frame.
class X11MonitorWatch {
 public:
  // Asks for RandR screen, CRTC and output changes and for the root window's reconfiguration
  // (a RandR 1.5 monitor set or deleted). False without RandR: the monitors are then read
  // every frame.
  bool Start(Display* display, Window root);
  void Stop();
  // An event read from the connection; RandR's own keep Xlib's idea of the screen current.
  void OnEvent(const XEvent& event);
  // Whether the monitors must be read now (always without notifications); forgets it.
  bool TakeChanged();

 private:
  int m_eventBase = 0;
  bool m_active = false;
  bool m_changed = true;
};

// Reads the events that already reached the connection (flushing what waits to go out), in
// order, without asking the server anything; hands each to `onEvent`.
template <typename OnEvent>
void ReadArrivedX11Events(Display* display, OnEvent&& onEvent) {
  XEventsQueued(display, QueuedAfterFlush);
  while (XEventsQueued(display, QueuedAlready) > 0) {
    XEvent event;
    XNextEvent(display, &event);
    onEvent(event);
  }
}

// ReadArrivedX11Events for a loop that reads one connection every frame, without the reads
// of an empty socket (Xlib's cost, every frame of a still screen): when nothing was sent on
// the connection since a read after which no request was outstanding, no reply can have
// been read since either, so an event can only be in Xlib's queue or on the socket, and one
// poll of the socket tells.
class X11EventReader {
 public:
  template <typename OnEvent>
  void Read(Display* display, OnEvent&& onEvent) {
    if (m_quiet && display == m_display && XNextRequest(display) == m_nextRequest &&
        XEventsQueued(display, QueuedAlready) == 0 && !SocketReadable(display)) {
      return;
    }
    ReadArrivedX11Events(display, onEvent);
    m_display = display;
    m_nextRequest = XNextRequest(display);
    m_quiet = XLastKnownRequestProcessed(display) + 1 == m_nextRequest;
  }
  // A new connection may come at the old one's address.
  void Forget() { m_quiet = false; }

 private:
  static bool SocketReadable(Display* display);  // or closed, or failed

  Display* m_display = nullptr;
  unsigned long m_nextRequest = 0;
  bool m_quiet = false;  // no request was outstanding after the last read
};

// Keeps the process alive on an X error or a lost connection of `display` (Xlib's own
// handlers end the process): errors are logged, the connection is marked lost.
void InstallX11ErrorHandlers(Display* display);

// X errors seen so far (the error handler counts them; a request checked with XSync fails
// when the count moved).
uint32_t X11ErrorCount();
