// The library's one log macro family.
//
// Every message goes to the host's trace channels (only when the trace level admits it,
// tested before any formatting) and to the platform module log. The format string must be
// a literal: the level's prefix is pasted in front of it, and the compiler checks it
// against the arguments.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/adapt_common/om_log.h"
#include "tavo_video_vlink_trace.h"
#include "trace/tavo_video_log_pacer.h"

namespace vlink {

enum LogSinks : unsigned { kToTrace = 1U, kToModuleLog = 2U, kToBoth = 3U };

inline uint32_t LogModuleId() {
  static const uint32_t moduleId = TavoVideoGetPrivateLogId(0) & 0xFFFFU;
  return moduleId;
}

}  // namespace vlink

#define VLINK_TRACE_PREFIX_1 "\r\n\033[1;31m OS_VLink->[Err] \033[0m [%s][%d]: "
#define VLINK_TRACE_PREFIX_2 "\r\n\033[1;33m OS_VLink->[Wrn] \033[0m [%s][%d]: "
#define VLINK_TRACE_PREFIX_3 "\r\n\033[1;32m OS_VLink->[Inf] \033[0m [%s][%d]: "
#define VLINK_TRACE_PREFIX_4 "\r\n\033[1;35m OS_VLink->[Dtl] \033[0m [%s][%d]: "

// level is a literal 1 (error) to 4 (detail); sinks a vlink::LogSinks value.
#define VLINK_LOG(channel, level, sinks, fmt, ...)                                          \
  do {                                                                                      \
    if constexpr (((sinks) & ::vlink::kToTrace) != 0) {                                     \
      if (g_ucOSVLinkTraceLevel.load(std::memory_order_relaxed) >= (level)) {               \
        OSV_VLink_TracePrintf((channel), (level), VLINK_TRACE_PREFIX_##level fmt, __func__, \
                              __LINE__ __VA_OPT__(, ) __VA_ARGS__);                         \
      }                                                                                     \
    }                                                                                       \
    if constexpr (((sinks) & ::vlink::kToModuleLog) != 0) {                                 \
      TavoOmLogModuleLogRecord((level), ::vlink::LogModuleId(), __FILE_NAME__,              \
                               sizeof(__FILE_NAME__) - 1, __LINE__,                         \
                               fmt __VA_OPT__(, ) __VA_ARGS__);                             \
    }                                                                                       \
  } while (0)

// Channel 0, both sinks: what nearly every message uses.
#define VLOG_ERR(fmt, ...) VLINK_LOG(0, 1, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_WRN(fmt, ...) VLINK_LOG(0, 2, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_INF(fmt, ...) VLINK_LOG(0, 3, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_DTL(fmt, ...) VLINK_LOG(0, 4, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
// Another trace channel (1 or 2), both sinks.
#define VLOG_ERR_CH(ch, fmt, ...) VLINK_LOG(ch, 1, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_WRN_CH(ch, fmt, ...) VLINK_LOG(ch, 2, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_INF_CH(ch, fmt, ...) VLINK_LOG(ch, 3, ::vlink::kToBoth, fmt __VA_OPT__(, ) __VA_ARGS__)
// Module log only.
#define VLOG_ERR_MODULE(fmt, ...) \
  VLINK_LOG(0, 1, ::vlink::kToModuleLog, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_WRN_MODULE(fmt, ...) \
  VLINK_LOG(0, 2, ::vlink::kToModuleLog, fmt __VA_OPT__(, ) __VA_ARGS__)
#define VLOG_INF_MODULE(fmt, ...) \
  VLINK_LOG(0, 3, ::vlink::kToModuleLog, fmt __VA_OPT__(, ) __VA_ARGS__)
// Trace channels only.
#define VLOG_INF_TRACE(fmt, ...) VLINK_LOG(0, 3, ::vlink::kToTrace, fmt __VA_OPT__(, ) __VA_ARGS__)

// A line that can repeat with every frame: logged the first time and every `every`-th time
// after, counted per call site (vlink::LogPacer). LOG is one of the macros above.
#define VLOG_PACED(every, LOG, fmt, ...)        \
  do {                                          \
    static ::vlink::LogPacer vlinkPacer(every); \
    if (vlinkPacer.Due()) {                     \
      LOG(fmt __VA_OPT__(, ) __VA_ARGS__);      \
    }                                           \
  } while (0)
