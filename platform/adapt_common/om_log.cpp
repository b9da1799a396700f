#include "platform/adapt_common/om_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "platform/adapt_common/os_time.h"

namespace {

constexpr uint32_t kVideoModuleId = 0x0056;  // 'V'
constexpr size_t kMaxRecord = 1024;

struct LogState {
  std::mutex lock;  // guards sink and output
  OmLogSink sink;
  FILE* output = nullptr;
  bool ownsOutput = false;
  std::atomic<bool> active{false};

  LogState() {
    if (const char* destination = std::getenv("TAVO_OM_LOG")) {
      Open(destination);
    }
    Refresh();  // a destination from the environment counts from the first record
  }
  ~LogState() { Close(); }

  void Close() {
    if (ownsOutput && output != nullptr) {
      std::fclose(output);
    }
    output = nullptr;
    ownsOutput = false;
  }
  int32_t Open(const char* destination) {
    Close();
    if (destination != nullptr && std::strcmp(destination, "stderr") == 0) {
      output = stderr;
    } else if (destination != nullptr && destination[0] != '\0') {
      output = std::fopen(destination, "a");
      if (output == nullptr) {
        return -1;
      }
      ownsOutput = true;
    }
    return 0;
  }
  void Refresh() { active.store(sink || output != nullptr, std::memory_order_release); }
};

LogState& State() {
  static LogState state;
  return state;
}

const char* LevelName(uint32_t level) {
  switch (level) {
    case 1:
      return "ERR";
    case 2:
      return "WRN";
    case 3:
      return "INF";
    default:
      return "DTL";
  }
}

}  // namespace

uint32_t TavoVideoGetPrivateLogId(uint32_t /*index*/) { return kVideoModuleId; }

int32_t TavoOmLogModuleLogRecord(uint32_t level, uint32_t moduleId, const char* fileName,
                                 uint32_t fileNameLen, uint32_t line, const char* format, ...) {
  LogState& state = State();
  if (!state.active.load(std::memory_order_acquire) || format == nullptr) {
    return 0;
  }
  char text[kMaxRecord];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (length < 0) {
    return -1;
  }
  OmLogRecord record{
      level, moduleId & 0xFFFFU,
      fileName != nullptr ? std::string(fileName, strnlen(fileName, fileNameLen)) : std::string(),
      line, text};
  std::lock_guard<std::mutex> lock(state.lock);
  if (state.sink) {
    state.sink(record);
  }
  if (state.output != nullptr) {
    const uint64_t ms = OsVLinkGetTimestampMs();
    std::fprintf(state.output, "%llu.%03llu %s [%04x] %s:%u %s\n",
                 static_cast<unsigned long long>(ms / 1000),
                 static_cast<unsigned long long>(ms % 1000), LevelName(level), record.moduleId,
                 record.file.c_str(), line, text);
    std::fflush(state.output);
  }
  return 0;
}

OmLogSink OmLogSetSink(OmLogSink sink) {
  LogState& state = State();
  std::lock_guard<std::mutex> lock(state.lock);
  OmLogSink previous = std::move(state.sink);
  state.sink = std::move(sink);
  state.Refresh();
  return previous;
}

int32_t OmLogSetOutput(const char* destination) {
  LogState& state = State();
  std::lock_guard<std::mutex> lock(state.lock);
  const int32_t result = state.Open(destination);
  state.Refresh();
  return result;
}
