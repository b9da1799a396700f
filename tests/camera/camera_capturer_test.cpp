// The V4L2 capturer against the fake kernel: device search, format and interval
// negotiation, buffers, the capture thread and every failure path, checking that nothing
// stays open or mapped afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>

#include "camera/tavo_video_vlink_camera_capturer_linux.h"
#include "tests/support/fake_os.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"
#include "tools/common/fake_v4l2_device.h"

namespace {

const char* const kBus = "usb-0000:00:14.0-3";

tagCameraCaptureParams Params(uint32_t width, uint32_t height, uint32_t fps) {
  tagCameraCaptureParams params{};
  params.uiWidth = width;
  params.uiHeight = height;
  params.uiFrameRate = fps;
  std::strncpy(params.cameraId, kBus, sizeof(params.cameraId) - 1);
  return params;
}

using CameraChange = std::function<void(FakeCameraConfig&, FakeCameraFaults&)>;

const CameraChange kAsIs = [](FakeCameraConfig&, FakeCameraFaults&) {};
CameraChange IoctlFails(unsigned long request, int error = EIO) {
  return [=](FakeCameraConfig&, FakeCameraFaults& f) { f.ioctlErrno[request] = error; };
}
// The typical camera refusing `fourccs` on every try and set.
CameraChange Refusing(std::set<uint32_t> fourccs) {
  return [=](FakeCameraConfig&, FakeCameraFaults& f) { f.refusedFormats = fourccs; };
}
// The typical camera with `only` for its formats.
CameraChange Only(const FakeCameraFormat& only) {
  return [=](FakeCameraConfig& c, FakeCameraFaults&) { c.formats = {only}; };
}
// The typical camera's second format with a stepwise range only, one of its bounds changed.
CameraChange Stepwise(v4l2_fract FakeCameraFormat::*bound, v4l2_fract value) {
  return [=](FakeCameraConfig& c, FakeCameraFaults&) {
    c.formats[1].discreteIntervals.clear();
    c.formats[1].*bound = value;
  };
}

// A device with the typical camera, `change` applied, as camera 0 and a capturer on it (a table
// case makes one of its own); nothing may stay open or mapped once it stops.
struct FreshCamera {
  explicit FreshCamera(const CameraChange& change = kAsIs) {
    FakeCameraConfig config = TypicalCamera(kBus);
    FakeCameraFaults faults;
    change(config, faults);
    device.AddCamera(0, config);
    device.Faults(0, [&](FakeCameraFaults& f) { f = faults; });
  }
  ~FreshCamera() {
    capturer.CaptureStop();
    ExpectNothingLeft();
  }
  uint32_t Start(uint32_t width, uint32_t height, uint32_t fps) {
    capturer.Init(kBus);
    capturer.SetCaptureCallback([this](_PEL_V_FRAME& frame) {
      if (frames.Get() == 0) {  // read once the capture thread has been joined
        first = frame;
        firstBytes.assign(frame.data, frame.data + frame.dataSize);
      }
      frames.Add();
      return 0;
    });
    params = Params(width, height, fps);
    return capturer.CaptureStart(&params);
  }
  void ExpectNothingLeft() {
    EXPECT_EQ(device.OpenDescriptors(), 0U);
    EXPECT_EQ(device.Mappings(), 0U);
    EXPECT_EQ(capturer.GetFd(), -1);
    EXPECT_FALSE(capturer.IsCapturing());
  }
  // What the capture thread handed over; outlives the capturer.
  CountLatch frames;
  _PEL_V_FRAME first{};
  std::vector<uint8_t> firstBytes;
  FakeV4l2Device device;
  ScopedSeamOverride<CaptureDevice> seam{device};
  LogCapture log;
  DevCaptureCameraLinux capturer;
  tagCameraCaptureParams params{};
};

class CapturerTest : public ::testing::Test, public FreshCamera {};

// No match: all 64 paths are probed, the id read within its field. Then the first capture
// device on the wanted bus is taken, behind others.
TEST_F(CapturerTest, ProbesAllSixtyFourPathsOrFindsTheWantedCameraBehindOthers) {
  device.AddCamera(0, TypicalCamera("usb-0000:00:14.0-1"));
  FakeCameraConfig metadata = TypicalCamera(kBus);  // a UVC metadata node shares the bus
  metadata.deviceCaps = V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING;
  device.AddCamera(1, metadata);
  device.AddCamera(2, TypicalCamera(""));
  device.AddCamera(3, TypicalCamera(kBus));
  device.Faults(3, [](FakeCameraFaults& f) { f.openErrno = EACCES; });
  device.AddCamera(4, TypicalCamera("usb-0000:00:14.0"));      // a prefix of the wanted one
  device.AddCamera(63, TypicalCamera("usb-0000:00:14.0-30"));  // a longer id is no match
  EXPECT_EQ(Start(640, 480, 30), 1U);
  EXPECT_TRUE(log.HasModule("not found match usb-0000:00:14.0-3 capture", 1));
  EXPECT_TRUE(log.HasModule("failed to open Capture Device", 1));
  ExpectNothingLeft();
  // An id without terminator is read within its 192 bytes.
  std::memset(params.cameraId, 'x', sizeof(params.cameraId));
  params.reserved = 0x41414141;
  const std::string id = CameraIdOf(params);
  EXPECT_EQ(id.size(), kCameraIdLength);
  capturer.Init(id);
  EXPECT_EQ(capturer.CaptureStart(&params), 1U);
  EXPECT_TRUE(log.HasModule("not found match " + id + " capture", 1));

  device.AddCamera(5, TypicalCamera(kBus));
  device.AddCamera(6, TypicalCamera(kBus));
  ASSERT_EQ(Start(640, 480, 30), 0U);
  // Twice all 64, then video0..video5 (the first match ends the search), all the same way.
  EXPECT_EQ(device.OpenFlags(), std::vector<int>(2 * 64 + 6, O_RDWR | O_NONBLOCK));
  EXPECT_EQ(device.OpenDescriptors(), 1U);
}

// The typical camera takes the first format asked for, which depends on the requested size.
// The format the driver settles on decides the raw type, whether it took that one, refused the
// earlier candidates or silently substituted its own. MJPEG needs one side a multiple of 8. The
// first frame is the camera's sequence 0 in the agreed format and size.
TEST_F(CapturerTest, FormatOrderFollowsTheSizeAndTheAgreedFormatDecidesTheRawType) {
  const CameraChange refused = Refusing({V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_YUV420});
  auto only = [](uint32_t fourcc, uint32_t width, uint32_t height) {
    return Only(DiscreteFormat(fourcc, {{width, height}}, {{1, 30}}));
  };
  const std::vector<uint32_t> all = {V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_YUV420, V4L2_PIX_FMT_YUYV};
  const uint32_t formatOf[] = {PELV_IMAGE_FORMAT_MJPEG, PELV_IMAGE_FORMAT_I420,
                               PELV_IMAGE_FORMAT_YUY2};  // by raw type
  const struct {
    CameraChange change;
    uint32_t width, height;
    std::vector<uint32_t> tried;
    uint32_t rawType;
  } cases[] = {
      {kAsIs, 1280, 720, {V4L2_PIX_FMT_MJPEG}, CAPTURE_FORMAT_MJPEG},
      {kAsIs, 640, 480, {V4L2_PIX_FMT_YUV420}, CAPTURE_FORMAT_YU12},
      {kAsIs, 641, 480, {V4L2_PIX_FMT_MJPEG}, CAPTURE_FORMAT_MJPEG},
      {kAsIs, 640, 481, {V4L2_PIX_FMT_MJPEG}, CAPTURE_FORMAT_MJPEG},
      {refused, 1280, 720, all, CAPTURE_FORMAT_YUYV},
      // "accepted" as YUYV
      {only(V4L2_PIX_FMT_YUYV, 1280, 720), 1280, 720, {V4L2_PIX_FMT_MJPEG}, CAPTURE_FORMAT_YUYV},
      {only(V4L2_PIX_FMT_MJPEG, 960, 542), 960, 542, {V4L2_PIX_FMT_MJPEG}, CAPTURE_FORMAT_MJPEG},
      {only(V4L2_PIX_FMT_MJPEG, 962, 544), 962, 544, {V4L2_PIX_FMT_MJPEG}, CAPTURE_FORMAT_MJPEG},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    FreshCamera fresh(c.change);
    ASSERT_EQ(fresh.Start(c.width, c.height, 30), 0U);
    EXPECT_EQ(fresh.device.TriedFormats(0), c.tried);
    EXPECT_EQ(fresh.capturer.GetRawVideoType(), c.rawType);
    const v4l2_pix_format agreed = fresh.device.CurrentFormat(0);
    ASSERT_TRUE(fresh.frames.WaitFor(1));
    fresh.capturer.CaptureStop();
    EXPECT_EQ((std::vector{fresh.first.format, fresh.first.width, fresh.first.height}),
              (std::vector{formatOf[c.rawType], agreed.width, agreed.height}));
    EXPECT_EQ(PatternFrameSource().MakeFrame(agreed.pixelformat, agreed.width, agreed.height, 0),
              fresh.firstBytes);
  }
}

TEST_F(CapturerTest, NegotiatesTheFrameInterval) {
  const std::vector<v4l2_fract> fastFirst = {{1, 30}, {1, 25}, {1, 20}, {1, 15}, {1, 10}};
  const std::vector<v4l2_fract> slowFirst = {{1, 5}, {1, 10}, {1, 15}, {1, 30}};
  const struct {
    const char* name;
    std::vector<v4l2_fract> discrete;  // empty: stepwise from 1/40 to 1/5 in steps of 1/40
    uint32_t target;
    v4l2_fract expected;
  } cases[] = {
      {"fastest first, 15", fastFirst, 15, {1, 15}},
      {"fastest first, 60", fastFirst, 60, {1, 30}},
      {"fastest first, 12", fastFirst, 12, {1, 15}},
      {"fastest first, 5", fastFirst, 5, {1, 10}},
      {"slowest first, 15", slowFirst, 15, {1, 5}},
      {"slowest first, 60", slowFirst, 60, {1, 30}},
      {"slowest first, exactly the fastest", slowFirst, 30, {1, 30}},
      {"zero denominator skipped", {{1, 0}, {1, 30}, {1, 15}}, 20, {1, 30}},
      {"stepwise, 16", {}, 16, {80, 1600}},
      {"stepwise, 50", {}, 50, {1, 40}},
      {"stepwise, 40", {}, 40, {1, 40}},
      {"stepwise, 4", {}, 4, {1, 5}},
      {"stepwise, 5", {}, 5, {1, 5}},
      {"stepwise, 10", {}, 10, {160, 1600}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeCameraFormat format = DiscreteFormat(V4L2_PIX_FMT_YUV420, {{640, 480}}, c.discrete);
    format.stepMin = format.step = {1, 40};
    format.stepMax = {1, 5};
    FreshCamera fresh(Only(format));
    ASSERT_EQ(fresh.Start(640, 480, c.target), 0U);
    const v4l2_fract agreed = fresh.device.CurrentInterval(0);
    EXPECT_EQ(std::pair(agreed.numerator, agreed.denominator),
              std::pair(c.expected.numerator, c.expected.denominator));
    EXPECT_EQ(fresh.capturer.GetFrameRate(), c.expected.denominator / c.expected.numerator);
  }
}

// Frame-rate failures leave capture at the driver's rate and size; failed starts leave
// nothing open or mapped, at once, not only after a stop.
TEST_F(CapturerTest, RateFailuresKeepTheDriverRateAndFailedStartsLeaveNothing) {
  const struct {
    CameraChange setUp;
    uint32_t rc;
    const char* message;
    uint32_t fps = 15, width = 640, height = 480;
  } cases[] = {
      {[](auto& c, auto&) { c.timePerFrame = false; }, 0,
       "Camera capture capability:(0), does not support framerate control."},
      {IoctlFails(VIDIOC_G_PARM), 0, "Get capture framerate capabilities failed."},
      {kAsIs, 0, "Invalid targetFramerate.", 0},
      {kAsIs, 0, "Failed to enumerate framerate.", 15, 1000, 700},  // size adjusted by the driver
      {IoctlFails(VIDIOC_S_PARM), 0, "Set capture framerate failed."},
      {Stepwise(&FakeCameraFormat::stepMin, {1, 0}), 0,
       "Invalid FrameInterval Fraction Parameters."},
      {Stepwise(&FakeCameraFormat::step, {1, 0}), 0, "Invalid FrameInterval Fraction Parameters."},
      {Stepwise(&FakeCameraFormat::step, {0, 30}), 0, "Invalid FrameInterval Parameters."},
      {Only(DiscreteFormat(V4L2_PIX_FMT_YUV420, {{640, 480}}, {{1, 0}})), 0,
       "Failed to enum framerate."},
      {IoctlFails(VIDIOC_REQBUFS, ENOMEM), 1, "Get mmap buffers failed. error"},
      {IoctlFails(VIDIOC_QUERYBUF, EINVAL), 1, "VIDIOC_QUERYBUF failed"},
      {[](auto&, auto& f) { f.mmapFailAt = 2; }, 1, "mmap failed"},  // the third
      {IoctlFails(VIDIOC_QBUF), 1, "VIDIOC_QBUF failed"},
      {IoctlFails(VIDIOC_STREAMON), 1, "start capture stream failed! error:5"},
      {[](auto& c, auto&) { c.maxBuffers = 0; }, 1, "start capture stream failed! error:22"},
      {IoctlFails(VIDIOC_S_FMT, EBUSY), 1, "set video formats failed. rawVideoType:1, error:16"},
      {Only(DiscreteFormat(V4L2_PIX_FMT_MJPEG, {{962, 542}}, {{1, 30}})), 1,
       "capture MJPEG format. width and height must be a multiple of 8. ", 30, 962, 542},
      {Refusing({V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_YUV420, V4L2_PIX_FMT_YUYV}), 1,
       "not found suitable video formats"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.message) + " " + std::to_string(&c - cases));
    FreshCamera fresh(c.setUp);
    ASSERT_EQ(fresh.Start(c.width, c.height, c.fps), c.rc);
    EXPECT_TRUE(fresh.log.HasModule(c.message, 1));
    if (c.rc != 0) {
      fresh.ExpectNothingLeft();
    } else {  // the driver's rate and size, not the ones asked for
      EXPECT_EQ(fresh.capturer.GetFrameRate(), 0U);
      EXPECT_EQ(
          std::pair(fresh.capturer.GetWidth(), fresh.capturer.GetHeight()),
          std::pair(fresh.device.CurrentFormat(0).width, fresh.device.CurrentFormat(0).height));
    }
  }
}

// The next start works; a camera unplugged then keeps the loop until it is stopped.
TEST_F(CapturerTest, CallsOutOfOrderAThreadThatCannotStartAndAnUnplugLeaveNothingBehind) {
  EXPECT_EQ(capturer.CaptureStop(), 0U);  // a stop before any start
  EXPECT_EQ(capturer.CaptureStart(nullptr), 1U);
  FakeThreadSystem threads;
  ScopedSeamOverride<ThreadSystem> threadSeam(threads);
  threads.FailNextCreates(1);
  EXPECT_EQ(Start(640, 480, 30), 1U);
  EXPECT_TRUE(log.HasModule("start capture thread failed, ret[11]", 1));
  ExpectNothingLeft();
  device.Faults(0, [](FakeCameraFaults& f) { f.unplugAfterFrames = 5; });
  ASSERT_EQ(capturer.CaptureStart(&params), 0U);
  ASSERT_TRUE(frames.WaitFor(5));
  ASSERT_TRUE(log.WaitFor("could not sync on a buffer on device No such device", 1, 1));
  EXPECT_TRUE(capturer.IsCapturing());
  EXPECT_EQ(frames.Get(), 5);
}

TEST_F(CapturerTest, SilentCameraIsReportedOncePerHundredAndOneTimeouts) {
  FakeClock clock(FakeClock::kStepping);
  ScopedSeamOverride<Clock> clockSeam(clock);
  device.Faults(0, [](FakeCameraFaults& f) { f.neverDeliver = true; });
  // The line is written on the capture thread right after the timeout it counts, so the
  // fake's count of timeouts at that moment tells which timeout produced it.
  std::vector<std::string> reports;  // read once the capture thread is joined
  CountLatch lines;
  OmLogSink previous = OmLogSetSink([&](const OmLogRecord& record) {
    if (record.text.find("StatusAbnormalCnt failed") != std::string::npos) {
      reports.push_back(record.text + " at " + std::to_string(device.SelectTimeouts()));
      lines.Add();
    }
  });
  ASSERT_EQ(Start(640, 480, 30), 0U);
  const bool reported = lines.WaitFor(3);
  capturer.CaptureStop();
  OmLogSetSink(std::move(previous));
  ASSERT_TRUE(reported);
  const std::string line = "StatusAbnormalCnt failed cnt:0 100 0 at ";
  EXPECT_EQ(std::vector(reports.begin(), reports.begin() + 3),
            (std::vector{line + "100", line + "201", line + "302"}));
}

TEST_F(CapturerTest, StopWaitsForTheFrameInFlight) {
  Gate release;
  CountLatch entered;
  std::atomic<bool> stopped{false};
  std::atomic<bool> frameAfterStop{false};
  capturer.Init(kBus);
  capturer.SetCaptureCallback([&](_PEL_V_FRAME& frame) {
    frameAfterStop = frameAfterStop || stopped;
    entered.Add();
    release.Pass();
    volatile uint8_t byte = frame.data[0];  // the mapping must still be there
    (void)byte;
    return 0;
  });
  params = Params(640, 480, 30);
  ASSERT_EQ(capturer.CaptureStart(&params), 0U);
  ASSERT_TRUE(entered.WaitFor(1));
  std::thread stopper([&] {
    capturer.CaptureStop();
    stopped = true;
  });
  // While the callback still reads the buffer, stop must not take the mappings away.
  EXPECT_FALSE(device.WaitForMappingsAtMost(3, std::chrono::milliseconds(200)));
  release.Open();
  stopper.join();
  EXPECT_FALSE(frameAfterStop.load());
  ExpectNothingLeft();
}

TEST_F(CapturerTest, RestartKeepsTheSameSizeAndReopensForAnother) {
  ASSERT_EQ(Start(640, 480, 30), 0U);
  const int fd = capturer.GetFd();
  tagCameraCaptureParams slower = Params(640, 480, 15);
  EXPECT_EQ(capturer.CaptureStart(&slower), 0U);
  EXPECT_EQ(capturer.GetFd(), fd);
  EXPECT_EQ(device.CurrentInterval(0).denominator, 30U);  // the old rate stays
  tagCameraCaptureParams larger = Params(1280, 720, 15);
  ASSERT_EQ(capturer.CaptureStart(&larger), 0U);
  EXPECT_NE(capturer.GetFd(), fd);
  EXPECT_EQ(std::pair(device.CurrentFormat(0).width, device.CurrentInterval(0).denominator),
            std::pair(1280U, 15U));
  EXPECT_EQ(std::pair(device.OpenDescriptors(), device.Mappings()),
            std::pair(size_t{1}, size_t{4}));
  for (tagCameraCaptureParams other : {Params(1280, 480, 30), Params(640, 720, 30)}) {
    EXPECT_FALSE(capturer.IsCaptrueParamSame(&other));  // one side the same is not enough
  }
}

}  // namespace
