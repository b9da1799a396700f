// The platform's bounds-checked string and memory functions (memcpy_s, memset_s, strcpy_s,
// sprintf_s, vsnprintf_s), each returning 0 or a positive length on success. libsafec
// provides them; this header is the one place that includes it.
#pragma once

#include <cstdarg>
#include <cstddef>

extern "C" {
#include <safe_lib.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
}
