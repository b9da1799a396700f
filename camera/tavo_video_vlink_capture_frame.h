// One captured camera frame on its way from the V4L2 capturer through the capture manager
// to the camera node, and the pixel-format codes it carries.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

#include "platform/adapt_common/tavo_video_rgb_convert.h"
#include "tavo_video_vlink_camera.h"

// Pixel format of a camera frame.
enum PelvImageFormat : uint32_t {
  PELV_IMAGE_FORMAT_I420 = 100,
  PELV_IMAGE_FORMAT_YUY2 = 102,
  PELV_IMAGE_FORMAT_NV12 = 104,
  PELV_IMAGE_FORMAT_NV21 = 105,
  PELV_IMAGE_FORMAT_NV12_ROTATE = 106,  // NV12 to be rotated by `rotation` while converting
  PELV_IMAGE_FORMAT_RGB24 = 201,
  PELV_IMAGE_FORMAT_ABGR = 205,  // 32 bits a pixel
  PELV_IMAGE_FORMAT_MJPEG = 300,
  PELV_IMAGE_FORMAT_NONE = 999,  // no usable format
};

// Rotation of a camera frame in degrees: PelvRotationAngle of the platform's conversions.

// Zeroed before it is filled. Before conversion `data` points into a capture buffer the
// capturer owns; after conversion it is a heap block owned by the frame's consumer, which
// gives it back with DevCaptureManager::ReleaseBuffer.
typedef struct _PEL_V_FRAME {
  uint32_t format;  // PelvImageFormat
  uint32_t width;
  uint32_t height;
  uint8_t* data;
  uint32_t dataSize;  // bytes valid at data
  uint32_t stride;    // luma stride in bytes; set by some conversions, else 0
  uint32_t rotation;  // degrees: 0, 90, 180 or 270
  uint8_t mirror;     // non-zero = mirrored
  uint8_t copyOnly;   // non-zero = pass the pixels on as a plain copy
} PEL_V_FRAME;

// The camera identity of a parameter record, read within its 192 bytes whether or not the
// host terminated it.
inline std::string CameraIdOf(const tagCameraCaptureParams& params) {
  return std::string(params.cameraId, strnlen(params.cameraId, sizeof(params.cameraId)));
}

// The per-frame function a capturer calls on its capture thread.
using CaptureFrameCallback = std::function<int(_PEL_V_FRAME&)>;
