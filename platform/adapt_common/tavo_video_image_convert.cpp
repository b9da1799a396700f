#include "platform/adapt_common/tavo_video_image_convert.h"

#include <fcntl.h>
#include <libyuv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <vector>

#include "platform/adapt_common/om_log.h"
#include "platform/adapt_common/osv_graphic_buffer_fault.h"

// This library sits below the trace printer, so its messages go to the module log only.
#define CONVERT_LOG_ERR(fmt, ...)                                                   \
  TavoOmLogModuleLogRecord(1, TavoVideoGetPrivateLogId(0) & 0xFFFFU, __FILE_NAME__, \
                           sizeof(__FILE_NAME__) - 1, __LINE__, "%s: " fmt,         \
                           __func__ __VA_OPT__(, ) __VA_ARGS__)

namespace {

constexpr uint32_t kMaxSide = 16384;
// Larger files are not still images a terminal shows; refusing them bounds the memory a
// hostile path can make us take.
constexpr uint64_t kMaxFileBytes = uint64_t{256} << 20;

constexpr size_t kFileHeaderBytes = 14;
constexpr size_t kInfoHeaderBytes = 40;
constexpr size_t kBmpHeaderBytes = kFileHeaderBytes + kInfoHeaderBytes;
constexpr uint32_t kBiRgb = 0;
constexpr uint32_t kBiBitfields = 3;

class Fd {
 public:
  explicit Fd(int fd) : m_fd(fd) {}
  ~Fd() {
    if (m_fd >= 0) {
      close(m_fd);
    }
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return m_fd; }

 private:
  int m_fd;
};

// Opens a regular file without blocking (a FIFO would otherwise stall the caller) and
// reports its size.
int OpenRegular(const char* path, uint64_t* size) {
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0) {
    close(fd);
    return -1;
  }
  *size = static_cast<uint64_t>(st.st_size);
  return fd;
}

// Reads exactly `size` bytes from the start of the file.
bool ReadAll(int fd, uint8_t* data, uint64_t size) {
  uint64_t done = 0;
  while (done < size) {
    const ssize_t got = pread(fd, data + done, size - done, static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return false;
    }
    done += static_cast<uint64_t>(got);
  }
  return true;
}

uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t Le32(const uint8_t* p) {
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

struct BmpLayout {
  uint32_t width;  // as stored
  uint32_t rows;   // absolute height as stored
  bool bottomUp;
  uint32_t bytesPerPixel;
  uint64_t stride;  // row length including the padding to 4 bytes
  uint64_t pixelOffset;
};

// Checks every header field against the file it came from; false means "not an image
// we convert".
bool ParseBmp(const std::vector<uint8_t>& file, BmpLayout* layout) {
  if (file.size() < kBmpHeaderBytes || file[0] != 'B' || file[1] != 'M') {
    CONVERT_LOG_ERR("not a BMP file, size[%zu]", file.size());
    return false;
  }
  const uint8_t* p = file.data();
  const uint32_t pixelOffset = Le32(p + 10);
  const uint32_t infoSize = Le32(p + 14);
  // int32 fields are read unsigned and checked before any sign change, so INT32_MIN
  // cannot overflow a negation.
  const uint32_t rawWidth = Le32(p + 18);
  const uint32_t rawHeight = Le32(p + 22);
  const uint16_t planes = Le16(p + 26);
  const uint16_t bitCount = Le16(p + 28);
  const uint32_t compression = Le32(p + 30);

  const bool bottomUp = (rawHeight & 0x80000000U) == 0;
  const uint32_t rows = bottomUp ? rawHeight : 0U - rawHeight;
  if (infoSize < kInfoHeaderBytes || rawWidth == 0 || rawWidth > kMaxSide || rows == 0 ||
      rows > kMaxSide || planes != 1) {
    CONVERT_LOG_ERR("bad BMP header: info[%u] width[%u] height[%u] planes[%u]", infoSize, rawWidth,
                    rawHeight, planes);
    return false;
  }
  const bool supported = (bitCount == 24 && compression == kBiRgb) ||
                         (bitCount == 32 && (compression == kBiRgb || compression == kBiBitfields));
  if (!supported) {
    CONVERT_LOG_ERR("unsupported BMP: bitCount[%u] compression[%u]", bitCount, compression);
    return false;
  }
  const uint32_t bytesPerPixel = bitCount / 8U;
  const uint64_t rowBytes = uint64_t{rawWidth} * bytesPerPixel;
  const uint64_t stride = (rowBytes + 3U) & ~uint64_t{3};
  // The last row's padding is not needed, so files that omit it are still accepted.
  const uint64_t pixelBytes = stride * (rows - 1U) + rowBytes;
  if (pixelOffset < kBmpHeaderBytes || pixelOffset > file.size() ||
      pixelBytes > file.size() - pixelOffset) {
    CONVERT_LOG_ERR("BMP pixels outside the file: offset[%u] need[%llu] size[%zu]", pixelOffset,
                    static_cast<unsigned long long>(pixelBytes), file.size());
    return false;
  }
  *layout = {rawWidth, rows, bottomUp, bytesPerPixel, stride, pixelOffset};
  return true;
}

}  // namespace

int32_t Transbmp2Yuv(const char* path, uint32_t* width, uint32_t* height, uint8_t** out) {
  if (path == nullptr || width == nullptr || height == nullptr || out == nullptr) {
    CONVERT_LOG_ERR("null argument");
    return -1;
  }
  uint64_t fileSize = 0;
  const Fd fd(OpenRegular(path, &fileSize));
  if (fd.get() < 0) {
    CONVERT_LOG_ERR("cannot open [%s]", path);
    return -1;
  }
  if (fileSize < kBmpHeaderBytes || fileSize > kMaxFileBytes) {
    CONVERT_LOG_ERR("file size [%llu] out of range", static_cast<unsigned long long>(fileSize));
    return -1;
  }
  std::vector<uint8_t> file;
  try {
    file.resize(fileSize);
  } catch (const std::bad_alloc&) {
    CONVERT_LOG_ERR("no memory for [%llu] bytes", static_cast<unsigned long long>(fileSize));
    return -1;
  }
  if (!ReadAll(fd.get(), file.data(), fileSize)) {
    CONVERT_LOG_ERR("short read of [%s]", path);
    return -1;
  }
  BmpLayout bmp{};
  if (!ParseBmp(file, &bmp)) {
    return -1;
  }
  // I420 needs even sizes: the last column and row are dropped.
  const uint32_t w = bmp.width & ~1U;
  const uint32_t h = bmp.rows & ~1U;
  if (w == 0 || h == 0) {
    CONVERT_LOG_ERR("image %ux%u too small for I420", bmp.width, bmp.rows);
    return -1;
  }
  const size_t ySize = size_t{w} * h;
  std::unique_ptr<uint8_t[]> yuv(
      OsvAllocationAllowed(ySize * 3 / 2) ? new (std::nothrow) uint8_t[ySize * 3 / 2] : nullptr);
  if (!yuv) {
    CONVERT_LOG_ERR("no memory for %ux%u", w, h);
    return -1;
  }
  const uint8_t* src = file.data() + bmp.pixelOffset;
  int signedHeight = static_cast<int>(h);
  if (bmp.bottomUp) {
    // The bottom row comes first in the file; when it is the dropped odd row, skip it.
    src += bmp.stride * (bmp.rows - h);
    signedHeight = -signedHeight;  // libyuv then walks the rows from the last one up
  }
  uint8_t* dstY = yuv.get();
  uint8_t* dstU = dstY + ySize;
  uint8_t* dstV = dstU + ySize / 4;
  const int stride = static_cast<int>(bmp.stride);
  const int yStride = static_cast<int>(w);
  const int cStride = static_cast<int>(w / 2);
  const int rc = bmp.bytesPerPixel == 3
                     ? libyuv::RGB24ToI420(src, stride, dstY, yStride, dstU, cStride, dstV, cStride,
                                           static_cast<int>(w), signedHeight)
                     : libyuv::ARGBToI420(src, stride, dstY, yStride, dstU, cStride, dstV, cStride,
                                          static_cast<int>(w), signedHeight);
  if (rc != 0) {
    CONVERT_LOG_ERR("conversion failed [%d]", rc);
    return -1;
  }
  *width = w;
  *height = h;
  *out = yuv.release();
  return 0;
}

int32_t TransDat2Yuv(const char* path, uint8_t** out, uint32_t width, uint32_t height) {
  if (path == nullptr || out == nullptr || width == 0 || height == 0 || width > kMaxSide ||
      height > kMaxSide || (width & 1U) != 0 || (height & 1U) != 0) {
    CONVERT_LOG_ERR("bad argument: %ux%u", width, height);
    return -1;
  }
  const uint64_t need = uint64_t{width} * height * 3 / 2;
  uint64_t fileSize = 0;
  const Fd fd(OpenRegular(path, &fileSize));
  if (fd.get() < 0) {
    CONVERT_LOG_ERR("cannot open [%s]", path);
    return -1;
  }
  if (fileSize < need) {
    CONVERT_LOG_ERR("file holds [%llu] bytes, %ux%u needs [%llu]",
                    static_cast<unsigned long long>(fileSize), width, height,
                    static_cast<unsigned long long>(need));
    return -1;
  }
  std::unique_ptr<uint8_t[]> yuv(OsvAllocationAllowed(need) ? new (std::nothrow) uint8_t[need]
                                                            : nullptr);
  if (!yuv) {
    CONVERT_LOG_ERR("no memory for %ux%u", width, height);
    return -1;
  }
  if (!ReadAll(fd.get(), yuv.get(), need)) {
    CONVERT_LOG_ERR("short read of [%s]", path);
    return -1;
  }
  *out = yuv.release();
  return 0;
}

int32_t Trans2Yuv(uint8_t* rgb, uint32_t width, uint32_t height, bool bgrOrder, uint8_t** out) {
  // Odd sizes are refused rather than cropped: the caller has no way to learn a new size.
  if (rgb == nullptr || out == nullptr || width == 0 || height == 0 || width > kMaxSide ||
      height > kMaxSide || (width & 1U) != 0 || (height & 1U) != 0) {
    CONVERT_LOG_ERR("bad argument: %ux%u", width, height);
    return -1;
  }
  const size_t ySize = size_t{width} * height;
  std::unique_ptr<uint8_t[]> yuv(
      OsvAllocationAllowed(ySize * 3 / 2) ? new (std::nothrow) uint8_t[ySize * 3 / 2] : nullptr);
  if (!yuv) {
    CONVERT_LOG_ERR("no memory for %ux%u", width, height);
    return -1;
  }
  uint8_t* dstY = yuv.get();
  uint8_t* dstU = dstY + ySize;
  uint8_t* dstV = dstU + ySize / 4;
  const int w = static_cast<int>(width);
  const int h = static_cast<int>(height);
  const int rc = bgrOrder ? libyuv::RGB24ToI420(rgb, w * 3, dstY, w, dstU, w / 2, dstV, w / 2, w, h)
                          : libyuv::RAWToI420(rgb, w * 3, dstY, w, dstU, w / 2, dstV, w / 2, w, h);
  if (rc != 0) {
    CONVERT_LOG_ERR("conversion failed [%d]", rc);
    return -1;
  }
  *out = yuv.release();
  return 0;
}

namespace {

// Strides are handed to libyuv as int.
constexpr uint32_t kMaxStride = 1U << 30;

// True when `rows` rows of `rowBytes` bytes, `stride` apart from `plane`, lie inside the
// frame's memory. Frames over foreign memory of unknown size cannot be checked.
bool PlaneInside(const OsvGraphicBuffer& buffer, const uint8_t* plane, uint32_t stride,
                 uint32_t rowBytes, uint32_t rows) {
  const auto* begin = static_cast<const uint8_t*>(buffer.GetBufHandle());
  const uint32_t size = buffer.GetImageInfo().size;
  if (begin == nullptr || size == 0) {
    return true;
  }
  if (plane < begin || plane >= begin + size) {
    return false;
  }
  const uint64_t extent = uint64_t{stride} * (rows - 1U) + rowBytes;
  return extent <= static_cast<uint64_t>(begin + size - plane);
}

}  // namespace

int32_t ChangeI420ToRGB(OsvGraphicBuffer* buffer, uint8_t* target, uint32_t width,
                        uint32_t height) {
  if (buffer == nullptr || target == nullptr) {
    CONVERT_LOG_ERR("null argument");
    return -1;
  }
  const OsvGraphicBufferInfo info = buffer->GetImageInfo();
  if (info.format != TAVO_VIDEO_VLINK_FORMAT_I420) {
    CONVERT_LOG_ERR("format[%u] is not I420", info.format);
    return -1;
  }
  if (width == 0 || height == 0 || width > kMaxSide || height > kMaxSide || width != info.width ||
      height != info.height) {
    CONVERT_LOG_ERR("size %ux%u, frame %ux%u", width, height, info.width, info.height);
    return -1;
  }
  uint8_t* y = buffer->GetImageAddr(0);
  uint8_t* u = buffer->GetImageAddr(1);
  uint8_t* v = buffer->GetImageAddr(2);
  const uint32_t chromaWidth = (width + 1) / 2;
  const uint32_t chromaHeight = (height + 1) / 2;
  if (y == nullptr || u == nullptr || v == nullptr || info.stride[0] < width ||
      info.stride[1] < chromaWidth || info.stride[2] < chromaWidth || info.stride[0] > kMaxStride ||
      info.stride[1] > kMaxStride || info.stride[2] > kMaxStride) {
    CONVERT_LOG_ERR("planes missing or strides %u/%u/%u short for width %u", info.stride[0],
                    info.stride[1], info.stride[2], width);
    return -1;
  }
  if (!PlaneInside(*buffer, y, info.stride[0], width, height) ||
      !PlaneInside(*buffer, u, info.stride[1], chromaWidth, chromaHeight) ||
      !PlaneInside(*buffer, v, info.stride[2], chromaWidth, chromaHeight)) {
    CONVERT_LOG_ERR("planes outside the frame's %u bytes", info.size);
    return -1;
  }
  // RAW is libyuv's name for R, G, B in memory; its RGB24 is B, G, R.
  const int w = static_cast<int>(width);
  const int rc = libyuv::I420ToRAW(
      y, static_cast<int>(info.stride[0]), u, static_cast<int>(info.stride[1]), v,
      static_cast<int>(info.stride[2]), target, w * 3, w, static_cast<int>(height));
  if (rc != 0) {
    CONVERT_LOG_ERR("conversion failed [%d]", rc);
    return -1;
  }
  return 0;
}
