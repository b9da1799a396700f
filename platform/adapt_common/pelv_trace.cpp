#include "platform/adapt_common/pelv_trace.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/adapt_common/om_log.h"

namespace {

constexpr size_t kMaxText = 512;

std::atomic<uint32_t> g_pelvTraceLevel{0};

}  // namespace

uint32_t PELV_GetVideoTracLevel() { return g_pelvTraceLevel.load(std::memory_order_relaxed); }

void PELV_SetVideoTracLevel(uint32_t level) {
  g_pelvTraceLevel.store(level, std::memory_order_relaxed);
}

void PELV_Trace(uint32_t level, uint32_t channel, const char* module, const char* function,
                uint32_t line, const char* format, ...) {
  if (level == 0 || level > PELV_GetVideoTracLevel() || format == nullptr) {
    return;
  }
  char text[kMaxText];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (length < 0) {
    return;
  }
  // The module name stands in for the file: the engine's records carry no file of ours.
  const char* source = module != nullptr ? module : "PELV";
  TavoOmLogModuleLogRecord(level, TavoVideoGetPrivateLogId(0) & 0xFFFFU, source,
                           static_cast<uint32_t>(std::strlen(source)), line, "[%u][%s] %s", channel,
                           function != nullptr ? function : "", text);
}
