// GoogleTest before the X headers, whose None macro it cannot take.
// clang-format off
#include <gtest/gtest.h>
#include <X11/extensions/XTest.h>
// clang-format on
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include "core/tavo_video_os_seams.h"
#include "screen/tavo_video_vlink_capture_pacer.h"
#include "screen/tavo_video_vlink_screen_capturer_X11.h"
#include "screen/tavo_video_vlink_x11_display.h"
#include "tests/screen/screen_test_support.h"
#include "tests/support/fake_os.h"
#include "tests/support/own_process.h"

namespace {

constexpr uint32_t kWidth = 320;
constexpr uint32_t kHeight = 240;

class ScreenCapturerTest : public ScreenTest {};

// "wait recreate link!" lines on trace channel 2, the capturer's (sent elsewhere, they would
// not be counted). A channel's callback cannot be removed again; this one stays registered
// and counts only that line.
std::atomic<int> g_recreateLines{0};
void CountRecreateLines(uint32_t /*level*/, const char* text) {
  g_recreateLines += std::strstr(text, "wait recreate link!") != nullptr ? 1 : 0;
}

// ---- monitor choice and pixels -------------------------------------------------------

struct PortCase {
  int defaultScreen, screenNum, grabX;
  uint32_t port, monitorIdx, width, height;
  uint32_t encWidth, encHeight;  // 0: the capture size
};

// Ports number the monitors across screens, default screen first; each frame equals libyuv's
// conversion of the monitor's pixels, unscaled, scaled down and up.
TEST_F(ScreenCapturerTest, PortsNumberMonitorsAcrossScreensDefaultFirst) {
  // Screen 0 split in two monitors of 160x240, screen 1 one monitor of 200x150.
  StartServer({{kWidth, kHeight}, {200, 150}});
  ASSERT_TRUE(m_server->SplitScreen(0, 2));
  m_server->PutPixels(0, 0, 0, kWidth, kHeight, PatternPixels(kWidth, kHeight, 3));
  m_server->PutPixels(1, 0, 0, 200, 150, PatternPixels(200, 150, 4));
  const PortCase cases[] = {
      {0, 0, 0, 0, 0, 160, 240, 0, 0},     {0, 0, 160, 1, 1, 160, 240, 80, 120},
      {0, 1, 0, 2, 0, 200, 150, 400, 300}, {1, 1, 0, 0, 0, 200, 150, 200, 150},
      {1, 0, 0, 1, 0, 160, 240, 96, 64},   {1, 0, 160, 2, 1, 160, 240, 0, 0},
  };
  for (const PortCase& c : cases) {
    SCOPED_TRACE(testing::Message() << "default screen " << c.defaultScreen << " port " << c.port);
    m_displaySystem->SetName(m_server->Name(c.defaultScreen));
    FrameSink sink;
    auto capturer = MakeCapturer(sink, c.port, c.encWidth, c.encHeight);
    ASSERT_EQ(capturer->Init(), 0u);
    // The frame shows the screen, monitor position and size; the index is reported apart.
    EXPECT_EQ(capturer->GetMonitorIdx(), c.monitorIdx);
    ASSERT_EQ(capturer->ScreenCaptureProcess(), 0u);
    EXPECT_EQ(sink.Frame(0),
              OracleI420(m_server->GetPixels(c.screenNum, c.grabX, 0, c.width, c.height), c.width,
                         c.height, c.encWidth != 0 ? c.encWidth : c.width,
                         c.encHeight != 0 ? c.encHeight : c.height));
  }
  // A port that names no monitor fails the start and closes the display; a loop started
  // anyway refuses every frame.
  m_displaySystem->SetName(m_server->Name(0));
  FrameSink none;
  auto capturer = MakeCapturer(none, 3);
  EXPECT_EQ(capturer->Init(), 1u);
  EXPECT_EQ(m_logs.CountModule("InitWindowImage failed!", 1), 1u);
  EXPECT_EQ(m_displaySystem->opens.load(), m_displaySystem->closes.load());
  ASSERT_EQ(capturer->StartCapture(), 0u);
  EXPECT_EQ(capturer->ScreenCaptureProcess(), 1u);
  EXPECT_EQ(capturer->StopCapture(), 0u);

  // A port change while running moves the capture; to a port naming nothing it stops it,
  // and the result is 0 all the same.
  FrameSink sink;
  capturer = MakeCapturer(sink);
  ASSERT_EQ(capturer->StartCapture(), 0u);
  ASSERT_TRUE(sink.WaitFrames(1));
  EXPECT_EQ(capturer->SetCaptureScreenPort(2), 0u);
  const int seen = sink.Count();
  ASSERT_TRUE(sink.WaitFrames(seen + 1));
  EXPECT_EQ(sink.Frame(static_cast<size_t>(seen)),
            OracleI420(m_server->GetPixels(1, 0, 0, 200, 150), 200, 150, 200, 150));
  EXPECT_EQ(capturer->SetCaptureScreenPort(7), 0u);
  EXPECT_TRUE(m_logs.HasModule("ResetCapture failed!", 1));
  EXPECT_FALSE(capturer->IsStarted());
  EXPECT_EQ(m_displaySystem->opens.load(), m_displaySystem->closes.load());
}

// ---- cursor drawing -----------------------------------------------------------------

constexpr uint32_t kCursorSide = 16;
constexpr int kHot = 5;

// A cursor of every kind of pixel: opaque, half and barely covering, and clear.
std::vector<uint32_t> CursorPixels() {
  std::vector<uint32_t> pixels(kCursorSide * kCursorSide);
  for (uint32_t row = 0; row < kCursorSide; ++row) {
    for (uint32_t col = 0; col < kCursorSide; ++col) {
      const uint32_t alpha = (row * kCursorSide + col) * 255 / (kCursorSide * kCursorSide - 1);
      const uint32_t a = (col % 4 == 3) ? 0 : alpha;
      // Premultiplied colours: never above the alpha.
      const uint32_t r = a * 3 / 4, g = a / 2, b = a * (col % 2);
      pixels[row * kCursorSide + col] = a << 24 | r << 16 | g << 8 | b;
    }
  }
  return pixels;
}

// The screen as the capturer should see it with the cursor blended in.
std::vector<uint32_t> Blend(std::vector<uint32_t> screen, const std::vector<uint32_t>& cursor,
                            int pointerX, int pointerY) {
  for (int row = 0; row < static_cast<int>(kCursorSide); ++row) {
    for (int col = 0; col < static_cast<int>(kCursorSide); ++col) {
      const int x = pointerX - kHot + col;
      const int y = pointerY - kHot + row;
      if (x < 0 || y < 0 || x >= static_cast<int>(kWidth) || y >= static_cast<int>(kHeight)) {
        continue;
      }
      const uint32_t c = cursor[size_t(row) * kCursorSide + size_t(col)];
      const uint32_t a = c >> 24;
      uint32_t& d = screen[size_t(y) * kWidth + size_t(x)];
      uint32_t out = d & 0xFF000000U;
      for (int shift : {16, 8, 0}) {
        const uint32_t s = (c >> shift) & 0xff;
        const uint32_t v =
            a == 255 ? s : (s + ((255 - a) * ((d >> shift) & 0xff) + 127) / 255) & 0xff;
        out |= v << shift;
      }
      d = out;
    }
  }
  return screen;
}

// The cursor is blended exactly and clipped at the edges where it is drawn; clear, hidden
// or sent apart it is not drawn. Moved as a device moves it: the next frames follow (the
// server's notice may come a frame later). The clock stands still, so no recheck is ever
// due: only the server's notice of the motion makes the pointer be asked again.
TEST_F(ScreenCapturerTest, CursorIsBlendedExactlyClippedAndOnlyWhereDrawn) {
  FakeClock clock;
  ScopedSeamOverride<Clock> clockSeam(clock);
  StartServer({{kWidth, kHeight}});
  const auto drawn = PatternPixels(kWidth, kHeight, 9);
  m_server->PutPixels(0, 0, 0, kWidth, kHeight, drawn);
  const auto cursor = CursorPixels();
  struct Case {
    const char* name;
    int x, y;
    bool clear = false, hide = false, independent = false;
  };
  for (const Case& c :
       {Case{"inside", 100, 77}, Case{"topLeft", 2, 1}, Case{"bottomRight", 318, 239},
        Case{"right", 315, 100}, Case{"clear", 50, 50, true}, Case{"hidden", 50, 50, false, true},
        Case{"independent", 50, 50, false, false, true}}) {
    SCOPED_TRACE(c.name);
    m_server->SetRootCursor(0, kCursorSide, kCursorSide, kHot, kHot,
                            c.clear ? std::vector<uint32_t>(cursor.size(), 0) : cursor);
    m_server->WarpPointer(0, 160, 120);
    FrameSink sink;
    auto capturer = MakeCapturer(sink);
    ASSERT_EQ(capturer->SetCaptureCursorParams(Cursor(c.hide, c.independent)), 0u);
    ASSERT_EQ(capturer->Init(), 0u);
    ASSERT_EQ(capturer->ScreenCaptureProcess(), 0u);
    XTestFakeMotionEvent(m_server->Connection(), 0, c.x, c.y, CurrentTime);
    XSync(m_server->Connection(), False);
    const bool shown = !c.clear && !c.hide && !c.independent;
    const auto expected = OracleI420(shown ? Blend(drawn, cursor, c.x, c.y) : drawn, kWidth,
                                     kHeight, kWidth, kHeight);
    EXPECT_TRUE(WaitUntilTrue([&] {
      EXPECT_EQ(capturer->ScreenCaptureProcess(), 0u);
      return sink.Last() == expected;
    }));
  }
}

// Frames built from the rows the server reported damaged equal whole grabs, pixel for
// pixel: windows drawn inside and outside the captured monitor, the pointer moving with
// its cursor drawn in, nothing changing at all, and an encoder resize. Then the monitor
// is resized and moved.
TEST_F(ScreenCapturerTest, DamageDrivenFramesEqualWholeGrabsAndTheMonitorIsFollowed) {
  OS_VLink_Debug_TraceRegister(2, &CountRecreateLines);
  g_recreateLines = 0;  // a repeated run counts afresh
  OS_VLink_Debug_SetTraceLevel(4);
  StartServer({{kWidth, kHeight}});
  ASSERT_TRUE(m_server->SplitScreen(0, 2));  // port 1 is the right half
  m_server->PutPixels(0, 0, 0, kWidth, kHeight, PatternPixels(kWidth, kHeight, 3));
  m_server->SetRootCursor(0, kCursorSide, kCursorSide, kHot, kHot, CursorPixels());
  m_server->WarpPointer(0, 200, 100);
  FrameSink damaged;
  std::vector<FrameRef> held;  // some frames then build on a buffer still held downstream
  damaged.hook = [&](OsvGraphicBuffer* frame, int) { held.push_back(FrameRef::Share(frame)); };
  FrameSink whole;
  auto byDamage = MakeCapturer(damaged, 1, 0, 0, /*hideCursor=*/false);
  auto byWhole = MakeCapturer(whole, 1, 0, 0, /*hideCursor=*/false);
  byWhole->UseDamage(false);
  ASSERT_EQ(byDamage->Init(), 0u);
  ASSERT_EQ(byWhole->Init(), 0u);
  struct Step {
    int x, y, pointerX, pointerY;
    uint32_t w, h;      // a window drawn at x, y (0: none)
    uint32_t encWidth;  // 0: unchanged
  };
  const Step steps[] = {
      {0, 0, 200, 100, 0, 0, 0},       {170, 30, 200, 100, 40, 21, 0},   // a window
      {0, 0, 200, 100, 0, 0, 0},       {10, 10, 200, 100, 100, 100, 0},  // still; outside
      {150, 200, 201, 103, 60, 40, 0}, {0, 0, 260, 231, 0, 0, 0},        // pointer moves
      {230, 0, 318, 239, 90, 240, 0},  {0, 0, 318, 239, 0, 0, 80},       // edge; resize
      {161, 1, 170, 50, 3, 237, 0},    {0, 0, 170, 50, 0, 0, 0},
  };
  uint32_t seed = 40;
  for (const Step& step : steps) {
    if (step.w != 0) {
      m_server->PutPixels(0, step.x, step.y, step.w, step.h, PatternPixels(step.w, step.h, ++seed));
    }
    m_server->WarpPointer(0, step.pointerX, step.pointerY);
    if (step.encWidth != 0) {
      ASSERT_EQ(byDamage->SetEncodeResolution(step.encWidth, 120), 0u);
      ASSERT_EQ(byWhole->SetEncodeResolution(step.encWidth, 120), 0u);
    }
    ASSERT_EQ(byDamage->ScreenCaptureProcess(), 0u);
    ASSERT_EQ(byWhole->ScreenCaptureProcess(), 0u);
    const size_t last = static_cast<size_t>(whole.Count()) - 1;
    ASSERT_EQ(damaged.Frame(last), whole.Frame(last)) << "step " << last;
    if (last % 3 == 2) {
      held.clear();
    }
  }

  // Resized, the monitor's frames are refused with a line every hundred refusals; back to
  // its size it is captured again. Moved, it is followed with one line. The pointer stays
  // off the monitor (moved as a device moves it): frames are the server's pixels.
  XTestFakeMotionEvent(m_server->Connection(), 0, 5, 5, CurrentTime);
  XSync(m_server->Connection(), False);
  ASSERT_TRUE(m_server->SetMonitor(0, "part1", 100, 240, 160, 0));
  // The server's notice of the change may come a frame later.
  ASSERT_TRUE(WaitUntilTrue([&] { return byWhole->ScreenCaptureProcess() == 1; }));
  const int sent = whole.Count();
  for (int i = 1; i <= 100; ++i) {
    ASSERT_EQ(byWhole->ScreenCaptureProcess(), 1u);
  }
  EXPECT_EQ(m_logs.CountModule("wait recreate link! count[0] oldWidth[160] oldHeight[240] "
                               "newWidth[100] newHeight[240]",
                               1),
            1u);
  EXPECT_EQ(m_logs.CountModule("wait recreate link! count[100]"), 1u);
  EXPECT_EQ(byWhole->GetMonitorChangeCount(), 101u);
  EXPECT_EQ(whole.Count(), sent);
  // The capturer's lines go to trace channel 2.
  OS_VLink_Debug_SetTraceLevel(0);
  EXPECT_EQ(g_recreateLines.load(), 2);
  ASSERT_TRUE(m_server->SetMonitor(0, "part1", 160, 240, 160, 0));
  EXPECT_TRUE(WaitUntilTrue([&] { return byWhole->ScreenCaptureProcess() == 0; }));
  EXPECT_GE(byWhole->GetMonitorChangeCount(), 101u);  // never reset

  ASSERT_TRUE(m_server->SetMonitor(0, "part1", 160, 240, 100, 0));
  ASSERT_TRUE(WaitUntilTrue([&] {
    EXPECT_EQ(byWhole->ScreenCaptureProcess(), 0u);
    return byWhole->GetGrabX() == 100;
  }));
  ASSERT_EQ(byWhole->ScreenCaptureProcess(), 0u);
  EXPECT_EQ(m_logs.CountModule("reset capturer MonitorInfo change! m_monitorIdx[1] grabX[100] "
                               "grabY[0]"),
            1u);
  EXPECT_EQ(whole.Last(), OracleI420(m_server->GetPixels(0, 100, 0, 160, 240), 160, 240, 80, 120));
}

// Kylin prefers the leftmost of a pair of monitors not at the origin. A layout other than
// 32-bit pixels is reported and nothing is sent.
TEST_F(ScreenCapturerTest, KylinPrefersTheLeftmostOfAPairAnUnknownLayoutSendsNothing) {
  OsPlatformSetIdentity("Soren 7A", "Kylin");
  StartServer({{kWidth, kHeight, 16}});
  // Listed right one first: its own output, then a monitor on no output at x = 0.
  ASSERT_TRUE(m_server->SetMonitor(0, "right", 160, 240, 160, 0, "screen"));
  ASSERT_TRUE(m_server->SetMonitor(0, "left", 160, 240, 0, 0));
  X11ScreenCapturer kylin(90);
  OsPlatformSetIdentity(nullptr, nullptr);
  X11ScreenCapturer ordinary(90);
  ASSERT_EQ(kylin.Init(), 0u);
  ASSERT_EQ(ordinary.Init(), 0u);
  EXPECT_EQ(std::pair(kylin.GetGrabX(), kylin.GetMonitorIdx()), std::pair(0, 1u));
  EXPECT_EQ(std::pair(ordinary.GetGrabX(), ordinary.GetMonitorIdx()), std::pair(160, 0u));

  m_server->SetRootCursor(0, kCursorSide, kCursorSide, kHot, kHot, CursorPixels());
  FrameSink sink;
  auto capturer = MakeCapturer(sink, 0, 0, 0, /*hideCursor=*/false);
  ASSERT_EQ(capturer->Init(), 0u);
  EXPECT_NE(capturer->ScreenCaptureProcess(), 0u);
  EXPECT_NE(capturer->ScreenCaptureProcess(), 0u);
  EXPECT_EQ(m_logs.CountModule("The image format is incorrect!", 1), 1u);
  EXPECT_EQ(m_logs.CountModule("Convert srcImg to I420 failed!", 1), 1u);  // paced
  EXPECT_EQ(sink.Count(), 0);
}

// ---- the capture period -------------------------------------------------------------

TEST(CapturePacerTest, CarriesTheRemainderAsOneNanosecond) {
  CapturePacer pacer(30, 1000000000ULL);
  EXPECT_EQ(pacer.Deadline(), 1000000000ULL);  // the first frame at once
  const uint64_t expected[] = {0, 0, 1, 1, 1, 2, 2, 2, 3};
  for (uint32_t frame = 1; frame <= 9; ++frame) {
    pacer.Advance();
    EXPECT_EQ(pacer.Deadline(), 1000000000ULL + frame * 33333333ULL + expected[frame - 1])
        << "frame " << frame;
  }
}

// Soren processors take the asked rate, others a fixed 20 a second whatever was asked.
TEST_F(ScreenCapturerTest, FramesComeAtThePeriodOverManyFrames) {
  StartServer({{64, 48}});
  for (const auto& [cpu, fps, periodUs] :
       {std::tuple{"Intel(R) Core(TM)", 30u, 50000u}, std::tuple{"Intel", 5u, 50000u},
        std::tuple{"Soren 7A", 30u, 33333u}, std::tuple{"Soren 8C", 25u, 40000u},
        std::tuple{"Soren 7A", 60u, 16666u}}) {
    SCOPED_TRACE(std::string(cpu) + " " + std::to_string(fps));
    OsPlatformSetIdentity(cpu, "Debian");
    FakeClock clock(FakeClock::kStepping);
    ScopedSeamOverride<Clock> clockSeam(clock);
    FrameSink sink;
    std::vector<uint64_t> times;  // capture thread until the stop
    sink.hook = [&](OsvGraphicBuffer*, int) { times.push_back(clock.NowUs()); };
    X11ScreenCapturer capturer(90);
    ASSERT_EQ(capturer.SetCaptureParams(Params(64, 48, fps)), 0u);
    ASSERT_EQ(capturer.SetSendFrameCallback(sink.Callback()), 0u);
    ASSERT_EQ(capturer.StartCapture(), 0u);
    constexpr int kFrames = 31;
    ASSERT_TRUE(sink.WaitFrames(kFrames));
    capturer.StopCapture();
    // Ticks of the clock are whole milliseconds: each frame comes at the first tick at or
    // after its deadline, so 30 periods span 30 x period to within a millisecond.
    const uint64_t span = times[kFrames - 1] - times[0];
    EXPECT_NEAR(static_cast<double>(span), 30.0 * static_cast<double>(periodUs) + 500, 500);
    for (int i = 1; i < kFrames; ++i) {
      EXPECT_LE(times[i] - times[i - 1], periodUs + 1000) << i;
    }
  }
}

// ---- bad input, failures and output buffers ------------------------------------------

TEST_F(ScreenCapturerTest, BadInputNoDisplayNoSharedMemoryAndReplacedBuffers) {
  StartServer({{kWidth, kHeight}});
  X11ScreenCapturer bare(90);
  for (const ViDevInfo& bad : {Params(0, 240, 30), Params(320, 0, 30), Params(320, 240, 0)}) {
    EXPECT_EQ(bare.SetCaptureParams(bad), 1u);
  }
  EXPECT_EQ(m_logs.CountModule("Invalid param for screen capture!", 1), 3u);
  EXPECT_EQ(bare.SetCaptureParams(Params(1, 1, 1)), 0u);
  EXPECT_EQ(bare.SetSendFrameCallback(nullptr), 1u);
  EXPECT_TRUE(m_logs.HasModule("SetSendFrameCallback failed, cb is nullptr!", 1));
  VlinkCursorParams noCallback = Cursor(false);
  noCallback.cursorCallback = nullptr;
  EXPECT_EQ(bare.SetCaptureCursorParams(noCallback), 1u);
  EXPECT_TRUE(m_logs.HasModule("Capturer[90] SetCaptureCursorParams failed!", 1));
  EXPECT_EQ(bare.StopCapture(), 0u);
  EXPECT_TRUE(m_logs.HasModule("Capture has stopped", 2));

  // No display: Init fails, and a loop started anyway keeps its rhythm.
  FrameSink blind;
  auto noDisplay = MakeCapturer(blind);
  // Init fails with `line` while `knob` holds `value`, which stays.
  const auto initFails = [&](auto& knob, auto value, const char* line) {
    knob = value;
    EXPECT_EQ(noDisplay->Init(), 1u);
    EXPECT_TRUE(m_logs.HasModule(line, 1)) << line;
  };
  initFails(m_displaySystem->failInitThreads, true, "XInitThreads failed");
  m_displaySystem->failInitThreads = false;
  initFails(m_displaySystem->refuseOpen, true, "XOpenDisplay failed!");
  FakeClock clock(FakeClock::kStepping);
  ScopedSeamOverride<Clock> clockSeam(clock);
  const uint64_t start = clock.NowUs();
  ASSERT_EQ(noDisplay->StartCapture(), 0u);
  EXPECT_EQ(noDisplay->StartCapture(), 0u);
  EXPECT_TRUE(m_logs.HasModule("Capture has started", 2));
  // 201 refused frames, 50 ms apart, three lines.
  ASSERT_TRUE(WaitUntilTrue([&] { return clock.NowUs() - start >= 200 * 50000; }));
  noDisplay->StopCapture();
  const size_t lines = m_logs.CountModule("Capturer[90] ScreenCaptureProcess failed!", 1);
  EXPECT_GE(lines, 3u);
  EXPECT_LE(lines, (clock.NowUs() - start) / 50000 / 100 + 1);
  EXPECT_EQ(blind.Count(), 0);
  m_displaySystem->refuseOpen = false;

  // Shared memory: a segment is marked for removal as soon as the server holds it (a crashed
  // host leaves none behind), is let go at every stop and destruction, and is removed once;
  // one got before a failing attach is given back.
  FakeSharedMemory memory;
  ScopedSeamOverride<SharedMemorySystem> memorySeam(memory);
  const size_t before = CountOwnShmSegments();
  initFails(memory.getError, ENOSPC, "shmget failed, errono = 28, No space left on device");
  EXPECT_TRUE(m_logs.HasModule("InitShmImages failed!", 1));
  memory.getError = 0;
  initFails(memory.attachError, EACCES, "shmat failed, errono = 13");
  EXPECT_EQ(CountOwnShmSegments(), before);
  memory.attachError = 0;
  for (int run = 1; run <= 2; ++run) {  // the second after a stop
    ASSERT_EQ(noDisplay->StartCapture(), 0u);
    EXPECT_EQ(CountOwnShmSegments(), before);
    ASSERT_TRUE(blind.WaitFrames(run));
    if (run == 1) {
      noDisplay->StopCapture();
    }
  }
  noDisplay.reset();
  EXPECT_EQ(memory.detaches.load(), memory.attaches.load());
  EXPECT_EQ(memory.removes.load(), memory.gets.load());
  EXPECT_EQ(m_displaySystem->opens.load(), m_displaySystem->closes.load());

  // Replaced output buffers are freed late; absurd sizes and a refusing sink keep them in force.
  FrameSink sink;
  auto capturer = MakeCapturer(sink, 0, 160, 120);
  constexpr int kChangeAt = 3;
  std::vector<size_t> unusedSeen;  // capture thread only
  std::vector<FrameRef> kept;      // capture thread only
  sink.hook = [&](OsvGraphicBuffer* frame, int index) {
    if (index < 2) {
      kept.push_back(FrameRef::Share(frame));  // two old buffers stay downstream
    }
    if (index == kChangeAt) {
      capturer->SetEncodeResolution(80, 60);
    }
    if (index > kChangeAt) {
      unusedSeen.push_back(capturer->GetUnusedBufferCount());
    }
    if (index == kChangeAt + 70) {
      kept.erase(kept.begin());  // one comes back
    }
  };
  ASSERT_EQ(capturer->StartCapture(), 0u);
  ASSERT_TRUE(sink.WaitFrames(kChangeAt + 75));
  capturer->StopCapture();
  ASSERT_GE(unusedSeen.size(), 72u);
  // unusedSeen[j - 1]: seen by the j-th frame after the change, after j turns of the loop.
  // Freed from the 61st turn, one a turn and only once free: two stay held downstream
  // until one comes back.
  for (const auto& [j, count] :
       {std::pair{1u, 5u}, std::pair{60u, 5u}, std::pair{61u, 4u}, std::pair{62u, 3u},
        std::pair{63u, 2u}, std::pair{70u, 2u}, std::pair{72u, 1u}}) {
    EXPECT_EQ(unusedSeen[j - 1], count) << j;
  }
  // The one still held outlives the stop and stays readable.
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(PackI420(*kept[0].Get()).size(), 160u * 120u * 3u / 2u);

  // Absurd sizes and a refusing sink keep the buffers in force.
  FrameSink refusing;
  auto bad = MakeCapturer(refusing, 0, 160, 120);
  ASSERT_EQ(bad->Init(), 0u);
  EXPECT_EQ(bad->SetEncodeResolution(100000, 100000), 0u);
  EXPECT_EQ(bad->SetEncodeResolution(0, 0), 0u);
  EXPECT_EQ(m_logs.CountModule("create OsvGraphicBuffer fail!", 1), 2u);
  EXPECT_EQ(bad->SetEncodeResolution(160, 120), 0u);  // unchanged: nothing replaced
  EXPECT_EQ(bad->GetUnusedBufferCount(), 0u);
  ASSERT_EQ(bad->ScreenCaptureProcess(), 0u);
  EXPECT_EQ(refusing.Frame(0).size(), 160u * 120u * 3u / 2u);
  EXPECT_EQ(bad->SetEncodeResolution(96, 64), 0u);
  EXPECT_EQ(bad->GetUnusedBufferCount(), 5u);
  ASSERT_EQ(bad->ScreenCaptureProcess(), 0u);
  EXPECT_EQ(refusing.Frame(1).size(), 96u * 64u * 3u / 2u);
  // Resizes faster than the freeing delay keep two replaced sets at most, not every one.
  for (uint32_t i = 0; i < 6; ++i) {
    EXPECT_EQ(bad->SetEncodeResolution(i % 2 == 0 ? 160 : 96, 64), 0u);
  }
  EXPECT_EQ(bad->GetUnusedBufferCount(), 10u);
  // A refusing sink: reported, and frame after frame, past the five buffers, every refused
  // one came back.
  refusing.answer = 5;
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(bad->ScreenCaptureProcess(), 5u);
  }
  EXPECT_TRUE(m_logs.HasModule("SendFrame to Encoder failed!", 1));
  EXPECT_FALSE(m_logs.HasModule("no available buffer!"));
}

// The pid of the test's X server: the peer of a connection to it.
pid_t ServerPid(Display* display) {
  ucred peer{};  // pid 0 when the call fails
  socklen_t size = sizeof(peer);
  getsockopt(ConnectionNumber(display), SOL_SOCKET, SO_PEERCRED, &peer, &size);
  return peer.pid;
}

// Where there is no poll() system call, poll() is made with ppoll().
#ifndef SYS_poll
#define SYS_poll SYS_ppoll
#endif

// True while the capture thread waits in poll(), that is for the server's answer (between
// frames it waits on a condition variable).
bool CaptureThreadWaitsForTheServer() {
  return CountOwnThreads([](const std::string& name, const std::filesystem::path& task) {
           long number = -1;
           return name.rfind("ScreenCapSend", 0) == 0 &&
                  std::ifstream(task / "syscall") >> number &&
                  (number == SYS_poll || number == SYS_ppoll);
         }) > 0;
}

// A server that stops answering mid-capture (stopped with SIGSTOP) does not hold up a stop;
// a display that takes connections and never answers is given up after the answer time; one
// that drops connections while it resets is asked again. A display that goes away
// mid-capture is survived and its connection let go.
TEST_F(ScreenCapturerTest, ServersThatStopAnsweringDropConnectionsOrGoAway) {
  StartServer({{kWidth, kHeight}});
  const pid_t server = ServerPid(m_server->Connection());
  ASSERT_GT(server, 0);
  // A stopped server would hold up its own teardown.
  std::unique_ptr<const pid_t, void (*)(const pid_t*)> resume(
      &server, [](const pid_t* pid) { kill(*pid, SIGCONT); });
  FrameSink sink;
  auto capturer = MakeCapturer(sink);
  capturer->UseDamage(false);  // every frame asks the server, still screen or not
  ASSERT_EQ(capturer->StartCapture(), 0u);
  ASSERT_TRUE(sink.WaitFrames(2));
  kill(server, SIGSTOP);  // the capture thread's next frame waits for ever
  ASSERT_TRUE(WaitUntilTrue(CaptureThreadWaitsForTheServer));
  EXPECT_EQ(capturer->StopCapture(), 0u);
  EXPECT_EQ(m_displaySystem->opens.load(), m_displaySystem->closes.load());
  m_displaySystem->answerTimeoutMs = 200;
  EXPECT_EQ(capturer->Init(), 1u);
  resume.reset();

  m_displaySystem->dropOpens = 2;
  int seen = sink.Count();
  ASSERT_EQ(capturer->StartCapture(), 0u);
  EXPECT_EQ(m_displaySystem->dropOpens.load(), 0);  // both dropped opens asked again
  ASSERT_TRUE(sink.WaitFrames(seen + 2));
  EXPECT_EQ(capturer->StopCapture(), 0u);
  EXPECT_EQ(m_logs.CountModule("XOpenDisplay failed!", 1), 1u);  // the silent one, not the drops

  // A connection found gone only while it is being closed is not left marked lost: the
  // next connection may be given the same address.
  bool tryAgain = false;
  Display* display = OpenX11Display(m_server->Name().c_str(), kX11AnswerTimeoutMs, &tryAgain);
  ASSERT_NE(display, nullptr);
  InstallX11ErrorHandlers(display);
  X11Connection(display).Cut();
  EXPECT_FALSE(IsX11DisplayLost(display));

  // The cursor sampled apart too: two threads on the connection when it goes.
  const size_t descriptors = CountOwnDescriptors();
  ASSERT_EQ(capturer->SetCaptureCursorParams(Cursor(false, true, 60)), 0u);
  ASSERT_EQ(capturer->StartCapture(), 0u);
  ASSERT_TRUE(sink.WaitFrames(sink.Count() + 2));
  m_server->Kill();
  seen = sink.Count();
  ASSERT_TRUE(WaitUntilTrue([&] { return m_logs.HasModule("ScreenCaptureProcess failed!", 1); }));
  EXPECT_LE(sink.Count(), seen + 1);
  EXPECT_EQ(capturer->StopCapture(), 0u);
  EXPECT_EQ(capturer->ScreenCaptureProcess(), 1u);
  // The lost connection was closed: its socket is not kept (the fixture's own connection
  // went with the server). The one cut above was closed too, not opened here.
  EXPECT_EQ(m_displaySystem->opens.load() + 1, m_displaySystem->closes.load());
  EXPECT_EQ(CountOwnDescriptors(), descriptors - 1);
}

}  // namespace
