// The OS seams of the node core: the clock, thread creation and dynamic loading. Each real
// side calls the platform's OS library; tests put fakes in with ScopedSeamOverride.
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "core/tavo_video_seam.h"

// Monotonic time, sleeps and timed waits. Every period the library keeps (sender pace,
// watchdog, capture period) is measured and waited on through it, so a fake clock can
// drive those threads step by step.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual uint64_t NowUs() = 0;
  uint64_t NowMs() { return NowUs() / 1000U; }
  virtual void SleepMs(uint32_t milliseconds) = 0;
  // With `lock` held on the mutex `signal` is used with: waits until done() holds or
  // `milliseconds` have passed on this clock. Returns done().
  virtual bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& signal,
                       uint32_t milliseconds, const std::function<bool()>& done) = 0;
  static Clock& Real();
};

// Thread creation and naming (OsPthreadCreate, OsPthreadJoin, OsPthreadSetName).
class ThreadSystem {
 public:
  virtual ~ThreadSystem() = default;
  // 0, or the error code of a thread that could not be created (EAGAIN, ENOMEM, ...).
  virtual int32_t Create(pthread_t* thread, void* (*routine)(void*), void* arg) = 0;
  virtual int32_t Join(pthread_t thread) = 0;
  // Names the calling thread.
  virtual int32_t SetName(const char* name) = 0;
  static ThreadSystem& Real();
};

// Loading libraries by name at run time (OsDLibraryOpen and its siblings).
class DynamicLoader {
 public:
  virtual ~DynamicLoader() = default;
  // Null when the library cannot be loaded; Error() says why.
  virtual void* Open(const char* path) = 0;
  // Null when the library lacks the symbol.
  virtual void* Symbol(void* handle, const char* name) = 0;
  virtual int32_t Close(void* handle) = 0;
  virtual std::string Error() = 0;
  static DynamicLoader& Real();
};

// Heap blocks for converted frames, freed with std::free by their consumer: the one place a
// shortage of frame memory can be made to happen.
class FrameMemory {
 public:
  virtual ~FrameMemory() = default;
  // Null when the memory cannot be had.
  virtual void* Allocate(size_t bytes) = 0;
  static FrameMemory& Real();
};
