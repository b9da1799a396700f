#include "platform/adapt_common/stream_qi.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "platform/adapt_common/om_log.h"
#include "platform/adapt_common/os_time.h"

static_assert(sizeof(StreamQiCreateParam) == 296);
static_assert(offsetof(StreamQiCreateParam, streamId) == 8);
static_assert(offsetof(StreamQiCreateParam, streamName) == 16);
static_assert(offsetof(StreamQiCreateParam, kind) == 272);

namespace {

struct QiStream {
  StreamQiPrintFunc print;
  uint64_t streamId;
  std::string name;
  uint32_t kind;
  std::mutex lock;  // guards stats and inAtUs; the print function runs outside it
  StreamQiStats stats{};
  uint64_t inAtUs = 0;
};

// Live streams; a handle is valid only while it is in here.
std::mutex g_streamsLock;  // guards g_streams
std::set<QiStream*> g_streams;

QiStream* Find(void* handle) {
  std::lock_guard<std::mutex> lock(g_streamsLock);
  auto* stream = static_cast<QiStream*>(handle);
  return g_streams.count(stream) != 0 ? stream : nullptr;
}

void PrintSummary(const QiStream& stream, const StreamQiStats& stats) {
  stream.print(
      "stream qi [%s] id[%llu] kind[%u] in[%llu] out[%llu] bytes in[%llu] out[%llu] "
      "max stage[%llu us]",
      stream.name.c_str(), static_cast<unsigned long long>(stream.streamId), stream.kind,
      static_cast<unsigned long long>(stats.framesIn),
      static_cast<unsigned long long>(stats.framesOut),
      static_cast<unsigned long long>(stats.bytesIn),
      static_cast<unsigned long long>(stats.bytesOut),
      static_cast<unsigned long long>(stats.maxStageUs));
}

}  // namespace

void* StreamQiCreate(const StreamQiCreateParam* param) {
  if (param == nullptr || param->print == nullptr ||
      strnlen(param->streamName, sizeof(param->streamName)) == 0) {
    return nullptr;
  }
  auto stream = std::make_unique<QiStream>();
  stream->print = param->print;
  stream->streamId = param->streamId;
  stream->name.assign(param->streamName, strnlen(param->streamName, sizeof(param->streamName)));
  stream->kind = param->kind;
  std::lock_guard<std::mutex> lock(g_streamsLock);
  return *g_streams.insert(stream.release()).first;
}

int32_t StreamQiIn(void* handle, const void* data, uint32_t size) {
  QiStream* stream = Find(handle);
  if (stream == nullptr) {
    return -1;
  }
  std::lock_guard<std::mutex> lock(stream->lock);
  ++stream->stats.framesIn;
  stream->stats.bytesIn += data != nullptr ? size : 0;
  stream->inAtUs = OsVLinkGetTimestampUs();
  return 0;
}

int32_t StreamQiOut(void* handle, const void* data, uint32_t size) {
  QiStream* stream = Find(handle);
  if (stream == nullptr) {
    return -1;
  }
  StreamQiStats snapshot{};
  bool print = false;
  {
    std::lock_guard<std::mutex> lock(stream->lock);
    StreamQiStats& stats = stream->stats;
    ++stats.framesOut;
    stats.bytesOut += data != nullptr ? size : 0;
    if (stream->inAtUs != 0) {
      const uint64_t stage = OsVLinkGetTimestampUs() - stream->inAtUs;
      stats.maxStageUs = stage > stats.maxStageUs ? stage : stats.maxStageUs;
      stream->inAtUs = 0;
    }
    if (stats.framesOut % kStreamQiPrintEvery == 0) {
      ++stats.prints;
      print = true;
    }
    snapshot = stats;
  }
  if (print) {
    PrintSummary(*stream, snapshot);
  }
  return 0;
}

int32_t StreamQiDelete(void* handle) {
  std::unique_ptr<QiStream> stream;
  {
    std::lock_guard<std::mutex> lock(g_streamsLock);
    auto found = g_streams.find(static_cast<QiStream*>(handle));
    if (found == g_streams.end()) {
      return -1;
    }
    stream.reset(*found);
    g_streams.erase(found);
  }
  PrintSummary(*stream, stream->stats);
  return 0;
}

int32_t StreamQiGetStats(void* handle, StreamQiStats* out) {
  QiStream* stream = Find(handle);
  if (stream == nullptr || out == nullptr) {
    return -1;
  }
  std::lock_guard<std::mutex> lock(stream->lock);
  *out = stream->stats;
  return 0;
}

int32_t StreamQiPrint(const char* format, ...) {
  if (format == nullptr) {
    return 0;
  }
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  static const char kFile[] = "stream_qi.cpp";
  TavoOmLogModuleLogRecord(3, TavoVideoGetPrivateLogId(0) & 0xFFFFU, kFile, sizeof(kFile) - 1,
                           __LINE__, "%s", text);
  return 0;
}
