#include "core/tavo_video_thread_pool.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>

ThreadPool::WorkSignal::WorkSignal() { sem_init(&wake, 0, 0); }

ThreadPool::WorkSignal::~WorkSignal() { sem_destroy(&wake); }

void ThreadPool::WorkSignal::Post() { sem_post(&wake); }

void ThreadPool::WorkSignal::Wait() {
  while (sem_wait(&wake) != 0 && errno == EINTR) {
  }
}

ThreadPool::ThreadPool(unsigned long threadCount)
    : m_threadCount(threadCount), m_workSignals(new WorkSignal[threadCount]) {
  m_idle.reserve(threadCount);
  Start();
}

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
    m_workers.emplace_back(&ThreadPool::ThreadFunc, this, &m_workSignals[i]);
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
      for (WorkSignal* idle : m_idle) {
        idle->Post();
      }
    }
    m_stopping = true;
    workers.swap(m_workers);
  }
  // Joined without the pool lock: a task that is still running may call Add, which then
  // gets no promise instead of waiting for this join forever.
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
  // Counted before they can be popped, so the count never goes below zero.
  m_queued.fetch_add(count);
  m_queue.PushEach(count, [works](size_t i) { return QueuedTask{std::move(works[i]), nullptr}; });
  lock.unlock();
  WakeForQueued();
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
  m_queued.fetch_add(1);  // before it can be popped
  m_queue.Push(std::move(task));
  lock.unlock();
  WakeForQueued();
  return true;
}

int ThreadPool::Uncovered() const {
  return static_cast<int>(std::min<size_t>(m_queued.load(), m_threadCount)) - m_lookers.load();
}

void ThreadPool::WakeForQueued() {
  // A worker that is awake and not in a task (or already called) looks at the queue before
  // it sleeps (Take) and takes a task: only tasks beyond those lookers need a worker woken.
  // A looker this load counts has not made its last look yet: its count went down before
  // that look, which takes the producer lock the push held, so it sees the work.
  // Sequentially consistent with the worker's decrement-then-look (a store-load pair on
  // both sides).
  m_waking.fetch_add(1);
  for (;;) {
    const int wanted = Uncovered();
    const bool sleepersLeft = wanted <= 0 || WakeSleepers(wanted) > 0;
    m_waking.fetch_sub(1);
    // A worker that took a task meanwhile left the rest to this call (ThreadFunc): look
    // again after letting go, so that either it sees this call gone or this sees it gone.
    if (!sleepersLeft || Uncovered() <= 0) {
      return;
    }
    m_waking.fetch_add(1);
  }
}

int ThreadPool::WakeSleepers(int wanted) {
  // Only a worker that announced itself can be asleep or about to sleep. It announces
  // before its last look at the queue, and that look takes the producer lock the push
  // held, so either it sees the tasks or this load sees its announcement.
  if (m_sleepers.load() <= 0) {
    return 0;
  }
  std::array<WorkSignal*, kMaxCallsAtOnce> called{};
  int calls = 0;
  {
    // A worker keeps the take lock from its announcement until it sleeps, so under it
    // every announced worker not yet called is in m_idle. One hold for all the calls: a
    // called worker wakes into this lock, so it must not be taken again per call.
    std::lock_guard<std::mutex> takeLock(m_takeLock);
    calls = std::min({wanted, static_cast<int>(m_idle.size()), kMaxCallsAtOnce});
    // The last to fall asleep first: its caches are the warmest, and it last ran where the
    // poster may run now.
    for (int i = 0; i < calls; ++i) {
      called[i] = m_idle.back();
      m_idle.pop_back();
      called[i]->called.store(true, std::memory_order_relaxed);
    }
    // Called workers look from now on: nobody need call others for the same work.
    m_lookers += calls;
  }
  // Notified after letting go, so the woken workers need not wait for the lock. The
  // signals belong to the pool, so one whose worker already woke is still there.
  for (int i = 0; i < calls; ++i) {
    called[i]->Post();
  }
  return calls;
}

std::optional<QueuedTask> ThreadPool::PopCounted() {
  std::optional<QueuedTask> task = m_queue.Pop();
  if (task) {
    m_queued.fetch_sub(1);
  }
  return task;
}

std::optional<QueuedTask> ThreadPool::Take(WorkSignal& own) {
  for (;;) {
    // The queue guards itself: a look needs no take lock, so workers woken together do not
    // queue up on it.
    if (std::optional<QueuedTask> task = PopCounted()) {
      return task;
    }
    std::unique_lock<std::mutex> lock(m_takeLock);
    // Under the lock: a stop posts only the workers listed at that moment.
    if (!m_running.load()) {
      return std::nullopt;
    }
    // Stop looking and announce the sleep, then look once more: a push that saw neither
    // (WakeForQueued, WakeSleepers) is seen by this pop.
    --m_lookers;
    ++m_sleepers;
    std::optional<QueuedTask> task = PopCounted();
    own.called.store(false, std::memory_order_relaxed);
    if (!task) {
      m_idle.push_back(&own);
      lock.unlock();
      own.Wait();
      // A call took it off the list and counted it as looking before posting: nothing
      // left to undo, and no lock to wait for.
      if (own.called.load(std::memory_order_acquire)) {
        --m_sleepers;
        continue;
      }
      lock.lock();
      if (!own.called.load(std::memory_order_relaxed)) {
        m_idle.erase(std::find(m_idle.begin(), m_idle.end(), &own));  // still listed
      }
    }
    --m_sleepers;
    if (!own.called.load(std::memory_order_relaxed)) {
      ++m_lookers;  // a call counted it as looking already
    }
    if (task) {
      return task;
    }
  }
}

void ThreadPool::ThreadFunc(WorkSignal* own) {
  ++m_lookers;
  while (m_running.load()) {
    std::optional<QueuedTask> task = Take(*own);
    if (!task) {
      continue;
    }
    if (!task->work) {
      std::fputs("ThreadPool: empty task\n", stderr);
      std::terminate();
    }
    // Off to run a task that may block for long (a host callback): if work is left, no
    // other worker looks for it and no poster is still waking workers (it looks again
    // after it is done, WakeForQueued), wake one first.
    if (m_lookers.fetch_sub(1) == 1 && m_queued.load() > 0 && m_waking.load() == 0) {
      WakeSleepers(1);
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
    ++m_lookers;
    // Only WaitAllEnd listens. It counts itself before it looks at the queue, under the
    // take lock; a look that still found this task came before the pop, so this load sees
    // the waiter, and the notify under that lock cannot fall between its look and its wait.
    if (m_running.load() && m_progressWaiters.load() > 0) {
      std::lock_guard<std::mutex> lock(m_takeLock);
      m_progressSignal.notify_all();
    }
  }
  --m_lookers;
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
