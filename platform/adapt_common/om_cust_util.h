// Platform management services the virtual background asks: the configuration directory
// (where model files live) and the GPU description.
#pragma once

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

// The configuration directory when nobody sets one; scripts/install-models.sh fills it.
#define TAVO_OM_DEFAULT_CFG_PATH "/usr/local/share/tavo_video/cfg"

extern "C" {
// The configuration directory, without a trailing slash: $TAVO_OM_CFG_PATH when set and
// not empty; else, in an installed tree, share/tavo_video/cfg of that tree (found from where
// this library lies, so a moved tree keeps finding it); else TAVO_OM_DEFAULT_CFG_PATH. `kind`
// selects among directories of which this platform has one. The text stays valid for the life of
// the process.
OSV_API const char* TavoOmCustUtilGetCfgPath(uint32_t kind);
// Writes a NUL-terminated description of the first GPU the kernel lists (its DRM driver)
// into `info` (capacity `length`), or "none" when there is none. 0 on success, -1 for a
// null or too small buffer.
OSV_API int32_t TavoDevmGetGpuInfo(char* info, uint32_t length);
}
