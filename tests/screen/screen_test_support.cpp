#include "tests/screen/screen_test_support.h"

#include <chrono>
#include <thread>

std::vector<uint8_t> PackI420(const OsvGraphicBuffer& frame) {
  const OsvGraphicBufferInfo info = frame.GetImageInfo();
  const int w = static_cast<int>(info.width), h = static_cast<int>(info.height);
  const int cw = (w + 1) / 2, ch = (h + 1) / 2;
  std::vector<uint8_t> out(size_t(w) * h + 2 * size_t(cw) * ch);
  uint8_t* u = out.data() + size_t(w) * h;
  libyuv::I420Copy(frame.GetImageAddr(0), static_cast<int>(info.stride[0]), frame.GetImageAddr(1),
                   static_cast<int>(info.stride[1]), frame.GetImageAddr(2),
                   static_cast<int>(info.stride[2]), out.data(), w, u, cw, u + size_t(cw) * ch, cw,
                   w, h);
  return out;
}

std::vector<uint8_t> OracleI420(const std::vector<uint32_t>& argb, uint32_t width, uint32_t height,
                                uint32_t outWidth, uint32_t outHeight) {
  const int w = static_cast<int>(width), h = static_cast<int>(height);
  const int cw = (w + 1) / 2, ch = (h + 1) / 2;
  std::vector<uint8_t> full(size_t(w) * h + 2 * size_t(cw) * ch);
  uint8_t* u = full.data() + size_t(w) * h;
  libyuv::ARGBToI420(reinterpret_cast<const uint8_t*>(argb.data()), w * 4, full.data(), w, u, cw,
                     u + size_t(cw) * ch, cw, w, h);
  // At the same size the scaling is a copy.
  const int ow = static_cast<int>(outWidth), oh = static_cast<int>(outHeight);
  const int ocw = (ow + 1) / 2, och = (oh + 1) / 2;
  std::vector<uint8_t> scaled(size_t(ow) * oh + 2 * size_t(ocw) * och);
  uint8_t* su = scaled.data() + size_t(ow) * oh;
  libyuv::I420Scale(full.data(), w, u, cw, u + size_t(cw) * ch, cw, w, h, scaled.data(), ow, su,
                    ocw, su + size_t(ocw) * och, ocw, ow, oh, libyuv::kFilterBox);
  return scaled;
}

int FrameSink::OnFrame(OsvGraphicBuffer* frame) {
  int index = 0;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    m_frames.push_back(PackI420(*frame));
    index = static_cast<int>(m_frames.size()) - 1;
  }
  if (hook) {
    hook(frame, index);
  }
  m_count.Add();
  return answer;
}

std::vector<uint8_t> FrameSink::Frame(size_t index) {
  std::lock_guard<std::mutex> lock(m_lock);
  return index < m_frames.size() ? m_frames[index] : std::vector<uint8_t>{};
}

bool WaitUntilTrue(const std::function<bool()>& condition, std::chrono::seconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void ScreenTest::StartServer(const std::vector<XvfbScreen>& screens, int defaultScreen) {
  m_server = std::make_unique<XvfbServer>(screens);
  ASSERT_TRUE(m_server->Ok()) << m_server->Error();
  m_displaySystem = std::make_unique<FakeX11DisplaySystem>(m_server->Name(defaultScreen));
  m_displaySeam.emplace(*m_displaySystem);
}

ViDevInfo ScreenTest::Params(uint32_t width, uint32_t height, uint32_t captureFps) {
  ViDevInfo info{};
  info.imgNo = 90;
  info.width = width;
  info.height = height;
  info.fps = captureFps;
  info.captureFps = captureFps;
  return info;
}

VlinkCursorParams ScreenTest::Cursor(bool hide, bool independent, uint32_t framerate) {
  VlinkCursorParams params{};
  params.isHide = hide ? 1 : 0;
  params.independent = independent ? 1 : 0;
  params.framerate = framerate;
  params.shape = 7;
  params.cursorCallback = [](VlinkCursorSendData*, uint32_t, uint32_t) { return int32_t{0}; };
  return params;
}

std::unique_ptr<X11ScreenCapturer> ScreenTest::MakeCapturer(FrameSink& sink, uint32_t port,
                                                            uint32_t encWidth, uint32_t encHeight,
                                                            bool hideCursor) {
  auto capturer = std::make_unique<X11ScreenCapturer>(90 + port);
  EXPECT_EQ(capturer->SetCaptureParams(Params()), 0u);
  EXPECT_EQ(capturer->SetEncodeResolution(encWidth, encHeight), 0u);
  EXPECT_EQ(capturer->SetCaptureScreenPort(port), 0u);
  EXPECT_EQ(capturer->SetCaptureCursorParams(Cursor(hideCursor)), 0u);
  EXPECT_EQ(capturer->SetSendFrameCallback(sink.Callback()), 0u);
  return capturer;
}

#if defined(__SANITIZE_THREAD__)
// When a display's server goes away, Xlib's IO error path unlocks the display's mutex and
// the Xlib or RandR call it interrupted unlocks it once more on its way out. That is
// Xlib's own doing; the test of a display lost mid-capture goes through it on purpose.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "mutex:libX11.so\nmutex:libXrandr.so\nmutex:libXext.so\n";
}
#endif
