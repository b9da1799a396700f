#include "camera/tavo_video_vlink_camera_capturer_linux.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "camera/tavo_video_capture_device.h"
#include "core/tavo_video_os_seams.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

// CaptureFormatLinux to PelvImageFormat, built once at load.
const uint32_t g_transFormat[] = {PELV_IMAGE_FORMAT_MJPEG, PELV_IMAGE_FORMAT_I420,
                                  PELV_IMAGE_FORMAT_YUY2, PELV_IMAGE_FORMAT_NONE};

// A driver that never ends its interval list is cut off here.
constexpr uint32_t kMaxFrameIntervals = 256;
// Dequeue failures repeat per frame (an unplugged camera fails at every step): a line is
// written for the first failure of a kind and then for every 100th in a row.
constexpr uint32_t kAbnormalLogPace = vlink::kPerFrameLogEvery;
constexpr uint32_t kStopAttempts = 10;
constexpr uint32_t kStopRetryMs = 2;

CaptureDevice& Device() { return Seam<CaptureDevice>::Get(); }

const char* ErrorText(int code) {
  const char* text = strerrordesc_np(code);
  return text != nullptr ? text : "Unknown error";
}

float Interval(const v4l2_fract& f) {
  return static_cast<float>(f.numerator) / static_cast<float>(f.denominator);
}

// The ioctl, retried while a signal interrupts it.
int IoctlRetry(int fd, unsigned long request, void* arg) {
  int result = 0;
  do {
    result = Device().Ioctl(fd, request, arg);
  } while (result == -1 && errno == EINTR);
  return result;
}

}  // namespace

uint32_t TransCaptureFormat(uint32_t rawVideoType) {
  return rawVideoType < std::size(g_transFormat) ? g_transFormat[rawVideoType] : 0;
}

std::unique_ptr<IDevCaptureProxy> CreateDevCaptureProxy() {
  return std::make_unique<DevCaptureCameraLinux>();
}

DevCaptureCameraLinux::DevCaptureCameraLinux() = default;

DevCaptureCameraLinux::~DevCaptureCameraLinux() {
  uint32_t attempt = 0;
  while (IsCapturing()) {
    if (attempt >= kStopAttempts) {
      VLOG_ERR("fail to stop the capture after 10 times trial.");
      break;
    }
    VLOG_INF("still capturing. to stop it. %d", static_cast<int>(attempt));
    CaptureStop();
    Seam<Clock>::Get().SleepMs(kStopRetryMs);
    ++attempt;
  }
  // The thread is joined by now (or by m_captureThread's own destructor, which runs after
  // this body: then the mappings must stay until it has gone, so only a stopped capturer
  // gives them back here).
  if (!IsCapturing()) {
    ReleaseDevice();
  }
}

uint32_t DevCaptureCameraLinux::Init(std::string cameraId) {
  VLOG_INF("cameraId = %s", cameraId.c_str());
  m_cameraId = std::move(cameraId);
  return 0;
}

void DevCaptureCameraLinux::SetCaptureCallback(CaptureFrameCallback callback) {
  m_captureCallback = std::move(callback);
}

bool DevCaptureCameraLinux::IsCaptrueParamSame(const tagCameraCaptureParams* params) const {
  return params != nullptr && params->uiWidth == m_width && params->uiHeight == m_height;
}

uint32_t DevCaptureCameraLinux::CaptureStart(tagCameraCaptureParams* params) {
  if (params == nullptr) {
    VLOG_ERR("failed to setCaptureParams");
    return 1;
  }
  if (IsCapturing()) {
    if (IsCaptrueParamSame(params)) {
      return 0;
    }
    CaptureStop();
  }
  if (OpenCapture() != 0) {
    VLOG_ERR("failed to open Capture Device");
    return 1;
  }
  VLOG_INF("opening succeed!");
  if (SetCaptureParams(params) != 0) {
    VLOG_ERR("failed to setCaptureParams");
    ReleaseDevice();
    return 1;
  }
  VLOG_INF("setparams succeed!");
  if (CreateCaptureBuffers() != 0) {
    VLOG_ERR("failed to allocate video capture buffers");
    ReleaseDevice();
    return 1;
  }
  VLOG_INF("CreateCaptureBuffers succeed!");
  m_selectErrorCnt = 0;
  m_selectTimeoutCnt = 0;
  m_notReadyCnt = 0;
  m_abnormalTotal = 0;
  m_dequeueErrorLog.Reset();
  m_lastDequeueError = 0;
  m_isCapturing.store(true, std::memory_order_release);
  // The thread keeps its own copy of the callback: SetCaptureCallback on the control thread
  // never races with a frame.
  const int32_t started =
      m_captureThread.Start([this, callback = m_captureCallback] { CaptureLoop(callback); });
  if (started != 0) {
    VLOG_ERR("start capture thread failed, ret[%d]", started);
    m_isCapturing.store(false, std::memory_order_release);
    ReleaseDevice();
    return 1;
  }
  if (StartCaptureStream(m_fd) != 0) {
    CaptureStop();
    return 1;
  }
  return 0;
}

uint32_t DevCaptureCameraLinux::CaptureStop() {
  if (!IsCapturing()) {
    return 0;
  }
  m_isCapturing.store(false, std::memory_order_release);
  m_captureThread.Stop();
  ReleaseDevice();
  return 0;
}

void DevCaptureCameraLinux::ReleaseDevice() {
  for (MappedBuffer& buffer : m_buffers) {
    if (buffer.start != nullptr) {
      Device().Munmap(buffer.start, buffer.length);
    }
  }
  m_buffers.clear();
  if (m_fd >= 0) {
    Device().Close(m_fd);
    m_fd = -1;
  }
}

uint32_t DevCaptureCameraLinux::OpenCapture() {
  for (int n = 0; n <= kMaxDeviceIndex; ++n) {
    char path[32];
    std::snprintf(path, sizeof(path), "/dev/video%d", n);
    const int fd = Device().Open(path, O_RDWR | O_NONBLOCK);
    if (fd < 0) {
      continue;
    }
    v4l2_capability cap{};
    if (IoctlRetry(fd, VIDIOC_QUERYCAP, &cap) != 0 || cap.bus_info[0] == '\0') {
      Device().Close(fd);
      continue;
    }
    // The driver's text is not trusted to carry its terminator.
    char busInfo[sizeof(cap.bus_info) + 1] = {};
    std::memcpy(busInfo, cap.bus_info, sizeof(cap.bus_info));
    if ((cap.device_caps & V4L2_CAP_VIDEO_CAPTURE) == 0) {
      Device().Close(fd);
      VLOG_DTL("Device: %s not support video capture.", path);
      continue;
    }
    if (m_cameraId == busInfo) {
      VLOG_INF("find device success: %s fd:%d cap:%u cap.bus_info:%s cap.device_caps:%u", path, fd,
               cap.capabilities, busInfo, cap.device_caps);
      m_fd = fd;
      return 0;
    }
    VLOG_ERR("Device: %s[%s] not the device %s we need.", path, busInfo, m_cameraId.c_str());
    Device().Close(fd);
  }
  VLOG_ERR("not found match %s capture", m_cameraId.c_str());
  return 1;
}

uint32_t DevCaptureCameraLinux::SetCaptureParams(const tagCameraCaptureParams* params) {
  static constexpr uint32_t kLargeOrder[] = {V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_YUV420,
                                             V4L2_PIX_FMT_YUYV};
  static constexpr uint32_t kSmallOrder[] = {V4L2_PIX_FMT_YUV420, V4L2_PIX_FMT_YUYV,
                                             V4L2_PIX_FMT_MJPEG};
  const bool large = params->uiWidth > 640 || params->uiHeight > 480;
  const uint32_t* order = large ? kLargeOrder : kSmallOrder;

  v4l2_format format{};
  uint32_t accepted = 0;
  bool found = false;
  for (size_t i = 0; i < std::size(kLargeOrder) && !found; ++i) {
    format = v4l2_format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = params->uiWidth;
    format.fmt.pix.height = params->uiHeight;
    format.fmt.pix.pixelformat = order[i];
    if (IoctlRetry(m_fd, VIDIOC_TRY_FMT, &format) == 0) {
      accepted = order[i];
      found = true;
    }
  }
  if (!found) {
    VLOG_ERR("not found suitable video formats");
    return 1;
  }
  if (SetVideoFormat(format) != 0) {
    VLOG_ERR("set video formats failed, width[%d], height[%d]",
             static_cast<int>(format.fmt.pix.width), static_cast<int>(format.fmt.pix.height));
    return 1;
  }
  m_width = format.fmt.pix.width;
  m_height = format.fmt.pix.height;
  m_frameRate = 0;
  if (SetCaptureFramerate(accepted, params) != 0) {
    VLOG_ERR("set video framerate failed.");
  }
  VLOG_INF("Set capture framerate succeeded. width[%u], height[%u], fps[%u], format[%u]", m_width,
           m_height, m_frameRate, m_rawVideoType);
  return 0;
}

uint32_t DevCaptureCameraLinux::SetVideoFormat(v4l2_format& format) {
  auto takeRawType = [this](uint32_t pixelFormat) {
    switch (pixelFormat) {
      case V4L2_PIX_FMT_YUYV:
        m_rawVideoType = CAPTURE_FORMAT_YUYV;
        break;
      case V4L2_PIX_FMT_YUV420:
        m_rawVideoType = CAPTURE_FORMAT_YU12;
        break;
      case V4L2_PIX_FMT_MJPEG:
        m_rawVideoType = CAPTURE_FORMAT_MJPEG;
        break;
      default:
        break;
    }
  };
  takeRawType(format.fmt.pix.pixelformat);
  if (format.fmt.pix.pixelformat == V4L2_PIX_FMT_MJPEG && format.fmt.pix.width % 8 != 0 &&
      format.fmt.pix.height % 8 != 0) {
    VLOG_ERR("capture MJPEG format. width and height must be a multiple of 8. ");
    return 1;
  }
  if (IoctlRetry(m_fd, VIDIOC_S_FMT, &format) != 0) {
    VLOG_ERR("set video formats failed. rawVideoType:%d, error:%d",
             static_cast<int>(m_rawVideoType), errno);
    return 1;
  }
  // The driver may adjust once more when it sets the format: the frames follow that answer.
  takeRawType(format.fmt.pix.pixelformat);
  return 0;
}

uint32_t DevCaptureCameraLinux::SetCaptureFramerate(uint32_t fourcc,
                                                    const tagCameraCaptureParams* params) {
  VLOG_INF("Params width:%d hieght:%d format:%d target frameRate:%d",
           static_cast<int>(params->uiWidth), static_cast<int>(params->uiHeight),
           static_cast<int>(m_rawVideoType), static_cast<int>(params->uiFrameRate));
  v4l2_streamparm parm{};
  parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  if (IoctlRetry(m_fd, VIDIOC_G_PARM, &parm) != 0) {
    VLOG_ERR("Get capture framerate capabilities failed.");
    return 1;
  }
  if ((parm.parm.capture.capability & V4L2_CAP_TIMEPERFRAME) == 0) {
    VLOG_ERR("Camera capture capability:(%x), does not support framerate control.",
             parm.parm.capture.capability);
    return 1;
  }
  v4l2_frmivalenum e{};
  e.index = 0;
  e.pixel_format = fourcc;
  e.width = params->uiWidth;
  e.height = params->uiHeight;
  if (FramerateNegociate(params->uiFrameRate, e, parm.parm.capture.timeperframe) != 0) {
    VLOG_ERR("Negociate capture framerate failed.");
    return 1;
  }
  VLOG_INF("Set capture framerate to [%d/%d] fps",
           static_cast<int>(parm.parm.capture.timeperframe.denominator),
           static_cast<int>(parm.parm.capture.timeperframe.numerator));
  if (IoctlRetry(m_fd, VIDIOC_S_PARM, &parm) != 0) {
    VLOG_ERR("Set capture framerate failed.");
    return 1;
  }
  const v4l2_fract& agreed = parm.parm.capture.timeperframe;
  m_frameRate = agreed.numerator != 0 ? agreed.denominator / agreed.numerator : 0;
  return 0;
}

uint32_t DevCaptureCameraLinux::FramerateNegociate(uint32_t targetFps, v4l2_frmivalenum& e,
                                                   v4l2_fract& out) {
  if (targetFps == 0) {
    VLOG_ERR("Invalid targetFramerate.");
    return 1;
  }
  const float target = 1.0F / static_cast<float>(targetFps);
  VLOG_ERR("Camera supports following framerates:");
  if (IoctlRetry(m_fd, VIDIOC_ENUM_FRAMEINTERVALS, &e) != 0) {
    VLOG_ERR("Failed to enumerate framerate.");
    return 1;
  }
  const uint32_t result = e.type == V4L2_FRMIVAL_TYPE_DISCRETE
                              ? DealDiscreteFramerate(target, e, out)
                              : DealStepFramerate(target, e, out);
  if (result != 0) {
    VLOG_ERR("Failed to negociate framerate.");
    return 1;
  }
  return 0;
}

uint32_t DevCaptureCameraLinux::DealDiscreteFramerate(float target, v4l2_frmivalenum& e,
                                                      v4l2_fract& out) {
  bool haveValid = false;
  v4l2_fract chosen{};
  v4l2_fract fastest{};
  uint32_t seen = 0;
  do {
    const v4l2_fract entry = e.discrete;
    VLOG_DTL("[%d/%d] fps", static_cast<int>(entry.denominator), static_cast<int>(entry.numerator));
    if (entry.denominator == 0) {
      VLOG_ERR("Invalid [%d/%d] fps", 0, static_cast<int>(entry.numerator));
    } else if (!haveValid) {
      chosen = entry;
      fastest = entry;
      haveValid = true;
    } else {
      const float interval = Interval(entry);
      if (interval <= target && interval > Interval(chosen)) {
        chosen = entry;
      }
      if (interval < Interval(fastest)) {
        fastest = entry;
      }
    }
    ++e.index;
  } while (++seen < kMaxFrameIntervals && IoctlRetry(m_fd, VIDIOC_ENUM_FRAMEINTERVALS, &e) == 0);
  if (!haveValid) {
    VLOG_ERR("Failed to enum framerate.");
    return 1;
  }
  out = target <= Interval(fastest) ? fastest : chosen;
  return 0;
}

uint32_t DevCaptureCameraLinux::DealStepFramerate(float target, const v4l2_frmivalenum& e,
                                                  v4l2_fract& out) {
  const v4l2_fract& min = e.stepwise.min;
  const v4l2_fract& max = e.stepwise.max;
  const v4l2_fract& step = e.stepwise.step;
  VLOG_INF("min[%d/%d]~max[%d/%d]fps [%d/%d]s per step", static_cast<int>(max.denominator),
           static_cast<int>(max.numerator), static_cast<int>(min.denominator),
           static_cast<int>(min.numerator), static_cast<int>(step.numerator),
           static_cast<int>(step.denominator));
  if (min.denominator == 0 || max.denominator == 0 || step.denominator == 0) {
    VLOG_ERR("Invalid FrameInterval Fraction Parameters.");
    return 1;
  }
  if (min.numerator == 0 || max.numerator == 0 || step.numerator == 0) {
    VLOG_ERR("Invalid FrameInterval Parameters.");
    return 1;
  }
  if (target <= Interval(min)) {
    out = min;
  } else if (Interval(max) <= target) {
    out = max;
  } else {
    const auto k = static_cast<uint32_t>((target - Interval(min)) / Interval(step));
    out.numerator = step.denominator * min.numerator + min.denominator * step.numerator * k;
    out.denominator = min.denominator * step.denominator;
  }
  return 0;
}

uint32_t DevCaptureCameraLinux::CreateCaptureBuffers() {
  v4l2_requestbuffers request{};
  request.count = kBufferCount;
  request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  request.memory = V4L2_MEMORY_MMAP;
  if (IoctlRetry(m_fd, VIDIOC_REQBUFS, &request) != 0) {
    VLOG_ERR("Get mmap buffers failed. error");
    return 1;
  }
  m_buffers.assign(std::min(request.count, kBufferCount), MappedBuffer{});
  for (uint32_t index = 0; index < m_buffers.size(); ++index) {
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    if (IoctlRetry(m_fd, VIDIOC_QUERYBUF, &buffer) != 0) {
      VLOG_ERR("VIDIOC_QUERYBUF failed, fd %d, index %d", m_fd, static_cast<int>(index));
      return 1;
    }
    void* start = Device().Mmap(buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd,
                                static_cast<off_t>(buffer.m.offset));
    if (start == MAP_FAILED) {
      VLOG_ERR("mmap failed, fd:%d, index:%d, error:%d", m_fd, static_cast<int>(index), errno);
      for (MappedBuffer& mapped : m_buffers) {
        if (mapped.start != nullptr) {
          Device().Munmap(mapped.start, mapped.length);
        }
      }
      m_buffers.clear();
      return 1;
    }
    m_buffers[index] = MappedBuffer{start, buffer.length};
    if (IoctlRetry(m_fd, VIDIOC_QBUF, &buffer) != 0) {
      VLOG_ERR("VIDIOC_QBUF failed, fd %d, index %d", m_fd, static_cast<int>(index));
      return 1;
    }
  }
  return 0;
}

uint32_t DevCaptureCameraLinux::StartCaptureStream(int fd) {
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  if (IoctlRetry(fd, VIDIOC_STREAMON, &type) != 0) {
    VLOG_ERR("start capture stream failed! error:%d", errno);
    return 1;
  }
  return 0;
}

void DevCaptureCameraLinux::CaptureLoop(const CaptureFrameCallback& callback) {
  while (m_isCapturing.load(std::memory_order_acquire)) {
    CaptureStep(callback);
  }
}

void DevCaptureCameraLinux::CaptureStep(const CaptureFrameCallback& callback) {
  if (m_fd < 0 || m_fd >= FD_SETSIZE) {
    ++m_selectErrorCnt;
    StatusAbnormalCnt();
    return;
  }
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(m_fd, &readable);
  timeval timeout{kSelectTimeoutSeconds, 0};
  const int result = Device().Select(m_fd + 1, &readable, nullptr, nullptr, &timeout);
  if (result < 0) {
    if (errno != EINTR) {
      ++m_selectErrorCnt;
      StatusAbnormalCnt();
    }
    return;
  }
  if (result == 0) {
    ++m_selectTimeoutCnt;
    StatusAbnormalCnt();
    return;
  }
  if (!FD_ISSET(m_fd, &readable)) {
    ++m_notReadyCnt;
    StatusAbnormalCnt();
    return;
  }
  if (m_isCapturing.load(std::memory_order_acquire)) {
    Capturing(callback);
  }
}

void DevCaptureCameraLinux::Capturing(const CaptureFrameCallback& callback) {
  v4l2_buffer buffer{};
  buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buffer.memory = V4L2_MEMORY_MMAP;
  if (IoctlRetry(m_fd, VIDIOC_DQBUF, &buffer) != 0) {
    const int error = errno;
    if (error != m_lastDequeueError) {
      m_lastDequeueError = error;
      m_dequeueErrorLog.Reset();
    }
    if (m_dequeueErrorLog.Due()) {
      if (error == ENODEV) {
        VLOG_ERR("could not sync on a buffer on device %s", ErrorText(error));
      } else {
        VLOG_ERR("could not sync on a buffer on device %d %s", error, ErrorText(error));
      }
    }
    return;
  }
  m_lastDequeueError = 0;
  if (!m_isCapturing.load(std::memory_order_acquire)) {
    return;
  }
  if (buffer.index >= m_buffers.size()) {
    VLOG_ERR("could not sync on a buffer on device %d %s", EINVAL, ErrorText(EINVAL));
    return;
  }
  const MappedBuffer& mapped = m_buffers[buffer.index];
  _PEL_V_FRAME frame{};
  frame.format = TransCaptureFormat(m_rawVideoType);
  frame.width = m_width;
  frame.height = m_height;
  frame.data = static_cast<uint8_t*>(mapped.start);
  // A driver never reports more than it mapped; if one did, the frame stops at the mapping.
  frame.dataSize = static_cast<uint32_t>(std::min<size_t>(buffer.bytesused, mapped.length));
  if (callback) {
    callback(frame);
  }
  if (IoctlRetry(m_fd, VIDIOC_QBUF, &buffer) != 0) {
    VLOG_ERR("Failed to enqueue capture buffer");
  }
}

void DevCaptureCameraLinux::StatusAbnormalCnt() {
  m_abnormalTotal = m_selectErrorCnt + m_selectTimeoutCnt + m_notReadyCnt;
  if (vlink::IsPacedTurn(m_abnormalTotal, kAbnormalLogPace)) {
    VLOG_ERR("%s failed cnt:%u %u %u", "StatusAbnormalCnt", m_selectErrorCnt, m_selectTimeoutCnt,
             m_notReadyCnt);
  }
  if (m_abnormalTotal > kAbnormalLogPace) {
    m_selectErrorCnt = 0;
    m_selectTimeoutCnt = 0;
    m_notReadyCnt = 0;
  }
}
