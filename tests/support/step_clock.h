// A Clock whose time moves only when a thread waits on it: every wait or sleep of N ms
// advances it by N ms and returns at once (sooner when the wait's condition holds). Loops
// paced on the Clock seam then run their exact schedule as fast as the machine allows.
// Meant for one pacing thread at a time: every waiter moves the shared time.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "core/tavo_video_os_seams.h"

class StepClock final : public Clock {
 public:
  explicit StepClock(uint64_t startUs = 1000000000ULL) : m_nowUs(startUs) {}
  uint64_t NowUs() override { return m_nowUs.load(std::memory_order_acquire); }
  void SleepMs(uint32_t milliseconds) override { Advance(milliseconds); }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& /*signal*/,
               uint32_t milliseconds, const std::function<bool()>& done) override {
    if (done && done()) {
      return true;
    }
    // Let others at the lock, as a real wait would.
    lock.unlock();
    std::this_thread::yield();
    Advance(milliseconds);
    lock.lock();
    return done && done();
  }
  void Advance(uint32_t milliseconds) {
    m_nowUs.fetch_add(uint64_t{milliseconds} * 1000U, std::memory_order_acq_rel);
  }

 private:
  std::atomic<uint64_t> m_nowUs;
};
