// Processor and operating-system checks of the platform video library. They read the
// machine they run on (/proc/cpuinfo, /etc/os-release) once; a test or a host tool can make
// them answer for another machine with OsPlatformSetIdentity.
#pragma once

#include <cstdint>

#include "osv_graphic_buffer.h"  // OSV_API

extern "C" {
// 1 when the processor's model name contains `name` (e.g. "Soren 7A"), else 0.
OSV_API int32_t IsTargetCpu(const char* name);
// 1 when the operating system's name or id contains `name` (e.g. "Kylin", "Uos"), ignoring
// case, else 0.
OSV_API int32_t IsTargetOs(const char* name);
// A "Soren 7A" or "Soren 8C" processor under "Kylin" / under "Uos".
OSV_API int32_t IsSorenKOS();
OSV_API int32_t IsSorenUOS();
// Makes the checks answer as if the processor's model name were `cpuModel` and the
// system's name `osName`; null for either goes back to the real machine's value.
OSV_API void OsPlatformSetIdentity(const char* cpuModel, const char* osName);
}
