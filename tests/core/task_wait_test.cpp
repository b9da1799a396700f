// Wake-ups and waits across threads: the pool must never lose a wake-up, and a node's wait
// for its tasks must not end while one still runs or still holds its frame.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "core/tavo_video_thread_pool.h"
#include "tests/support/test_nodes.h"

namespace {

// A producer that notes, when a frame it made is let go, how many tasks `watched` still has.
class ReleaseProbe : public CountingNode {
 public:
  explicit ReleaseProbe(uint32_t id) : CountingNode(id) {}
  void ReleaseBufferDeal(OsvGraphicBuffer* buffer) override {
    pendingAtRelease = static_cast<int>(watched->GetPendingTaskCount());
    CountingNode::ReleaseBufferDeal(buffer);
  }
  std::shared_ptr<VideoVlinkNode> watched;
  std::atomic<int> pendingAtRelease{-1};
};

constexpr auto kRoundLimit = std::chrono::seconds(10);

// Producers post one task and wait for it, thousands of times, on a pool with nothing else
// to do: its workers fall asleep between rounds, so a wake-up lost between a worker's last
// look at the queue and its sleep stalls a round. One producer on one worker has nobody to
// rescue a lost wake-up; several on a few workers race each other.
TEST(PoolWakeUpTest, RacingProducersNeverStallARound) {
  for (const auto& [workers, producerCount, rounds] :
       {std::tuple{1UL, 1, 50000}, std::tuple{2UL, 2, 20000}, std::tuple{3UL, 4, 2000}}) {
    ThreadPool pool(workers);
    std::atomic<int> stalled{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < producerCount; ++p) {
      producers.emplace_back([&, p, rounds = rounds] {
        for (int round = 0; round < rounds && stalled == 0; ++round) {
          // The producer watches the task's flag without sleeping, so that its next post
          // comes while the worker is still on its way back to sleep.
          auto ran = std::make_shared<std::atomic<bool>>(false);
          PoolTask task([ran] { ran->store(true); });
          const bool posted =
              (round + p) % 2 == 0 ? pool.Post(std::move(task)) : pool.PostBatch(&task, 1);
          const auto deadline = std::chrono::steady_clock::now() + kRoundLimit;
          while (posted && !ran->load() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
          }
          if (!ran->load()) {
            ++stalled;
          }
        }
      });
    }
    for (std::thread& producer : producers) {
      producer.join();
    }
    EXPECT_EQ(stalled, 0) << workers << " workers: a posted task was not run in time";
  }
}

// A batch (a frame's hand-offs to all of its receivers) wakes a worker per task: tasks that
// can only finish together all run at once on a pool that was asleep.
TEST(PoolWakeUpTest, BatchWakesAWorkerPerTask) {
  constexpr size_t kWorkers = 4;
  ThreadPool pool(kWorkers);
  for (int round = 0; round < 100; ++round) {
    CountLatch arrived;
    std::atomic<int> alone{0};
    CountLatch finished;
    std::vector<PoolTask> tasks;
    for (size_t i = 0; i < kWorkers; ++i) {
      tasks.emplace_back([&] {
        arrived.Add();
        if (!arrived.WaitFor(static_cast<int>(kWorkers), std::chrono::seconds(5))) {
          ++alone;
        }
        finished.Add();
      });
    }
    if (round % 10 == 9) {
      ASSERT_EQ(pool.WaitAllEnd(), 0U);  // restarted workers must be called just as well
    }
    ASSERT_TRUE(pool.PostBatch(tasks.data(), tasks.size()));
    ASSERT_TRUE(finished.WaitFor(static_cast<int>(kWorkers)));
    ASSERT_EQ(alone, 0) << "round " << round << ": the batch did not wake a worker per task";
  }
}

// DealTaskHandler(true) returns only once every task of the node has run and dropped its
// frame, also one that is running when the wait begins and those queued while it waits.
TEST(NodeTaskWaitTest, WaitEndsOnlyAfterEveryTaskAndItsFrame) {
  auto node = std::make_shared<CountingNode>(31);
  ASSERT_EQ(node->StartProcess(), 0U);
  auto producer = std::make_shared<ReleaseProbe>(30);
  producer->watched = node;
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
    frame.SetReleaseTarget(producer);
    FrameRef share = FrameRef::Share(&frame);
    handlerDone = false;
    ASSERT_EQ(node->QueueBuffer(share), 0U);
    ASSERT_TRUE(entered.WaitFor(round + 1));
    auto waited = std::async(std::launch::async, [&] {
      node->DealTaskHandler(true);
      return handlerDone && frame.IsAvailable();
    });
    // While the task is held, the wait must not end.
    EXPECT_EQ(waited.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    gate->Open();
    EXPECT_TRUE(waited.get()) << "the wait ended before the task had dropped its frame";
    EXPECT_EQ(node->GetPendingTaskCount(), 0U);
    // The task dropped its frame while it was still counted.
    EXPECT_EQ(producer->pendingAtRelease, 1);
    ASSERT_TRUE(producer->released.WaitFor(round + 1));
    gate = std::make_unique<Gate>();
  }
  // Tasks the wait does not know of yet (queued by the tasks themselves) are waited for too.
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
  EXPECT_EQ(node->handled.Get(), 3 + 51);
  EXPECT_TRUE(frame.IsAvailable());
  node->StopProcess();
}

}  // namespace
