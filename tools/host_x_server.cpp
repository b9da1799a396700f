#include "host_x_server.h"

#ifdef VLINK_HOST_HAS_X11
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include "tools/common/xvfb_server.h"
#else
class XvfbServer {};
#endif
#include <pthread.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

constexpr auto kScenePeriod = std::chrono::milliseconds(33);

}  // namespace

bool DisplayOpens() {
#ifdef VLINK_HOST_HAS_X11
  const char* name = std::getenv("DISPLAY");
  if (name == nullptr || *name == '\0') {
    return false;
  }
  Display* display = XOpenDisplay(name);
  if (display != nullptr) {
    XCloseDisplay(display);
  }
  return display != nullptr;
#else
  return false;
#endif
}

HostXServer::HostXServer() = default;
HostXServer::~HostXServer() { Stop(); }

bool HostXServer::Start(uint32_t width, uint32_t height) {
#ifndef VLINK_HOST_HAS_X11
  (void)width;
  (void)height;
  m_error = "built without X11";
  return false;
#else
  m_width = width;
  m_height = height;
  m_server = std::make_unique<XvfbServer>(std::vector<XvfbScreen>{{width, height, 24}});
  if (!m_server->Ok()) {
    m_error = "Xvfb did not start (is it installed?): " + m_server->Error();
    m_server.reset();
    return false;
  }
  m_name = m_server->Name();
  m_scene = std::thread([this] { Animate(); });
  return true;
#endif
}

void HostXServer::Animate() {
#ifdef VLINK_HOST_HAS_X11
  pthread_setname_np(pthread_self(), "host scene");
  Display* display = XOpenDisplay(m_name.c_str());
  if (display == nullptr) {
    std::fprintf(stderr, "scene: cannot open %s\n", m_name.c_str());
    return;
  }
  const int screen = DefaultScreen(display);
  const Window root = RootWindow(display, screen);
  const Pixmap canvas = XCreatePixmap(display, root, m_width, m_height,
                                      static_cast<unsigned>(DefaultDepth(display, screen)));
  const GC gc = XCreateGC(display, canvas, 0, nullptr);
  const int w = static_cast<int>(m_width);
  const int h = static_cast<int>(m_height);
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock<std::mutex> lock(m_lock);
  while (!m_stop) {
    lock.unlock();
    const double t =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // A desktop-blue background with a title bar and a window, then things that move.
    XSetForeground(display, gc, 0x2b4f7a);
    XFillRectangle(display, canvas, gc, 0, 0, m_width, m_height);
    XSetForeground(display, gc, 0xe8e8e8);
    XFillRectangle(display, canvas, gc, 80, 60, m_width / 2, m_height / 2);
    XSetForeground(display, gc, 0x404040);
    XFillRectangle(display, canvas, gc, 80, 60, m_width / 2, 24);
    for (int i = 0; i < 4; ++i) {
      const double phase = t * (0.6 + 0.25 * i) + i;
      const int x = static_cast<int>((w - 120) * (0.5 + 0.5 * std::sin(phase)));
      const int y = static_cast<int>((h - 120) * (0.5 + 0.5 * std::cos(phase * 1.3)));
      static const unsigned long kColours[] = {0xe04040, 0x40c040, 0xf0c020, 0xc040c0};
      XSetForeground(display, gc, kColours[i]);
      if (i % 2 == 0) {
        XFillArc(display, canvas, gc, x, y, 110, 110, 0, 360 * 64);
      } else {
        XFillRectangle(display, canvas, gc, x, y, 120, 80);
      }
    }
    // A bar sweeping across the bottom and the time, so every frame differs.
    XSetForeground(display, gc, 0xffffff);
    const int sweep = static_cast<int>(std::fmod(t * 300.0, static_cast<double>(w)));
    XFillRectangle(display, canvas, gc, sweep, h - 30, 60, 20);
    char text[64];
    std::snprintf(text, sizeof(text), "vlink host scene  t = %.2f s  frame %u", t,
                  m_sceneFrames.load());
    XSetForeground(display, gc, 0x101010);
    XDrawString(display, canvas, gc, 100, 110, text, static_cast<int>(std::strlen(text)));
    XCopyArea(display, canvas, root, gc, 0, 0, m_width, m_height, 0, 0);
    XWarpPointer(display, None, root, 0, 0, 0, 0,
                 static_cast<int>(w / 2 + w / 3 * std::cos(t * 1.7)),
                 static_cast<int>(h / 2 + h / 3 * std::sin(t * 1.7)));
    XSync(display, False);
    ++m_sceneFrames;
    lock.lock();
    m_wake.wait_for(lock, kScenePeriod, [&] { return m_stop; });
  }
  lock.unlock();
  XFreeGC(display, gc);
  XFreePixmap(display, canvas);
  XCloseDisplay(display);
#endif
}

void HostXServer::Stop() {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    m_stop = true;
  }
  m_wake.notify_all();
  if (m_scene.joinable()) {
    m_scene.join();
  }
#ifdef VLINK_HOST_HAS_X11
  m_server.reset();
#endif
}
