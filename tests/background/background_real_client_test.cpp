// The whole effect as the library runs it: the node loads the real inference client and the
// real image-operations wrapper by name and replaces the background of a person photo.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "background/tavo_video_background_virtuality.h"
#include "background/tavo_video_opencv_binding.h"
#include "tests/support/build_tree_loader.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_nodes.h"

namespace {

TEST(BackgroundRealClientTest, ReplacesTheBackgroundOfAPersonPhoto) {
  BuildTreeLoader loader(VLINK_LOADABLE_DIR);
  ScopedSeamOverride<DynamicLoader> use(loader);
  ResetOpencvBinding();
  const cv::Mat photo = cv::imread(VLINK_TESTDATA_DIR "/astronaut.png", cv::IMREAD_COLOR);
  ASSERT_FALSE(photo.empty()) << "run scripts/install-models.sh";
  cv::Mat bgr;
  cv::resize(photo(cv::Rect(0, 64, 512, 288)), bgr, cv::Size(1280, 720));
  auto* frame = new OsvGraphicBuffer(1280, 720, TAVO_VIDEO_VLINK_FORMAT_I420);
  const OsvGraphicBufferInfo info = frame->GetImageInfo();
  libyuv::RGB24ToI420(bgr.data, static_cast<int>(bgr.step[0]), frame->GetImageAddr(0),
                      info.stride[0], frame->GetImageAddr(1), info.stride[1],
                      frame->GetImageAddr(2), info.stride[2], 1280, 720);
  const cv::Mat before = cv::Mat(720, 1280, CV_8U, frame->GetImageAddr(0), info.stride[0]).clone();

  TempDir dir;
  const std::string green = dir.Write("green.bmp", SolidBmp24(32, 18, 0, 255, 0));
  auto producer = std::make_shared<CountingNode>(1, OS_E_MPP_DEV_CAMERA);
  producer->onRelease = [](OsvGraphicBuffer* buffer) { delete buffer; };
  auto sink = std::make_shared<CountingNode>(2);
  std::mutex lock;  // guards after
  cv::Mat after;
  sink->onFrame = [&](OsvGraphicBuffer* out) {
    std::lock_guard<std::mutex> hold(lock);
    after = cv::Mat(720, 1280, CV_8U, out->GetImageAddr(0), out->GetImageInfo().stride[0]).clone();
  };
  auto node = std::make_shared<BackgroundVirtualityNode>(10001);
  Link(node, sink);
  ASSERT_EQ(sink->StartProcess(), 0U);
  ASSERT_EQ(node->StartProcess(), 0U);
  BackgroundVirtualityParams param{{}, 1280, 720, 30, 0};
  std::strncpy(param.bgImagePath, green.c_str(), sizeof param.bgImagePath - 1);
  ASSERT_EQ(node->SetParam(param), 0U);
  ASSERT_EQ(node->SetEnable(true), 0U);
  ASSERT_TRUE(node->IsRunning()) << "the client or the wrapper did not load";
  frame->SetReleaseTarget(producer);
  {
    FrameRef mine = FrameRef::Share(frame);
    producer->SendBuffer(node, frame);
  }
  ASSERT_TRUE(sink->handled.WaitFor(1));
  ASSERT_TRUE(producer->released.WaitFor(1));
  node->Shutdown();
  sink->Shutdown();
  Unlink(node, sink);
  node.reset();
  ResetOpencvBinding();

  std::lock_guard<std::mutex> hold(lock);
  const uint8_t rgb[12] = {0, 255, 0, 0, 255, 0, 0, 255, 0, 0, 255, 0};
  uint8_t greenLuma[4], u = 0, v = 0;
  libyuv::RGB24ToI420(rgb, 6, greenLuma, 2, &u, 1, &v, 1, 2, 2);
  // The face (about x 420..700, y 0..330 of the frame) stays; the wall top right goes green.
  const cv::Rect face(470, 60, 180, 220);
  const cv::Rect wall(1100, 0, 180, 120);
  cv::Mat faceDiff;
  cv::absdiff(after(face), before(face), faceDiff);
  const double faceKept = cv::countNonZero(faceDiff <= 3) / static_cast<double>(face.area());
  const double wallGreen =
      cv::countNonZero(cv::abs(after(wall) - greenLuma[0]) <= 3) / static_cast<double>(wall.area());
  std::printf("face kept %.3f, wall replaced %.3f\n", faceKept, wallGreen);
  EXPECT_GE(faceKept, 0.95);
  EXPECT_GE(wallGreen, 0.95);
}

}  // namespace
