// Header checks for the still images a test input shows: which format a file is, its
// size and pixel depth, and whether it meets a caller's limits.
#pragma once

#include <cstdint>

// Bits of ImageVerifyRequirement::formatCheckSet.
enum ImageFormatBit : uint32_t {
  IMAGE_FORMAT_JPEG = 1U,
  IMAGE_FORMAT_PNG = 2U,
  IMAGE_FORMAT_BMP = 4U,
};

// All limits are inclusive.
struct ImageVerifyRequirement {
  uint32_t minWidth;
  uint32_t maxWidth;
  uint32_t minHeight;
  uint32_t maxHeight;
  uint32_t minDepth;  // bits per pixel
  uint32_t maxDepth;
  uint32_t formatCheckSet;  // ImageFormatBit values, or-ed
};

class __attribute__((visibility("default"))) ImageUtils {
 public:
  ImageUtils();
  virtual ~ImageUtils();

  // Signature tests on the first bytes of a file; false (and an error log) when data is
  // null or shorter than the signature.
  static bool isJpegFormat(uint8_t* data, uint32_t length);
  static bool isPngFormat(uint8_t* data, uint32_t length);
  static bool isBmpFormat(uint8_t* data, uint32_t length);
  // The value with its four bytes in reverse order (big-endian file fields to host order).
  static uint32_t GetRealValue(uint32_t value);

  // Read the header of a file: 0 and the three outputs on success, 1 otherwise (outputs
  // untouched). depthPix is bits per pixel.
  // Only baseline JPEG (SOF0) is recognised.
  static uint32_t GetJpegInfo(const char* path, uint32_t* width, uint32_t* height,
                              uint32_t* depthPix);
  static uint32_t GetPngInfo(const char* path, uint32_t* width, uint32_t* height,
                             uint32_t* depthPix);
  // Width and height are the stored 32-bit fields taken unsigned: a top-down BMP reports a
  // huge height, which any sane limit then refuses.
  static uint32_t GetBmpInfo(const char* path, uint32_t* width, uint32_t* height,
                             uint32_t* depthPix);

  // 0 when the file is one of the formats in req->formatCheckSet (tried JPEG, PNG, BMP;
  // the first that reads decides), within the limits and of even width and height; else 1.
  static uint32_t VerifyImage(const char* path, const ImageVerifyRequirement* req);
};
