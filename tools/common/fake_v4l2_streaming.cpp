// The fake device's formats, frame intervals and streaming buffers: what a driver keeps per
// camera between VIDIOC_S_FMT and VIDIOC_STREAMOFF.
#include <libyuv.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/tavo_video_os_seams.h"
#include "tools/common/fake_v4l2_device.h"

namespace {

constexpr uint32_t kPageSize = 4096;
// A blocking DQBUF waits in slices of this length.
constexpr uint32_t kWaitSliceMs = 100;

Clock& Now() { return Seam<Clock>::Get(); }

}  // namespace

const FakeCameraFormat* FakeV4l2Device::FindFormat(const Camera& camera, uint32_t fourcc) const {
  for (const FakeCameraFormat& format : camera.config.formats) {
    if (format.fourcc == fourcc) {
      return &format;
    }
  }
  return nullptr;
}

int FakeV4l2Device::TryFormat(Camera& camera, v4l2_format& format) {
  if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
    return Fail(EINVAL);
  }
  v4l2_pix_format& pix = format.fmt.pix;
  if (camera.faults.refusedFormats.count(pix.pixelformat) != 0) {
    return Fail(EINVAL);
  }
  const FakeCameraFormat* offered = FindFormat(camera, pix.pixelformat);
  if (offered == nullptr) {
    if (!camera.config.substituteUnknownFormat || camera.config.formats.empty()) {
      return Fail(EINVAL);
    }
    offered = &camera.config.formats[0];
  }
  if (offered->sizes.empty()) {
    return Fail(EINVAL);
  }
  // The nearest offered size by area difference, as UVC chooses.
  const FakeFrameSize* best = nullptr;
  uint64_t bestDistance = UINT64_MAX;
  for (const FakeFrameSize& size : offered->sizes) {
    const uint64_t overlap =
        uint64_t{std::min(size.width, pix.width)} * std::min(size.height, pix.height);
    const uint64_t distance =
        uint64_t{size.width} * size.height + uint64_t{pix.width} * pix.height - 2 * overlap;
    if (distance < bestDistance) {
      bestDistance = distance;
      best = &size;
    }
  }
  const uint32_t fourcc = offered->fourcc;
  pix = v4l2_pix_format{};
  pix.width = best->width;
  pix.height = best->height;
  pix.pixelformat = fourcc;
  pix.field = V4L2_FIELD_NONE;
  pix.bytesperline = fourcc == V4L2_PIX_FMT_YUYV     ? best->width * 2
                     : fourcc == V4L2_PIX_FMT_YUV420 ? best->width
                                                     : 0;
  pix.sizeimage = SizeImage(fourcc, best->width, best->height);
  pix.colorspace = V4L2_COLORSPACE_SRGB;
  return 0;
}

uint32_t FakeV4l2Device::SizeImage(uint32_t fourcc, uint32_t width, uint32_t height) {
  switch (fourcc) {
    case V4L2_PIX_FMT_YUYV:
      return width * height * 2;
    case V4L2_PIX_FMT_YUV420:
      return width * height + 2 * ((width + 1) / 2) * ((height + 1) / 2);
    default:
      // Compressed: room for the largest frame the camera promises.
      return width * height * 2 + 65536;
  }
}

uint64_t FakeV4l2Device::IntervalUs(const v4l2_fract& interval) {
  if (interval.denominator == 0) {
    return 33'333;
  }
  return std::max<uint64_t>(1, uint64_t{interval.numerator} * 1'000'000U / interval.denominator);
}

int FakeV4l2Device::EnumIntervals(Camera& camera, v4l2_frmivalenum& e) const {
  const FakeCameraFormat* format = FindFormat(camera, e.pixel_format);
  if (format == nullptr) {
    return Fail(EINVAL);
  }
  const bool sizeOffered = std::any_of(format->sizes.begin(), format->sizes.end(), [&](auto& s) {
    return s.width == e.width && s.height == e.height;
  });
  if (!sizeOffered) {
    return Fail(EINVAL);
  }
  if (!format->discreteIntervals.empty()) {
    if (e.index >= format->discreteIntervals.size()) {
      return Fail(EINVAL);
    }
    e.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    e.discrete = format->discreteIntervals[e.index];
    return 0;
  }
  if (e.index != 0) {
    return Fail(EINVAL);
  }
  e.type = format->continuous ? V4L2_FRMIVAL_TYPE_CONTINUOUS : V4L2_FRMIVAL_TYPE_STEPWISE;
  e.stepwise.min = format->stepMin;
  e.stepwise.max = format->stepMax;
  e.stepwise.step = format->continuous ? v4l2_fract{1, 1} : format->step;
  return 0;
}

void FakeV4l2Device::SetInterval(Camera& camera, v4l2_fract wanted) {
  const FakeCameraFormat* format = FindFormat(camera, camera.format.pixelformat);
  if (format == nullptr || wanted.numerator == 0 || wanted.denominator == 0) {
    return;  // the driver keeps its interval
  }
  const double target = double(wanted.numerator) / wanted.denominator;
  auto seconds = [](const v4l2_fract& f) { return double(f.numerator) / f.denominator; };
  if (!format->discreteIntervals.empty()) {
    const v4l2_fract* best = &format->discreteIntervals[0];
    for (const v4l2_fract& interval : format->discreteIntervals) {
      if (interval.denominator != 0 &&
          std::abs(seconds(interval) - target) < std::abs(seconds(*best) - target)) {
        best = &interval;
      }
    }
    camera.interval = *best;
    return;
  }
  const double lowest = seconds(format->stepMin);
  const double highest = seconds(format->stepMax);
  if (target <= lowest) {
    camera.interval = format->stepMin;
  } else if (target >= highest) {
    camera.interval = format->stepMax;
  } else {
    camera.interval = wanted;  // inside the range: taken as asked
  }
}

int FakeV4l2Device::RequestBuffers(int fd, Camera& camera, v4l2_requestbuffers& request) {
  if (request.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || request.memory != V4L2_MEMORY_MMAP) {
    return Fail(EINVAL);
  }
  if (camera.bufferOwner >= 0 && camera.bufferOwner != fd) {
    return Fail(EBUSY);
  }
  if (camera.streaming) {
    return Fail(EBUSY);
  }
  for (const Buffer& buffer : camera.buffers) {
    if (m_mappings.count(buffer.memory->data()) != 0) {
      return Fail(EBUSY);  // buffers still mapped cannot be reallocated
    }
  }
  ReleaseBuffers(camera);
  const uint32_t granted = std::min(request.count, camera.config.maxBuffers);
  for (uint32_t i = 0; i < granted; ++i) {
    Buffer buffer;
    buffer.memory = std::make_shared<std::vector<uint8_t>>(camera.format.sizeimage);
    camera.buffers.push_back(std::move(buffer));
  }
  camera.bufferOwner = granted > 0 ? fd : -1;
  request.count = granted;
  request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
  return 0;
}

int FakeV4l2Device::QueryBuffer(Camera& camera, v4l2_buffer& buffer) const {
  if (buffer.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffer.index >= camera.buffers.size()) {
    return Fail(EINVAL);
  }
  const Buffer& held = camera.buffers[buffer.index];
  const uint32_t index = buffer.index;
  buffer = v4l2_buffer{};
  buffer.index = index;
  buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buffer.memory = V4L2_MEMORY_MMAP;
  buffer.length = static_cast<uint32_t>(held.memory->size());
  buffer.m.offset = index * ((camera.format.sizeimage + kPageSize - 1) / kPageSize * kPageSize);
  buffer.flags = (held.queued ? V4L2_BUF_FLAG_QUEUED : 0) | (held.done ? V4L2_BUF_FLAG_DONE : 0);
  return 0;
}

int FakeV4l2Device::QueueBuffer(Camera& camera, v4l2_buffer& buffer) {
  if (buffer.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffer.memory != V4L2_MEMORY_MMAP ||
      buffer.index >= camera.buffers.size()) {
    return Fail(EINVAL);
  }
  Buffer& held = camera.buffers[buffer.index];
  if (held.queued || held.done) {
    return Fail(EINVAL);
  }
  held.queued = true;
  camera.queued.push_back(buffer.index);
  buffer.flags |= V4L2_BUF_FLAG_QUEUED;
  return 0;
}

int FakeV4l2Device::DequeueBuffer(int fd, Camera& camera, v4l2_buffer& buffer) {
  if (buffer.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || buffer.memory != V4L2_MEMORY_MMAP) {
    return Fail(EINVAL);
  }
  if (!camera.faults.dequeueErrors.empty()) {
    const int code = camera.faults.dequeueErrors.front();
    camera.faults.dequeueErrors.pop_front();
    return Fail(code);
  }
  if (!camera.streaming) {
    return Fail(EINVAL);
  }
  if (!Produce(camera)) {
    // A blocking reader would sleep here; the capturer opens non-blocking and selects first,
    // so the fake answers both kinds alike.
    (void)m_descriptors.at(fd).nonBlocking;
    return Fail(EAGAIN);
  }
  const uint32_t index = camera.done.front();
  camera.done.pop_front();
  Buffer& held = camera.buffers[index];
  held.done = false;
  buffer = v4l2_buffer{};
  buffer.index = index;
  buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buffer.memory = V4L2_MEMORY_MMAP;
  buffer.bytesused = held.bytesused;
  buffer.length = static_cast<uint32_t>(held.memory->size());
  buffer.sequence = held.sequence;
  buffer.field = V4L2_FIELD_NONE;
  buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
  const uint64_t now = Now().NowUs();
  buffer.timestamp.tv_sec = static_cast<time_t>(now / 1'000'000U);
  buffer.timestamp.tv_usec = static_cast<suseconds_t>(now % 1'000'000U);
  ++camera.delivered;
  if (camera.faults.unplugAfterFrames && camera.delivered >= *camera.faults.unplugAfterFrames) {
    camera.unplugged = true;
  }
  return 0;
}

bool FakeV4l2Device::Produce(Camera& camera) {
  if (camera.streaming && !camera.faults.neverDeliver && !camera.unplugged) {
    const uint64_t now = Now().NowUs();
    const uint64_t interval = IntervalUs(camera.interval);
    if (now > camera.nextDueUs + 10 * interval) {
      camera.nextDueUs = now;  // far behind (a stalled reader): the missed frames are gone
    }
    while (camera.nextDueUs <= now) {
      if (!camera.queued.empty()) {
        const uint32_t index = camera.queued.front();
        camera.queued.pop_front();
        Buffer& buffer = camera.buffers[index];
        FillBuffer(camera, buffer);
        buffer.queued = false;
        buffer.done = true;
        camera.done.push_back(index);
      }
      ++camera.sequence;  // a frame with no queued buffer is dropped, as the driver does
      camera.nextDueUs += interval;
    }
  }
  return !camera.done.empty();
}

void FakeV4l2Device::FillBuffer(Camera& camera, Buffer& buffer) {
  uint32_t width = camera.format.width;
  uint32_t height = camera.format.height;
  if (camera.faults.contentSize) {
    width = camera.faults.contentSize->width;
    height = camera.faults.contentSize->height;
  }
  const std::vector<uint8_t> frame =
      camera.config.source->MakeFrame(camera.format.pixelformat, width, height, camera.sequence);
  std::vector<uint8_t>& memory = *buffer.memory;
  const size_t copied = std::min(frame.size(), memory.size());
  std::copy_n(frame.begin(), copied, memory.begin());
  uint64_t used = copied;
  if (camera.faults.bytesused) {
    used = *camera.faults.bytesused;
  }
  // The kernel never reports more than the buffer holds.
  buffer.bytesused = static_cast<uint32_t>(std::min<uint64_t>(used, memory.size()));
  buffer.sequence = camera.sequence;
}

void FakeV4l2Device::StopStreaming(Camera& camera) {
  camera.streaming = false;
  camera.queued.clear();
  camera.done.clear();
  for (Buffer& buffer : camera.buffers) {
    buffer.queued = false;
    buffer.done = false;
  }
}

void FakeV4l2Device::ReleaseBuffers(Camera& camera) {
  camera.buffers.clear();
  camera.bufferOwner = -1;
  camera.mmapCalls = 0;
}
