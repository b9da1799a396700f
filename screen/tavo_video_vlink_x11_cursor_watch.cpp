#include "screen/tavo_video_vlink_x11_cursor_watch.h"

#include <X11/extensions/XInput2.h>
#include <X11/extensions/Xfixes.h>

#include "screen/tavo_video_vlink_x11_display.h"
#include "screen/tavo_video_vlink_x11_seams.h"

X11CursorWatch::~X11CursorWatch() { Close(); }

void X11CursorWatch::Close() {
  if (m_display != nullptr) {
    XCloseDisplay(m_display);
    ForgetX11DisplayLost(m_display);
    m_display = nullptr;
  }
  Reset();
}

void X11CursorWatch::Follow(const std::string& name, Window root) {
  if (name == m_name && root == m_root && (m_display == nullptr || !IsX11DisplayLost(m_display))) {
    return;
  }
  Close();
  m_name = name;
  m_root = root;
  if (name.empty()) {
    return;
  }
  bool tryAgain = false;
  m_display = OpenX11Display(name.c_str(), kX11AnswerTimeoutMs, &tryAgain);
  if (m_display == nullptr) {
    return;  // every sample asks everything
  }
  InstallX11ErrorHandlers(m_display);
  Select(m_display, root);
  // The selections are in force before the first sample asks: a change after it is told.
  XSync(m_display, False);
}

void X11CursorWatch::Reset() {
  m_xiOpcode = -1;
  m_fixesEventBase = -1;
  m_moved = true;
  m_changed = true;
  m_pointerAsked = false;
}

void X11CursorWatch::Select(Display* display, Window root) {
  Reset();
  int event = 0;
  int error = 0;
  int opcode = 0;
  if (XQueryExtension(display, "XInputExtension", &opcode, &event, &error)) {
    int major = 2;
    int minor = 0;
    if (XIQueryVersion(display, &major, &minor) == Success) {
      unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
      XISetMask(bits, XI_RawMotion);
      XIEventMask mask{XIAllMasterDevices, static_cast<int>(sizeof(bits)), bits};
      XISelectEvents(display, root, &mask, 1);
      m_xiOpcode = opcode;
    }
  }
  if (XFixesQueryExtension(display, &event, &error)) {
    XFixesSelectCursorInput(display, root, XFixesDisplayCursorNotifyMask);
    m_fixesEventBase = event;
  }
}

void X11CursorWatch::OnEvent(const XEvent& event) {
  if (event.type == GenericEvent && event.xcookie.extension == m_xiOpcode) {
    m_moved = true;
  } else if (m_fixesEventBase >= 0 && event.type == m_fixesEventBase + XFixesCursorNotify) {
    m_changed = true;
  }
}

void X11CursorWatch::ReadNotifications() {
  if (m_display == nullptr || IsX11DisplayLost(m_display)) {
    m_moved = m_changed = true;
    return;
  }
  ReadArrivedX11Events(m_display, [&](const XEvent& event) { OnEvent(event); });
}

bool X11CursorWatch::TakePointerDue(uint64_t nowUs) {
  const bool due =
      m_moved || m_xiOpcode < 0 || !m_pointerAsked || nowUs - m_lastPointerUs >= kPointerRecheckUs;
  if (due) {
    m_moved = false;
    m_pointerAsked = true;
    m_lastPointerUs = nowUs;
  }
  return due;
}

bool X11CursorWatch::TakeImageDue() {
  const bool due = m_changed || m_fixesEventBase < 0;
  m_changed = false;
  return due;
}
