// The media engine's trace pair as the platform offers it: a level the engine's code asks
// before it formats anything, and a printer whose records land in the module log.
#pragma once

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

extern "C" {
// Current level: 0 off, 1 error, 2 warning, 3 information, 4 detail. Starts at 0.
OSV_API uint32_t PELV_GetVideoTracLevel();
OSV_API void PELV_SetVideoTracLevel(uint32_t level);
// Records a message when 0 < level <= the current level; `module` and `function` may be
// null.
OSV_API void PELV_Trace(uint32_t level, uint32_t channel, const char* module, const char* function,
                        uint32_t line, const char* format, ...)
    __attribute__((format(printf, 6, 7)));
}
