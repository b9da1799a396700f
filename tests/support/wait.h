// Waiting for conditions, never for time: every wait has a generous limit and reports
// whether the condition came true.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

constexpr std::chrono::seconds kGenerousTimeout{20};

// A counter that threads bump and tests wait on.
class CountLatch {
 public:
  // Notifies under the lock: a waiter that sees the count may destroy the latch at once.
  void Add(int n = 1) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_count += n;
    m_changed.notify_all();
  }
  int Get() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_count;
  }
  // True when the count reached `target` within the limit.
  bool WaitFor(int target, std::chrono::seconds limit = kGenerousTimeout) {
    return WaitUntil([&] { return m_count >= target; }, limit);
  }
  // True when `condition` (checked under the latch's lock after every Add) came true.
  bool WaitUntil(const std::function<bool()>& condition,
                 std::chrono::seconds limit = kGenerousTimeout) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, limit, condition);
  }

 private:
  std::mutex m_lock;  // guards m_count
  std::condition_variable m_changed;
  int m_count = 0;
};

// A gate that blocks threads until it is opened.
class Gate {
 public:
  void Open() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_open = true;
    m_opened.notify_all();
  }
  bool Pass(std::chrono::seconds limit = kGenerousTimeout) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_opened.wait_for(lock, limit, [&] { return m_open; });
  }

 private:
  std::mutex m_lock;  // guards m_open
  std::condition_variable m_opened;
  bool m_open = false;
};
