// What the screen tests share: a private Xvfb with the display seam pointed at it, a frame
// sink for the capturer's callback, and libyuv oracles.
#pragma once

#include <gtest/gtest.h>
#include <libyuv.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/tavo_video_frame_ref.h"
#include "core/tavo_video_seam.h"
#include "platform/adapt_common/os_platform_check.h"
#include "screen/tavo_video_vlink_screen_capturer_X11.h"
#include "tests/support/fake_screen_seams.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"
#include "tools/common/xvfb_server.h"
#include "trace/tavo_video_vlink_log.h"

// Packed I420 planes (Y, U, V without row padding) of a frame.
std::vector<uint8_t> PackI420(const OsvGraphicBuffer& frame);
// libyuv's I420 of 0xAARRGGBB pixels, optionally box-scaled to outWidth x outHeight.
std::vector<uint8_t> OracleI420(const std::vector<uint32_t>& argb, uint32_t width, uint32_t height,
                                uint32_t outWidth, uint32_t outHeight);

// Collects what the capturer hands out, and runs a hook on the capture thread for every frame.
class FrameSink {
 public:
  int OnFrame(OsvGraphicBuffer* frame);
  ScreenCapturer::SendFrameCallback Callback() {
    return [this](const FrameRef& frame) { return OnFrame(frame.Get()); };
  }
  bool WaitFrames(int count) { return m_count.WaitFor(count); }
  int Count() { return m_count.Get(); }
  std::vector<uint8_t> Frame(size_t index);
  std::vector<uint8_t> Last() { return Frame(static_cast<size_t>(Count() - 1)); }

  int answer = 0;                                    // what the callback returns
  std::function<void(OsvGraphicBuffer*, int)> hook;  // (frame, its index), capture thread

 private:
  std::mutex m_lock;  // guards the vectors
  std::vector<std::vector<uint8_t>> m_frames;
  CountLatch m_count;
};

// For conditions nobody signals (log lines, a clock other threads move): looks again every
// millisecond until it holds or the generous limit passes.
bool WaitUntilTrue(const std::function<bool()>& condition,
                   std::chrono::seconds limit = kGenerousTimeout);

// A private X server with the display seam pointed at it.
class ScreenTest : public ::testing::Test {
 protected:
  void TearDown() override { OsPlatformSetIdentity(nullptr, nullptr); }
  // Starts the server; the capturer's display opens `defaultScreen` first.
  void StartServer(const std::vector<XvfbScreen>& screens, int defaultScreen = 0);
  // Parameters of screen node 90 + port: width x height asked, capture fps.
  static ViDevInfo Params(uint32_t width = 320, uint32_t height = 240, uint32_t captureFps = 30);
  static VlinkCursorParams Cursor(bool hide, bool independent = false, uint32_t framerate = 30);
  // A capturer configured for `port` with the cursor hidden, feeding `sink`.
  std::unique_ptr<X11ScreenCapturer> MakeCapturer(FrameSink& sink, uint32_t port = 0,
                                                  uint32_t encWidth = 0, uint32_t encHeight = 0,
                                                  bool hideCursor = true);

  LogCapture m_logs;
  std::unique_ptr<XvfbServer> m_server;
  std::unique_ptr<FakeX11DisplaySystem> m_displaySystem;
  std::optional<ScopedSeamOverride<X11DisplaySystem>> m_displaySeam;
};
