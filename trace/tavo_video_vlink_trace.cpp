// The trace printer: a level, three channels and a bounded formatter.
#include "tavo_video_vlink_trace.h"

#include <array>
#include <atomic>
#include <exception>

#include "platform/adapt_common/safe_string.h"
#include "trace/tavo_video_host_guard.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

constexpr unsigned int kChannelCount = 3;
constexpr unsigned char kMaxTraceLevel = 4;
constexpr size_t kTraceBufferSize = 512;
constexpr int kMaxTraceLength = 510;

// Read by every logging thread without a lock; atomics keep that well defined at the cost
// of a plain load.
std::array<std::atomic<TavoVideoTraceCallBack>, kChannelCount> g_traceCallbacks{};

}  // namespace

std::atomic<uint8_t> g_ucOSVLinkTraceLevel{0};

int OS_VLink_Debug_SetTraceLevel(unsigned char level) {
  if (level > kMaxTraceLevel) {
    return -1;
  }
  g_ucOSVLinkTraceLevel.store(level, std::memory_order_relaxed);
  return 0;
}

unsigned char OSV_VLink_GetTraceLevel() {
  return g_ucOSVLinkTraceLevel.load(std::memory_order_relaxed);
}

int OS_VLink_Debug_TraceRegister(unsigned int channel, TavoVideoTraceCallBack callback) {
  if (callback == nullptr || channel >= kChannelCount) {
    return -1;
  }
  g_traceCallbacks[channel].store(callback, std::memory_order_release);
  return 0;
}

void OSV_VLink_TracePrintf(unsigned int channel, unsigned int level, const char* format, ...) {
  if (channel >= kChannelCount || format == nullptr) {
    return;
  }
  char text[kTraceBufferSize] = {};
  va_list args;
  va_start(args, format);
  const int length = vsnprintf_s(text, sizeof(text), format, args);
  va_end(args);
  // A text that does not fit is dropped whole rather than cut.
  if (length < 1 || length > kMaxTraceLength) {
    return;
  }
  if (TavoVideoTraceCallBack callback = g_traceCallbacks[channel].load(std::memory_order_acquire)) {
    callback(level, text);
  }
}

namespace vlink {

void LogHostCallException(const char* function) noexcept {
  try {
    throw;
  } catch (const std::exception& error) {
    VLOG_ERR("[%s] failed: %s", function, error.what());
  } catch (...) {
    VLOG_ERR("[%s] failed: unknown exception", function);
  }
}

}  // namespace vlink
