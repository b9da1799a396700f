#include <gtest/gtest.h>

#include "core/tavo_video_named_thread.h"
#include "tests/support/fake_os.h"
#include "tests/support/wait.h"

namespace {

// A creation failure is reported and the thread can start later; it runs named, keeps its
// period, a wake ends its wait, and it stops at once.
TEST(NamedThreadTest, RunsNamedKeepsItsPeriodWakesAndStopsAtOnce) {
  FakeClock fakeClock;
  FakeThreadSystem fakeThreads;
  ScopedSeamOverride<Clock> clockOverride{fakeClock};
  ScopedSeamOverride<ThreadSystem> threadsOverride{fakeThreads};
  NamedThread thread("VLINK_PERIODIC");
  CountLatch rounds;
  const auto body = [&] {
    do {
      rounds.Add();
    } while (thread.WaitFor(500));
  };
  fakeThreads.FailNextCreates(1, EAGAIN);
  EXPECT_EQ(thread.Start(body), EAGAIN);
  EXPECT_FALSE(thread.IsRunning());
  thread.Stop();  // nothing to join
  EXPECT_EQ(fakeThreads.Joins(), 0);
  ASSERT_EQ(thread.Start(body), 0);
  EXPECT_EQ(thread.Start([] {}), EBUSY);  // one body per thread
  ASSERT_TRUE(rounds.WaitFor(1));
  ASSERT_TRUE(fakeClock.WaitForWaiters(1));
  fakeClock.AdvanceMs(499);
  ASSERT_TRUE(fakeClock.WaitForWaiters(1));
  EXPECT_EQ(rounds.Get(), 1);  // one millisecond short of the period (the failed start ran none)
  fakeClock.AdvanceMs(1);
  ASSERT_TRUE(rounds.WaitFor(2));
  ASSERT_TRUE(fakeClock.WaitForWaiters(1));
  // Virtual time stands still: only a wake can end this wait, and it must.
  thread.Wake();
  EXPECT_TRUE(rounds.WaitFor(3, std::chrono::seconds(5)));
  ASSERT_TRUE(fakeClock.WaitForWaiters(1));
  // Virtual time stands still: only the stop can end this wait.
  thread.Stop();
  EXPECT_FALSE(thread.IsRunning());
  EXPECT_EQ(fakeThreads.Names(), std::vector<std::string>{"VLINK_PERIODIC"});
  thread.Stop();  // a second stop joins nothing
  EXPECT_EQ(fakeThreads.Joins(), 1);
}

// A producer that changes the condition and wakes the thread is never missed, however the
// wake-up and the thread's look at its condition interleave. On the real fakeClock: a lost
// wake-up would leave the thread asleep for its whole minute.
TEST(NamedThreadWakeTest, WakeUpsAreNeverLost) {
  NamedThread thread("VLINK_WORKER");
  std::mutex lock;
  int queued = 0;
  int taken = 0;
  CountLatch done;
  constexpr int kItems = 2000;
  const auto body = [&] {
    while (thread.WaitFor(60000, [&] {
      std::lock_guard<std::mutex> guard(lock);
      return queued > taken;
    })) {
      std::lock_guard<std::mutex> guard(lock);
      done.Add(queued - taken);
      taken = queued;
    }
  };
  ASSERT_EQ(thread.Start(body), 0);
  for (int i = 0; i < kItems; ++i) {
    {
      std::lock_guard<std::mutex> guard(lock);
      ++queued;
    }
    thread.Wake();
  }
  EXPECT_TRUE(done.WaitFor(kItems));
  thread.Stop();
}

}  // namespace
