// A thread with a name, one owner that joins it, and a stop that wakes it.
//
// The body runs on the new thread and is expected to loop until StopRequested(); it
// waits with WaitFor (a period on the Clock seam, a condition, or both), which returns
// at once when Stop or Wake is called. The owner calls Stop() without holding any lock
// the body takes (typically after releasing the node lock): Stop joins.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

class NamedThread {
 public:
  explicit NamedThread(std::string name);
  // Stops and joins a thread still running: an owner may not leave it behind.
  ~NamedThread();
  NamedThread(const NamedThread&) = delete;
  NamedThread& operator=(const NamedThread&) = delete;

  // Starts body on a new thread, named as given. 0, or the thread system's error code
  // (nothing runs then). Refused (EBUSY) while a started thread has not been joined.
  int32_t Start(std::function<void()> body);
  // Asks the body to end and wakes its wait; does not join. Safe from any thread.
  void RequestStop();
  // RequestStop, then join. Never call it from the body itself.
  void Stop();
  bool StopRequested() const { return m_stopRequested.load(std::memory_order_acquire); }
  bool IsRunning() const;
  const std::string& GetName() const { return m_name; }

  // For the body: waits until stop is requested, done() holds (if given) or `milliseconds`
  // pass on the Clock seam. done() is read under the thread's wait lock and must be safe
  // to call from it; whoever changes what it reads calls Wake() afterwards so the change
  // is never missed. True when the body should go on (no stop requested).
  bool WaitFor(uint32_t milliseconds, const std::function<bool()>& done = nullptr);
  // Wakes a WaitFor so it looks at its condition again.
  void Wake();

 private:
  static void* Trampoline(void* self);

  const std::string m_name;
  std::function<void()> m_body;
  mutable std::mutex m_waitLock;  // guards m_wakeups, m_started; no callback runs under it
  std::condition_variable m_waitSignal;
  uint64_t m_wakeups = 0;
  bool m_started = false;
  pthread_t m_thread{};
  std::atomic<bool> m_stopRequested{false};
  std::mutex m_joinLock;  // one joiner at a time; guards the thread handle across Stop
};
