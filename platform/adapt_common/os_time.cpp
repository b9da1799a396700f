#include "platform/adapt_common/os_time.h"

#include <ctime>

uint64_t OsVLinkGetTimestampNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t OsVLinkGetTimestampUs() { return OsVLinkGetTimestampNs() / 1000ULL; }

uint64_t OsVLinkGetTimestampMs() { return OsVLinkGetTimestampNs() / 1000000ULL; }
