// Which rows of the captured monitor changed since the last look, as the X server reports
// them through the DAMAGE extension: the capture then grabs and converts only those rows.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>
#include <vector>

// Rows [begin, end) of the monitor.
struct RowBand {
  uint32_t begin;
  uint32_t end;
};

// Merges overlapping or touching bands and widens each to even rows (an I420 chroma row
// covers two picture rows), within [0, height).
std::vector<RowBand> MergeRowBands(std::vector<RowBand> bands, uint32_t height);

class X11DamageTracker {
 public:
  X11DamageTracker() = default;
  X11DamageTracker(const X11DamageTracker&) = delete;
  X11DamageTracker& operator=(const X11DamageTracker&) = delete;

  // Starts recording damage on `root`; false when the server has no DAMAGE extension (the
  // capture grabs whole frames then).
  bool Start(Display* display, Window root);
  // Forgets the recording (the connection's end frees it in the server anyway).
  void Stop(Display* display);
  bool Active() const { return m_damage != 0; }
  // An event read from the connection: the server's note that damage began to gather.
  void OnEvent(const XEvent& event);
  // The rows of the monitor at (x, y), width x height, damaged since the last call (merged,
  // even-aligned); the recording starts afresh. Damage outside the monitor is ignored. Asks
  // the server only after it announced damage: a still screen costs no round trip.
  std::vector<RowBand> TakeChangedRows(Display* display, int32_t x, int32_t y, uint32_t width,
                                       uint32_t height);

 private:
  unsigned long m_damage = 0;  // Damage
  unsigned long m_region = 0;  // XserverRegion
  int m_eventBase = 0;
  bool m_announced = true;  // damage was announced since the last take
};
