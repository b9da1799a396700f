#include "screen/tavo_video_vlink_capture_pacer.h"

#include "core/tavo_video_named_thread.h"
#include "core/tavo_video_os_seams.h"

namespace {
constexpr uint64_t kCoarseMarginNs = 4000000ULL;
constexpr uint32_t kCoarseStepMs = 3;
constexpr uint32_t kFineStepMs = 1;
}  // namespace

uint64_t CaptureNowNs() { return Seam<Clock>::Get().NowUs() * 1000ULL; }

bool CapturePacer::WaitForDeadline(NamedThread& thread) const {
  const uint64_t coarseUntil =
      m_periodNs > kCoarseMarginNs ? m_base + m_periodNs - kCoarseMarginNs : m_base;
  while (CaptureNowNs() < coarseUntil) {
    if (!thread.WaitFor(kCoarseStepMs)) {
      return false;
    }
  }
  while (CaptureNowNs() < Deadline()) {
    if (!thread.WaitFor(kFineStepMs)) {
      return false;
    }
  }
  return !thread.StopRequested();
}
