// What the screen node asks of a screen capturer: configure, start, stop, resize, take a
// snapshot; frames come out through a callback as references the capturer's pool gets back
// when their last holder lets go. The X11 capturer is the real one; tests put a fake in
// through the factory seam.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "core/tavo_video_frame_ref.h"
#include "core/tavo_video_seam.h"
#include "core/tavo_video_vlink_vi_node.h"
#include "screen/tavo_video_vlink_screen_types.h"

class ScreenCapturer {
 public:
  // Receives every finished frame on the capture thread, no capturer lock held; 0 when taken.
  using SendFrameCallback = std::function<int(const FrameRef&)>;

  virtual ~ScreenCapturer() = default;

  virtual uint32_t SetCaptureParams(const ViDevInfo& info) = 0;
  virtual uint32_t SetEncodeResolution(uint32_t width, uint32_t height) = 0;
  virtual uint32_t SetCaptureScreenPort(uint32_t port) = 0;
  virtual uint32_t SetCaptureCursorParams(const VlinkCursorParams& params) = 0;
  virtual uint32_t GetCaptureCursorParams(VlinkCursorParams* out) = 0;
  virtual uint32_t SetSendFrameCallback(SendFrameCallback callback) = 0;
  virtual uint32_t Init() = 0;
  virtual uint32_t StartCapture() = 0;
  virtual uint32_t StopCapture() = 0;
  virtual uint32_t CapturePictureImp(const TagTavoVideoSnapshotStorage& storage) = 0;
};

// Makes the screen node's capturers: X11 ones on the real side.
class ScreenCapturerFactory {
 public:
  virtual ~ScreenCapturerFactory() = default;
  virtual std::unique_ptr<ScreenCapturer> Create(uint32_t capturerId) = 0;
  static ScreenCapturerFactory& Real();
};
