// What a cursor sample (the independent cursor's, or a frame's that draws the cursor) needs
// to ask the X server again: the pointer after it moved, the cursor image after the cursor
// changed. The server's notifications (XInput2 raw motion, XFixes cursor changes) are read
// without waiting and without a round trip, so a sample of a still pointer asks nothing.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>
#include <string>

class X11CursorWatch {
 public:
  // Pointers that only warp (another client's XWarpPointer moves no device, so no raw
  // motion tells of it) are looked at again after this long all the same.
  static constexpr uint64_t kPointerRecheckUs = 1000000;

  X11CursorWatch() = default;
  ~X11CursorWatch();
  X11CursorWatch(const X11CursorWatch&) = delete;
  X11CursorWatch& operator=(const X11CursorWatch&) = delete;

  // Follows display `name`'s root window `root` (nothing for an empty name): a new display
  // or root opens a connection of its own and asks for the notifications; the next sample
  // then asks everything. Returns at once when already following them.
  void Follow(const std::string& name, Window root);
  // Reads the notifications that arrived on the connection of its own since the last call.
  void ReadNotifications();
  // Instead of a connection of its own: asks for the notifications on `display` (whose
  // owner reads its events and hands each to OnEvent); the next sample asks everything.
  void Select(Display* display, Window root);
  void OnEvent(const XEvent& event);
  // Forgets the notifications: every sample asks everything until the next Select.
  void Reset();
  // Whether the sample must ask for the pointer (moved, never asked, no motion
  // notification, or asked longer ago than the recheck) or for the cursor image (changed,
  // never asked, or no cursor notification); each forgets what it answered.
  bool TakePointerDue(uint64_t nowUs);
  bool TakeImageDue();

 private:
  void Close();

  Display* m_display = nullptr;  // our own connection, never the capture's
  std::string m_name;
  Window m_root = 0;
  int m_xiOpcode = -1;        // -1: no raw motion notification
  int m_fixesEventBase = -1;  // -1: no cursor notification
  bool m_moved = true;
  bool m_changed = true;
  uint64_t m_lastPointerUs = 0;
  bool m_pointerAsked = false;
};
