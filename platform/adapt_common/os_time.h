// Monotonic time of the platform video library.
#pragma once

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

extern "C" {
OSV_API uint64_t OsVLinkGetTimestampMs();
OSV_API uint64_t OsVLinkGetTimestampUs();
OSV_API uint64_t OsVLinkGetTimestampNs();
}
