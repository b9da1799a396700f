// GoogleTest before the X headers, whose None macro it cannot take.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "screen/tavo_video_vlink_cursor_capturer.h"
#include "tests/screen/screen_test_support.h"
#include "tests/support/fake_os.h"

namespace {

// What the host's cursor function received; userData picks the instance.
struct CursorRecords {
  std::mutex lock;  // guards records, timesUs and asksAt
  std::vector<VlinkCursorSendData> records;
  std::vector<uint64_t> timesUs;
  std::vector<uint64_t> asksAt;  // the capturer's server asks so far, at each record
  const CursorCapturer* capturer = nullptr;
  CountLatch count;
  int32_t answer = 0;
};

CursorRecords* g_records = nullptr;

int32_t Receive(VlinkCursorSendData* data, uint32_t length, uint32_t userData) {
  EXPECT_EQ(userData, 0x5eedU);
  EXPECT_EQ(length, sizeof(VlinkCursorSendData));
  {
    std::lock_guard<std::mutex> lock(g_records->lock);
    g_records->records.push_back(*data);
    g_records->timesUs.push_back(Seam<Clock>::Get().NowUs());
    g_records->asksAt.push_back(g_records->capturer->GetServerAsks());
  }
  g_records->count.Add();
  return g_records->answer;
}

class CursorCapturerTest : public ScreenTest {
 protected:
  void SetUp() override {
    m_records.capturer = &m_capturer;
    g_records = &m_records;
  }
  void TearDown() override {
    ScreenTest::TearDown();
    g_records = nullptr;
  }
  static VlinkCursorParams Independent(uint32_t framerate, bool hide = false) {
    VlinkCursorParams params = Cursor(hide, true, framerate);
    params.cursorCallback = &Receive;
    params.userData = 0x5eed;
    return params;
  }
  // A server of two monitors of 160x240 side by side; the cursor capturer is told about
  // the right one. The pointer starts on it.
  void StartTwoMonitors() {
    StartServer({{320, 240}});
    ASSERT_TRUE(m_server->SplitScreen(0, 2));
    m_server->SetRootCursor(0, 4, 4, 0, 0, std::vector<uint32_t>(16, 0xFF102030U));
    m_server->WarpPointer(0, 240, 120);
    m_display = XOpenDisplay(m_server->Name().c_str());
    ASSERT_NE(m_display, nullptr);
    m_capturer.SetX11ScreenInfo({m_display, DefaultRootWindow(m_display), 160, 240, 160, 0});
  }
  std::vector<VlinkCursorSendData> Records() {
    std::lock_guard<std::mutex> lock(m_records.lock);
    return m_records.records;
  }
  // The cursor ids of records [from, from + count).
  std::vector<uint32_t> Ids(size_t from, size_t count) {
    std::vector<uint32_t> ids;
    for (const VlinkCursorSendData& record : Records()) {
      ids.push_back(record.cursorId);
    }
    return {ids.begin() + from, ids.begin() + from + count};
  }
  void Stop() {
    m_capturer.StopCapture();
    if (m_display != nullptr) {
      XCloseDisplay(m_display);
      m_display = nullptr;
    }
  }

  CursorRecords m_records;
  FakeClock m_clock{FakeClock::kStepping};
  ScopedSeamOverride<Clock> m_clockSeam{m_clock};
  Display* m_display = nullptr;
  CursorCapturer m_capturer;
};

TEST_F(CursorCapturerTest, PositionsAreScaledToTheEncoderSize) {
  struct Case {
    uint32_t captureW, captureH, encW, encH;
    int32_t grabX, grabY, rootX, rootY;
    int16_t x, y;
  };
  const Case cases[] = {
      {1920, 1080, 1280, 720, 0, 0, 960, 540, 640, 360},
      {1920, 1080, 1920, 1080, 0, 0, 960, 540, 960, 540},     // same size: not scaled
      {1920, 1080, 1280, 720, 1920, 0, 1900, 10, -13, 6},     // left of the monitor
      {1920, 1080, 1280, 720, 1920, 0, 1919, 1079, -0, 719},  // toward zero
      {160, 240, 80, 120, 160, 0, 240, 120, 40, 60},
  };
  for (const Case& c : cases) {
    CursorCapturer capturer;
    capturer.SetEncodeResolution(c.encW, c.encH);
    VlinkCursorSendData record{};
    capturer.CalCursorPos(record, c.rootX, c.rootY,
                          {nullptr, 0, c.captureW, c.captureH, c.grabX, c.grabY});
    EXPECT_EQ(std::pair(record.x, record.y), std::pair(c.x, c.y)) << c.rootX << "," << c.rootY;
  }
}

// Records start blanked, carry the shape and follow its changes; a new rate is picked up by
// the running loop, and flipping `independent` off and on restarts it with a fresh blanking.
TEST_F(CursorCapturerTest, RecordsStartBlankedFollowChangesRatesAndFlipsThreadsAreNamed) {
  StartTwoMonitors();
  m_capturer.SetEncodeResolution(80, 120);
  ASSERT_EQ(m_capturer.SetCaptureParams(Independent(10)), 0u);
  ASSERT_EQ(m_capturer.StartCapture(), 0u);
  ASSERT_TRUE(m_records.count.WaitFor(22));
  EXPECT_EQ(Ids(0, 20), std::vector<uint32_t>(20, 0u));  // 2 x framerate samples blanked
  const VlinkCursorSendData shown{7, 0, 0, 40, 60, 0, 32, 32, 32, 128};
  EXPECT_EQ(std::memcmp(&Records()[20], &shown, sizeof(shown)), 0);
  // A record every period, but the server is asked again only for what it told changed:
  // over the 20 periods (2 s) after the first shown record, only the pointer's rechecks, one
  // a second. A reconnection would ask both again.
  ASSERT_TRUE(m_records.count.WaitFor(41));
  {
    std::lock_guard<std::mutex> lock(m_records.lock);
    EXPECT_LE(m_records.asksAt[40] - m_records.asksAt[20], 2u);
  }
  m_server->SetRootCursor(0, 4, 4, 0, 0, std::vector<uint32_t>(16, 0U));  // now clear
  ASSERT_TRUE(WaitUntilTrue([&] { return Records().back().cursorId == 0; }));
  m_server->SetRootCursor(0, 4, 4, 0, 0, std::vector<uint32_t>(16, 0xFF102030U));
  ASSERT_TRUE(WaitUntilTrue([&] { return Records().back().cursorId == 7; }));
  // Off the monitor (on the left one: x below 0), or hidden on it: id 0.
  m_server->WarpPointer(0, 100, 100);
  ASSERT_TRUE(WaitUntilTrue([&] { return Records().back().x < 0; }));
  EXPECT_EQ(Records().back().cursorId, 0u);
  m_server->WarpPointer(0, 240, 120);
  ASSERT_EQ(m_capturer.SetCaptureParams(Independent(10, true)), 0u);
  ASSERT_TRUE(WaitUntilTrue([&] { return Records().back().x == 40; }));
  ASSERT_TRUE(m_records.count.WaitFor(m_records.count.Get() + 2));
  EXPECT_EQ(Records().back().cursorId, 0u);
  // Shown again, at 2 a second, then drawn in the frames and sampled apart again.
  ASSERT_EQ(m_capturer.SetCaptureParams(Independent(2)), 0u);
  ASSERT_TRUE(m_records.count.WaitFor(m_records.count.Get() + 12));
  VlinkCursorParams drawn = Independent(2);
  drawn.independent = 0;
  ASSERT_EQ(m_capturer.SetCaptureParams(drawn), 0u);
  EXPECT_EQ(std::pair(m_capturer.IsRunning(), m_capturer.IsSampling()), std::pair(true, false));
  const size_t before = Records().size();
  EXPECT_EQ(Records().back().cursorId, 7u);
  ASSERT_EQ(m_capturer.SetCaptureParams(Independent(2)), 0u);
  ASSERT_TRUE(m_records.count.WaitFor(static_cast<int>(before) + 5));
  EXPECT_EQ(Ids(before, 5), (std::vector<uint32_t>{0, 0, 0, 0, 7}));
  Stop();  // the sampling thread is joined: the records stay as they are
  const auto& t = m_records.timesUs;
  // 10 a second: 100 ms apart; 2 a second (the loop takes it after a sample at most): 500 ms
  // apart.
  EXPECT_NEAR(static_cast<double>(t[8] - t[2]) / 6, 100000, 1000);
  EXPECT_NEAR(static_cast<double>(t[before - 1] - t[before - 9]) / 8, 500000, 1000);

  // The capture threads are named; a failed creation is survived.
  FakeThreadSystem threads;
  ScopedSeamOverride<ThreadSystem> threadSeam(threads);
  FrameSink sink;
  auto screen = MakeCapturer(sink, 1);
  ASSERT_EQ(screen->SetCaptureCursorParams(Independent(5)), 0u);
  threads.FailNextCreates(1);
  EXPECT_EQ(screen->StartCapture(), 1u);
  EXPECT_EQ(std::pair(screen->IsStarted(), screen->GetCursorCapturer()->IsRunning()),
            std::pair(false, false));
  ASSERT_EQ(screen->StartCapture(), 0u);
  ASSERT_TRUE(sink.WaitFrames(1));
  ASSERT_TRUE(m_records.count.WaitFor(m_records.count.Get() + 1));
  screen->StopCapture();
  const auto names = threads.Names();
  EXPECT_NE(std::find(names.begin(), names.end(), "ScreenCapSendBufferToEnc"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "CursorCapture"), names.end());
  // The sampling thread alone cannot start: the cursor capturer stays stopped.
  threads.FailNextCreates(1);
  EXPECT_EQ(m_capturer.SetCaptureParams(Independent(5)), 0u);
  EXPECT_EQ(m_capturer.StartCapture(), 1u);
  EXPECT_FALSE(m_capturer.IsRunning());
  Stop();
}

TEST_F(CursorCapturerTest, BadParametersFailedSamplesAndSorenPlatformsAreRefused) {
  ASSERT_EQ(m_capturer.SetCaptureParams(Independent(60)), 0u);
  VlinkCursorParams none = Independent(5);
  none.cursorCallback = nullptr;
  for (const auto& [bad, line] : {std::pair{Independent(61), "Invalid framerate [61]"},
                                  std::pair{Independent(0), "Invalid framerate [0]"},
                                  std::pair{none, "cursor callback is nullptr"}}) {
    EXPECT_EQ(m_capturer.SetCaptureParams(bad), 1u);
    EXPECT_TRUE(m_logs.HasModule(line, 1)) << line;
  }
  EXPECT_EQ(m_capturer.GetCaptureParams().framerate, 60u);
  EXPECT_EQ(m_capturer.SetCaptureParams(Independent(1)), 0u);
  EXPECT_EQ(m_capturer.SetEncodeResolution(4096, 2160), 0u);
  EXPECT_TRUE(m_logs.HasModule("invalid width[4096] height[2160]", 1));
  EXPECT_EQ(m_capturer.SetEncodeResolution(3840, 2161), 0u);
  EXPECT_EQ(m_capturer.SetEncodeResolution(3840, 2160), 0u);
  EXPECT_EQ(m_logs.CountModule("invalid width["), 2u);

  // Failed samples are logged paced and the loop goes on.
  ASSERT_EQ(m_capturer.SetCaptureParams(Independent(60)), 0u);
  const uint64_t start = m_clock.NowUs();
  ASSERT_EQ(m_capturer.StartCapture(), 0u);  // no display yet
  // The 1st and the 101st failed sample are logged, none between.
  ASSERT_TRUE(WaitUntilTrue([&] { return m_logs.CountModule("display is nullptr", 1) >= 2; }));
  m_capturer.StopCapture();
  const uint64_t samples = (m_clock.NowUs() - start) / 16666 + 1;
  EXPECT_LE(m_logs.CountModule("display is nullptr", 1), samples / 100 + 1);
  EXPECT_LE(m_logs.CountModule("Cursor capture failed!", 1), samples / 100 + 1);
  ASSERT_EQ(m_capturer.StartCapture(), 0u);
  StartTwoMonitors();
  m_records.answer = 1;  // the host refuses every record
  ASSERT_TRUE(m_records.count.WaitFor(3));
  EXPECT_TRUE(m_logs.HasModule("failed to send cursorData!", 1));
  Stop();

  // On Soren processors Uos refuses the sampling thread and Kylin forces the cursor into the
  // frames.
  OsPlatformSetIdentity("Soren 7A", "UOS");
  ASSERT_EQ(m_capturer.SetCaptureParams(Independent(10)), 0u);
  EXPECT_EQ(m_capturer.StartCapture(), 0u);
  EXPECT_EQ(std::pair(m_capturer.IsRunning(), m_capturer.IsSampling()), std::pair(true, false));
  EXPECT_EQ(m_capturer.StartCapture(), 0u);
  EXPECT_EQ(m_capturer.StopCapture(), 0u);
  EXPECT_FALSE(m_capturer.IsRunning());
  EXPECT_EQ(m_capturer.StopCapture(), 0u);

  OsPlatformSetIdentity("Soren 8C", "Kylin");
  X11ScreenCapturer screen(90);
  ASSERT_EQ(screen.SetCaptureCursorParams(Independent(10)), 0u);
  VlinkCursorParams inForce{};
  ASSERT_EQ(screen.GetCaptureCursorParams(&inForce), 0u);
  // Neither the setting reported nor the cursor capturer's is independent.
  EXPECT_EQ(inForce.independent + screen.GetCursorCapturer()->GetCaptureParams().independent, 0);
  EXPECT_TRUE(m_logs.HasModule("kos force not independent", 3));
  OsPlatformSetIdentity("Soren 8C", "Debian");
  ASSERT_EQ(screen.SetCaptureCursorParams(Independent(10)), 0u);
  ASSERT_EQ(screen.GetCaptureCursorParams(&inForce), 0u);
  EXPECT_EQ(inForce.independent, 1u);
}

}  // namespace
