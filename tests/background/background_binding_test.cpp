#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <thread>

#include "background/tavo_video_opencv_binding.h"
#include "background/tavo_video_thread_safe_queue.h"
#include "tests/support/build_tree_loader.h"
#include "tests/support/fake_os.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"
#include "tests/support/wrapper_symbols.h"

namespace {

TEST(OsThreadSafeQueueTest, TimeoutsOrderAndHandOver) {
  OsThreadSafeQueue<int> queue;
  int item = 0;
  EXPECT_FALSE(queue.dequeue(&item, 0));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(queue.dequeue(&item, 50));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
  for (int i = 1; i <= 3; ++i) {
    queue.enqueue(i);
  }
  EXPECT_FALSE(queue.empty());
  for (int i = 1; i <= 3; ++i) {
    ASSERT_TRUE(queue.dequeue(&item, 0));
    EXPECT_EQ(item, i);
  }
  EXPECT_TRUE(queue.empty());
  // An enqueue during a long wait ends it with that item.
  std::thread producer([&] { queue.enqueue(42); });
  EXPECT_TRUE(queue.dequeue(&item, 20000));
  EXPECT_EQ(item, 42);
  producer.join();
}

class BindingTest : public ::testing::Test {
 protected:
  BindingTest() : m_override(m_loader) {}
  void SetUp() override { ResetOpencvBinding(); }
  void TearDown() override { ResetOpencvBinding(); }
  FakeDynamicLoader m_loader;
  ScopedSeamOverride<DynamicLoader> m_override;
};

TEST_F(BindingTest, OpensTheLibraryOnceForManyFirstCallsFromManyThreads) {
  m_loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols());
  std::vector<std::thread> threads;
  Gate start;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      start.Pass();
      CMat* mat = cvbind::CMatCreate(2 + i, 3, cvbind::C_CV_8UC3());
      EXPECT_EQ(cvbind::CMatRows(mat), 2 + i);
      EXPECT_EQ(cvbind::CMatChannels(mat), 3);
      cvbind::CMatDestroy(mat);
    });
  }
  start.Open();
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(m_loader.OpenCount(), 1);
  EXPECT_TRUE(OpencvWrapperUsable());
}

TEST_F(BindingTest, MissingLibraryOrFunctionFallsBackWithoutJumping) {
  std::string missing;
  EXPECT_EQ(cvbind::CMatCreateEmpty(), nullptr);
  EXPECT_TRUE(cvbind::CMatEmpty(nullptr));  // an unusable wrapper looks like an empty image
  cvbind::CResize(nullptr, nullptr, nullptr);
  EXPECT_FALSE(OpencvWrapperUsable(&missing));
  EXPECT_NE(missing.find("cannot open shared object file"), std::string::npos);

  m_loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols("CMatRows"));
  CMat* mat = cvbind::CMatCreate(4, 5, cvbind::C_CV_8UC1());  // retried: now there
  ASSERT_NE(mat, nullptr);
  EXPECT_EQ(cvbind::CMatRows(mat), 0);  // this one is missing
  EXPECT_EQ(cvbind::CMatCols(mat), 5);
  cvbind::CMatDestroy(mat);
  EXPECT_FALSE(OpencvWrapperUsable(&missing));
  EXPECT_EQ(missing, "CMatRows");
}

// The real wrapper through the real loader, as the node uses it.
TEST(WrapperTest, RealWrapperReadsAndScales) {
  BuildTreeLoader loader(VLINK_LOADABLE_DIR);
  ScopedSeamOverride<DynamicLoader> use(loader);
  ResetOpencvBinding();
  ASSERT_TRUE(OpencvWrapperUsable());
  TempDir dir;
  const std::string path = dir.Write("red.bmp", SolidBmp24(6, 4, 0, 0, 255));
  CMat* image = cvbind::CImread(path.c_str(), cvbind::C_IMREAD_COLOR());
  ASSERT_FALSE(cvbind::CMatEmpty(image));
  EXPECT_EQ(cvbind::CMatRows(image), 4);
  EXPECT_EQ(cvbind::CMatCols(image), 6);
  const unsigned char* bgr = cvbind::CMatData(image);
  EXPECT_EQ(bgr[0], 0);  // B, G, R in memory
  EXPECT_EQ(bgr[2], 255);
  CSize* size = cvbind::CSizeCreate(9, 7);
  cvbind::CResize(image, image, size);  // in place
  EXPECT_EQ(cvbind::CMatRows(image), 7);
  EXPECT_EQ(cvbind::CMatCols(image), 9);
  EXPECT_EQ(cvbind::CMatStep(image), 27U);
  cvbind::CSizeDestroy(size);
  cvbind::CMatDestroy(image);
  CMat* none = cvbind::CImread((dir.Path() / "none.png").c_str(), cvbind::C_IMREAD_COLOR());
  EXPECT_TRUE(cvbind::CMatEmpty(none));
  cvbind::CMatDestroy(none);
  ResetOpencvBinding();
}

}  // namespace
