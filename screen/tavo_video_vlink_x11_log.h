// The log lines of the X11 screen capturer: its messages go to trace channel 2, and their
// module-log records carry the capturer's module file name whichever of its role files
// (display, grab, cursor drawing, buffer pool, snapshot) emits them.
#pragma once

#include "trace/tavo_video_vlink_log.h"

namespace vlink {
constexpr unsigned kScreenCapturerChannel = 2;
constexpr char kScreenCapturerFile[] = "tavo_video_vlink_screen_capturer_X11.cpp";
}  // namespace vlink

// level is a literal 1 (error) to 4 (detail); sinks a vlink::LogSinks value.
#define X11_LOG(level, sinks, fmt, ...)                                                       \
  do {                                                                                        \
    if constexpr (((sinks) & ::vlink::kToTrace) != 0) {                                       \
      if (g_ucOSVLinkTraceLevel.load(std::memory_order_relaxed) >= (level)) {                 \
        OSV_VLink_TracePrintf(::vlink::kScreenCapturerChannel, (level),                       \
                              VLINK_TRACE_PREFIX_##level fmt, __func__,                       \
                              __LINE__ __VA_OPT__(, ) __VA_ARGS__);                           \
      }                                                                                       \
    }                                                                                         \
    if constexpr (((sinks) & ::vlink::kToModuleLog) != 0) {                                   \
      TavoOmLogModuleLogRecord((level), ::vlink::LogModuleId(), ::vlink::kScreenCapturerFile, \
                               sizeof(::vlink::kScreenCapturerFile) - 1, __LINE__,            \
                               fmt __VA_OPT__(, ) __VA_ARGS__);                               \
    }                                                                                         \
  } while (0)

#define X11_ERR(fmt, ...) X11_LOG(1, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
#define X11_WRN(fmt, ...) X11_LOG(2, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
#define X11_INF(fmt, ...) X11_LOG(3, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
