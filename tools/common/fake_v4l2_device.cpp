#include "tools/common/fake_v4l2_device.h"

#include <fcntl.h>
#include <libyuv.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/tavo_video_os_seams.h"
#include "tools/common/jpeg_util.h"

namespace {

constexpr uint32_t kPageSize = 4096;
// A blocking DQBUF or a select without timeout waits in slices of this length.
constexpr uint32_t kWaitSliceMs = 100;

Clock& Now() { return Seam<Clock>::Get(); }

int CameraIndexOf(const char* path) {
  int index = -1;
  int consumed = 0;
  if (path == nullptr || std::sscanf(path, "/dev/video%d%n", &index, &consumed) != 1 ||
      path[consumed] != '\0') {
    return -1;
  }
  return index;
}

void CopyText(uint8_t* target, size_t capacity, const std::string& text) {
  std::memset(target, 0, capacity);
  std::memcpy(target, text.data(), std::min(text.size(), capacity - 1));
}

}  // namespace

std::vector<uint8_t> PatternFrameSource::MakeFrame(uint32_t fourcc, uint32_t width, uint32_t height,
                                                   uint32_t sequence) {
  if (fourcc == V4L2_PIX_FMT_MJPEG) {
    const uint32_t phase = sequence % 4;
    auto key = std::make_tuple(width, height, phase);
    auto found = m_jpegCache.find(key);
    if (found == m_jpegCache.end()) {
      const std::vector<uint8_t> i420 = MakePatternI420(width, height, phase);
      found = m_jpegCache.emplace(key, EncodeI420Jpeg(i420.data(), width, height)).first;
    }
    return found->second;
  }
  std::vector<uint8_t> i420 = MakePatternI420(width, height, sequence);
  if (fourcc == V4L2_PIX_FMT_YUV420) {
    return i420;
  }
  if (fourcc == V4L2_PIX_FMT_YUYV) {
    const uint32_t chromaWidth = (width + 1) / 2;
    const uint32_t chromaHeight = (height + 1) / 2;
    std::vector<uint8_t> yuyv(size_t{chromaWidth} * 4 * height);
    const uint8_t* u = i420.data() + size_t{width} * height;
    const uint8_t* v = u + size_t{chromaWidth} * chromaHeight;
    libyuv::I420ToYUY2(i420.data(), static_cast<int>(width), u, static_cast<int>(chromaWidth), v,
                       static_cast<int>(chromaWidth), yuyv.data(),
                       static_cast<int>(chromaWidth * 4), static_cast<int>(width),
                       static_cast<int>(height));
    return yuyv;
  }
  return {};
}

FakeCameraFormat DiscreteFormat(uint32_t fourcc, std::vector<FakeFrameSize> sizes,
                                std::vector<v4l2_fract> intervals) {
  FakeCameraFormat format;
  format.fourcc = fourcc;
  format.sizes = std::move(sizes);
  format.discreteIntervals = std::move(intervals);
  return format;
}

FakeCameraConfig TypicalCamera(std::string busInfo) {
  FakeCameraConfig config;
  config.busInfo = std::move(busInfo);
  const std::vector<FakeFrameSize> sizes = {{640, 480}, {1280, 720}, {1920, 1080}};
  const std::vector<v4l2_fract> intervals = {{1, 30}, {1, 25}, {1, 15}};
  config.formats = {DiscreteFormat(V4L2_PIX_FMT_YUYV, sizes, intervals),
                    DiscreteFormat(V4L2_PIX_FMT_YUV420, sizes, intervals),
                    DiscreteFormat(V4L2_PIX_FMT_MJPEG, sizes, intervals)};
  return config;
}

FakeV4l2Device::FakeV4l2Device() = default;
FakeV4l2Device::~FakeV4l2Device() = default;

void FakeV4l2Device::AddCamera(int index, FakeCameraConfig config) {
  std::lock_guard<std::mutex> lock(m_lock);
  Camera& camera = m_cameras[index];
  camera = Camera{};
  if (!config.source) {
    config.source = std::make_shared<PatternFrameSource>();
  }
  camera.config = std::move(config);
  if (!camera.config.formats.empty() && !camera.config.formats[0].sizes.empty()) {
    const FakeCameraFormat& first = camera.config.formats[0];
    camera.format.width = first.sizes[0].width;
    camera.format.height = first.sizes[0].height;
    camera.format.pixelformat = first.fourcc;
    camera.format.field = V4L2_FIELD_NONE;
    camera.format.sizeimage = SizeImage(first.fourcc, first.sizes[0].width, first.sizes[0].height);
    camera.interval = first.discreteIntervals.empty() ? first.stepMin : first.discreteIntervals[0];
  }
}

void FakeV4l2Device::Faults(int index, const std::function<void(FakeCameraFaults&)>& change) {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    change(m_cameras.at(index).faults);
  }
  Wake();
}

void FakeV4l2Device::Unplug(int index) {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    m_cameras.at(index).unplugged = true;
  }
  Wake();
}

size_t FakeV4l2Device::OpenDescriptors() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_descriptors.size();
}

size_t FakeV4l2Device::Mappings() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_mappings.size();
}

std::vector<std::string> FakeV4l2Device::OpenedPaths() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_openedPaths;
}

std::vector<int> FakeV4l2Device::OpenFlags() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_openFlags;
}

uint64_t FakeV4l2Device::SelectTimeouts() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_selectTimeouts;
}

std::vector<uint32_t> FakeV4l2Device::TriedFormats(int index) const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_cameras.at(index).tried;
}

uint32_t FakeV4l2Device::FramesDelivered(int index) const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_cameras.at(index).delivered;
}

bool FakeV4l2Device::IsStreaming(int index) const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_cameras.at(index).streaming;
}

v4l2_pix_format FakeV4l2Device::CurrentFormat(int index) const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_cameras.at(index).format;
}

v4l2_fract FakeV4l2Device::CurrentInterval(int index) const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_cameras.at(index).interval;
}

uint32_t FakeV4l2Device::BuffersGranted(int index) const {
  std::lock_guard<std::mutex> lock(m_lock);
  return static_cast<uint32_t>(m_cameras.at(index).buffers.size());
}

bool FakeV4l2Device::WaitForSelectFailures(uint64_t count) {
  std::unique_lock<std::mutex> lock(m_lock);
  return m_changed.wait_for(lock, std::chrono::seconds(20),
                            [&] { return m_selectFailures >= count; });
}

bool FakeV4l2Device::WaitForMappingsAtMost(size_t count, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(m_lock);
  return m_changed.wait_for(lock, limit, [&] { return m_mappings.size() <= count; });
}

bool FakeV4l2Device::WaitForFrames(int index, uint32_t count) {
  // Generous: 20 s of real time, or of simulated time on a virtual clock.
  const uint64_t limit = Now().NowUs() + 20'000'000U;
  std::unique_lock<std::mutex> lock(m_lock);
  while (m_cameras.at(index).delivered < count) {
    if (Now().NowUs() >= limit) {
      return false;
    }
    const uint64_t seen = m_wakeups;
    Now().WaitFor(lock, m_changed, 10, [&] { return m_wakeups != seen; });
  }
  return true;
}

void FakeV4l2Device::Wake() {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    ++m_wakeups;
  }
  m_changed.notify_all();
}

int FakeV4l2Device::Fail(int code) const {
  errno = code;
  return -1;
}

FakeV4l2Device::Camera* FakeV4l2Device::CameraOf(int fd) {
  auto found = m_descriptors.find(fd);
  if (found == m_descriptors.end()) {
    errno = EBADF;
    return nullptr;
  }
  return &m_cameras.at(found->second.camera);
}

int FakeV4l2Device::Open(const char* path, int flags) {
  std::lock_guard<std::mutex> lock(m_lock);
  if (path != nullptr) {
    m_openedPaths.emplace_back(path);
    m_openFlags.push_back(flags);
  }
  const int index = CameraIndexOf(path);
  auto found = m_cameras.find(index);
  if (found == m_cameras.end() || found->second.unplugged) {
    return Fail(ENOENT);
  }
  if (found->second.faults.openErrno != 0) {
    return Fail(found->second.faults.openErrno);
  }
  const int fd = m_nextFd++;
  m_descriptors[fd] = Descriptor{index, (flags & O_NONBLOCK) != 0};
  return fd;
}

int FakeV4l2Device::Close(int fd) {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    Camera* camera = CameraOf(fd);
    if (camera == nullptr) {
      return -1;
    }
    if (camera->bufferOwner == fd) {
      // Closing the owner ends the stream and frees the queue; mapped memory lives on until
      // it is unmapped, as with the kernel.
      StopStreaming(*camera);
      ReleaseBuffers(*camera);
    }
    m_descriptors.erase(fd);
  }
  Wake();
  return 0;
}

void* FakeV4l2Device::Mmap(size_t length, int prot, int flags, int fd, off_t offset) {
  std::lock_guard<std::mutex> lock(m_lock);
  Camera* camera = CameraOf(fd);
  if (camera == nullptr) {
    return MAP_FAILED;
  }
  const int call = camera->mmapCalls++;
  if (camera->unplugged) {
    errno = ENODEV;
    return MAP_FAILED;
  }
  if (call == camera->faults.mmapFailAt) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  if ((flags & MAP_SHARED) == 0 || (prot & PROT_READ) == 0 || offset < 0 ||
      offset % kPageSize != 0 || length == 0) {
    errno = EINVAL;
    return MAP_FAILED;
  }
  const uint64_t stride =
      (uint64_t{camera->format.sizeimage} + kPageSize - 1) / kPageSize * kPageSize;
  for (size_t index = 0; index < camera->buffers.size(); ++index) {
    Buffer& buffer = camera->buffers[index];
    if (index * stride == static_cast<uint64_t>(offset)) {
      if (length > buffer.memory->size()) {
        errno = EINVAL;
        return MAP_FAILED;
      }
      void* address = buffer.memory->data();
      if (m_mappings.count(address) != 0) {
        // The kernel would give a second mapping its own address; the fake keeps one
        // mapping per buffer and refuses the second.
        errno = EBUSY;
        return MAP_FAILED;
      }
      m_mappings[address] = Mapping{buffer.memory, length};
      return address;
    }
  }
  errno = EINVAL;
  return MAP_FAILED;
}

int FakeV4l2Device::Munmap(void* address, size_t length) {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    auto found = m_mappings.find(address);
    if (found == m_mappings.end() || found->second.length != length) {
      return Fail(EINVAL);
    }
    m_mappings.erase(found);
  }
  Wake();
  return 0;
}

int FakeV4l2Device::Select(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* exceptFds,
                           timeval* timeout) {
  std::unique_lock<std::mutex> lock(m_lock);
  if (readFds == nullptr || nfds <= 0 || nfds > FD_SETSIZE) {
    return Fail(EINVAL);
  }
  std::vector<int> watched;
  for (int fd = 0; fd < nfds; ++fd) {
    if (FD_ISSET(fd, readFds)) {
      if (m_descriptors.count(fd) == 0) {
        return Fail(EBADF);
      }
      watched.push_back(fd);
    }
  }
  if (writeFds != nullptr) {
    FD_ZERO(writeFds);
  }
  const bool forever = timeout == nullptr;
  const uint64_t waitUs =
      forever ? 0 : uint64_t(timeout->tv_sec) * 1'000'000U + uint64_t(timeout->tv_usec);
  const uint64_t deadline = Now().NowUs() + waitUs;
  for (;;) {
    int ready = 0;
    uint64_t nextDue = deadline;
    fd_set result;
    FD_ZERO(&result);
    for (int fd : watched) {
      auto descriptor = m_descriptors.find(fd);
      if (descriptor == m_descriptors.end()) {
        continue;  // closed by another thread while we waited: not readable
      }
      Camera& camera = m_cameras.at(descriptor->second.camera);
      if (camera.faults.selectErrno != 0) {
        ++m_selectFailures;
        m_changed.notify_all();
        return Fail(camera.faults.selectErrno);
      }
      // As with videobuf2, a gone device, a queue that is not streaming (POLLERR) and a
      // pending dequeue error all make the descriptor readable; the DQBUF that follows
      // tells which.
      if (camera.unplugged || !camera.streaming || camera.bufferOwner != fd ||
          !camera.faults.dequeueErrors.empty() || Produce(camera)) {
        FD_SET(fd, &result);
        ++ready;
      } else if (!camera.queued.empty() && !camera.faults.neverDeliver) {
        nextDue = std::min(nextDue, camera.nextDueUs);
      }
    }
    if (ready > 0) {
      *readFds = result;
      if (exceptFds != nullptr) {
        FD_ZERO(exceptFds);
      }
      return ready;
    }
    const uint64_t now = Now().NowUs();
    if (!forever && now >= deadline) {
      ++m_selectTimeouts;
      FD_ZERO(readFds);
      if (exceptFds != nullptr) {
        FD_ZERO(exceptFds);
      }
      return 0;
    }
    uint64_t untilUs = (forever && nextDue == deadline) ? uint64_t{kWaitSliceMs} * 1000U
                                                        : (nextDue > now ? nextDue - now : 0);
    const auto waitMs = static_cast<uint32_t>(std::max<uint64_t>(1, (untilUs + 999) / 1000));
    const uint64_t seen = m_wakeups;
    Now().WaitFor(lock, m_changed, waitMs, [&] { return m_wakeups != seen; });
  }
}

int FakeV4l2Device::Ioctl(int fd, unsigned long request, void* arg) {
  int result = 0;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    Camera* camera = CameraOf(fd);
    if (camera == nullptr) {
      return -1;
    }
    if (arg == nullptr) {
      return Fail(EFAULT);
    }
    if (camera->unplugged) {
      return Fail(ENODEV);
    }
    auto injected = camera->faults.ioctlErrno.find(request);
    if (injected != camera->faults.ioctlErrno.end()) {
      return Fail(injected->second);
    }
    result = DoIoctl(fd, *camera, request, arg);
  }
  Wake();
  return result;
}

int FakeV4l2Device::DoIoctl(int fd, Camera& camera, unsigned long request, void* arg) {
  switch (request) {
    case VIDIOC_QUERYCAP: {
      auto* cap = static_cast<v4l2_capability*>(arg);
      *cap = v4l2_capability{};
      CopyText(cap->driver, sizeof(cap->driver), "fakecam");
      CopyText(cap->card, sizeof(cap->card), camera.config.card);
      CopyText(cap->bus_info, sizeof(cap->bus_info), camera.config.busInfo);
      cap->version = 0x00060100;
      cap->device_caps = camera.config.deviceCaps;
      cap->capabilities = camera.config.deviceCaps | V4L2_CAP_DEVICE_CAPS;
      return 0;
    }
    case VIDIOC_ENUM_FMT: {
      auto* desc = static_cast<v4l2_fmtdesc*>(arg);
      if (desc->type != V4L2_BUF_TYPE_VIDEO_CAPTURE ||
          desc->index >= camera.config.formats.size()) {
        return Fail(EINVAL);
      }
      const uint32_t index = desc->index;
      *desc = v4l2_fmtdesc{};
      desc->index = index;
      desc->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
      desc->pixelformat = camera.config.formats[index].fourcc;
      desc->flags = desc->pixelformat == V4L2_PIX_FMT_MJPEG ? V4L2_FMT_FLAG_COMPRESSED : 0;
      return 0;
    }
    case VIDIOC_G_FMT: {
      auto* format = static_cast<v4l2_format*>(arg);
      if (format->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return Fail(EINVAL);
      }
      format->fmt.pix = camera.format;
      return 0;
    }
    case VIDIOC_TRY_FMT:
      camera.tried.push_back(static_cast<v4l2_format*>(arg)->fmt.pix.pixelformat);
      return TryFormat(camera, *static_cast<v4l2_format*>(arg));
    case VIDIOC_S_FMT: {
      auto* format = static_cast<v4l2_format*>(arg);
      if (camera.bufferOwner >= 0) {
        return Fail(EBUSY);
      }
      if (TryFormat(camera, *format) != 0) {
        return -1;
      }
      const bool changed = camera.format.pixelformat != format->fmt.pix.pixelformat ||
                           camera.format.width != format->fmt.pix.width ||
                           camera.format.height != format->fmt.pix.height;
      camera.format = format->fmt.pix;
      if (changed) {
        const FakeCameraFormat* offered = FindFormat(camera, camera.format.pixelformat);
        camera.interval =
            offered->discreteIntervals.empty() ? offered->stepMin : offered->discreteIntervals[0];
      }
      return 0;
    }
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM: {
      auto* parm = static_cast<v4l2_streamparm*>(arg);
      if (parm->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return Fail(EINVAL);
      }
      if (request == VIDIOC_S_PARM) {
        if (!camera.config.timePerFrame) {
          return Fail(ENOTTY);
        }
        SetInterval(camera, parm->parm.capture.timeperframe);
      }
      parm->parm.capture = v4l2_captureparm{};
      parm->parm.capture.capability = camera.config.timePerFrame ? V4L2_CAP_TIMEPERFRAME : 0;
      parm->parm.capture.timeperframe = camera.interval;
      return 0;
    }
    case VIDIOC_ENUM_FRAMESIZES: {
      auto* e = static_cast<v4l2_frmsizeenum*>(arg);
      const FakeCameraFormat* format = FindFormat(camera, e->pixel_format);
      if (format == nullptr || e->index >= format->sizes.size()) {
        return Fail(EINVAL);
      }
      e->type = V4L2_FRMSIZE_TYPE_DISCRETE;
      e->discrete.width = format->sizes[e->index].width;
      e->discrete.height = format->sizes[e->index].height;
      return 0;
    }
    case VIDIOC_ENUM_FRAMEINTERVALS:
      return EnumIntervals(camera, *static_cast<v4l2_frmivalenum*>(arg));
    case VIDIOC_REQBUFS:
      return RequestBuffers(fd, camera, *static_cast<v4l2_requestbuffers*>(arg));
    case VIDIOC_QUERYBUF:
      return QueryBuffer(camera, *static_cast<v4l2_buffer*>(arg));
    case VIDIOC_QBUF:
      if (camera.bufferOwner != fd) {
        return Fail(EBUSY);
      }
      return QueueBuffer(camera, *static_cast<v4l2_buffer*>(arg));
    case VIDIOC_DQBUF:
      if (camera.bufferOwner != fd) {
        return Fail(EBUSY);
      }
      return DequeueBuffer(fd, camera, *static_cast<v4l2_buffer*>(arg));
    case VIDIOC_STREAMON: {
      if (*static_cast<int*>(arg) != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return Fail(EINVAL);
      }
      if (camera.bufferOwner != fd || camera.buffers.empty()) {
        return Fail(camera.bufferOwner >= 0 && camera.bufferOwner != fd ? EBUSY : EINVAL);
      }
      if (!camera.streaming) {
        camera.streaming = true;
        camera.nextDueUs = Now().NowUs() + IntervalUs(camera.interval);
      }
      return 0;
    }
    case VIDIOC_STREAMOFF: {
      if (*static_cast<int*>(arg) != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return Fail(EINVAL);
      }
      if (camera.bufferOwner != fd) {
        return Fail(EBUSY);
      }
      StopStreaming(camera);
      return 0;
    }
    default:
      return Fail(ENOTTY);
  }
}
