// The real inference client and segmenter on the real model: the client's buffers, answers
// and refusals, what the segmenter's aids do to a person photo, and the whole effect on that
// photo. Needs the set-up of scripts/install-models.sh (models and astronaut.png).
#include <gtest/gtest.h>
#include <libyuv.h>

#include <cstring>
#include <fstream>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <thread>
#include <vector>

#include "background/tavo_video_background_virtuality.h"
#include "background/tavo_video_opencv_binding.h"
#include "platform/adapt_common/om_cust_util.h"
#include "platform/computing_client/tavo_computing_client.h"
#include "platform/computing_client/tavo_computing_segmenter.h"
#include "tests/support/build_tree_loader.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_nodes.h"
#include "tests/support/wait.h"

namespace {

std::string Model(const char* name) {
  return std::string(TavoOmCustUtilGetCfgPath(0)) + "/computing/arm64/Virtualbackground/" + name;
}
const char* kLandscape = "output_ppsegv2_224_398_mask";

TavoComputingTaskParams TaskParams(const std::string& model, int width, int height) {
  TavoComputingTaskParams params{};
  std::strcpy(params.taskName, "BG_VIRTAL");
  params.modelCount = 1;
  std::strncpy(params.modelPath, model.c_str(), sizeof params.modelPath - 1);
  params.width = static_cast<uint16_t>(width);
  params.height = static_cast<uint16_t>(height);
  params.modelSizeCode = 1;
  return params;
}

// What one test's requests got back.
struct Answers {
  std::mutex lock;                  // guards everything below
  std::vector<uint32_t> maskSizes;  // 0 for an answer without a mask
  std::vector<std::thread::id> threads;
  CountLatch count;
};
Answers* g_answers = nullptr;

void OnAnswer(unsigned int, int, TavoComputingBufferParams result) {
  {
    std::lock_guard<std::mutex> lock(g_answers->lock);
    g_answers->threads.push_back(std::this_thread::get_id());
    g_answers->maskSizes.push_back(result.data == nullptr ? 0 : result.size);
  }
  g_answers->count.Add();
}

class ComputingClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_answers = &m_answers;
    ASSERT_EQ(TavoComputingClientInit("test", 0), 0);
  }
  void TearDown() override {
    for (uint32_t id : m_tasks) {
      EXPECT_EQ(TavoComputingDestroyTask(id), 0);
    }
    g_answers = nullptr;
  }
  int Submit(uint32_t id, const cv::Mat& bgr) {
    TavoComputingBufferParams buffer{};
    const int got = TavoComputingGetBuffer(id, &buffer);
    if (got != 0) {
      return got;
    }
    const size_t bytes = bgr.total() * 3;
    EXPECT_EQ(buffer.size, bytes);
    std::memcpy(buffer.data, bgr.data, bytes);
    buffer.filled = 1;
    uint8_t output[16];
    return TavoComputingInference(output, &OnAnswer, nullptr, id, buffer);
  }

  Answers m_answers;
  std::vector<uint32_t> m_tasks;
};

// Whether the mask covers the person and leaves the background is checked on the whole
// effect (the last test here); here, the client's contract.
TEST_F(ComputingClientTest, BuffersAreBoundedEveryRequestIsAnsweredOnceAndBadModelsAreRefused) {
  const cv::Mat frame(72, 128, CV_8UC3, cv::Scalar(40, 90, 200));
  uint32_t task = 0;
  auto create = [&](const TavoComputingTaskParams& params) {
    return TavoComputingCreateTask({1, 1, 30}, params, &task);
  };
  auto update = [&](uint32_t id, int width, int height) {
    return TavoComputingUpdateTaskParams({1, 1, 30}, TaskParams(Model(kLandscape), width, height),
                                         id);
  };
  ASSERT_EQ(create(TaskParams(Model(kLandscape), 128, 72)), 0);
  const uint32_t id = task;
  m_tasks.push_back(id);
  ASSERT_EQ(TavoComputingStartTask(id), 0);
  std::vector<TavoComputingBufferParams> lent(2);
  for (auto& buffer : lent) {
    ASSERT_EQ(TavoComputingGetBuffer(id, &buffer), 0);
  }
  TavoComputingBufferParams extra{};
  EXPECT_EQ(TavoComputingGetBuffer(id, &extra), TAVO_COMPUTING_ERR_BUSY);
  EXPECT_EQ(update(id, 256, 144), TAVO_COMPUTING_ERR_BUSY);  // would free the lent buffers
  EXPECT_EQ(TavoComputingReturnBuffer(id, lent[0]), 0);
  EXPECT_EQ(TavoComputingReturnBuffer(id, lent[0]), TAVO_COMPUTING_ERR_ARGUMENT);  // not lent
  lent[1].filled = 0;  // task: not filled; the buffer goes back all the same
  EXPECT_EQ(TavoComputingInference(nullptr, &OnAnswer, nullptr, id, lent[1]),
            TAVO_COMPUTING_ERR_ARGUMENT);
  TavoComputingBufferParams wrongSize{};
  ASSERT_EQ(TavoComputingGetBuffer(id, &wrongSize), 0);
  wrongSize.size = 5;
  wrongSize.filled = 1;
  EXPECT_EQ(TavoComputingInference(nullptr, &OnAnswer, nullptr, id, wrongSize),
            TAVO_COMPUTING_ERR_ARGUMENT);
  // Every buffer submitted at once, then a stop: each is answered exactly once, none after
  // the stop.
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(Submit(id, frame), 0);
  }
  ASSERT_EQ(TavoComputingStopTask(id), 0);
  EXPECT_EQ(m_answers.count.Get(), 2);
  EXPECT_EQ(TavoComputingGetBuffer(id, &extra), TAVO_COMPUTING_ERR_STATE);  // stopped
  ASSERT_EQ(TavoComputingStartTask(id), 0);
  ASSERT_EQ(Submit(id, frame), 0);
  ASSERT_TRUE(m_answers.count.WaitFor(3));
  EXPECT_NE(m_answers.threads.back(), std::this_thread::get_id());  // on its own thread
  EXPECT_EQ(m_answers.maskSizes.back(), 128U * 72U);
  ASSERT_EQ(TavoComputingStopTask(id), 0);  // returns once the last answer is booked
  TavoComputingResourceUsage usage{};
  ASSERT_EQ(TavoComputingQueryResourceUsage(id, &usage), 0);
  EXPECT_EQ(usage.framesDone + usage.framesFailed, 3U);
  EXPECT_EQ(usage.requestsInFlight, 0U);
  ASSERT_EQ(TavoComputingStartTask(id), 0);
  // A larger frame: the buffers grow and the next mask has its size.
  ASSERT_EQ(update(id, 256, 144), 0);
  ASSERT_EQ(Submit(id, cv::Mat(144, 256, CV_8UC3, cv::Scalar(1, 2, 3))), 0);
  ASSERT_TRUE(m_answers.count.WaitFor(4));
  EXPECT_EQ(m_answers.maskSizes.back(), 256U * 144U);
  // Bad models and records are task.
  TempDir dir;
  const std::string corrupt = dir.Write("corrupt", {8, 7, 0x12, 0xFF, 1, 2, 3});
  std::vector<uint8_t> head(4096);
  std::ifstream(Model(kLandscape), std::ios::binary)
      .read(reinterpret_cast<char*>(head.data()), static_cast<std::streamsize>(head.size()));
  const std::string truncated = dir.Write("truncated", head);
  for (const std::string& model : {(dir.Path() / "none").string(), corrupt, truncated}) {
    EXPECT_EQ(create(TaskParams(model, 64, 36)), TAVO_COMPUTING_ERR_MODEL);
  }
  TavoComputingTaskParams unterminated = TaskParams(Model(kLandscape), 64, 36);
  std::memset(unterminated.modelPath, 'a', sizeof unterminated.modelPath);
  EXPECT_EQ(create(unterminated), TAVO_COMPUTING_ERR_ARGUMENT);
  // The mask of 2561 x 1440 would not fit its 3,686,400 bytes.
  EXPECT_EQ(create(TaskParams(Model(kLandscape), 2561, 1440)), TAVO_COMPUTING_ERR_ARGUMENT);
  EXPECT_EQ(create(TaskParams(Model(kLandscape), 2560, 1440)), 0);
  m_tasks.push_back(task);
  EXPECT_EQ(TavoComputingStartTask(999999), TAVO_COMPUTING_ERR_ARGUMENT);
}

// The astronaut at 1280 x 720 through the segmenter with and without each of its aids. A
// still scene with sensor noise: how many mask pixels change from frame to frame, with and
// without smoothing (measured: raw 0.0111, smoothed 0.0045). The soft band around the
// person, where the blend mixes frame and background (alpha 70 to 249) and the old
// background shows through as a halo: its mean width in pixels (band area over the length of
// the person's outline), with and without edge refinement.
TEST(SegmenterTest, SmoothingKeepsAStillSceneSteadyAndRefinementNarrowsTheSoftBand) {
  const cv::Mat photo = cv::imread(VLINK_TESTDATA_DIR "/astronaut.png", cv::IMREAD_COLOR);
  ASSERT_FALSE(photo.empty());
  cv::Mat frame;
  cv::resize(photo(cv::Rect(0, 64, 512, 288)), frame, cv::Size(1280, 720));
  double flicker[2] = {};
  double width[2] = {};
  for (int aided = 0; aided < 2; ++aided) {
    Segmenter segmenter;
    ASSERT_EQ(segmenter.Load(Model(kLandscape)), 0);
    segmenter.SetSmoothing(aided == 1);
    cv::theRNG().state = 7;  // the same noise for both runs
    cv::Mat previous;
    uint64_t changed = 0;
    constexpr int kFrames = 12;
    for (int i = 0; i < kFrames; ++i) {
      cv::Mat noisy(frame.size(), CV_16SC3);
      cv::randn(noisy, 0, 4);
      cv::Mat shot;
      cv::add(frame, noisy, shot, cv::noArray(), CV_8UC3);
      cv::Mat mask(720, 1280, CV_8U);
      ASSERT_EQ(segmenter.Run(shot.data, 1280, 720, shot.step[0], mask.data), 0);
      if (!previous.empty()) {
        cv::Mat diff;
        cv::absdiff(mask, previous, diff);
        changed += static_cast<uint64_t>(cv::countNonZero(diff > 16));
      }
      previous = mask;
    }
    flicker[aided] = static_cast<double>(changed) / ((kFrames - 1) * 1280.0 * 720.0);

    Segmenter refining;
    ASSERT_EQ(refining.Load(Model(kLandscape)), 0);
    refining.SetEdgeRefinement(aided == 1);
    cv::Mat mask(720, 1280, CV_8U);
    ASSERT_EQ(refining.Run(frame.data, 1280, 720, frame.step[0], mask.data), 0);
    std::vector<std::vector<cv::Point>> outlines;
    cv::findContours(mask >= 128, outlines, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
    double length = 0;
    for (const auto& outline : outlines) {
      length += cv::arcLength(outline, true);
    }
    ASSERT_GT(length, 0);
    width[aided] = cv::countNonZero((mask >= 70) & (mask <= 249)) / length;
  }
  EXPECT_LT(flicker[1], 0.6 * flicker[0]);
  EXPECT_LT(flicker[1], 0.008);
  EXPECT_LT(width[1], 0.6 * width[0]);
}

// The whole effect as the library runs it: the node loads the real inference client and the
// real image-operations wrapper by name and replaces the background of a person photo.
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
  cv::Mat after;  // read once the sink counted the frame, which orders the two threads
  sink->onFrame = [&](OsvGraphicBuffer* out) {
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

  const uint8_t rgb[12] = {0, 255, 0, 0, 255, 0, 0, 255, 0, 0, 255, 0};
  uint8_t greenLuma[4], u = 0, v = 0;
  libyuv::RGB24ToI420(rgb, 6, greenLuma, 2, &u, 1, &v, 1, 2, 2);
  // The face (about x 420..700, y 0..330 of the frame) stays; the wall top right goes green.
  const cv::Rect face(470, 60, 180, 220);
  const cv::Rect wall(1100, 0, 180, 120);
  cv::Mat faceDiff;
  cv::Mat wallDiff;
  cv::absdiff(after(face), before(face), faceDiff);
  cv::absdiff(after(wall), cv::Scalar(greenLuma[0]), wallDiff);
  EXPECT_GE(cv::countNonZero(faceDiff <= 3), 0.95 * face.area());
  EXPECT_GE(cv::countNonZero(wallDiff <= 3), 0.95 * wall.area());
}

}  // namespace
