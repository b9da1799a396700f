#include "core/tavo_video_os_seams.h"

#include <dlfcn.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/adapt_common/os_thread.h"
#include "platform/adapt_common/os_time.h"

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

// The folder of the shared object this code is linked into, with a trailing '/'.
std::string OwnFolder() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&OwnFolder), &info) == 0 || info.dli_fname == nullptr) {
    return {};
  }
  const std::string self = info.dli_fname;
  const size_t slash = self.rfind('/');
  return slash == std::string::npos ? std::string() : self.substr(0, slash + 1);
}

class OsDynamicLoader final : public DynamicLoader {
 public:
  // A bare name the loader's search does not find is looked for beside this library and in
  // its lib/ folder: the library's own run path is not searched when a sanitizer runtime
  // intercepts the call and becomes the caller.
  void* Open(const char* path) override {
    void* handle = OsDLibraryOpen(path);
    if (handle != nullptr || path == nullptr || std::strchr(path, '/') != nullptr) {
      return handle;
    }
    const std::string folder = OwnFolder();
    for (const char* sub : {"", "lib/"}) {
      if (!folder.empty()) {
        if (void* found = OsDLibraryOpen((folder + sub + path).c_str())) {
          return found;
        }
      }
    }
    OsDLibraryOpen(path);  // leaves the first failure's text for Error()
    return nullptr;
  }
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
