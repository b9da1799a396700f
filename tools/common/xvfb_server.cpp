#include "tools/common/xvfb_server.h"

#include <X11/Xutil.h>
#include <X11/extensions/Xrender.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

extern char** environ;

namespace {

constexpr int kStartTimeoutMs = 20000;

pid_t Spawn(const std::vector<std::string>& args, int displayFd) {
  std::vector<char*> argv;
  for (const std::string& arg : args) {
    argv.push_back(const_cast<char*>(arg.c_str()));
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  if (displayFd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, displayFd, 3);
  }
  // The child gets this program's environment without what was preloaded into it (the file
  // camera, a sanitizer runtime): those are for this program, not for the X server.
  std::vector<char*> environment;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (std::strncmp(*variable, "LD_PRELOAD=", 11) != 0) {
      environment.push_back(*variable);
    }
  }
  environment.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environment.data()) != 0) {
    pid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

}  // namespace

XvfbServer::XvfbServer(const std::vector<XvfbScreen>& screens) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    m_error = "pipe failed";
    return;
  }
  std::vector<std::string> args{"Xvfb", "-displayfd", "3", "-nolisten", "tcp", "-noreset"};
  for (size_t i = 0; i < screens.size(); ++i) {
    args.push_back("-screen");
    args.push_back(std::to_string(i));
    args.push_back(std::to_string(screens[i].width) + "x" + std::to_string(screens[i].height) +
                   "x" + std::to_string(screens[i].depth));
  }
  m_pid = Spawn(args, fds[1]);
  close(fds[1]);
  if (m_pid < 0) {
    close(fds[0]);
    m_error = "cannot run Xvfb";
    return;
  }
  std::string number;
  pollfd waiter{fds[0], POLLIN, 0};
  while (number.find('\n') == std::string::npos && poll(&waiter, 1, kStartTimeoutMs) > 0) {
    char chunk[16];
    const ssize_t got = read(fds[0], chunk, sizeof(chunk));
    if (got <= 0) {
      break;
    }
    number.append(chunk, static_cast<size_t>(got));
  }
  close(fds[0]);
  if (number.empty()) {
    m_error = "Xvfb did not report a display";
    Kill();
    return;
  }
  m_number = std::atoi(number.c_str());
  m_display = XOpenDisplay(Name().c_str());
  if (m_display == nullptr) {
    m_error = "cannot connect to " + Name();
    Kill();
  }
}

XvfbServer::~XvfbServer() { Kill(); }

std::string XvfbServer::Name() const {
  std::string name(":");
  name += std::to_string(m_number);
  return name;
}

std::string XvfbServer::Name(int defaultScreen) const {
  std::string name = Name();
  name += '.';
  name += std::to_string(defaultScreen);
  return name;
}

void XvfbServer::Kill() {
  if (m_display != nullptr) {
    XCloseDisplay(m_display);
    m_display = nullptr;
  }
  if (m_pid > 0) {
    kill(m_pid, SIGTERM);
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
  }
}

bool XvfbServer::Xrandr(int screen, const std::vector<std::string>& args) {
  std::vector<std::string> all{"xrandr", "-display", Name(), "--screen", std::to_string(screen)};
  all.insert(all.end(), args.begin(), args.end());
  const pid_t pid = Spawn(all, -1);
  if (pid < 0) {
    return false;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool XvfbServer::SetMonitor(int screen, const std::string& name, uint32_t width, uint32_t height,
                            int x, int y, const std::string& output) {
  std::ostringstream geometry;
  geometry << width << "/" << width / 4 << "x" << height << "/" << height / 4 << "+" << x << "+"
           << y;
  // The server refuses to change a monitor in place: take the old one off first.
  Xrandr(screen, {"--delmonitor", name});
  return Xrandr(screen, {"--setmonitor", name, geometry.str(), output});
}

bool XvfbServer::DeleteMonitor(int screen, const std::string& name) {
  return Xrandr(screen, {"--delmonitor", name});
}

bool XvfbServer::SplitScreen(int screen, uint32_t count) {
  const uint32_t width = static_cast<uint32_t>(DisplayWidth(m_display, screen));
  const uint32_t height = static_cast<uint32_t>(DisplayHeight(m_display, screen));
  const uint32_t part = width / count;
  for (uint32_t i = 0; i < count; ++i) {
    // The first takes over the screen's own output, so only the parts are listed.
    if (!SetMonitor(screen, "part" + std::to_string(i), part, height, static_cast<int>(part * i), 0,
                    i == 0 ? "screen" : "none")) {
      return false;
    }
  }
  return true;
}

void XvfbServer::PutPixels(int screen, int x, int y, uint32_t width, uint32_t height,
                           const std::vector<uint32_t>& pixels) {
  std::vector<uint32_t> copy(pixels);
  Visual* visual = DefaultVisual(m_display, screen);
  const int depth = DefaultDepth(m_display, screen);
  XImage* image = XCreateImage(m_display, visual, static_cast<unsigned>(depth), ZPixmap, 0,
                               reinterpret_cast<char*>(copy.data()), width, height, 32, 0);
  if (depth != 24) {
    // Other depths: let Xlib pack each pixel.
    image->data = static_cast<char*>(std::calloc(size_t(image->bytes_per_line) * height, 1));
    for (uint32_t row = 0; row < height; ++row) {
      for (uint32_t col = 0; col < width; ++col) {
        const uint32_t p = pixels[size_t(row) * width + col];
        const unsigned long r = (p >> 16) & 0xff, g = (p >> 8) & 0xff, b = p & 0xff;
        const unsigned long value = ((r * visual->red_mask / 255) & visual->red_mask) |
                                    ((g * visual->green_mask / 255) & visual->green_mask) |
                                    ((b * visual->blue_mask / 255) & visual->blue_mask);
        XPutPixel(image, static_cast<int>(col), static_cast<int>(row), value);
      }
    }
  }
  XPutImage(m_display, RootWindow(m_display, screen), DefaultGC(m_display, screen), image, 0, 0, x,
            y, width, height);
  XSync(m_display, False);
  if (depth == 24) {
    image->data = nullptr;
  }
  XDestroyImage(image);
}

std::vector<uint32_t> XvfbServer::GetPixels(int screen, int x, int y, uint32_t width,
                                            uint32_t height) {
  std::vector<uint32_t> out(size_t(width) * height);
  XImage* image =
      XGetImage(m_display, RootWindow(m_display, screen), x, y, width, height, AllPlanes, ZPixmap);
  if (image == nullptr) {
    return {};
  }
  for (uint32_t row = 0; row < height; ++row) {
    for (uint32_t col = 0; col < width; ++col) {
      out[size_t(row) * width + col] =
          static_cast<uint32_t>(XGetPixel(image, static_cast<int>(col), static_cast<int>(row))) &
          0xFFFFFFU;
    }
  }
  XDestroyImage(image);
  return out;
}

void XvfbServer::WarpPointer(int screen, int x, int y) {
  XWarpPointer(m_display, None, RootWindow(m_display, screen), 0, 0, 0, 0, x, y);
  XSync(m_display, False);
}

void XvfbServer::SetRootCursor(int screen, uint32_t width, uint32_t height, int hotX, int hotY,
                               const std::vector<uint32_t>& pixels) {
  const Window root = RootWindow(m_display, screen);
  std::vector<uint32_t> copy(pixels);
  XImage* image = XCreateImage(m_display, nullptr, 32, ZPixmap, 0,
                               reinterpret_cast<char*>(copy.data()), width, height, 32, 0);
  const Pixmap pixmap = XCreatePixmap(m_display, root, width, height, 32);
  GC gc = XCreateGC(m_display, pixmap, 0, nullptr);
  XPutImage(m_display, pixmap, gc, image, 0, 0, 0, 0, width, height);
  image->data = nullptr;
  XDestroyImage(image);
  XRenderPictFormat* format = XRenderFindStandardFormat(m_display, PictStandardARGB32);
  const Picture picture = XRenderCreatePicture(m_display, pixmap, format, 0, nullptr);
  const Cursor cursor = XRenderCreateCursor(m_display, picture, static_cast<unsigned>(hotX),
                                            static_cast<unsigned>(hotY));
  XDefineCursor(m_display, root, cursor);
  XRenderFreePicture(m_display, picture);
  XFreeGC(m_display, gc);
  XFreePixmap(m_display, pixmap);
  XFreeCursor(m_display, cursor);
  XSync(m_display, False);
}

std::vector<uint32_t> PatternPixels(uint32_t width, uint32_t height, uint32_t seed) {
  std::vector<uint32_t> out(size_t(width) * height);
  uint32_t state = seed * 2654435761U + 1;
  for (uint32_t row = 0; row < height; ++row) {
    for (uint32_t col = 0; col < width; ++col) {
      state = state * 1664525U + 1013904223U;
      // Smooth gradients plus a little noise, so scaling and chroma both matter.
      const uint32_t r = (col * 255 / (width ? width : 1) + (state >> 28)) & 0xff;
      const uint32_t g = (row * 255 / (height ? height : 1) + ((state >> 20) & 0xf)) & 0xff;
      const uint32_t b = ((col + row + seed * 37) & 0xff) ^ ((state >> 12) & 0x7);
      out[size_t(row) * width + col] = 0xFF000000U | r << 16 | g << 8 | b;
    }
  }
  return out;
}

namespace {

// Set when the program is loaded: a segment of this process cannot be older. Process ids
// come round again, so one that an earlier process with this id left behind is.
const long g_processStart = static_cast<long>(std::time(nullptr));

}  // namespace

size_t CountOwnShmSegments() {
  std::ifstream table("/proc/sysvipc/shm");
  std::string line;
  std::getline(table, line);  // header
  size_t count = 0;
  const long self = static_cast<long>(getpid());
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    long key = 0, id = 0, perms = 0, size = 0, cpid = 0, ctime = 0;
    fields >> key >> id >> std::oct >> perms >> std::dec >> size >> cpid;
    // lpid, nattch, uid, gid, cuid, cgid, atime and dtime stand before ctime.
    for (int column = 0; column < 9; ++column) {
      fields >> ctime;
    }
    if (cpid == self && ctime >= g_processStart && (perms & SHM_DEST) == 0) {
      ++count;
    }
  }
  return count;
}
