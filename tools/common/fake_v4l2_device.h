// A fake V4L2 kernel behind the CaptureDevice seam: several /dev/videoN, each with its own
// bus information, capabilities, formats, frame sizes and frame intervals, answering the
// ioctls the way a UVC driver does (TRY_FMT and S_FMT adjust the size to the nearest one
// offered and, unless told otherwise, substitute the default format for one they lack;
// S_PARM picks the nearest interval offered). Streaming devices fill queued buffers at the
// agreed interval, timed on the Clock seam, in YUYV, YU12 or MJPEG with `bytesused` set.
// Every fault a real camera shows can be asked for: refused opens and formats, failing
// ioctls, failing mmap, fewer buffers granted, EAGAIN/EIO/EINTR on dequeue, an unplug
// (ENODEV) after N frames, a device that never delivers, frames shorter or other than
// their format says.
//
// Deterministic: frames are made by a FakeFrameSource from their sequence number. The fake
// checks its callers as the kernel would (unknown descriptors, double queueing, wrong
// buffer types) and counts open descriptors and mappings so tests can prove nothing leaks.
#pragma once

#include <linux/videodev2.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "camera/tavo_video_capture_device.h"

// Makes frame content. Called with the fake's lock held, on whichever thread polls.
class FakeFrameSource {
 public:
  virtual ~FakeFrameSource() = default;
  // The bytes of frame `sequence` (0, 1, ...) in `fourcc` at width x height.
  virtual std::vector<uint8_t> MakeFrame(uint32_t fourcc, uint32_t width, uint32_t height,
                                         uint32_t sequence) = 0;
};

// Moving bars (MakePatternI420) in the asked format; MJPEG frames are encoded once per
// size and pattern phase and then reused.
class PatternFrameSource final : public FakeFrameSource {
 public:
  std::vector<uint8_t> MakeFrame(uint32_t fourcc, uint32_t width, uint32_t height,
                                 uint32_t sequence) override;

 private:
  std::map<std::tuple<uint32_t, uint32_t, uint32_t>, std::vector<uint8_t>> m_jpegCache;
};

struct FakeFrameSize {
  uint32_t width;
  uint32_t height;
};

// One pixel format a fake camera offers, with its sizes and the intervals of every size.
struct FakeCameraFormat {
  uint32_t fourcc = V4L2_PIX_FMT_YUYV;
  std::vector<FakeFrameSize> sizes;
  // Non-empty: a discrete interval list, in the order the driver enumerates it.
  std::vector<v4l2_fract> discreteIntervals;
  // Used when discreteIntervals is empty: a stepwise range (continuous when step is 1/1...
  // as the driver says: `continuous` reports V4L2_FRMIVAL_TYPE_CONTINUOUS).
  v4l2_fract stepMin{1, 30};
  v4l2_fract stepMax{1, 1};
  v4l2_fract step{1, 30};
  bool continuous = false;
};

struct FakeCameraConfig {
  std::string busInfo;  // at most 31 characters reach the caller, as in v4l2_capability
  std::string card = "Fake Camera";
  uint32_t deviceCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
  bool timePerFrame = true;  // G_PARM reports V4L2_CAP_TIMEPERFRAME
  std::vector<FakeCameraFormat> formats;
  // TRY_FMT/S_FMT with a format the camera lacks: true answers with the first format (as
  // UVC does); false refuses with EINVAL.
  bool substituteUnknownFormat = true;
  // REQBUFS grants at most this many buffers.
  uint32_t maxBuffers = 32;
  std::shared_ptr<FakeFrameSource> source;  // null: a PatternFrameSource
};

// Faults of one camera; change them at any time with FakeV4l2Device::Faults.
struct FakeCameraFaults {
  int openErrno = 0;                        // non-zero: open fails with it
  std::set<uint32_t> refusedFormats;        // TRY_FMT/S_FMT refuse these with EINVAL
  std::map<unsigned long, int> ioctlErrno;  // this request fails with this errno
  int mmapFailAt = -1;            // the mmap call with this number (0-based) fails, ENOMEM
  std::deque<int> dequeueErrors;  // the next DQBUFs fail with these, one each, in order
  std::optional<uint32_t> unplugAfterFrames;  // after this many dequeued frames: ENODEV
  bool neverDeliver = false;                  // streaming, but no buffer is ever filled
  std::optional<uint32_t> bytesused;          // reported instead of the frame's real length
  std::optional<FakeFrameSize> contentSize;   // frames are made at this size instead
  int selectErrno = 0;                        // non-zero: select fails with it
};

class FakeV4l2Device final : public CaptureDevice {
 public:
  FakeV4l2Device();
  ~FakeV4l2Device() override;

  // /dev/video<index> appears with this configuration.
  void AddCamera(int index, FakeCameraConfig config);
  // Changes a camera's faults under the fake's lock and wakes any waiting select.
  void Faults(int index, const std::function<void(FakeCameraFaults&)>& change);
  // The camera goes away now: every call on it fails with ENODEV, select reports it ready.
  void Unplug(int index);

  // What the fake saw, for tests.
  size_t OpenDescriptors() const;
  size_t Mappings() const;
  std::vector<std::string> OpenedPaths() const;
  std::vector<int> OpenFlags() const;  // flags of each open, in order
  // Selects that ended with nothing ready.
  uint64_t SelectTimeouts() const;
  // Waits in real time until `count` selects failed with an injected selectErrno.
  bool WaitForSelectFailures(uint64_t count);
  std::vector<uint32_t> TriedFormats(int index) const;  // fourccs of TRY_FMT, in order
  uint32_t FramesDelivered(int index) const;            // dequeued frames
  bool IsStreaming(int index) const;
  v4l2_pix_format CurrentFormat(int index) const;
  v4l2_fract CurrentInterval(int index) const;
  uint32_t BuffersGranted(int index) const;
  // Waits in real time, at most `limit`, until at most `count` mappings are left.
  bool WaitForMappingsAtMost(size_t count, std::chrono::milliseconds limit);
  // Waits (on the Clock seam) until `count` frames were dequeued from camera `index`.
  bool WaitForFrames(int index, uint32_t count);

  int Open(const char* path, int flags) override;
  int Close(int fd) override;
  int Ioctl(int fd, unsigned long request, void* arg) override;
  void* Mmap(size_t length, int prot, int flags, int fd, off_t offset) override;
  int Munmap(void* address, size_t length) override;
  int Select(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* exceptFds,
             timeval* timeout) override;

 private:
  struct Buffer {
    std::shared_ptr<std::vector<uint8_t>> memory;
    uint32_t bytesused = 0;
    uint32_t sequence = 0;
    bool queued = false;
    bool done = false;
  };
  struct Camera {
    FakeCameraConfig config;
    FakeCameraFaults faults;
    v4l2_pix_format format{};
    v4l2_fract interval{};
    int bufferOwner = -1;
    std::vector<Buffer> buffers;
    std::deque<uint32_t> queued;
    std::deque<uint32_t> done;
    bool streaming = false;
    bool unplugged = false;
    uint64_t nextDueUs = 0;
    uint32_t sequence = 0;
    uint32_t delivered = 0;
    int mmapCalls = 0;
    std::vector<uint32_t> tried;
  };
  struct Descriptor {
    int camera;
    bool nonBlocking;
  };
  struct Mapping {
    std::shared_ptr<std::vector<uint8_t>> memory;
    size_t length;
  };

  Camera* CameraOf(int fd);  // null with errno EBADF
  int Fail(int code) const;
  void Wake();
  int DoIoctl(int fd, Camera& camera, unsigned long request, void* arg);
  int TryFormat(Camera& camera, v4l2_format& format);
  int RequestBuffers(int fd, Camera& camera, v4l2_requestbuffers& request);
  int QueryBuffer(Camera& camera, v4l2_buffer& buffer) const;
  int QueueBuffer(Camera& camera, v4l2_buffer& buffer);
  int DequeueBuffer(int fd, Camera& camera, v4l2_buffer& buffer);
  int EnumIntervals(Camera& camera, v4l2_frmivalenum& e) const;
  void SetInterval(Camera& camera, v4l2_fract wanted);
  void StopStreaming(Camera& camera);
  void ReleaseBuffers(Camera& camera);
  // Fills queued buffers whose time has come; returns true when a buffer is done.
  bool Produce(Camera& camera);
  void FillBuffer(Camera& camera, Buffer& buffer);
  static uint32_t SizeImage(uint32_t fourcc, uint32_t width, uint32_t height);
  static uint64_t IntervalUs(const v4l2_fract& interval);
  const FakeCameraFormat* FindFormat(const Camera& camera, uint32_t fourcc) const;

  // Guards every member below; no callback of the code under test runs under it (frame
  // sources run under it and must not call back into the fake).
  mutable std::mutex m_lock;
  std::condition_variable m_changed;
  uint64_t m_wakeups = 0;
  std::map<int, Camera> m_cameras;
  std::map<int, Descriptor> m_descriptors;
  std::map<void*, Mapping> m_mappings;
  std::vector<std::string> m_openedPaths;
  std::vector<int> m_openFlags;
  uint64_t m_selectTimeouts = 0;
  uint64_t m_selectFailures = 0;
  int m_nextFd = 600;
};

// A format offering `sizes`, every size with the same discrete intervals.
FakeCameraFormat DiscreteFormat(uint32_t fourcc, std::vector<FakeFrameSize> sizes,
                                std::vector<v4l2_fract> intervals);
// A camera with YUYV, YU12 and MJPEG at 640x480, 1280x720 and 1920x1080, 30/25/15 fps.
FakeCameraConfig TypicalCamera(std::string busInfo);
