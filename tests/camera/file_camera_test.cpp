// A file played as a camera: Y4M clips and MJPEG streams through the V4L2 capturer and the
// capture manager, at the file's size and rate, looping at the end.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <fstream>

#include "camera/tavo_video_vlink_camera_capturer_linux.h"
#include "camera/tavo_video_vlink_capture_manager.h"
#include "tests/support/temp_dir.h"
#include "tests/support/virtual_clock.h"
#include "tests/support/wait.h"
#include "tools/common/file_frame_source.h"
#include "tools/common/jpeg_util.h"
#include "tools/common/y4m_reader.h"

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

// Starts `manager` on the file camera at width x height, asking for `fps`.
void StartCapture(DevCaptureManager& manager, Received& received, uint32_t width, uint32_t height,
                  uint32_t fps) {
  ASSERT_EQ(manager.Init(kBus), 0U);
  manager.SetCaptureCallback(received.Callback());
  tagCameraCaptureParams params{};
  params.uiWidth = width;
  params.uiHeight = height;
  params.uiFrameRate = fps;
  ASSERT_EQ(manager.CaptureStart(&params), 0U);
}

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

  VirtualClock clock;
  ScopedSeamOverride<Clock> clockSeam(clock);
  FakeV4l2Device device;
  ScopedSeamOverride<CaptureDevice> seam(device);
  device.AddCamera(0, source->Camera(kBus));
  Received received;
  {
    DevCaptureManager manager;
    ASSERT_NO_FATAL_FAILURE(StartCapture(manager, received, width, height, 30));
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

TEST(FileCameraTest, PlaysAnMjpegStreamAtTheGivenRate) {
  const uint32_t width = 160;
  const uint32_t height = 120;
  std::vector<uint8_t> stream;
  std::vector<std::vector<uint8_t>> pictures;
  for (uint32_t i = 0; i < 2; ++i) {
    pictures.push_back(EncodeI420Jpeg(MakePatternI420(width, height, i * 9).data(), width, height));
    stream.insert(stream.end(), pictures.back().begin(), pictures.back().end());
  }
  stream.insert(stream.end(), {0x00, 0x11, 0xFF});  // trailing junk is skipped
  TempDir dir;
  const std::string path = dir.Write("clip.mjpeg", stream);
  std::string error;
  auto source = FileFrameSource::Open(path, &error, 10);
  ASSERT_NE(source, nullptr) << error;
  EXPECT_TRUE(source->IsMjpeg());
  EXPECT_EQ(source->FrameCount(), 2U);
  EXPECT_EQ(source->Width(), width);

  FakeV4l2Device device;
  ScopedSeamOverride<CaptureDevice> seam(device);
  device.AddCamera(1, source->Camera(kBus));
  Received received;
  DevCaptureManager manager;
  ASSERT_NO_FATAL_FAILURE(StartCapture(manager, received, width, height, 10));
  EXPECT_EQ(device.CurrentFormat(1).pixelformat, V4L2_PIX_FMT_MJPEG);
  EXPECT_EQ(device.CurrentInterval(1).denominator, 10U);
  ASSERT_TRUE(received.count.WaitFor(2));
  manager.CaptureStop();
  std::lock_guard<std::mutex> guard(received.lock);
  std::vector<uint8_t> expected(size_t{width} * height * 3 / 2);
  const int w = static_cast<int>(width);
  const int h = static_cast<int>(height);
  bool matched = false;
  for (const std::vector<uint8_t>& jpeg : pictures) {
    libyuv::MJPGToI420(jpeg.data(), jpeg.size(), expected.data(), w, expected.data() + w * h, w / 2,
                       expected.data() + w * h * 5 / 4, w / 2, w, h, w, h);
    matched = matched || expected == received.pictures[0];
  }
  EXPECT_TRUE(matched);
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
