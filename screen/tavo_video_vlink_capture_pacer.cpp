#include "screen/tavo_video_vlink_capture_pacer.h"

#include "core/tavo_video_named_thread.h"
#include "core/tavo_video_os_seams.h"

uint64_t CaptureNowNs() { return Seam<Clock>::Get().NowUs() * 1000ULL; }

bool CapturePacer::WaitForDeadline(NamedThread& thread) const {
  // One wait for the time left, rounded up to whole milliseconds: the deadline is kept
  // within a millisecond without waking up every few milliseconds.
  for (uint64_t now = CaptureNowNs(); now < Deadline(); now = CaptureNowNs()) {
    const uint64_t leftMs = (Deadline() - now + 999999ULL) / 1000000ULL;
    if (!thread.WaitFor(static_cast<uint32_t>(leftMs))) {
      return false;
    }
  }
  return !thread.StopRequested();
}
