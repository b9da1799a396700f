#include "core/tavo_video_os_seams.h"

#include <chrono>
#include <cstdlib>

#include "platform/os_thread.h"
#include "platform/os_time.h"

namespace {

class OsClock final : public Clock {
 public:
  uint64_t NowUs() override { return OsVLinkGetTimestampUs(); }
  void SleepMs(uint32_t milliseconds) override { OsSleepMs(milliseconds); }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& signal,
               uint32_t milliseconds, const std::function<bool()>& done) override {
    return signal.wait_for(lock, std::chrono::milliseconds(milliseconds), done);
  }
};

class OsThreadSystem final : public ThreadSystem {
 public:
  int32_t Create(pthread_t* thread, void* (*routine)(void*), void* arg) override {
    return OsPthreadCreate(thread, nullptr, routine, arg);
  }
  int32_t Join(pthread_t thread) override { return OsPthreadJoin(thread, nullptr); }
  int32_t SetName(const char* name) override { return OsPthreadSetName(name); }
};

class OsDynamicLoader final : public DynamicLoader {
 public:
  void* Open(const char* path) override { return OsDLibraryOpen(path); }
  void* Symbol(void* handle, const char* name) override { return OsDLibrarySym(handle, name); }
  int32_t Close(void* handle) override { return OsDLibraryClose(handle); }
  std::string Error() override { return OsDLibraryError(); }
};

class HeapFrameMemory final : public FrameMemory {
 public:
  void* Allocate(size_t bytes) override { return std::malloc(bytes); }
};

}  // namespace

Clock& Clock::Real() {
  static OsClock clock;
  return clock;
}

ThreadSystem& ThreadSystem::Real() {
  static OsThreadSystem threads;
  return threads;
}

DynamicLoader& DynamicLoader::Real() {
  static OsDynamicLoader loader;
  return loader;
}

FrameMemory& FrameMemory::Real() {
  static HeapFrameMemory memory;
  return memory;
}
