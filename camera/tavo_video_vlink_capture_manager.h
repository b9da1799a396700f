// The capture manager sits between the camera node and the capturer: it owns the capturer,
// starts and stops it, converts every raw frame it delivers into a fresh I420 heap block
// (libyuv) and hands that block to the node's callback, which owns it from then on and
// gives it back with ReleaseBuffer. Around each conversion it reports the frame to the
// platform's stream quality-indicator service. It also fronts the text-overlay proxy.
//
// Threads: Init, CaptureStart, CaptureStop and the overlay requests run on the host's
// control thread; OnCaptureCbkFrame and the converters on the capture thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "camera/tavo_video_vlink_capture_proxy.h"
#include "trace/tavo_video_log_pacer.h"

// The text-overlay interface of the platform. Linux has none (CreateCsnProxy gives an
// empty owner), so every overlay request is refused there.
class CsnProxy {
 public:
  virtual ~CsnProxy() = default;
  virtual void Initialize() = 0;
  virtual int SetOverlayText(int channel, const TavoVideoOverlayTextInfo* info) = 0;
  virtual int RefreshOverlay() = 0;  // not used by the capture manager
  virtual int CloseOverlay() = 0;
};

std::unique_ptr<CsnProxy> CreateCsnProxy();

class DevCaptureManager {
 public:
  static constexpr uint32_t kMaxFrameSide = 8192;
  static constexpr uint32_t kFailed = 0xFFFFFFFFU;

  DevCaptureManager();
  ~DevCaptureManager();
  DevCaptureManager(const DevCaptureManager&) = delete;
  DevCaptureManager& operator=(const DevCaptureManager&) = delete;

  // Creates the capturer on first use (or keeps the one given to SetDevCaptureProxy), makes
  // a new overlay proxy, hands the capturer the camera identity and this manager's frame
  // function, and opens a quality-indicator stream. 0 or 1.
  uint32_t Init(std::string cameraId);
  uint32_t CaptureStart(tagCameraCaptureParams* params);
  // Holds the capture lock while the capturer joins its thread: frames arriving meanwhile
  // are dropped, never waited for.
  uint32_t CaptureStop();
  void SetCaptureCallback(CaptureFrameCallback callback);

  // The capturer's per-frame function (capture thread): converts, then calls the callback
  // without the capture lock. 0, 1 when the frame was dropped, or the callback's result.
  int OnCaptureCbkFrame(_PEL_V_FRAME& frame);

  uint32_t FrameConvert(_PEL_V_FRAME& frame);
  uint32_t ConvertToI420(_PEL_V_FRAME& frame);
  uint32_t CopyYuv420(_PEL_V_FRAME& frame);
  uint32_t CopyNv21(_PEL_V_FRAME& frame);
  // One packed format (bytesPerPixel a pixel, rows width*bytesPerPixel apart) to I420;
  // `failure` is the log text before the converter's code.
  using PackedToI420 = int (*)(const uint8_t*, int, uint8_t*, int, uint8_t*, int, uint8_t*, int,
                               int, int);
  // Converts into a new block of the frame's size, which becomes the frame's memory; a
  // frame shorter than `needed` or a failed conversion (logged with `failure`) gives 1.
  uint32_t ConvertIntoBlock(_PEL_V_FRAME& frame, uint64_t needed, const char* failure,
                            const std::function<int(uint8_t* block)>& convert);
  uint32_t TransPackedToYuv420(_PEL_V_FRAME& frame, uint32_t bytesPerPixel, uint64_t extraBytes,
                               PackedToI420 convert, const char* failure);
  // NV12 or NV21 (luma, then interleaved chroma, both with stride width) to I420.
  using SemiPlanarToI420 = int (*)(const uint8_t*, int, const uint8_t*, int, uint8_t*, int,
                                   uint8_t*, int, uint8_t*, int, int, int);
  uint32_t TransSemiPlanarToYuv420(_PEL_V_FRAME& frame, SemiPlanarToI420 convert,
                                   const char* failure);
  uint32_t TransYuy2ToYuv420(_PEL_V_FRAME& frame);
  uint32_t TransNv12ToYuv420(_PEL_V_FRAME& frame);
  uint32_t TransNv21ToYuv420(_PEL_V_FRAME& frame);
  uint32_t TransNV12ToI420Rotate(_PEL_V_FRAME& frame);
  uint32_t TransRGB24ToYuv420(_PEL_V_FRAME& frame);
  uint32_t TransAbgrToYuv420(_PEL_V_FRAME& frame);
  uint32_t TransMjpgToYuv420(_PEL_V_FRAME& frame);
  // Whole-frame operations on a converted I420 frame; they free its previous block on
  // success. TransRotate with rotation 0 leaves the frame as it is.
  uint32_t TransRotate(_PEL_V_FRAME& frame);
  uint32_t MirrorYuvI420(_PEL_V_FRAME& frame);

  // Frees a block made by a converter; null is ignored.
  static void ReleaseBuffer(void* data);
  // Bytes of the block a converter allocates for a width x height frame: the height
  // rounded up to 16 lines, times width x 3/2.
  static uint32_t BlockSize(uint32_t width, uint32_t height);

  uint32_t SetIvrParam(int channel, const TavoVideoOverlayTextInfo* info);
  uint32_t CloseIvr();

  uint32_t CaptureQiCreate();
  uint32_t CaptureQiDestory();

  // For platforms (and tests) that bring their own capturer or overlay proxy. The capturer
  // must be given before Init.
  void SetDevCaptureProxy(std::unique_ptr<IDevCaptureProxy> proxy);
  void SetCsnProxy(std::unique_ptr<CsnProxy> proxy) { m_csnProxy = std::move(proxy); }
  uint32_t GetInstanceNo() const { return m_instanceNo; }
  void* GetQiHandle() const { return m_qiHandle; }
  bool IsCapturing() const { return m_isCapturing.load(std::memory_order_acquire); }

 private:
  // Checks that `dataSize` holds `needed` bytes; logs and fails otherwise.
  bool HasBytes(const _PEL_V_FRAME& frame, uint64_t needed) const;
  // Takes a new block for the converted frame, or null (logged).
  uint8_t* NewBlock(uint32_t width, uint32_t height, uint32_t& size);
  // Points the frame at a finished block.
  static void TakeBlock(_PEL_V_FRAME& frame, uint8_t* block, uint32_t size);

  std::unique_ptr<IDevCaptureProxy> m_devCaptureProxy;
  // Guards start, stop and each frame's conversion. Taken blocking by start and stop (which
  // join the capture thread under it), only tried by the frame path. No host callback runs
  // under it; a frame is converted under it but never queued: the node's frame callback,
  // which sends, runs after it is released.
  std::recursive_mutex m_captureMutex;
  std::unique_ptr<CsnProxy> m_csnProxy;
  CaptureFrameCallback m_captureCallback;
  uint32_t m_qiStreamId = 0;
  uint32_t m_instanceNo = 0;
  void* m_qiHandle = nullptr;
  std::atomic<bool> m_isCapturing{false};
  // Frame-path refusals repeat per frame: counted to pace their log lines.
  // Failing frames repeat at the camera's rate: the lines of the first failure in a row and
  // of every 100th after it are written.
  vlink::LogPacer m_droppedFrames;
  vlink::LogPacer m_failedFrames;
  bool m_quietFrame = false;  // capture thread: this frame's conversion lines are paced out
};
