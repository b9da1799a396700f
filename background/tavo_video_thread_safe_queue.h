// A blocking queue with a timeout, for handing pointers between the worker, service and
// handle threads of the virtual background. It owns only the pointer values: whoever
// empties it releases what they point to.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

template <class T>
class OsThreadSafeQueue {
 public:
  void enqueue(const T& item) {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_items.push_back(item);
      ++m_enqueued;
    }
    m_signal.notify_one();
  }

  // Takes the oldest item. An empty queue returns false at once for timeoutMs 0; else it
  // waits once, at most timeoutMs, and returns false when it wakes to an empty queue (also
  // when another waiter took the item it was woken for).
  bool dequeue(T* out, unsigned int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_lock);
    if (m_items.empty()) {
      if (timeoutMs == 0) {
        return false;
      }
      // Only an enqueue ends the wait early, never a spurious wake-up.
      const uint64_t seen = m_enqueued;
      m_signal.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                        [&] { return m_enqueued != seen; });
      if (m_items.empty()) {
        return false;
      }
    }
    if (out != nullptr) {
      *out = m_items.front();
    }
    m_items.pop_front();
    return true;
  }

  bool empty() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_items.empty();
  }

 private:
  std::deque<T> m_items;    // guarded by m_lock, oldest first
  uint64_t m_enqueued = 0;  // guarded by m_lock: items ever enqueued
  std::mutex m_lock;        // guards m_items; nothing is called under it
  std::condition_variable m_signal;
};
