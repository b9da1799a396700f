// A file played as a camera: Y4M clips and MJPEG streams through the V4L2 capturer and the
// capture manager, at the file's size and rate, looping at the end.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <fstream>

#include "camera/tavo_video_vlink_camera_capturer_linux.h"
#include "camera/tavo_video_vlink_capture_manager.h"
#include "tests/support/file_frame_source.h"
#include "tests/support/jpeg_util.h"
#include "tests/support/temp_dir.h"
#include "tests/support/step_clock.h"
#include "tests/support/wait.h"
#include "tools/y4m_reader.h"

namespace {

const char* const kBus = "file-camera";

struct Received {
  CountLatch count;
  std::mutex lock;  // guards pictures
  std::vector<std::vector<uint8_t>> pictures;
  CaptureFrameCallback Callback() {
    return [this](_PEL_V_FRAME& frame) {
      {
        std::lock_guard<std::mutex> guard(lock);
        pictures.emplace_back(frame.data, frame.data + size_t{frame.width} * frame.height * 3 / 2);
      }
      DevCaptureManager::ReleaseBuffer(frame.data);
      count.Add();
      return 0;
    };
  }
};

TEST(FileCameraTest, PlaysAY4mClipInOrderAndLoops) {
  const uint32_t width = 64;
  const uint32_t height = 48;
  std::vector<std::vector<uint8_t>> clip;
  for (uint32_t i = 0; i < 3; ++i) {
    clip.push_back(MakePatternI420(width, height, i * 5));
  }
  TempDir dir;
  const std::string bytes = MakeY4m(width, height, 25, 1, clip);
  const std::string path = dir.Write("clip.y4m", std::vector<uint8_t>(bytes.begin(), bytes.end()));
  std::string error;
  auto source = FileFrameSource::Open(path, &error);
  ASSERT_NE(source, nullptr) << error;
  EXPECT_EQ(source->FrameCount(), 3U);

  StepClock clock;
  ScopedSeamOverride<Clock> clockSeam(clock);
  FakeV4l2Device device;
  ScopedSeamOverride<CaptureDevice> seam(device);
  device.AddCamera(0, source->Camera(kBus));
  Received received;
  {
    DevCaptureManager manager;
    ASSERT_EQ(manager.Init(kBus), 0U);
    manager.SetCaptureCallback(received.Callback());
    tagCameraCaptureParams params{};
    params.uiWidth = width;
    params.uiHeight = height;
    params.uiFrameRate = 30;
    ASSERT_EQ(manager.CaptureStart(&params), 0U);
    EXPECT_EQ(device.CurrentInterval(0).denominator, 25U);  // the file's rate, not the asked
    ASSERT_TRUE(received.count.WaitFor(7));
    manager.CaptureStop();
  }
  EXPECT_EQ(device.OpenDescriptors(), 0U);
  std::lock_guard<std::mutex> guard(received.lock);
  // Consecutive frames follow the clip, wrapping from its last frame to its first.
  size_t start = 0;
  while (start < clip.size() && received.pictures[0] != clip[start]) {
    ++start;
  }
  ASSERT_LT(start, clip.size());
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(received.pictures[i], clip[(start + i) % clip.size()]) << i;
  }
}

TEST(FileCameraTest, UnreadableFilesAreRefused) {
  TempDir dir;
  std::string error;
  EXPECT_EQ(FileFrameSource::Open((dir.Path() / "missing.y4m").string(), &error), nullptr);
  EXPECT_FALSE(error.empty());
  const std::string noJpeg = dir.Write("noise.mjpeg", std::vector<uint8_t>(300, 0x42));
  EXPECT_EQ(FileFrameSource::Open(noJpeg, &error), nullptr);
  EXPECT_NE(error.find("no JPEG picture"), std::string::npos);
  const std::string badY4m = dir.Write("bad.y4m", std::vector<uint8_t>{'Y', 'U', 'V'});
  EXPECT_EQ(FileFrameSource::Open(badY4m, &error), nullptr);
}

}  // namespace
