// Deterministic fakes of the node core's OS seams. Put one in for a test's lifetime with
// ScopedSeamOverride; each can produce every failure its real side can.
#pragma once

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/tavo_video_os_seams.h"

// Time stands still until the test advances it. Waits on the clock end when their
// condition holds or virtual time has passed their deadline; WaitForWaiters lets a test
// advance only once a thread is known to be waiting.
// A stepping clock instead moves only when a thread waits or sleeps on it: a wait of N ms
// advances it by N ms and returns at once (sooner when its condition holds), so a loop paced
// on the clock runs its exact schedule as fast as the machine allows. Every waiter moves the
// shared time: meant for one pacing thread at a time.
class FakeClock final : public Clock {
 public:
  enum Mode { kStill, kStepping };
  explicit FakeClock(Mode mode = kStill) : m_stepping(mode == kStepping) {}

  uint64_t NowUs() override {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_nowUs;
  }
  void SleepMs(uint32_t milliseconds) override {
    if (m_stepping) {
      AdvanceMs(milliseconds);
      return;
    }
    std::unique_lock<std::mutex> lock(m_lock);
    const uint64_t deadline = m_nowUs + milliseconds * 1000ULL;
    ++m_waiters;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return m_nowUs >= deadline; });
    --m_waiters;
  }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& signal,
               uint32_t milliseconds, const std::function<bool()>& done) override {
    if (m_stepping) {
      if (done && done()) {
        return true;
      }
      lock.unlock();  // others get at the lock, as during a real wait
      std::this_thread::yield();
      AdvanceMs(milliseconds);
      lock.lock();
      return done && done();
    }
    const uint64_t deadline = NowUs() + milliseconds * 1000ULL;
    Announce(+1);
    // The caller's signal is notified by whoever changes its condition; virtual time is
    // looked at again every real millisecond, since advancing cannot reach that signal.
    while (!done() && NowUs() < deadline) {
      signal.wait_for(lock, std::chrono::milliseconds(1));
    }
    Announce(-1);
    return done();
  }

  void AdvanceMs(uint64_t milliseconds) {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_nowUs += milliseconds * 1000ULL;
    }
    m_changed.notify_all();
  }
  // True once at least `count` threads wait on this clock (generous real-time limit).
  bool WaitForWaiters(int count, std::chrono::seconds limit = std::chrono::seconds(20)) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, limit, [&] { return m_waiters >= count; });
  }

 private:
  void Announce(int delta) {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_waiters += delta;
    }
    m_changed.notify_all();
  }

  const bool m_stepping;
  std::mutex m_lock;  // guards m_nowUs and m_waiters
  std::condition_variable m_changed;
  uint64_t m_nowUs = 1000000000;
  int m_waiters = 0;
};

// Real threads, with creation failures on demand and the names threads gave themselves.
class FakeThreadSystem final : public ThreadSystem {
 public:
  // The next `count` creations fail with `code` (EAGAIN: the system's thread limit).
  void FailNextCreates(int count, int32_t code = EAGAIN) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_failures = count;
    m_failureCode = code;
  }
  int32_t Create(pthread_t* thread, void* (*routine)(void*), void* arg) override {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      if (m_failures > 0) {
        --m_failures;
        return m_failureCode;
      }
    }
    return ThreadSystem::Real().Create(thread, routine, arg);
  }
  int32_t Join(pthread_t thread) override {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      ++m_joins;
    }
    return ThreadSystem::Real().Join(thread);
  }
  int32_t SetName(const char* name) override {
    std::lock_guard<std::mutex> lock(m_lock);
    m_names.emplace_back(name);
    return 0;
  }
  std::vector<std::string> Names() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_names;
  }
  int Joins() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_joins;
  }

 private:
  std::mutex m_lock;  // guards everything below
  int m_failures = 0;
  int32_t m_failureCode = EAGAIN;
  int m_joins = 0;
  std::vector<std::string> m_names;
};

// Libraries made of symbol tables the test fills: a library that is missing, or that
// lacks a symbol, fails exactly as dlopen and dlsym do.
class FakeDynamicLoader final : public DynamicLoader {
 public:
  void AddLibrary(const std::string& path, std::map<std::string, void*> symbols) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_libraries[path] = std::move(symbols);
  }
  void* Open(const char* path) override {
    std::lock_guard<std::mutex> lock(m_lock);
    auto it = path == nullptr ? m_libraries.end() : m_libraries.find(path);
    if (it == m_libraries.end()) {
      m_error = std::string(path == nullptr ? "(null)" : path) +
                ": cannot open shared object file: No such file or directory";
      return nullptr;
    }
    ++m_open;
    return &it->second;
  }
  void* Symbol(void* handle, const char* name) override {
    std::lock_guard<std::mutex> lock(m_lock);
    auto* symbols = static_cast<std::map<std::string, void*>*>(handle);
    if (symbols == nullptr || name == nullptr || symbols->count(name) == 0) {
      m_error = std::string("undefined symbol: ") + (name == nullptr ? "(null)" : name);
      return nullptr;
    }
    return symbols->at(name);
  }
  int32_t Close(void* handle) override {
    std::lock_guard<std::mutex> lock(m_lock);
    if (handle == nullptr) {
      return -1;
    }
    --m_open;
    return 0;
  }
  std::string Error() override {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_error;
  }
  // Libraries opened and not closed again.
  int OpenCount() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_open;
  }

 private:
  std::mutex m_lock;  // guards everything below
  std::map<std::string, std::map<std::string, void*>> m_libraries;
  std::string m_error;
  int m_open = 0;
};
