#include "tools/common/file_frame_source.h"

#include <libyuv.h>

#include <fstream>
#include <iterator>

#include "tools/common/jpeg_util.h"
#include "tools/common/y4m_reader.h"

namespace {

// Packed I420 with chroma planes of (width+1)/2 x (height+1)/2, as Y4M and the test
// pictures lay it out.
struct PackedI420 {
  PackedI420(uint8_t* data, uint32_t width, uint32_t height)
      : w(static_cast<int>(width)),
        h(static_cast<int>(height)),
        cw((w + 1) / 2),
        y(data),
        u(data + size_t(w) * size_t(h)),
        v(u + size_t(cw) * size_t((h + 1) / 2)) {}
  static size_t Bytes(uint32_t width, uint32_t height) {
    return size_t{width} * height + 2 * size_t{(width + 1) / 2} * ((height + 1) / 2);
  }
  int w;
  int h;
  int cw;
  uint8_t* y;
  uint8_t* u;
  uint8_t* v;
};

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

std::shared_ptr<FileFrameSource> FileFrameSource::Open(const std::string& path, std::string* error,
                                                       uint32_t mjpegFps, size_t maxFrames) {
  auto source = std::shared_ptr<FileFrameSource>(new FileFrameSource());
  source->m_self = source;
  std::string reason;
  const bool loaded = EndsWith(path, ".y4m")
                          ? source->LoadY4m(path, maxFrames, &reason)
                          : source->LoadMjpeg(path, mjpegFps, maxFrames, &reason);
  if (!loaded) {
    if (error != nullptr) {
      *error = reason;
    }
    return nullptr;
  }
  return source;
}

bool FileFrameSource::LoadY4m(const std::string& path, size_t maxFrames, std::string* error) {
  Y4mReader reader;
  if (!reader.Open(path)) {
    *error = reader.Error();
    return false;
  }
  m_width = reader.Width();
  m_height = reader.Height();
  // Frames per second num/den make an interval of den/num seconds.
  m_interval = v4l2_fract{reader.RateDenominator(), reader.RateNumerator()};
  std::vector<uint8_t> frame;
  while (m_frames.size() < maxFrames && reader.ReadFrame(frame)) {
    m_frames.push_back(frame);
  }
  if (m_frames.empty() || m_width % 2 != 0 || m_height % 2 != 0 || m_interval.denominator == 0 ||
      m_interval.numerator == 0) {
    *error = m_frames.empty() ? "no frame in " + path : "odd size or no rate in " + path;
    return false;
  }
  m_jpegCache.resize(m_frames.size());
  return true;
}

bool FileFrameSource::LoadMjpeg(const std::string& path, uint32_t fps, size_t maxFrames,
                                std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in || fps == 0) {
    *error = in ? "no frame rate for " + path : "cannot open " + path;
    return false;
  }
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                   std::istreambuf_iterator<char>());
  m_isMjpeg = true;
  m_interval = v4l2_fract{1, fps};
  size_t at = 0;
  while (at + 4 <= bytes.size() && m_frames.size() < maxFrames) {
    if (!(bytes[at] == 0xFF && bytes[at + 1] == 0xD8)) {
      ++at;
      continue;
    }
    size_t end = at + 2;
    while (end + 1 < bytes.size() && !(bytes[end] == 0xFF && bytes[end + 1] == 0xD9)) {
      ++end;
    }
    if (end + 1 >= bytes.size()) {
      break;
    }
    std::vector<uint8_t> picture(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                 bytes.begin() + static_cast<std::ptrdiff_t>(end + 2));
    int width = 0;
    int height = 0;
    if (libyuv::MJPGSize(picture.data(), picture.size(), &width, &height) == 0 && width > 0 &&
        height > 0 &&
        (m_frames.empty() || (uint32_t(width) == m_width && uint32_t(height) == m_height))) {
      m_width = static_cast<uint32_t>(width);
      m_height = static_cast<uint32_t>(height);
      m_frames.push_back(std::move(picture));
    }
    at = end + 2;
  }
  if (m_frames.empty()) {
    *error = "no JPEG picture in " + path;
    return false;
  }
  return true;
}

std::vector<uint8_t> FileFrameSource::I420At(size_t index) {
  if (!m_isMjpeg) {
    return m_frames[index];
  }
  std::vector<uint8_t> i420(PackedI420::Bytes(m_width, m_height));
  PackedI420 out(i420.data(), m_width, m_height);
  libyuv::MJPGToI420(m_frames[index].data(), m_frames[index].size(), out.y, out.w, out.u, out.cw,
                     out.v, out.cw, out.w, out.h, out.w, out.h);
  return i420;
}

std::vector<uint8_t> FileFrameSource::MakeFrame(uint32_t fourcc, uint32_t width, uint32_t height,
                                                uint32_t sequence) {
  const size_t index = sequence % m_frames.size();
  if (fourcc == V4L2_PIX_FMT_MJPEG && width == m_width && height == m_height) {
    if (m_isMjpeg) {
      return m_frames[index];
    }
    if (m_jpegCache[index].empty()) {
      m_jpegCache[index] = EncodeI420Jpeg(m_frames[index].data(), m_width, m_height);
    }
    return m_jpegCache[index];
  }
  std::vector<uint8_t> i420 = I420At(index);
  if (width != m_width || height != m_height) {
    // A frame asked at another size (a fault that makes content and format disagree).
    std::vector<uint8_t> scaled(PackedI420::Bytes(width, height));
    PackedI420 from(i420.data(), m_width, m_height);
    PackedI420 to(scaled.data(), width, height);
    libyuv::I420Scale(from.y, from.w, from.u, from.cw, from.v, from.cw, from.w, from.h, to.y, to.w,
                      to.u, to.cw, to.v, to.cw, to.w, to.h, libyuv::kFilterBox);
    i420 = std::move(scaled);
    if (fourcc == V4L2_PIX_FMT_MJPEG) {
      return EncodeI420Jpeg(i420.data(), width, height);
    }
  }
  if (fourcc == V4L2_PIX_FMT_YUV420) {
    return i420;
  }
  if (fourcc == V4L2_PIX_FMT_YUYV) {
    PackedI420 from(i420.data(), width, height);
    std::vector<uint8_t> yuyv(size_t(from.cw) * 4 * height);
    libyuv::I420ToYUY2(from.y, from.w, from.u, from.cw, from.v, from.cw, yuyv.data(), from.cw * 4,
                       from.w, from.h);
    return yuyv;
  }
  return {};
}

FakeCameraConfig FileFrameSource::Camera(const std::string& busInfo) {
  FakeCameraConfig config;
  config.busInfo = busInfo;
  config.card = "File Camera";
  const std::vector<FakeFrameSize> sizes = {{m_width, m_height}};
  if (m_isMjpeg) {
    config.formats = {DiscreteFormat(V4L2_PIX_FMT_MJPEG, sizes, {m_interval})};
  } else {
    config.formats = {DiscreteFormat(V4L2_PIX_FMT_YUV420, sizes, {m_interval}),
                      DiscreteFormat(V4L2_PIX_FMT_YUYV, sizes, {m_interval}),
                      DiscreteFormat(V4L2_PIX_FMT_MJPEG, sizes, {m_interval})};
  }
  config.source = m_self.lock();
  return config;
}
