#include "host_window.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#ifdef VLINK_HOST_HAS_X11

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <bit>

namespace {

// The default handler ends the process; a failed drawing call must not end the run.
int OnXError(Display* display, XErrorEvent* event) {
  char text[256] = {};
  XGetErrorText(display, event->error_code, text, sizeof(text));
  std::fprintf(stderr, "X11 error: %s (request %u)\n", text,
               static_cast<unsigned>(event->request_code));
  return 0;
}

int ShiftOf(unsigned long mask) { return mask == 0 ? 0 : std::countr_zero(mask); }

}  // namespace

struct HostDisplay::State {
  struct Win {
    std::string title;
    Window id = 0;
    bool created = false;
    bool closed = false;
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint32_t> pixels;  // one pixel value of the visual each
    XImage* image = nullptr;       // describes pixels; never owns them
  };

  ~State() {
    for (Win& win : windows) {
      DropImage(win);
      if (win.created && !win.closed) {
        XDestroyWindow(display, win.id);
      }
    }
    XCloseDisplay(display);
  }

  void DropImage(Win& win) {
    if (win.image != nullptr) {
      win.image->data = nullptr;  // the vector frees the pixels
      XDestroyImage(win.image);
      win.image = nullptr;
    }
  }

  void Create(Win& win, uint32_t width, uint32_t height) {
    const int screenWidth = DisplayWidth(display, screen);
    const int screenHeight = DisplayHeight(display, screen);
    const int w = static_cast<int>(width);
    const int h = static_cast<int>(height);
    // Left to right, then the next row; rows that do not fit overlap the bottom.
    if (nextX > 0 && nextX + w > screenWidth) {
      nextX = 0;
      nextY += rowHeight;
      rowHeight = 0;
    }
    const int x = nextX;
    const int y = std::max(0, std::min(nextY, screenHeight - h));
    nextX += w;
    rowHeight = std::max(rowHeight, h);

    win.id = XCreateSimpleWindow(display, RootWindow(display, screen), x, y, width, height, 0,
                                 BlackPixel(display, screen), BlackPixel(display, screen));
    XStoreName(display, win.id, win.title.c_str());
    XSizeHints hints{};
    hints.flags = USPosition | PPosition | PSize;
    hints.x = x;
    hints.y = y;
    hints.width = w;
    hints.height = h;
    XSetWMNormalHints(display, win.id, &hints);
    XSetWMProtocols(display, win.id, &deleteAtom, 1);
    XSelectInput(display, win.id, ExposureMask | StructureNotifyMask);
    XMapWindow(display, win.id);
    win.created = true;
  }

  void Draw(Win& win) {
    if (win.image != nullptr && win.created && !win.closed) {
      XPutImage(display, win.id, DefaultGC(display, screen), win.image, 0, 0, 0, 0, win.width,
                win.height);
    }
  }

  Display* display = nullptr;
  int screen = 0;
  Visual* visual = nullptr;
  int depth = 0;
  int redShift = 0;
  int greenShift = 0;
  int blueShift = 0;
  Atom deleteAtom = 0;
  int nextX = 0;
  int nextY = 0;
  int rowHeight = 0;
  std::vector<Win> windows;
};

HostDisplay::HostDisplay() = default;
HostDisplay::~HostDisplay() = default;

bool HostDisplay::Open() {
  const char* name = std::getenv("DISPLAY");
  if (name == nullptr || *name == '\0') {
    m_reason = "DISPLAY is not set";
    return false;
  }
  Display* display = XOpenDisplay(nullptr);
  if (display == nullptr) {
    m_reason = std::string("cannot open display ") + name;
    return false;
  }
  const int screen = DefaultScreen(display);
  Visual* visual = DefaultVisual(display, screen);
  const int depth = DefaultDepth(display, screen);
  // Eight bits a channel in a 32-bit pixel is all this host draws.
  if (visual->c_class != TrueColor || depth < 24 || std::popcount(visual->red_mask) != 8 ||
      std::popcount(visual->green_mask) != 8 || std::popcount(visual->blue_mask) != 8) {
    XCloseDisplay(display);
    m_reason = std::string("display ") + name + " has no 24-bit true colour visual";
    return false;
  }
  XSetErrorHandler(OnXError);
  m_state = std::make_unique<State>();
  m_state->display = display;
  m_state->screen = screen;
  m_state->visual = visual;
  m_state->depth = depth;
  m_state->redShift = ShiftOf(visual->red_mask);
  m_state->greenShift = ShiftOf(visual->green_mask);
  m_state->blueShift = ShiftOf(visual->blue_mask);
  m_state->deleteAtom = XInternAtom(display, "WM_DELETE_WINDOW", False);
  return true;
}

bool HostDisplay::IsOpen() const { return m_state != nullptr; }

int HostDisplay::AddWindow(const std::string& title) {
  if (!m_state) {
    return -1;
  }
  m_state->windows.emplace_back();
  m_state->windows.back().title = title;
  return static_cast<int>(m_state->windows.size() - 1);
}

void HostDisplay::Show(int window, const RgbImage& image) {
  if (!m_state || window < 0 || static_cast<size_t>(window) >= m_state->windows.size() ||
      image.width == 0 || image.height == 0) {
    return;
  }
  State& state = *m_state;
  State::Win& win = state.windows[static_cast<size_t>(window)];
  if (win.closed) {
    return;
  }
  if (!win.created) {
    state.Create(win, image.width, image.height);
  } else if (win.width != image.width || win.height != image.height) {
    XResizeWindow(state.display, win.id, image.width, image.height);
  }
  if (win.image == nullptr || win.width != image.width || win.height != image.height) {
    state.DropImage(win);
    win.width = image.width;
    win.height = image.height;
    win.pixels.assign(size_t{image.width} * image.height, 0);
    win.image = XCreateImage(state.display, state.visual, static_cast<unsigned>(state.depth),
                             ZPixmap, 0, reinterpret_cast<char*>(win.pixels.data()), image.width,
                             image.height, 32, static_cast<int>(image.width * 4));
    if (win.image == nullptr || win.image->bits_per_pixel != 32) {
      std::fprintf(stderr, "%s: the display takes no 32-bit images; not drawing\n",
                   win.title.c_str());
      state.DropImage(win);
      win.closed = true;
      return;
    }
    // The pixels are written as native 32-bit values; Xlib swaps them if the server differs.
    win.image->byte_order = std::endian::native == std::endian::little ? LSBFirst : MSBFirst;
  }
  const uint8_t* rgb = image.pixels.data();
  for (uint32_t& pixel : win.pixels) {
    pixel = (static_cast<uint32_t>(rgb[0]) << state.redShift) |
            (static_cast<uint32_t>(rgb[1]) << state.greenShift) |
            (static_cast<uint32_t>(rgb[2]) << state.blueShift);
    rgb += 3;
  }
  state.Draw(win);
  XFlush(state.display);
}

void HostDisplay::Pump() {
  if (!m_state) {
    return;
  }
  State& state = *m_state;
  while (XPending(state.display) > 0) {
    XEvent event;
    XNextEvent(state.display, &event);
    for (State::Win& win : state.windows) {
      if (!win.created || win.closed || event.xany.window != win.id) {
        continue;
      }
      if (event.type == Expose && event.xexpose.count == 0) {
        state.Draw(win);
      } else if (event.type == ClientMessage &&
                 static_cast<Atom>(event.xclient.data.l[0]) == state.deleteAtom) {
        // The user closed it: the run goes on, the picture still goes to its file.
        XDestroyWindow(state.display, win.id);
        win.closed = true;
      }
    }
  }
  XFlush(state.display);
}

int HostDisplay::OpenWindows() const {
  if (!m_state) {
    return 0;
  }
  int count = 0;
  for (const State::Win& win : m_state->windows) {
    count += win.created && !win.closed ? 1 : 0;
  }
  return count;
}

#else  // a build without X11: pictures go to files only

struct HostDisplay::State {};

HostDisplay::HostDisplay() = default;
HostDisplay::~HostDisplay() = default;

bool HostDisplay::Open() {
  m_reason = "built without X11";
  return false;
}
bool HostDisplay::IsOpen() const { return false; }
int HostDisplay::AddWindow(const std::string& /*title*/) { return -1; }
void HostDisplay::Show(int /*window*/, const RgbImage& /*image*/) {}
void HostDisplay::Pump() {}
int HostDisplay::OpenWindows() const { return 0; }

#endif  // VLINK_HOST_HAS_X11
