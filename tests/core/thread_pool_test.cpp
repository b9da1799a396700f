#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "core/tavo_video_scope_guard.h"
#include "core/tavo_video_thread_pool.h"
#include "tests/support/wait.h"

namespace {

// Pops racing the pushes force many side swaps; each producer's order must survive all of
// them, and nothing may be lost.
TEST(DuelNonblockingQueueTest, KeepsOrderAcrossSideSwapsAndRacingProducersLoseNothing) {
  DuelNonblockingQueue<int> queue;
  EXPECT_FALSE(queue.Pop().has_value());
  constexpr int kPerProducer = 20000;
  std::vector<std::thread> producers;
  for (int p = 0; p < 2; ++p) {
    producers.emplace_back([&queue, p] {
      for (int i = 0; i < kPerProducer; ++i) {
        queue.Push(p * kPerProducer + i);
      }
    });
  }
  std::vector<int> lastSeen(2, -1);
  int popped = 0;
  while (popped < 2 * kPerProducer) {
    if (auto item = queue.Pop()) {
      const int producer = *item / kPerProducer;
      EXPECT_GT(*item, lastSeen[producer]);  // each producer's items stay in order
      lastSeen[producer] = *item;
      ++popped;
    }
  }
  for (auto& producer : producers) {
    producer.join();
  }
  EXPECT_TRUE(queue.IsEmpty());
}

// One worker runs tasks in order of arrival. A wait for the end lets the queue drain and
// restarts the worker; a stopped pool runs tasks on the caller.
TEST(ThreadPoolTest, OneWorkerKeepsOrderAWaitForTheEndRestartsAndAStoppedPoolRunsOnTheCaller) {
  ThreadPool pool(1);
  std::vector<int> order;  // written by the one worker, read once the latch says all ran
  CountLatch ran;
  constexpr int kTasks = 500;
  const auto note = [&](int i) {
    order.push_back(i);
    ran.Add();
  };
  std::vector<std::unique_ptr<std::promise<void>>> promises;  // kept until every task ran
  // One by one, and in batches (a frame's tasks for its receivers), in one order.
  for (int i = 0; i < kTasks; i += 4) {
    promises.emplace_back(pool.Add([&note, i] {
      note(i);
      return 0;
    }));
    ASSERT_NE(promises.back(), nullptr);
    std::array<PoolTask, 3> batch = {[&note, i] { note(i + 1); }, [&note, i] { note(i + 2); },
                                     [&note, i] { note(i + 3); }};
    ASSERT_TRUE(pool.PostBatch(batch.data(), batch.size()));
  }
  EXPECT_EQ(pool.WaitAllEnd(), 0U);
  ASSERT_TRUE(ran.WaitFor(kTasks));
  std::vector<int> expected(kTasks);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
  std::unique_ptr<std::promise<void>> after(pool.Add([] { return 0; }));
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(after->get_future().wait_for(kGenerousTimeout), std::future_status::ready);

  pool.Stop();
  std::thread::id ranOn;
  std::unique_ptr<std::promise<void>> promise(pool.Add([&] {
    ranOn = std::this_thread::get_id();
    return 0;
  }));
  ASSERT_NE(promise, nullptr);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(promise->get_future().wait_for(std::chrono::seconds(0)), std::future_status::ready);
  EXPECT_EQ(pool.WaitAllEnd(), 1U);
  EXPECT_EQ(pool.WaitAllEndToStop(), 1U);
}

TEST(ThreadPoolTest, DestructionDropsQueuedTasksUnrun) {
  auto* pool = new ThreadPool(1);
  Gate gate;
  CountLatch blockerStarted;
  std::atomic<int> queuedRuns{0};
  ASSERT_TRUE(pool->Post([&] {
    blockerStarted.Add();
    gate.Pass();
  }));
  ASSERT_TRUE(blockerStarted.WaitFor(1));
  auto countRun = [&] {
    ++queuedRuns;
    return 0;
  };
  std::vector<std::unique_ptr<std::promise<void>>> promises;  // outlive the pool
  for (int i = 0; i < 5; ++i) {
    promises.emplace_back(pool->Add(countRun));
  }
  std::thread destroyer([pool] { delete pool; });
  // The destructor cannot finish while the only worker is held at the gate, so the pool
  // is still there to probe; once it is stopping it gives no promise.
  bool refused = false;
  for (auto start = std::chrono::steady_clock::now();
       !refused && std::chrono::steady_clock::now() - start < kGenerousTimeout;) {
    promises.emplace_back(pool->Add(countRun));
    refused = promises.back() == nullptr;
    std::this_thread::yield();
  }
  EXPECT_TRUE(refused);
  gate.Open();
  destroyer.join();
  EXPECT_EQ(queuedRuns, 0);
}

// Once when executed, once more for a guard that goes away unexecuted.
TEST(ScopeGuardTest, CleanupRunsExactlyOnce) {
  int runs = 0;
  {
    ScopeGuard guard = ScopeGuard::Create([&] { ++runs; });
    guard.Execute();
    guard.Execute();
    ScopeGuard unexecuted = ScopeGuard::Create([&] { runs += 10; });
  }
  EXPECT_EQ(runs, 11);
}

}  // namespace

// A stop that lands while workers are between a look at the queue and their sleep: each
// must see it, or the stop waits for a worker nobody wakes.
TEST(ThreadPoolTest, StopsRacingWorkersOnTheirWayToSleepNeverHang) {
  ThreadPool pool(4);
  for (int i = 0; i < 500; ++i) {
    pool.Stop();
    pool.Start();
  }
}
