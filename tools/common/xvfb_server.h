// A private X server for one test: Xvfb on a free display number (chosen by the server
// through -displayfd), with the screens the test asks for, RandR monitors changed through
// the xrandr tool, known content drawn on the root windows, the pointer moved and cursors
// set. The server is shut down when the object goes.
#pragma once

#include <X11/Xlib.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct XvfbScreen {
  uint32_t width;
  uint32_t height;
  uint32_t depth = 24;
};

class XvfbServer {
 public:
  explicit XvfbServer(const std::vector<XvfbScreen>& screens);
  ~XvfbServer();
  XvfbServer(const XvfbServer&) = delete;
  XvfbServer& operator=(const XvfbServer&) = delete;

  // False when Xvfb could not be started (the reason is in Error()).
  bool Ok() const { return m_display != nullptr; }
  const std::string& Error() const { return m_error; }
  // ":N"; with a screen, ":N.S", a name whose default screen is S.
  std::string Name() const;
  std::string Name(int defaultScreen) const;
  // The fixture's own connection, kept open for the server's life.
  Display* Connection() const { return m_display; }

  // Runs `xrandr -display :N --screen S args...`; true when it exited with 0.
  bool Xrandr(int screen, const std::vector<std::string>& args);
  // A monitor `name` of width x height at (x, y), on no output (or `output`).
  bool SetMonitor(int screen, const std::string& name, uint32_t width, uint32_t height, int x,
                  int y, const std::string& output = "none");
  bool DeleteMonitor(int screen, const std::string& name);
  // Splits the screen's single monitor into `count` side by side of equal width.
  bool SplitScreen(int screen, uint32_t count);

  // Draws 32-bit pixels (0xAARRGGBB, alpha ignored) at (x, y) of the screen's root window.
  void PutPixels(int screen, int x, int y, uint32_t width, uint32_t height,
                 const std::vector<uint32_t>& pixels);
  // Reads back the root window (what the server really holds), as 0x00RRGGBB.
  std::vector<uint32_t> GetPixels(int screen, int x, int y, uint32_t width, uint32_t height);
  void WarpPointer(int screen, int x, int y);
  // Makes `pixels` (premultiplied 0xAARRGGBB) the cursor of the screen's root window.
  void SetRootCursor(int screen, uint32_t width, uint32_t height, int hotX, int hotY,
                     const std::vector<uint32_t>& pixels);
  // Stops the server now (a display that goes away under a client).
  void Kill();

 private:
  pid_t m_pid = -1;
  int m_number = -1;
  Display* m_display = nullptr;
  std::string m_error;
};

// A deterministic picture: every pixel a function of its position and the seed.
std::vector<uint32_t> PatternPixels(uint32_t width, uint32_t height, uint32_t seed);

// Shared-memory segments this process created that are not yet marked for removal (what
// `ipcs -m -p` lists against our pid), leaving out older ones of an earlier process that had
// the same id. One that is not marked outlives a crash of the process.
size_t CountOwnShmSegments();
