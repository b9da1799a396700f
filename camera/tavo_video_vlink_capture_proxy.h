// The capturer interface the capture manager drives: one implementation per platform.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "camera/tavo_video_vlink_capture_frame.h"

class IDevCaptureProxy {
 public:
  virtual ~IDevCaptureProxy() = default;
  // Remembers the camera identity; touches no device. 0 on success.
  virtual uint32_t Init(std::string cameraId) = 0;
  // Opens the camera, negotiates format, size and rate and starts the capture thread. 0 or 1.
  virtual uint32_t CaptureStart(tagCameraCaptureParams* params) = 0;
  // Stops the capture thread (joins it) and closes the device. 0 or 1.
  virtual uint32_t CaptureStop() = 0;
  // The function called on the capture thread for every frame; set before CaptureStart.
  virtual void SetCaptureCallback(CaptureFrameCallback callback) = 0;
  virtual void ReleaseBuffer(void* /*data*/) {}
};

// The capturer of this platform (V4L2 on Linux).
std::unique_ptr<IDevCaptureProxy> CreateDevCaptureProxy();
