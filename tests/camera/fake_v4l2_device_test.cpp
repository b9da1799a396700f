// The fake kernel keeps the V4L2 rules a real driver enforces, so code that passes against
// it does not lean on leniency a camera would not show.
#include "tests/support/fake_v4l2_device.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

class FakeV4l2DeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    device.AddCamera(0, TypicalCamera("usb-1"));
    fd = device.Open("/dev/video0", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
  }
  int Ioctl(unsigned long request, void* arg) { return device.Ioctl(fd, request, arg); }
  int Errno(unsigned long request, void* arg) { return Ioctl(request, arg) == 0 ? 0 : errno; }
  v4l2_buffer Buffer(uint32_t index) {
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    return buffer;
  }
  // 0 and the granted count in `count`, or the errno.
  int Request(uint32_t& count) {
    v4l2_requestbuffers request{};
    request.count = count;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    const int result = Errno(VIDIOC_REQBUFS, &request);
    count = request.count;
    return result;
  }

  FakeV4l2Device device;
  int fd = -1;
};

TEST_F(FakeV4l2DeviceTest, FormatsAreAdjustedLikeADriver) {
  v4l2_format format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  format.fmt.pix.width = 1000;
  format.fmt.pix.height = 700;
  format.fmt.pix.pixelformat = V4L2_PIX_FMT_NV12;  // not offered: the first format instead
  ASSERT_EQ(Ioctl(VIDIOC_TRY_FMT, &format), 0);
  EXPECT_EQ(format.fmt.pix.pixelformat, V4L2_PIX_FMT_YUYV);
  EXPECT_EQ(format.fmt.pix.width, 1280U);
  EXPECT_EQ(format.fmt.pix.height, 720U);
  EXPECT_EQ(format.fmt.pix.sizeimage, 1280U * 720U * 2U);
  EXPECT_EQ(device.CurrentFormat(0).width, 640U);  // TRY changes nothing
  format.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
  EXPECT_EQ(Errno(VIDIOC_TRY_FMT, &format), EINVAL);
  v4l2_frmivalenum e{};
  e.pixel_format = V4L2_PIX_FMT_YUYV;
  e.width = 1000;  // intervals exist only for offered sizes
  e.height = 700;
  EXPECT_EQ(Errno(VIDIOC_ENUM_FRAMEINTERVALS, &e), EINVAL);
  EXPECT_EQ(Errno(VIDIOC_LOG_STATUS, &e), ENOTTY);
}

TEST_F(FakeV4l2DeviceTest, BuffersFollowTheQueueRules) {
  uint32_t count = 4;
  ASSERT_EQ(Request(count), 0);
  ASSERT_EQ(count, 4U);
  v4l2_buffer buffer = Buffer(0);
  ASSERT_EQ(Ioctl(VIDIOC_QUERYBUF, &buffer), 0);
  void* mapped = device.Mmap(buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                             static_cast<off_t>(buffer.m.offset));
  ASSERT_NE(mapped, MAP_FAILED);
  EXPECT_EQ(device.Mmap(buffer.length, PROT_READ, MAP_PRIVATE, fd, 0), MAP_FAILED);
  EXPECT_EQ(Errno(VIDIOC_QBUF, &buffer), 0);
  EXPECT_EQ(Errno(VIDIOC_QBUF, &buffer), EINVAL);  // already queued
  v4l2_buffer outside = Buffer(4);
  EXPECT_EQ(Errno(VIDIOC_QUERYBUF, &outside), EINVAL);
  v4l2_buffer out = Buffer(0);
  EXPECT_EQ(Errno(VIDIOC_DQBUF, &out), EINVAL);  // not streaming
  count = 2;
  EXPECT_EQ(Request(count), EBUSY);  // mapped buffers cannot be replaced
  const int other = device.Open("/dev/video0", O_RDWR);
  EXPECT_EQ(device.Ioctl(other, VIDIOC_QBUF, &buffer), -1);  // another descriptor's queue
  EXPECT_EQ(errno, EBUSY);
  device.Close(other);

  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  ASSERT_EQ(Ioctl(VIDIOC_STREAMON, &type), 0);
  v4l2_format format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  format.fmt.pix = device.CurrentFormat(0);
  EXPECT_EQ(Errno(VIDIOC_S_FMT, &format), EBUSY);
  // Closing ends the stream; the mapping stays valid until it is unmapped.
  EXPECT_EQ(device.Close(fd), 0);
  EXPECT_FALSE(device.IsStreaming(0));
  static_cast<uint8_t*>(mapped)[0] = 1;
  EXPECT_EQ(device.Munmap(mapped, buffer.length + 1), -1);
  EXPECT_EQ(device.Munmap(mapped, buffer.length), 0);
  EXPECT_EQ(device.Munmap(mapped, buffer.length), -1);
  EXPECT_EQ(device.Close(fd), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FakeV4l2DeviceTest, UnpluggedCamerasFailEverything) {
  device.Unplug(0);
  v4l2_capability cap{};
  EXPECT_EQ(Errno(VIDIOC_QUERYCAP, &cap), ENODEV);
  EXPECT_EQ(device.Open("/dev/video0", O_RDWR), -1);
  EXPECT_EQ(errno, ENOENT);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  timeval timeout{5, 0};
  EXPECT_EQ(device.Select(fd + 1, &readable, nullptr, nullptr, &timeout), 1);  // POLLERR
  EXPECT_EQ(device.Close(fd), 0);
  EXPECT_EQ(device.Open("/dev/video1", O_RDWR), -1);
  EXPECT_EQ(device.Open("/dev/video0x", O_RDWR), -1);
}

}  // namespace
