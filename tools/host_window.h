// On-screen windows for the host program's preview windows: plain X11 windows that show
// RGB pictures. Optional: without a display (or a build without X11) Open() fails and the
// host writes its pictures to files only.
//
// Not thread-safe: one thread, the host's main thread, makes every call.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tools/common/host_image.h"

class HostDisplay {
 public:
  HostDisplay();
  ~HostDisplay();
  HostDisplay(const HostDisplay&) = delete;
  HostDisplay& operator=(const HostDisplay&) = delete;

  // Connects to $DISPLAY; false (and why in Reason()) when it is unset, does not open or
  // cannot show 24-bit colour.
  bool Open();
  bool IsOpen() const;
  const std::string& Reason() const { return m_reason; }

  // Reserves a window; it appears with the first picture shown in it. Returns its index.
  int AddWindow(const std::string& title);
  // Shows the picture in a window, sizing the window to the picture.
  void Show(int window, const RgbImage& image);
  // Handles exposures and closings; call often.
  void Pump();
  // Windows the user has not closed.
  int OpenWindows() const;

 private:
  struct State;
  std::unique_ptr<State> m_state;
  std::string m_reason;
};
