// The platform's module log.
//
// Records are dropped unless somebody listens: a sink installed by a test, or an output
// chosen by the user with TAVO_OM_LOG=stderr or TAVO_OM_LOG=/path/to/file (read once at
// load) or with OmLogSetOutput. An idle log costs one atomic load per record.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "osv_graphic_buffer.h"  // OSV_API

extern "C" {
// Levels: 1 error, 2 warning, 3 information, 4 detail.
OSV_API int32_t TavoOmLogModuleLogRecord(uint32_t level, uint32_t moduleId, const char* fileName,
                                         uint32_t fileNameLen, uint32_t line, const char* format,
                                         ...) __attribute__((format(printf, 6, 7)));
// The module id of the video subsystem is in the low 16 bits.
OSV_API uint32_t TavoVideoGetPrivateLogId(uint32_t index);
}

struct OmLogRecord {
  uint32_t level;
  uint32_t moduleId;
  std::string file;
  uint32_t line;
  std::string text;
};
using OmLogSink = std::function<void(const OmLogRecord&)>;

// Replaces the sink (an empty function removes it); returns the previous one.
OSV_API OmLogSink OmLogSetSink(OmLogSink sink);
// "stderr", a file path to append to, or null to stop writing. 0 on success.
OSV_API int32_t OmLogSetOutput(const char* destination);
