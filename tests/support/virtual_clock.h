// A clock whose time moves only when somebody waits on it: a wait that is not satisfied at
// once jumps the clock forward by the whole wait. Threads paced by the Clock seam (a fake
// camera's frame interval, a capture thread's timeouts) then run through hours of
// simulated time in moments and in the same order every run.
#pragma once

#include <atomic>
#include <thread>

#include "core/tavo_video_os_seams.h"

class VirtualClock final : public Clock {
 public:
  uint64_t NowUs() override { return m_nowUs.load(std::memory_order_acquire); }
  void SleepMs(uint32_t milliseconds) override { Advance(uint64_t{milliseconds} * 1000U); }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& /*signal*/,
               uint32_t milliseconds, const std::function<bool()>& done) override {
    if (done && done()) {
      return true;
    }
    // Let others at the lock, as a real wait would.
    lock.unlock();
    std::this_thread::yield();
    Advance(uint64_t{milliseconds} * 1000U);
    lock.lock();
    return done && done();
  }
  void Advance(uint64_t microseconds) {
    m_nowUs.fetch_add(microseconds, std::memory_order_acq_rel);
  }

 private:
  std::atomic<uint64_t> m_nowUs{1'000'000'000};
};
