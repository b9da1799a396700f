#include "tavo_video_image_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cstdio>
#include <cstring>

#include "trace/tavo_video_host_guard.h"
#include "trace/tavo_video_vlink_log.h"

// PNG fields are big-endian and are turned around with GetRealValue after a plain read.
static_assert(std::endian::native == std::endian::little,
              "GetRealValue assumes a little-endian host");

namespace {

constexpr uint8_t kJpegSignature[] = {0xFF, 0xD8};
constexpr uint8_t kPngSignature[] = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};
constexpr uint8_t kBmpSignature[] = {0x42, 0x4D};
constexpr uint8_t kJpegMarkerPrefix = 0xFF;
constexpr uint8_t kJpegBaselineSof = 0xC0;

class File {
 public:
  // Only regular files: a FIFO or device path would block or stream forever. The open
  // does not block; the stream is then read as binary.
  explicit File(const char* path) {
    if (path == nullptr) {
      return;
    }
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      return;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      close(fd);
      return;
    }
    m_fp = fdopen(fd, "rb");
    if (m_fp == nullptr) {
      close(fd);
    }
  }
  ~File() {
    if (m_fp != nullptr) {
      fclose(m_fp);
    }
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool IsOpen() const { return m_fp != nullptr; }
  // Number of bytes read, fewer at the end of the file.
  uint32_t Read(void* data, uint32_t size) {
    return static_cast<uint32_t>(fread(data, 1, size, m_fp));
  }
  bool ReadExactly(void* data, uint32_t size) { return Read(data, size) == size; }
  bool Skip(uint64_t bytes) { return fseeko(m_fp, static_cast<off_t>(bytes), SEEK_CUR) == 0; }
  bool AtEnd() const { return feof(m_fp) != 0; }

 private:
  FILE* m_fp = nullptr;
};

template <size_t N>
bool HasSignature(const uint8_t* data, const uint8_t (&signature)[N]) {
  return std::memcmp(data, signature, N) == 0;
}

uint32_t Be16(const uint8_t* p) { return (uint32_t{p[0]} << 8) | p[1]; }

uint32_t Le16(const uint8_t* p) { return uint32_t{p[0]} | (uint32_t{p[1]} << 8); }

uint32_t Le32(const uint8_t* p) {
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

uint32_t PngChannels(uint32_t colorType) {
  switch (colorType) {
    case 0:  // greyscale
      return 1;
    case 2:  // RGB
    case 3:  // palette, shown as RGB
      return 3;
    case 4:  // greyscale + alpha
    case 6:  // RGBA
      return 4;
    default:
      VLOG_ERR("colorType[%u] is invalid!", colorType);
      return 0;
  }
}

bool OutputsValid(const uint32_t* width, const uint32_t* height, const uint32_t* depthPix) {
  if (width == nullptr || height == nullptr || depthPix == nullptr) {
    VLOG_ERR("output pointer is null!");
    return false;
  }
  return true;
}

}  // namespace

ImageUtils::ImageUtils() = default;

ImageUtils::~ImageUtils() = default;

bool ImageUtils::isJpegFormat(uint8_t* data, uint32_t length) {
  if (data == nullptr || length < sizeof(kJpegSignature)) {
    VLOG_ERR("isJpegFormat() imgData is invalid!");
    return false;
  }
  return HasSignature(data, kJpegSignature);
}

bool ImageUtils::isPngFormat(uint8_t* data, uint32_t length) {
  if (data == nullptr || length < sizeof(kPngSignature)) {
    VLOG_ERR("isPngFormat() imgData is invalid!");
    return false;
  }
  return HasSignature(data, kPngSignature);
}

bool ImageUtils::isBmpFormat(uint8_t* data, uint32_t length) {
  if (data == nullptr || length < sizeof(kBmpSignature)) {
    VLOG_ERR("isBmpFormat() imgData is invalid!");
    return false;
  }
  return HasSignature(data, kBmpSignature);
}

uint32_t ImageUtils::GetRealValue(uint32_t value) { return __builtin_bswap32(value); }

uint32_t ImageUtils::GetJpegInfo(const char* path, uint32_t* width, uint32_t* height,
                                 uint32_t* depthPix) try {
  if (!OutputsValid(width, height, depthPix)) {
    return 1;
  }
  File file(path);
  if (!file.IsOpen()) {
    VLOG_ERR("Failed to open file");
    return 1;
  }
  uint8_t signature[sizeof(kJpegSignature)] = {};
  if (!isJpegFormat(signature, file.Read(signature, sizeof(signature)))) {
    VLOG_ERR("Invalid JPEG file");
    return 1;
  }
  VLOG_INF("File format is JPEG");
  // Every pass consumes at least four bytes, so the walk ends with the file.
  for (;;) {
    uint8_t marker[2] = {};
    if (!file.ReadExactly(marker, sizeof(marker))) {
      return 1;
    }
    if (marker[0] != kJpegMarkerPrefix) {
      VLOG_ERR("Invalid JPEG file");
      return 1;
    }
    if (marker[1] == kJpegBaselineSof) {
      // length(2) precision(1) height(2) width(2) components(1) first component(3)
      uint8_t sof[11] = {};
      if (!file.ReadExactly(sof, sizeof(sof))) {
        return 1;
      }
      const uint32_t precision = sof[2];
      const uint32_t components = sof[7];
      *height = Be16(sof + 3);
      *width = Be16(sof + 5);
      *depthPix = components * precision;
      VLOG_INF("JPEG image info width[%u], height[%u], depthPix[%u]", *width, *height, *depthPix);
      return 0;
    }
    uint8_t lengthField[2] = {};
    if (!file.ReadExactly(lengthField, sizeof(lengthField))) {
      return 1;
    }
    const uint32_t length = Be16(lengthField);
    if (length < sizeof(lengthField) || !file.Skip(length - sizeof(lengthField))) {
      return 1;
    }
  }
}
VLINK_HOST_CATCH(1)

uint32_t ImageUtils::GetPngInfo(const char* path, uint32_t* width, uint32_t* height,
                                uint32_t* depthPix) try {
  if (!OutputsValid(width, height, depthPix)) {
    return 1;
  }
  File file(path);
  if (!file.IsOpen()) {
    VLOG_ERR("Failed to open file");
    return 1;
  }
  uint8_t signature[sizeof(kPngSignature)] = {};
  if (!isPngFormat(signature, file.Read(signature, sizeof(signature)))) {
    VLOG_ERR(" Non-PNG image");
    return 1;
  }
  VLOG_INF("File format is PNG");
  // Every pass moves at least twelve bytes on, and a read past the end fails.
  while (!file.AtEnd()) {
    uint32_t length = 0;
    char type[5] = {};
    if (!file.ReadExactly(&length, sizeof(length)) || !file.ReadExactly(type, 4)) {
      return 1;
    }
    if (std::strcmp(type, "IHDR") == 0) {
      uint32_t size[2] = {};
      uint8_t bitDepth = 0;
      uint8_t colorType = 0;
      if (!file.ReadExactly(size, sizeof(size)) || !file.ReadExactly(&bitDepth, 1) ||
          !file.ReadExactly(&colorType, 1)) {
        return 1;
      }
      *width = GetRealValue(size[0]);
      *height = GetRealValue(size[1]);
      *depthPix = PngChannels(colorType) * bitDepth;
      VLOG_INF("PNG image info width[%u], height[%u], bitDepth[%u], colorType[%u], depthPix[%u]: ",
               *width, *height, uint32_t{bitDepth}, uint32_t{colorType}, *depthPix);
      return 0;
    }
    length = GetRealValue(length);
    VLOG_INF("Length of the header information is [%u] ", length);
    constexpr uint64_t kCrcBytes = 4;
    if (!file.Skip(uint64_t{length} + kCrcBytes)) {
      return 1;
    }
  }
  return 1;
}
VLINK_HOST_CATCH(1)

uint32_t ImageUtils::GetBmpInfo(const char* path, uint32_t* width, uint32_t* height,
                                uint32_t* depthPix) try {
  if (!OutputsValid(width, height, depthPix)) {
    return 1;
  }
  File file(path);
  if (!file.IsOpen()) {
    VLOG_ERR("Failed to open file, filename %s", path != nullptr ? path : "(null)");
    return 1;
  }
  uint8_t signature[sizeof(kBmpSignature)] = {};
  if (!isBmpFormat(signature, file.Read(signature, sizeof(signature)))) {
    VLOG_ERR("Invalid BMP file");
    return 1;
  }
  VLOG_INF("File format is BMP");
  // Bytes 2..29: file size, reserved, pixel offset, info size, width, height, planes,
  // bit count.
  uint8_t header[28] = {};
  if (!file.ReadExactly(header, sizeof(header))) {
    return 1;
  }
  *width = Le32(header + 16);
  *height = Le32(header + 20);
  *depthPix = Le16(header + 26);
  VLOG_INF("BMP image info width[%u], height[%u], depthPix[%u]: ", *width, *height, *depthPix);
  return 0;
}
VLINK_HOST_CATCH(1)

uint32_t ImageUtils::VerifyImage(const char* path, const ImageVerifyRequirement* req) try {
  if (path == nullptr) {
    VLOG_ERR("filePath is null!");
    return 1;
  }
  if (req == nullptr) {
    VLOG_ERR("req is null!");
    return 1;
  }
  VLOG_INF("Format check set is %d.", static_cast<int>(req->formatCheckSet));
  using InfoReader = uint32_t (*)(const char*, uint32_t*, uint32_t*, uint32_t*);
  struct FormatRow {
    uint32_t format;
    InfoReader read;
  };
  static constexpr FormatRow kRows[] = {
      {IMAGE_FORMAT_JPEG, &ImageUtils::GetJpegInfo},
      {IMAGE_FORMAT_PNG, &ImageUtils::GetPngInfo},
      {IMAGE_FORMAT_BMP, &ImageUtils::GetBmpInfo},
  };
  for (const FormatRow& row : kRows) {
    if ((req->formatCheckSet & row.format) == 0) {
      continue;
    }
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t depth = 0;
    if (row.read(path, &width, &height, &depth) != 0) {
      VLOG_INF("The file format[%d] is invalid.", static_cast<int>(row.format));
      continue;
    }
    VLOG_INF("The file format is %d.", static_cast<int>(row.format));
    if (width < req->minWidth || width > req->maxWidth || height < req->minHeight ||
        height > req->maxHeight) {
      VLOG_ERR("The resolution is invalid. width[%u], height[%u]!", width, height);
      return 1;
    }
    if ((width & 1U) != 0 || (height & 1U) != 0) {
      VLOG_ERR("The resolution cannot be converted to YUV format! width[%u], height[%u]", width,
               height);
      return 1;
    }
    if (depth < req->minDepth || depth > req->maxDepth) {
      VLOG_ERR("The depth is invalid. depth[%u]!", depth);
      return 1;
    }
    return 0;
  }
  VLOG_ERR("The image format is invalid.!");
  return 1;
}
VLINK_HOST_CATCH(1)
