// The platform's stream quality-indicator service: a producer reports every frame going
// into and coming out of a processing stage, and the service keeps counts, sizes and the
// time each frame spent in the stage, printing a summary through the stream's print
// function every kStreamQiPrintEvery frames and when the stream is deleted.
#pragma once

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

extern "C" {

// printf-style; returns 0.
typedef int32_t (*StreamQiPrintFunc)(const char* format, ...);

// The create record, 296 bytes, zeroed before it is filled.
struct StreamQiCreateParam {
  StreamQiPrintFunc print;  // offset 0
  uint64_t streamId;        // offset 8
  char streamName[256];     // offset 16, NUL-terminated
  uint32_t kind;            // offset 272
  uint8_t reserved[20];
};

struct StreamQiStats {
  uint64_t framesIn;
  uint64_t framesOut;
  uint64_t bytesIn;
  uint64_t bytesOut;
  uint64_t maxStageUs;  // longest time between an In and the Out that followed it
  uint64_t prints;      // summaries printed so far
};

// A new stream, or null for a missing record, an empty name or no print function.
OSV_API void* StreamQiCreate(const StreamQiCreateParam* param);
// 0, or -1 for an unknown handle. `data` may be null (counted, size 0).
OSV_API int32_t StreamQiIn(void* handle, const void* data, uint32_t size);
OSV_API int32_t StreamQiOut(void* handle, const void* data, uint32_t size);
// 0, or -1 for an unknown handle (already deleted, or never created).
OSV_API int32_t StreamQiDelete(void* handle);
// The platform's print function: writes a line to the module log (information level).
OSV_API int32_t StreamQiPrint(const char* format, ...) __attribute__((format(printf, 1, 2)));
// 0 and the stream's counts, or -1 for an unknown handle.
OSV_API int32_t StreamQiGetStats(void* handle, StreamQiStats* out);
}

constexpr uint64_t kStreamQiPrintEvery = 300;
