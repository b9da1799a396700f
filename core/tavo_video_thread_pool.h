// The worker pool every frame hand-off and release runs on.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "core/tavo_video_nonblocking_queue.h"
#include "core/tavo_video_pool_task.h"

// The work and, for Add, the promise the worker fulfils once the work has returned. Whoever
// queued the task owns the promise afterwards and frees it. Post queues without one.
struct QueuedTask {
  PoolTask work;
  std::promise<void>* promise = nullptr;
};

class ThreadPool {
 public:
  explicit ThreadPool(unsigned long threadCount);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  void Start();
  // Joins the workers; tasks still queued stay queued and are not run. Never call it from
  // a task. While it joins, Add gives no promise.
  void Stop();
  // Queues fn and returns the promise a worker will fulfil after running it. A stopped
  // pool runs fn at once on the caller's thread and returns a fulfilled promise; a pool
  // that is stopping returns null.
  std::promise<void>* Add(const std::function<int()>& fn);
  // The frame path: the same queue and order as Add, without a promise, so queuing costs
  // no allocation for a small task. false when the pool is stopping (work is dropped);
  // a stopped pool runs work at once on the caller's thread.
  bool Post(PoolTask work);
  // Posts count tasks (moved out of works) under one hold of the pool's locks: a frame's
  // hand-offs to all of its receivers. Sleeping workers are woken only for the tasks that
  // no idle worker looks for already; a worker that takes a task while others wait, with
  // nobody else looking, wakes one more before it runs its own.
  bool PostBatch(PoolTask* works, size_t count);
  // Wait until the queue is empty, then stop (and restart). 1 on a stopped pool.
  uint32_t WaitAllEnd();
  uint32_t WaitAllEndToStop();

 private:
  // A worker's own wake-up: listed in m_idle, it sleeps on it without the take lock until a
  // call takes it out. A post made before the wait is kept for it; a wake-up without a call
  // (a stop, or a post left over from a call that met a stop) only makes it look again.
  // A semaphore rather than a condition variable: waking from one retakes its lock as
  // contended, and the unlock then costs a system call per hand-off. Owned by the pool, so
  // a late post never meets a finished worker.
  struct WorkSignal {
    WorkSignal();
    ~WorkSignal();
    WorkSignal(const WorkSignal&) = delete;
    WorkSignal& operator=(const WorkSignal&) = delete;
    void Post();
    void Wait();

    sem_t wake;
    // Written under m_takeLock; its worker reads it without the lock once woken.
    std::atomic<bool> called{false};
  };
  static constexpr int kMaxCallsAtOnce = 16;

  std::optional<QueuedTask> Take(WorkSignal& own);
  std::optional<QueuedTask> PopCounted();
  bool Enqueue(QueuedTask&& task);
  // Wakes sleeping workers until every queued task has a worker looking for it.
  void WakeForQueued();
  // Calls up to `wanted` sleeping workers not yet called; how many it called.
  int WakeSleepers(int wanted);
  // Queued tasks (up to one per worker) that no worker looks for yet.
  int Uncovered() const;
  void ThreadFunc(WorkSignal* own);
  uint32_t WaitQueueDrained();

  const unsigned long m_threadCount;
  // Lock order: pool lock, then the queue's locks; take lock, then the queue's locks. No
  // task (and so no host callback) runs under either. Pops take only the queue's locks.
  std::mutex m_poolLock;  // guards start, stop, adding and m_workers
  std::mutex m_takeLock;  // held by workers from their last look until they sleep
  std::vector<std::thread> m_workers;
  bool m_stopping = false;  // Stop is joining the workers; guarded by m_poolLock
  std::atomic<bool> m_running{false};
  std::unique_ptr<WorkSignal[]> m_workSignals;  // one per worker
  std::vector<WorkSignal*> m_idle;           // asleep and not called, the latest last; m_takeLock
  std::condition_variable m_progressSignal;  // a task finished; waited on with m_takeLock
  std::atomic<int> m_progressWaiters{0};     // threads waiting on m_progressSignal
  std::atomic<int> m_sleepers{0};            // workers that announced a sleep and may be asleep
  // Workers awake and not in a task: each looks at the queue again before it sleeps.
  std::atomic<int> m_lookers{0};
  std::atomic<size_t> m_queued{0};  // tasks in m_queue
  std::atomic<int> m_waking{0};     // threads inside WakeForQueued
  DuelNonblockingQueue<QueuedTask> m_queue;
};
