// The image-operations wrapper binding and the queue that hands masks to the effect's thread.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "background/tavo_video_opencv_binding.h"
#include "background/tavo_video_thread_safe_queue.h"
#include "tests/support/fake_os.h"
#include "tests/support/wait.h"
#include "tests/support/wrapper_symbols.h"

namespace {

// The order of items shows in the node's tests, which pair each frame with its own mask.
TEST(OsThreadSafeQueueTest, TimeoutsAndHandOver) {
  OsThreadSafeQueue<int> queue;
  int item = 0;
  EXPECT_FALSE(queue.dequeue(&item, 0));
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(queue.dequeue(&item, 50));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
  // An enqueue during a long wait ends it at once with that item.
  start = std::chrono::steady_clock::now();
  std::thread producer([&] { queue.enqueue(42); });
  EXPECT_TRUE(queue.dequeue(&item, 20000));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(item, 42);
  producer.join();
}

TEST(BindingTest, MissingLibraryOrFunctionFallsBackAndTheLibraryOpensOnceForManyThreads) {
  FakeDynamicLoader loader;
  ScopedSeamOverride<DynamicLoader> use(loader);
  ResetOpencvBinding();
  std::string missing;
  EXPECT_EQ(cvbind::CMatCreateEmpty(), nullptr);
  EXPECT_TRUE(cvbind::CMatEmpty(nullptr));  // an unusable wrapper looks like an empty image
  cvbind::CResize(nullptr, nullptr, nullptr);
  EXPECT_FALSE(OpencvWrapperUsable(&missing));
  EXPECT_NE(missing.find("cannot open shared object file"), std::string::npos);

  loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols("CMatRows"));
  CMat* mat = cvbind::CMatCreate(4, 5, cvbind::C_CV_8UC1());  // retried: now there
  ASSERT_NE(mat, nullptr);
  EXPECT_EQ(cvbind::CMatRows(mat), 0);  // this one is missing
  EXPECT_EQ(cvbind::CMatCols(mat), 5);
  cvbind::CMatDestroy(mat);
  EXPECT_FALSE(OpencvWrapperUsable(&missing));
  EXPECT_EQ(missing, "CMatRows");
  // Many first calls from many threads open the full library once.
  ResetOpencvBinding();
  loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols());
  std::vector<std::thread> threads;
  Gate start;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      start.Pass();
      CMat* made = cvbind::CMatCreate(2 + i, 3, cvbind::C_CV_8UC3());
      EXPECT_EQ(cvbind::CMatRows(made), 2 + i);
      EXPECT_EQ(cvbind::CMatChannels(made), 3);
      cvbind::CMatDestroy(made);
    });
  }
  start.Open();
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(loader.OpenCount(), 1);
  EXPECT_TRUE(OpencvWrapperUsable());
  ResetOpencvBinding();  // before the loader it bound through goes
}

}  // namespace
