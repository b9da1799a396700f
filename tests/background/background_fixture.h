// A virtual-background node between a producer and a sink, with the inference client and
// the image-operations wrapper served through a fake loader.
#pragma once

#include <gtest/gtest.h>
#include <libyuv.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "background/tavo_video_background_virtuality.h"
#include "background/tavo_video_opencv_binding.h"
#include "tests/support/fake_computing_client.h"
#include "tests/support/fake_os.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_nodes.h"
#include "tests/support/wrapper_symbols.h"

// An I420 frame of one grey level, stamped with its number.
inline OsvGraphicBuffer* NewFrame(uint32_t width, uint32_t height, uint8_t luma, uint32_t number) {
  auto* frame = new OsvGraphicBuffer(width, height, TAVO_VIDEO_VLINK_FORMAT_I420);
  const OsvGraphicBufferInfo info = frame->GetImageInfo();
  std::memset(frame->GetImageAddr(0), luma, size_t{info.stride[0]} * height);
  std::memset(frame->GetImageAddr(1), 128, size_t{info.stride[1]} * ((height + 1) / 2));
  std::memset(frame->GetImageAddr(2), 128, size_t{info.stride[2]} * ((height + 1) / 2));
  frame->SetSrcImgNo(number);
  return frame;
}

// The luma libyuv gives a frame of one packed B, G, R colour.
inline uint8_t LumaOf(uint8_t b, uint8_t g, uint8_t r) {
  const uint8_t rgb[2 * 2 * 3] = {b, g, r, b, g, r, b, g, r, b, g, r};
  uint8_t yuv[4 + 1 + 1];
  libyuv::RGB24ToI420(rgb, 6, yuv, 2, yuv + 4, 1, yuv + 5, 1, 2, 2);
  return yuv[0];
}

// The real clock, counting sleeps: the node sleeps only while a frame-size change waits for
// the frames in flight.
class SleepCountingClock final : public Clock {
 public:
  uint64_t NowUs() override { return Clock::Real().NowUs(); }
  void SleepMs(uint32_t milliseconds) override {
    sleeps.Add();
    Clock::Real().SleepMs(milliseconds);
  }
  bool WaitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& signal,
               uint32_t milliseconds, const std::function<bool()>& done) override {
    return Clock::Real().WaitFor(lock, signal, milliseconds, done);
  }
  CountLatch sleeps;
};

class BackgroundLinkTest : public ::testing::Test {
 protected:
  static constexpr uint32_t kWidth = 64;
  static constexpr uint32_t kHeight = 36;
  static constexpr uint8_t kFrameLuma = 180;

  BackgroundLinkTest()
      : m_loaderOverride(m_loader), m_threadsOverride(m_threads), m_clockOverride(m_clock) {
    m_loader.AddLibrary(BackgroundVirtualityNode::kClientLibrary, FakeComputingClient::Symbols());
    m_loader.AddLibrary("libtavo_video_opencv_wrapper.so", WrapperSymbols());
  }

  void SetUp() override {
    ResetOpencvBinding();
    m_underflows = OsvGraphicBuffer::GetUnderflowCount();
    m_producer = std::make_shared<CountingNode>(1, OS_E_MPP_DEV_CAMERA);
    m_producer->onRelease = [](OsvGraphicBuffer* buffer) { delete buffer; };
    m_sink = std::make_shared<CountingNode>(2);
    m_sink->onFrame = [this](OsvGraphicBuffer* frame) {
      std::lock_guard<std::mutex> lock(m_seenLock);
      m_seen[frame->GetSrcImgNo()] = frame->GetImageAddr(0)[0];
    };
    m_node = std::make_shared<BackgroundVirtualityNode>(10001);
    Link(m_node, m_sink);
    ASSERT_EQ(m_sink->StartProcess(), 0U);
    ASSERT_EQ(m_node->StartProcess(), 0U);
    m_bgPath = m_dir.Write("bg.bmp", SolidBmp24(16, 9, 255, 0, 0));  // blue
    ASSERT_EQ(m_node->SetParam(Params(m_bgPath, kWidth, kHeight)), 0U);
  }

  void TearDown() override {
    m_node->Shutdown();
    m_sink->Shutdown();
    Unlink(m_node, m_sink);
    m_producer->Shutdown();
    EXPECT_EQ(OsvGraphicBuffer::GetUnderflowCount(), m_underflows) << "a frame was released twice";
    EXPECT_EQ(m_producer->released.Get(), m_sent) << "a frame was not given back";
    Drop(m_node);
  }

  // A worker may still be letting go of a finished task's hold on the node; the node's
  // images go back to the wrapper bound through this test's loader, before it is unbound.
  static void Drop(std::shared_ptr<BackgroundVirtualityNode>& node) {
    for (int i = 0; i < 2000 && node.use_count() > 1; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(node.use_count(), 1);
    node.reset();
    ResetOpencvBinding();
  }

  static BackgroundVirtualityParams Params(const std::string& path, uint32_t width, uint32_t height,
                                           uint32_t frameRate = 30) {
    BackgroundVirtualityParams param{};
    std::strncpy(param.bgImagePath, path.c_str(), sizeof param.bgImagePath - 1);
    param.width = width;
    param.height = height;
    param.frameRate = frameRate;
    return param;
  }

  // Sends frame `number` from the producer to the node, or (direct) hands it to the node's
  // HandleBuffer on the test's thread, so that frames are submitted in number order.
  void Send(uint32_t number, uint32_t width = kWidth, uint32_t height = kHeight,
            bool direct = false) {
    OsvGraphicBuffer* frame = NewFrame(width, height, kFrameLuma, number);
    frame->SetReleaseTarget(m_producer);
    FrameRef mine = FrameRef::Share(frame);
    ++m_sent;
    if (direct) {
      ASSERT_EQ(m_node->HandleBuffer(mine), 0U);
    } else {
      m_producer->SendBuffer(m_node, frame);
    }
  }
  void Submit(uint32_t number) { Send(number, kWidth, kHeight, true); }
  // The first luma byte of each frame that reached the sink, by frame number (the pool may
  // hand frames over in any order).
  std::map<uint32_t, uint8_t> Seen() {
    std::lock_guard<std::mutex> lock(m_seenLock);
    return m_seen;
  }
  // Every frame sent came back to the producer.
  bool AllReleased() { return m_producer->released.WaitFor(m_sent); }

  FakeDynamicLoader m_loader;
  FakeThreadSystem m_threads;
  ScopedSeamOverride<DynamicLoader> m_loaderOverride;
  ScopedSeamOverride<ThreadSystem> m_threadsOverride;
  SleepCountingClock m_clock;  // outlives the fake client's thread, which waits on it
  ScopedSeamOverride<Clock> m_clockOverride;
  FakeComputingClient m_client;
  LogCapture m_log;
  TempDir m_dir;
  std::string m_bgPath;
  std::shared_ptr<CountingNode> m_producer;
  std::shared_ptr<CountingNode> m_sink;
  std::shared_ptr<BackgroundVirtualityNode> m_node;
  int m_sent = 0;
  uint64_t m_underflows = 0;
  std::mutex m_seenLock;  // guards m_seen
  std::map<uint32_t, uint8_t> m_seen;
};
