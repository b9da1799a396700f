// The V4L2 camera capturer: finds the camera whose bus identity matches, negotiates pixel
// format, size and frame interval, maps four driver buffers and runs one capture thread
// that hands every filled buffer to the capture manager's callback and queues it back.
//
// Two threads touch a capturer: the host's control thread (Init, CaptureStart, CaptureStop,
// destruction) and its own capture thread (the loop and the callback). m_isCapturing is
// the only state they share while the thread runs; the descriptor and the mappings are set
// before the thread starts and released only after it was joined, so the callback never
// sees an unmapped buffer. The callback must not call back into start or stop.
#pragma once

#include <linux/videodev2.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "camera/tavo_video_vlink_capture_proxy.h"
#include "core/tavo_video_named_thread.h"
#include "trace/tavo_video_log_pacer.h"

// Raw pixel formats the capturer asks the driver for.
enum CaptureFormatLinux : uint32_t {
  CAPTURE_FORMAT_MJPEG = 0,
  CAPTURE_FORMAT_YU12 = 1,  // I420
  CAPTURE_FORMAT_YUYV = 2,
  CAPTURE_FORMAT_NONE = 3,
};

// CaptureFormatLinux to PelvImageFormat; an unknown raw type gives 0, which the capture
// manager refuses.
uint32_t TransCaptureFormat(uint32_t rawVideoType);

class DevCaptureCameraLinux : public IDevCaptureProxy {
 public:
  static constexpr int kMaxDeviceIndex = 63;
  static constexpr uint32_t kBufferCount = 4;
  static constexpr uint32_t kSelectTimeoutSeconds = 1;
  static constexpr const char* kThreadName = "CameraCapture";

  DevCaptureCameraLinux();
  ~DevCaptureCameraLinux() override;
  DevCaptureCameraLinux(const DevCaptureCameraLinux&) = delete;
  DevCaptureCameraLinux& operator=(const DevCaptureCameraLinux&) = delete;

  uint32_t Init(std::string cameraId) override;
  uint32_t CaptureStart(tagCameraCaptureParams* params) override;
  uint32_t CaptureStop() override;
  // Takes effect at the next CaptureStart: the running thread keeps the one it started with.
  void SetCaptureCallback(CaptureFrameCallback callback) override;
  bool IsCaptrueParamSame(const tagCameraCaptureParams* params) const;

  // What start agreed with the driver, for the control thread.
  uint32_t GetWidth() const { return m_width; }
  uint32_t GetHeight() const { return m_height; }
  uint32_t GetRawVideoType() const { return m_rawVideoType; }
  uint32_t GetFrameRate() const { return m_frameRate; }
  bool IsCapturing() const { return m_isCapturing.load(std::memory_order_acquire); }
  int GetFd() const { return m_fd; }

  // Frame-interval choice for a target rate; 0 and `out` set, or 1. `e` holds the driver's
  // answer for index 0 and is advanced by the discrete enumeration.
  uint32_t FramerateNegociate(uint32_t targetFps, v4l2_frmivalenum& e, v4l2_fract& out);
  uint32_t DealDiscreteFramerate(float target, v4l2_frmivalenum& e, v4l2_fract& out);
  uint32_t DealStepFramerate(float target, const v4l2_frmivalenum& e, v4l2_fract& out);

 private:
  struct MappedBuffer {
    void* start = nullptr;
    size_t length = 0;
  };

  uint32_t OpenCapture();
  uint32_t SetCaptureParams(const tagCameraCaptureParams* params);
  uint32_t SetVideoFormat(v4l2_format& format);
  uint32_t SetCaptureFramerate(uint32_t fourcc, const tagCameraCaptureParams* params);
  uint32_t CreateCaptureBuffers();
  uint32_t StartCaptureStream(int fd);
  // Unmaps every buffer and closes the device; safe when nothing is open.
  void ReleaseDevice();
  void CaptureLoop(const CaptureFrameCallback& callback);
  void CaptureStep(const CaptureFrameCallback& callback);
  void Capturing(const CaptureFrameCallback& callback);
  void StatusAbnormalCnt();

  int m_fd = -1;
  std::string m_cameraId;
  uint32_t m_width = 0;
  uint32_t m_height = 0;
  uint32_t m_rawVideoType = CAPTURE_FORMAT_NONE;
  uint32_t m_frameRate = 0;
  std::vector<MappedBuffer> m_buffers;
  NamedThread m_captureThread{kThreadName};
  std::atomic<bool> m_isCapturing{false};
  CaptureFrameCallback m_captureCallback;
  // Capture-thread state: wait failures since the last reset, and the run of equal dequeue
  // failures (their log lines are paced).
  uint32_t m_selectErrorCnt = 0;
  uint32_t m_selectTimeoutCnt = 0;
  uint32_t m_notReadyCnt = 0;
  uint32_t m_abnormalTotal = 0;
  vlink::LogPacer m_dequeueErrorLog;  // counts one error code; another starts over
  int m_lastDequeueError = 0;
};
