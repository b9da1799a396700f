// Wake-ups and waits across threads: the pool must never lose a wake-up, and a node's wait
// for its tasks must not end while one still runs or still holds its frame.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "core/tavo_video_thread_pool.h"
#include "tests/support/test_nodes.h"

namespace {

constexpr auto kRoundLimit = std::chrono::seconds(10);

// Several producers each post one task and wait for it, thousands of times, on a pool that
// has nothing else to do: its workers go to sleep between rounds, so a wake-up that falls
// between a worker's last look and its sleep stalls a round.
TEST(PoolWakeUpTest, RacingProducersNeverStallARound) {
  ThreadPool pool(3);
  constexpr int kProducers = 4;
  constexpr int kRounds = 3000;
  std::atomic<int> stalled{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int round = 0; round < kRounds && stalled == 0; ++round) {
        auto ran = std::make_shared<std::promise<void>>();
        std::future<void> done = ran->get_future();
        PoolTask task([ran] { ran->set_value(); });
        const bool posted =
            (round + p) % 2 == 0 ? pool.Post(std::move(task)) : pool.PostBatch(&task, 1);
        ASSERT_TRUE(posted);
        if (done.wait_for(kRoundLimit) != std::future_status::ready) {
          ++stalled;
        }
      }
    });
  }
  for (std::thread& producer : producers) {
    producer.join();
  }
  EXPECT_EQ(stalled, 0) << "a posted task was not run: a worker missed its wake-up";
}

// A batch of more tasks than there are sleeping workers still runs every task.
TEST(PoolWakeUpTest, BatchLargerThanThePoolRunsEveryTask) {
  ThreadPool pool(2);
  for (int round = 0; round < 200; ++round) {
    CountLatch ran;
    std::vector<PoolTask> tasks;
    for (int i = 0; i < 7; ++i) {
      tasks.emplace_back([&ran] { ran.Add(); });
    }
    ASSERT_TRUE(pool.PostBatch(tasks.data(), tasks.size()));
    ASSERT_TRUE(ran.WaitFor(7)) << "round " << round;
  }
}

// DealTaskHandler(true) returns only once every task of the node has run and dropped its
// frame, also one that is running when the wait begins.
TEST(NodeTaskWaitTest, WaitEndsOnlyAfterTheRunningTaskAndItsFrame) {
  auto node = std::make_shared<CountingNode>(31);
  ASSERT_EQ(node->StartProcess(), 0U);
  auto gate = std::make_unique<Gate>();
  CountLatch entered;
  std::atomic<bool> handlerDone{false};
  node->onFrame = [&](OsvGraphicBuffer*) {
    entered.Add();
    gate->Pass();
    handlerDone = true;
  };
  for (int round = 0; round < 3; ++round) {
    OsvGraphicBuffer frame(8, 8, TAVO_VIDEO_VLINK_FORMAT_I420);
    FrameRef share = FrameRef::Share(&frame);
    handlerDone = false;
    ASSERT_EQ(node->QueueBuffer(share), 0U);
    ASSERT_TRUE(entered.WaitFor(round + 1));
    std::promise<bool> frameFreeAtReturn;
    std::future<bool> waited = frameFreeAtReturn.get_future();
    std::thread waiter([&] {
      node->DealTaskHandler(true);
      frameFreeAtReturn.set_value(handlerDone && frame.IsAvailable());
    });
    // While the task is held, the wait must not end.
    EXPECT_EQ(waited.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    gate->Open();
    waiter.join();
    EXPECT_TRUE(waited.get()) << "the wait ended before the task had dropped its frame";
    EXPECT_EQ(node->GetPendingTaskCount(), 0U);
    gate = std::make_unique<Gate>();
  }
  node->StopProcess();
}

// Tasks the wait does not know of yet (queued while it waits) are waited for too.
TEST(NodeTaskWaitTest, TasksQueuedDuringTheWaitAreWaitedFor) {
  auto node = std::make_shared<CountingNode>(32);
  ASSERT_EQ(node->StartProcess(), 0U);
  OsvGraphicBuffer frame(8, 8, TAVO_VIDEO_VLINK_FORMAT_I420);
  std::atomic<int> chained{0};
  node->onFrame = [&](OsvGraphicBuffer* buffer) {
    if (chained.fetch_add(1) < 50) {
      FrameRef next = FrameRef::Share(buffer);
      node->QueueBuffer(next);
    }
  };
  FrameRef first = FrameRef::Share(&frame);
  ASSERT_EQ(node->QueueBuffer(first), 0U);
  node->DealTaskHandler(true);
  EXPECT_EQ(node->handled.Get(), 51);
  EXPECT_TRUE(frame.IsAvailable());
  node->StopProcess();
}

}  // namespace
