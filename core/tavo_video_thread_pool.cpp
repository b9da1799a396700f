#include "core/tavo_video_thread_pool.h"

#include <algorithm>
#include <cstdio>
#include <exception>

ThreadPool::ThreadPool(unsigned long threadCount) : m_threadCount(threadCount) { Start(); }

ThreadPool::~ThreadPool() {
  Stop();
  // Whatever is still queued is dropped unrun; its promises belong to whoever queued it.
  while (m_queue.Pop()) {
  }
}

void ThreadPool::Start() {
  std::lock_guard<std::mutex> lock(m_poolLock);
  if (m_running.load()) {
    return;
  }
  m_running.store(true);
  m_workers.reserve(m_threadCount);
  for (unsigned long i = 0; i < m_threadCount; ++i) {
    m_workers.emplace_back(&ThreadPool::ThreadFunc, this);
  }
}

void ThreadPool::Stop() {
  std::vector<std::thread> workers;
  {
    std::lock_guard<std::mutex> lock(m_poolLock);
    if (!m_running.load()) {
      return;
    }
    {
      // Under the take lock so that no worker is between its check and its wait.
      std::lock_guard<std::mutex> takeLock(m_takeLock);
      m_running.store(false);
    }
    m_stopping = true;
    workers.swap(m_workers);
  }
  // Joined without the pool lock: a task that is still running may call Add, which then
  // gets no promise instead of waiting for this join forever.
  m_workSignal.notify_all();
  for (std::thread& worker : workers) {
    worker.join();
  }
  std::lock_guard<std::mutex> lock(m_poolLock);
  m_stopping = false;
}

std::promise<void>* ThreadPool::Add(const std::function<int()>& fn) {
  auto* promise = new std::promise<void>();
  if (!Enqueue(QueuedTask{PoolTask([fn] { fn(); }), promise})) {
    delete promise;
    return nullptr;
  }
  return promise;
}

bool ThreadPool::Post(PoolTask work) { return Enqueue(QueuedTask{std::move(work), nullptr}); }

bool ThreadPool::PostBatch(PoolTask* works, size_t count) {
  std::unique_lock<std::mutex> lock(m_poolLock);
  if (m_stopping) {
    return false;
  }
  if (m_workers.empty()) {
    lock.unlock();
    for (size_t i = 0; i < count; ++i) {
      works[i]();
      works[i].Reset();
    }
    return true;
  }
  for (size_t i = 0; i < count; ++i) {
    m_queue.Push(QueuedTask{std::move(works[i]), nullptr});
  }
  lock.unlock();
  WakeWorkers(count);
  return true;
}

bool ThreadPool::Enqueue(QueuedTask&& task) {
  std::unique_lock<std::mutex> lock(m_poolLock);
  if (m_stopping) {
    return false;
  }
  if (m_workers.empty()) {
    lock.unlock();
    task.work();
    if (task.promise != nullptr) {
      task.promise->set_value();
    }
    return true;
  }
  m_queue.Push(std::move(task));
  lock.unlock();
  WakeWorkers(1);
  return true;
}

void ThreadPool::WakeWorkers(size_t tasks) {
  // Only a worker that announced itself can be asleep or about to sleep. It announces
  // before its last look at the queue, and that look takes the producer lock the push
  // held, so either it sees the tasks or this load sees its announcement.
  const int sleepers = m_sleepers.load();
  if (sleepers <= 0) {
    return;
  }
  // It keeps the take lock from its last look until it sleeps: passing through the lock
  // here means it is now either asleep (and gets the signal) or has not looked yet (and
  // sees the tasks). Notified after letting go, so the woken worker need not wait for it.
  { std::lock_guard<std::mutex> takeLock(m_takeLock); }
  // One worker per task at most: waking more only makes them queue for the take lock.
  const size_t wake = std::min(tasks, static_cast<size_t>(sleepers));
  for (size_t i = 0; i < wake; ++i) {
    m_workSignal.notify_one();
  }
}

std::optional<QueuedTask> ThreadPool::Take() {
  std::unique_lock<std::mutex> lock(m_takeLock);
  for (;;) {
    if (std::optional<QueuedTask> task = m_queue.Pop()) {
      return task;
    }
    if (!m_running.load()) {
      return std::nullopt;
    }
    // Announce, then look once more: a push that did not see the announcement is seen by
    // this pop (see Add).
    ++m_sleepers;
    std::optional<QueuedTask> task = m_queue.Pop();
    if (!task) {
      m_workSignal.wait(lock);
    }
    --m_sleepers;
    if (task) {
      return task;
    }
  }
}

void ThreadPool::ThreadFunc() {
  while (m_running.load()) {
    std::optional<QueuedTask> task = Take();
    if (!task) {
      continue;
    }
    if (!task->work) {
      std::fputs("ThreadPool: empty task\n", stderr);
      std::terminate();
    }
    // An exception escaping a task ends the process (the thread function is noexcept in
    // effect: std::thread terminates).
    task->work();
    if (task->promise != nullptr) {
      task->promise->set_value();
    }
    // Drop the work (and whatever it captured) only after the promise is fulfilled: if it
    // held the last reference to a node, that node's destructor waits for this very task.
    task.reset();
    // Only WaitAllEnd listens; it registers under the take lock before it checks the
    // queue, and the task was popped under that lock, so a waiter is never missed.
    if (m_running.load() && m_progressWaiters.load() > 0) {
      std::lock_guard<std::mutex> lock(m_takeLock);
      m_progressSignal.notify_all();
    }
  }
}

uint32_t ThreadPool::WaitQueueDrained() {
  if (!m_running.load()) {
    return 1;
  }
  std::unique_lock<std::mutex> lock(m_takeLock);
  ++m_progressWaiters;
  m_progressSignal.wait(lock, [this] { return m_queue.IsEmpty(); });
  --m_progressWaiters;
  return 0;
}

uint32_t ThreadPool::WaitAllEnd() {
  if (WaitQueueDrained() != 0) {
    return 1;
  }
  Stop();
  Start();
  return 0;
}

uint32_t ThreadPool::WaitAllEndToStop() {
  if (WaitQueueDrained() != 0) {
    return 1;
  }
  Stop();
  return 0;
}
