#include "screen/tavo_video_vlink_x11_damage.h"

#include <X11/extensions/Xdamage.h>
#include <X11/extensions/Xfixes.h>

#include <algorithm>

std::vector<RowBand> MergeRowBands(std::vector<RowBand> bands, uint32_t height) {
  for (RowBand& band : bands) {
    band.begin &= ~1U;
    band.end = std::min(height, (band.end + 1) & ~1U);
  }
  std::sort(bands.begin(), bands.end(),
            [](const RowBand& a, const RowBand& b) { return a.begin < b.begin; });
  std::vector<RowBand> merged;
  for (const RowBand& band : bands) {
    if (band.begin >= band.end) {
      continue;
    }
    if (!merged.empty() && band.begin <= merged.back().end) {
      merged.back().end = std::max(merged.back().end, band.end);
    } else {
      merged.push_back(band);
    }
  }
  return merged;
}

bool X11DamageTracker::Start(Display* display, Window root) {
  int errorBase = 0;
  if (!XDamageQueryExtension(display, &m_eventBase, &errorBase)) {
    return false;
  }
  // Reported only when the damage goes from none to some: the events carry nothing the
  // capture needs, and at most one waits per frame.
  m_damage = XDamageCreate(display, root, XDamageReportNonEmpty);
  m_announced = true;
  m_region = XFixesCreateRegion(display, nullptr, 0);
  return m_damage != 0;
}

void X11DamageTracker::Stop(Display* display) {
  if (m_damage != 0 && display != nullptr) {
    XDamageDestroy(display, m_damage);
    XFixesDestroyRegion(display, m_region);
  }
  m_damage = 0;
  m_region = 0;
}

void X11DamageTracker::OnEvent(const XEvent& event) {
  if (m_damage != 0 && event.type == m_eventBase + XDamageNotify) {
    m_announced = true;
  }
}

std::vector<RowBand> X11DamageTracker::TakeChangedRows(Display* display, int32_t x, int32_t y,
                                                       uint32_t width, uint32_t height) {
  std::vector<RowBand> bands;
  if (!m_announced) {
    return bands;
  }
  // Events that arrive from here on are kept: one may announce damage done after the
  // subtraction, and no other would come for it.
  m_announced = false;
  XDamageSubtract(display, m_damage, None, m_region);
  int count = 0;
  XRectangle* rects = XFixesFetchRegion(display, m_region, &count);
  const int64_t left = x;
  const int64_t right = int64_t{x} + width;
  const int64_t top = y;
  const int64_t bottom = int64_t{y} + height;
  for (int i = 0; rects != nullptr && i < count; ++i) {
    const int64_t x0 = std::max<int64_t>(rects[i].x, left);
    const int64_t x1 = std::min<int64_t>(int64_t{rects[i].x} + rects[i].width, right);
    const int64_t y0 = std::max<int64_t>(rects[i].y, top);
    const int64_t y1 = std::min<int64_t>(int64_t{rects[i].y} + rects[i].height, bottom);
    if (x0 < x1 && y0 < y1) {
      bands.push_back({static_cast<uint32_t>(y0 - top), static_cast<uint32_t>(y1 - top)});
    }
  }
  if (rects != nullptr) {
    XFree(rects);
  }
  return MergeRowBands(std::move(bands), height);
}
