#include <gtest/gtest.h>
#include <libyuv.h>

#include <chrono>
#include <cstdlib>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <thread>

#include "background/tavo_video_opencv_binding.h"
#include "background/tavo_video_thread_safe_queue.h"
#include "platform/adapt_common/om_cust_util.h"
#include "platform/adapt_common/tavo_video_rgb_convert.h"
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
  queue.enqueue(4);
  EXPECT_TRUE(queue.dequeue(nullptr, 0));  // taken without being read
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
TEST(WrapperTest, RealWrapperReadsScalesAndReportsOpencvsConstants) {
  BuildTreeLoader loader(VLINK_LOADABLE_DIR);
  ScopedSeamOverride<DynamicLoader> use(loader);
  ResetOpencvBinding();
  ASSERT_TRUE(OpencvWrapperUsable());
  EXPECT_EQ(cvbind::C_IMREAD_COLOR(), cv::IMREAD_COLOR);
  EXPECT_EQ(cvbind::C_CV_8UC1(), CV_8UC1);
  EXPECT_EQ(cvbind::C_CV_8UC3(), CV_8UC3);
  EXPECT_EQ(cvbind::C_CV_8UC4(), CV_8UC4);
  EXPECT_EQ(cvbind::C_CV_32F(), CV_32F);
  EXPECT_EQ(cvbind::C_CV_32FC1(), CV_32FC1);
  EXPECT_EQ(cvbind::C_INTER_LINEAR(), cv::INTER_LINEAR);
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

// The platform conversions against libyuv's own output.
TEST(FrameConvertTest, ConversionsMatchLibyuvAndRefuseMismatchedFrames) {
  constexpr uint32_t w = 34;
  constexpr uint32_t h = 20;
  OsvGraphicBuffer i420(w, h, TAVO_VIDEO_VLINK_FORMAT_I420);
  for (uint32_t i = 0; i < i420.GetImageInfo().size; ++i) {
    static_cast<uint8_t*>(i420.GetBufHandle())[i] = static_cast<uint8_t>(i * 13 + 7);
  }
  const OsvGraphicBufferInfo in = i420.GetImageInfo();
  std::vector<uint8_t> argbExpected(w * h * 4);
  libyuv::I420ToARGB(i420.GetImageAddr(0), in.stride[0], i420.GetImageAddr(1), in.stride[1],
                     i420.GetImageAddr(2), in.stride[2], argbExpected.data(), w * 4, w, h);
  OsvGraphicBuffer argb(w, h, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  ASSERT_EQ(ConvertToARGB(&i420, &argb, PELV_ROTATION_0), 0);
  EXPECT_EQ(0, std::memcmp(argb.GetImageAddr(0), argbExpected.data(), argbExpected.size()));

  std::vector<uint8_t> turned(w * h * 4);
  libyuv::ARGBRotate(argbExpected.data(), w * 4, turned.data(), w * 4, w, h, libyuv::kRotate180);
  OsvGraphicBuffer argb180(w, h, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  ASSERT_EQ(ConvertToARGB(&i420, &argb180, PELV_ROTATION_180), 0);
  EXPECT_EQ(0, std::memcmp(argb180.GetImageAddr(0), turned.data(), turned.size()));
  OsvGraphicBuffer argb90(h, w, TAVO_VIDEO_VLINK_FORMAT_ARGB);
  EXPECT_EQ(ConvertToARGB(&i420, &argb90, PELV_ROTATION_90), 0);
  EXPECT_NE(ConvertToARGB(&i420, &argb90, PELV_ROTATION_0), 0);  // sizes do not fit
  EXPECT_NE(ConvertToARGB(&i420, &argb, static_cast<PelvRotationAngle>(45)), 0);

  std::vector<uint8_t> rgbExpected(w * h * 3);
  libyuv::ARGBToRGB24(argbExpected.data(), w * 4, rgbExpected.data(), w * 3, w, h);
  OsvGraphicBuffer rgb(w, h, TAVO_VIDEO_VLINK_FORMAT_RGB24);
  ASSERT_EQ(ARGBToRGB24(&argb, &rgb), 0);
  EXPECT_EQ(0, std::memcmp(rgb.GetImageAddr(0), rgbExpected.data(), rgbExpected.size()));

  OsvGraphicBuffer back(w, h, TAVO_VIDEO_VLINK_FORMAT_I420);
  std::vector<uint8_t> yuvExpected(back.GetImageInfo().size);
  const OsvGraphicBufferInfo out = back.GetImageInfo();
  uint8_t* y = yuvExpected.data();
  uint8_t* u = y + out.stride[0] * h;
  uint8_t* v = u + out.stride[1] * ((h + 1) / 2);
  libyuv::RGB24ToI420(rgbExpected.data(), w * 3, y, out.stride[0], u, out.stride[1], v,
                      out.stride[2], w, h);
  ASSERT_EQ(RGBToYUV420(&rgb, &back), 0);
  EXPECT_EQ(0, std::memcmp(back.GetBufHandle(), yuvExpected.data(), yuvExpected.size()));

  OsvGraphicBuffer small(w - 2, h, TAVO_VIDEO_VLINK_FORMAT_RGB24);
  EXPECT_NE(ARGBToRGB24(&argb, &small), 0);
  EXPECT_NE(RGBToYUV420(&small, &back), 0);
  EXPECT_NE(RGBToYUV420(&rgb, &argb), 0);  // not I420
  EXPECT_NE(ConvertToARGB(nullptr, &argb, PELV_ROTATION_0), 0);
}

TEST(PlatformServicesTest, ConfigurationDirectoryAndGpuInfo) {
  const char* saved = std::getenv("TAVO_OM_CFG_PATH");
  const std::string keep = saved == nullptr ? "" : saved;
  unsetenv("TAVO_OM_CFG_PATH");
  EXPECT_STREQ(TavoOmCustUtilGetCfgPath(0), TAVO_OM_DEFAULT_CFG_PATH);
  setenv("TAVO_OM_CFG_PATH", "/tmp/cfg//", 1);
  const char* first = TavoOmCustUtilGetCfgPath(0);
  EXPECT_STREQ(first, "/tmp/cfg");
  setenv("TAVO_OM_CFG_PATH", "", 1);
  EXPECT_STREQ(TavoOmCustUtilGetCfgPath(0), TAVO_OM_DEFAULT_CFG_PATH);
  EXPECT_STREQ(first, "/tmp/cfg");  // a text handed out stays valid
  if (saved != nullptr) {
    setenv("TAVO_OM_CFG_PATH", keep.c_str(), 1);
  } else {
    unsetenv("TAVO_OM_CFG_PATH");
  }
  char info[640];
  std::memset(info, 'x', sizeof info);
  ASSERT_EQ(TavoDevmGetGpuInfo(info, sizeof info), 0);
  EXPECT_NE(std::memchr(info, '\0', sizeof info), nullptr);
  EXPECT_EQ(TavoDevmGetGpuInfo(info, 4), -1);
  EXPECT_EQ(TavoDevmGetGpuInfo(nullptr, 640), -1);
}

}  // namespace
