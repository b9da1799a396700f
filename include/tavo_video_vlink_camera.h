// Host records of the camera input: its capture configuration and the text-overlay request.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kCameraIdLength = 192;

// The camera input's configuration, filled by the camera component's create row and kept by
// the camera node. cameraId is matched byte for byte against the V4L2 bus information.
struct tagCameraCaptureParams {
  uint32_t uiWidth;                // pixels
  uint32_t uiHeight;               // pixels
  uint32_t uiFrameRate;            // frames per second
  char cameraId[kCameraIdLength];  // NUL-terminated device identity
  uint32_t reserved;               // always 0
  uint32_t imgNo;                  // stamped on every frame as its source image number
  uint32_t viPort;                 // input port number
};
static_assert(sizeof(tagCameraCaptureParams) == 216);
static_assert(offsetof(tagCameraCaptureParams, cameraId) == 12);
static_assert(offsetof(tagCameraCaptureParams, imgNo) == 208);

constexpr size_t kOverlayTextLength = 256;

// A text-overlay request, 280 bytes without padding. The word at offset 0 and the two
// words at 260 and 268 belong to the overlay service and are passed through unchanged.
struct __attribute__((packed)) TavoVideoOverlayTextInfo {
  uint32_t overlayKind;
  char overlayText[kOverlayTextLength];  // NUL-terminated
  uint64_t overlayWord1;
  uint64_t overlayWord2;
  uint8_t showTime;  // non-zero: also show a time overlay
  uint8_t reserved[3];
};
static_assert(sizeof(TavoVideoOverlayTextInfo) == 280);
static_assert(offsetof(TavoVideoOverlayTextInfo, overlayText) == 4);
static_assert(offsetof(TavoVideoOverlayTextInfo, overlayWord1) == 260);
static_assert(offsetof(TavoVideoOverlayTextInfo, overlayWord2) == 268);
static_assert(offsetof(TavoVideoOverlayTextInfo, showTime) == 276);
