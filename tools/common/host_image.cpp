#include "tools/common/host_image.h"

#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Pictures beyond 16384 pixels a side are not video frames.
constexpr uint32_t kMaxSide = 16384;

uint8_t Clamp(int value) {
  return static_cast<uint8_t>(value < 0 ? 0 : (value > 255 ? 255 : value));
}

// BT.601 limited range, as the library's own I420 to RGB path converts.
void YuvToRgb(int y, int u, int v, uint8_t* rgb) {
  const int c = 298 * (y - 16);
  const int d = u - 128;
  const int e = v - 128;
  rgb[0] = Clamp((c + 409 * e + 128) >> 8);
  rgb[1] = Clamp((c - 100 * d - 208 * e + 128) >> 8);
  rgb[2] = Clamp((c + 516 * d + 128) >> 8);
}

void RgbToYuv(const uint8_t* rgb, uint8_t& y, uint8_t& u, uint8_t& v) {
  const int r = rgb[0];
  const int g = rgb[1];
  const int b = rgb[2];
  y = Clamp(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
  u = Clamp(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128);
  v = Clamp(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128);
}

void Put32(std::vector<uint8_t>& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<uint8_t>(value >> shift));
  }
}

void PutChunk(std::vector<uint8_t>& out, const char* type, const uint8_t* data, size_t size) {
  Put32(out, static_cast<uint32_t>(size));
  const size_t typeAt = out.size();
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), data, data + size);
  // The checksum covers the type and the data, not the length.
  const uLong crc = crc32(0L, out.data() + typeAt, static_cast<uInt>(size + 4));
  Put32(out, static_cast<uint32_t>(crc));
}

}  // namespace

size_t RenderedBytes(const TavoVideoRenderImgHeader& header) {
  if (header.headerSize != sizeof(TavoVideoRenderImgHeader) || header.data == nullptr ||
      header.width == 0 || header.height == 0 || header.width > kMaxSide ||
      header.height > kMaxSide) {
    return 0;
  }
  uint64_t bytes = 0;
  if (header.format == TAVO_VIDEO_RENDER_IMG_I420) {
    const uint32_t chromaWidth = (header.width + 1) / 2;
    const uint32_t chromaHeight = (header.height + 1) / 2;
    if (header.stride0 < header.width || header.stride1 < chromaWidth) {
      return 0;
    }
    bytes = uint64_t{header.stride0} * header.height + 2 * uint64_t{header.stride1} * chromaHeight;
  } else if (header.format == TAVO_VIDEO_RENDER_IMG_RGB24) {
    // The strides describe the frame the RGB was converted from; the RGB rows are packed.
    bytes = uint64_t{header.width} * header.height * 3;
  } else {
    return 0;
  }
  return bytes <= header.dataSize ? static_cast<size_t>(bytes) : 0;
}

bool CopyRendered(const TavoVideoRenderImgHeader& header, RenderedFrame& frame) {
  const size_t bytes = RenderedBytes(header);
  if (bytes == 0) {
    return false;
  }
  frame.width = header.width;
  frame.height = header.height;
  frame.stride0 = header.stride0;
  frame.stride1 = header.stride1;
  frame.format = header.format;
  frame.bytes.assign(header.data, header.data + bytes);
  return true;
}

bool RenderedToRgb(const RenderedFrame& frame, RgbImage& out) {
  if (frame.bytes.empty()) {
    return false;
  }
  out.width = frame.width;
  out.height = frame.height;
  const size_t rgbBytes = size_t{frame.width} * frame.height * 3;
  if (frame.format == TAVO_VIDEO_RENDER_IMG_RGB24) {
    out.pixels.assign(frame.bytes.begin(), frame.bytes.begin() + static_cast<long>(rgbBytes));
    return true;
  }
  out.pixels.resize(rgbBytes);
  const uint8_t* yPlane = frame.bytes.data();
  const uint8_t* uPlane = yPlane + size_t{frame.stride0} * frame.height;
  const uint8_t* vPlane = uPlane + size_t{frame.stride1} * ((frame.height + 1) / 2);
  for (uint32_t row = 0; row < frame.height; ++row) {
    const uint8_t* y = yPlane + size_t{frame.stride0} * row;
    const uint8_t* u = uPlane + size_t{frame.stride1} * (row / 2);
    const uint8_t* v = vPlane + size_t{frame.stride1} * (row / 2);
    uint8_t* rgb = out.pixels.data() + size_t{frame.width} * 3 * row;
    for (uint32_t x = 0; x < frame.width; ++x, rgb += 3) {
      YuvToRgb(y[x], u[x / 2], v[x / 2], rgb);
    }
  }
  return true;
}

void DrawMovingBars(uint32_t width, uint32_t height, uint32_t index, uint32_t count,
                    std::vector<uint8_t>& i420) {
  // White, yellow, cyan, green, magenta, red, blue, black: the test image's bars.
  static const uint8_t kBars[8][3] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                                      {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {0, 0, 0}};
  static const uint8_t kDone[3] = {235, 235, 235};
  static const uint8_t kToDo[3] = {48, 48, 48};
  const uint32_t chromaWidth = (width + 1) / 2;
  const uint32_t chromaHeight = (height + 1) / 2;
  i420.resize(size_t{width} * height + 2 * size_t{chromaWidth} * chromaHeight);
  uint8_t* yPlane = i420.data();
  uint8_t* uPlane = yPlane + size_t{width} * height;
  uint8_t* vPlane = uPlane + size_t{chromaWidth} * chromaHeight;
  // The bars slide one picture width over the whole clip; the last frame is the first one
  // shifted by (count - 1) / count of the width.
  const uint32_t shift = count > 0 ? static_cast<uint32_t>(uint64_t{width} * index / count) : 0;
  const uint32_t filled =
      count > 0 ? static_cast<uint32_t>(uint64_t{width} * (index + 1) / count) : width;
  uint8_t gray[3];
  for (uint32_t row = 0; row < height; ++row) {
    for (uint32_t x = 0; x < width; ++x) {
      const uint8_t* rgb = nullptr;
      if (row < height * 2 / 3) {
        const uint32_t at = (x + width - shift) % width;
        rgb = kBars[at * 8 / width];
      } else if (row < height * 5 / 6) {
        gray[0] = gray[1] = gray[2] = static_cast<uint8_t>(width > 1 ? x * 255 / (width - 1) : 0);
        rgb = gray;
      } else {
        rgb = x < filled ? kDone : kToDo;
      }
      uint8_t u = 0;
      uint8_t v = 0;
      RgbToYuv(rgb, yPlane[size_t{width} * row + x], u, v);
      // Each chroma sample takes the colour of the top-left pixel of its 2x2 block.
      if (row % 2 == 0 && x % 2 == 0) {
        uPlane[size_t{chromaWidth} * (row / 2) + x / 2] = u;
        vPlane[size_t{chromaWidth} * (row / 2) + x / 2] = v;
      }
    }
  }
}

bool WritePng(const std::string& path, const RgbImage& image, std::string& error) {
  const size_t rowBytes = size_t{image.width} * 3;
  if (image.width == 0 || image.height == 0 || image.pixels.size() < rowBytes * image.height) {
    error = "empty picture";
    return false;
  }
  // Every row gets filter type 0 (none) in front of it.
  std::vector<uint8_t> raw;
  raw.reserve((rowBytes + 1) * image.height);
  for (uint32_t row = 0; row < image.height; ++row) {
    raw.push_back(0);
    const uint8_t* pixels = image.pixels.data() + rowBytes * row;
    raw.insert(raw.end(), pixels, pixels + rowBytes);
  }
  uLongf packedSize = compressBound(static_cast<uLong>(raw.size()));
  std::vector<uint8_t> packed(packedSize);
  if (compress2(packed.data(), &packedSize, raw.data(), static_cast<uLong>(raw.size()), 6) !=
      Z_OK) {
    error = "compression failed";
    return false;
  }

  std::vector<uint8_t> file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  std::vector<uint8_t> header;
  Put32(header, image.width);
  Put32(header, image.height);
  // 8 bits a sample, colour type 2 (RGB), deflate, adaptive filtering, no interlace.
  header.insert(header.end(), {8, 2, 0, 0, 0});
  PutChunk(file, "IHDR", header.data(), header.size());
  PutChunk(file, "IDAT", packed.data(), packedSize);
  PutChunk(file, "IEND", nullptr, 0);

  FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) {
    error = std::string("cannot write ") + path + ": " + std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(file.data(), 1, file.size(), out) == file.size();
  const bool closed = std::fclose(out) == 0;
  if (!written || !closed) {
    error = "cannot write " + path;
    return false;
  }
  return true;
}

void PasteScaled(const RgbImage& from, RgbImage& into, uint32_t x, uint32_t y, uint32_t width,
                 uint32_t height) {
  if (from.width == 0 || from.height == 0) {
    return;
  }
  // The largest size of from's shape inside the box.
  uint32_t w = width;
  uint32_t h = static_cast<uint32_t>(uint64_t{from.height} * width / from.width);
  if (h > height) {
    h = height;
    w = static_cast<uint32_t>(uint64_t{from.width} * height / from.height);
  }
  const uint32_t left = x + (width - w) / 2;
  const uint32_t top = y + (height - h) / 2;
  for (uint32_t row = 0; row < h && top + row < into.height; ++row) {
    const uint32_t sourceRow = static_cast<uint32_t>(uint64_t{row} * from.height / h);
    for (uint32_t col = 0; col < w && left + col < into.width; ++col) {
      const uint32_t sourceCol = static_cast<uint32_t>(uint64_t{col} * from.width / w);
      const uint8_t* s = &from.pixels[(size_t{sourceRow} * from.width + sourceCol) * 3];
      uint8_t* d = &into.pixels[(size_t{top + row} * into.width + left + col) * 3];
      d[0] = s[0];
      d[1] = s[1];
      d[2] = s[2];
    }
  }
}
