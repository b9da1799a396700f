#include "tests/screen/screen_test_support.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
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

namespace {

// Binds (or connects) `fd` to the abstract socket `path`, as X servers listen.
int OnAbstract(int fd, const std::string& path, bool connectTo) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, path.data(), path.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
  auto* at = reinterpret_cast<sockaddr*>(&address);
  return connectTo ? connect(fd, at, length) : bind(fd, at, length);
}

}  // namespace

FreezableXProxy::FreezableXProxy(const std::string& serverName) {
  m_serverPath = "/tmp/.X11-unix/X" + serverName.substr(1, serverName.find('.') - 1);
  m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  for (int number = 6000 + getpid() % 1000; number < 7100; ++number) {
    if (OnAbstract(m_listener, "/tmp/.X11-unix/X" + std::to_string(number), false) == 0) {
      m_name = ":" + std::to_string(number);
      break;
    }
  }
  listen(m_listener, 16);
  m_thread = std::thread([this] { Pump(); });
}

FreezableXProxy::~FreezableXProxy() {
  m_closed = true;
  shutdown(m_listener, SHUT_RDWR);  // wakes the pump's poll
  m_thread.join();
  close(m_listener);
}

void FreezableXProxy::Pump() {
  std::vector<std::pair<int, int>> pairs;  // (client, server)
  while (!m_closed) {
    std::vector<pollfd> fds{{m_listener, POLLIN, 0}};
    for (const auto& pair : pairs) {
      fds.push_back({pair.first, POLLIN, 0});
      fds.push_back({pair.second, static_cast<short>(m_frozen ? 0 : POLLIN), 0});
    }
    if (poll(fds.data(), fds.size(), -1) <= 0) {
      continue;
    }
    if ((fds[0].revents & POLLIN) != 0 && !m_closed) {
      const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
      const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (client >= 0 && OnAbstract(server, m_serverPath, true) == 0) {
        pairs.emplace_back(client, server);
      } else {
        close(client);
        close(server);
      }
    }
    for (size_t i = 1; i < fds.size(); ++i) {
      if ((fds[i].revents & (POLLIN | POLLHUP)) == 0) {
        continue;
      }
      const auto& pair = pairs[(i - 1) / 2];
      const int from = (i % 2 == 1) ? pair.first : pair.second;
      const int to = (i % 2 == 1) ? pair.second : pair.first;
      char buffer[65536];
      const ssize_t got = read(from, buffer, sizeof(buffer));
      if (got > 0 && m_frozen) {
        m_held += static_cast<size_t>(got);
      } else if (got > 0) {
        (void)send(to, buffer, static_cast<size_t>(got), MSG_NOSIGNAL);
      }
    }
  }
  for (const auto& pair : pairs) {
    close(pair.first);
    close(pair.second);
  }
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
