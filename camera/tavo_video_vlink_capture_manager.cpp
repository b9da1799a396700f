#include "camera/tavo_video_vlink_capture_manager.h"

#include <libyuv.h>

#include <cstdlib>
#include <cstring>

#include "core/tavo_video_os_seams.h"
#include "platform/adapt_common/pelv_trace.h"
#include "platform/adapt_common/safe_string.h"
#include "platform/adapt_common/stream_qi.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

constexpr uint32_t kQiKindCapture = 2;

// The process-wide manager number; changed only by Init on the control thread.
std::atomic<uint32_t> g_instanceCounter{0};

libyuv::RotationMode RotationModeOf(uint32_t angle) {
  switch (angle) {
    case PELV_ROTATION_90:
      return libyuv::kRotate90;
    case PELV_ROTATION_180:
      return libyuv::kRotate180;
    case PELV_ROTATION_270:
      return libyuv::kRotate270;
    default:
      return libyuv::kRotate0;
  }
}

int Int(uint32_t value) { return static_cast<int>(value); }

}  // namespace

// A conversion failure's line, unless the frame path keeps this frame quiet.
#define FRAME_ERR(fmt, ...)                     \
  do {                                          \
    if (!m_quietFrame) {                        \
      VLOG_ERR(fmt __VA_OPT__(, ) __VA_ARGS__); \
    }                                           \
  } while (0)

namespace {

// I420 planes of a block packed for width x height with strides width and width/2.
struct I420Planes {
  uint8_t* y;
  uint8_t* u;
  uint8_t* v;
  int strideY;
  int strideUv;
};

I420Planes PlanesOf(uint8_t* block, uint32_t width, uint32_t height) {
  const uint32_t lumaSize = width * height;
  return I420Planes{block, block + lumaSize, block + lumaSize + lumaSize / 4, Int(width),
                    Int(width / 2)};
}

}  // namespace

std::unique_ptr<CsnProxy> CreateCsnProxy() { return nullptr; }

DevCaptureManager::DevCaptureManager() = default;

DevCaptureManager::~DevCaptureManager() {
  {
    // A capture thread still running drops its frames from here on; the capturer joins it
    // when it goes below.
    std::lock_guard<std::recursive_mutex> lock(m_captureMutex);
    m_isCapturing.store(false, std::memory_order_release);
    CaptureQiDestory();
    m_captureCallback = nullptr;
  }
  m_csnProxy.reset();
  m_devCaptureProxy.reset();
}

void DevCaptureManager::SetDevCaptureProxy(std::unique_ptr<IDevCaptureProxy> proxy) {
  std::lock_guard<std::recursive_mutex> lock(m_captureMutex);
  m_devCaptureProxy = std::move(proxy);
}

uint32_t DevCaptureManager::Init(std::string cameraId) {
  if (!m_devCaptureProxy) {
    m_devCaptureProxy = CreateDevCaptureProxy();
    if (!m_devCaptureProxy) {
      VLOG_ERR("CreateDevCaptureProxy fail");
      return 1;
    }
  }
  m_csnProxy = CreateCsnProxy();
  if (m_csnProxy) {
    m_csnProxy->Initialize();
  }
  const std::string id = cameraId;
  if (m_devCaptureProxy->Init(std::move(cameraId)) != 0) {
    VLOG_ERR("m_devCaptureProxy Init fail");
    return 1;
  }
  m_devCaptureProxy->SetCaptureCallback(
      [this](_PEL_V_FRAME& frame) { return OnCaptureCbkFrame(frame); });
  {
    // The frame path reports to the stream under this lock.
    std::lock_guard<std::recursive_mutex> lock(m_captureMutex);
    m_instanceNo = g_instanceCounter.fetch_add(1, std::memory_order_relaxed);
    m_qiStreamId = m_instanceNo;
    // A stream left from an earlier Init is closed first, so none leaks.
    CaptureQiDestory();
    CaptureQiCreate();
  }
  VLOG_INF("DevCaptureManager Init success, cameraId = %s", id.c_str());
  return 0;
}

uint32_t DevCaptureManager::CaptureStart(tagCameraCaptureParams* params) {
  if (!m_devCaptureProxy) {
    VLOG_ERR("m_devCaptureProxy is null");
    return 1;
  }
  if (params == nullptr) {
    VLOG_ERR("CaptureStart params is null");
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_captureMutex);
  VLOG_INF("CaptureStart uiWidth[%u], uiHeight[%u], uiFrameRate[%u], viPort[%u]", params->uiWidth,
           params->uiHeight, params->uiFrameRate, params->viPort);
  m_isCapturing.store(true, std::memory_order_release);
  return m_devCaptureProxy->CaptureStart(params);
}

uint32_t DevCaptureManager::CaptureStop() {
  if (!m_devCaptureProxy) {
    VLOG_ERR("m_devCaptureProxy is null");
    return 1;
  }
  std::lock_guard<std::recursive_mutex> lock(m_captureMutex);
  VLOG_INF("CaptureStop");
  m_isCapturing.store(false, std::memory_order_release);
  return m_devCaptureProxy->CaptureStop();
}

void DevCaptureManager::SetCaptureCallback(CaptureFrameCallback callback) {
  std::lock_guard<std::recursive_mutex> lock(m_captureMutex);
  m_captureCallback = std::move(callback);
}

int DevCaptureManager::OnCaptureCbkFrame(_PEL_V_FRAME& frame) {
  std::unique_lock<std::recursive_mutex> lock(m_captureMutex, std::try_to_lock);
  if (!lock.owns_lock() || !m_isCapturing.load(std::memory_order_acquire)) {
    if (lock.owns_lock()) {
      lock.unlock();
    }
    if (m_droppedFrames.Due()) {
      VLOG_ERR("m_captureMutex lock fail or capture is stopped");
    }
    return 1;
  }
  m_droppedFrames.Reset();
  StreamQiIn(m_qiHandle, frame.data, frame.dataSize);
  const bool quiet = !m_failedFrames.NextDue();
  m_quietFrame = quiet;
  const uint32_t converted = FrameConvert(frame);
  m_quietFrame = false;
  if (converted != 0) {
    m_failedFrames.Due();
    lock.unlock();
    if (!quiet) {
      VLOG_ERR("FrameConvert fail");
    }
    return 1;
  }
  m_failedFrames.Reset();
  StreamQiOut(m_qiHandle, frame.data, frame.dataSize);
  CaptureFrameCallback callback = m_captureCallback;
  lock.unlock();
  return callback ? callback(frame) : 0;
}

uint32_t DevCaptureManager::FrameConvert(_PEL_V_FRAME& frame) {
  return frame.copyOnly != 0 ? CopyNv21(frame) : ConvertToI420(frame);
}

uint32_t DevCaptureManager::ConvertToI420(_PEL_V_FRAME& frame) {
  if (frame.width > kMaxFrameSide || frame.height > kMaxFrameSide) {
    FRAME_ERR("fetal! frame size invalid [%u-%u].", frame.width, frame.height);
    return kFailed;
  }
  if (frame.data == nullptr) {
    FRAME_ERR("frame data is null.");
    return kFailed;
  }
  switch (frame.format) {
    case PELV_IMAGE_FORMAT_I420:
      return CopyYuv420(frame);
    case PELV_IMAGE_FORMAT_YUY2:
      return TransYuy2ToYuv420(frame);
    case PELV_IMAGE_FORMAT_NV12:
      return TransNv12ToYuv420(frame);
    case PELV_IMAGE_FORMAT_NV21:
      return TransNv21ToYuv420(frame);
    case PELV_IMAGE_FORMAT_NV12_ROTATE:
      return TransNV12ToI420Rotate(frame);
    case PELV_IMAGE_FORMAT_RGB24:
      return TransRGB24ToYuv420(frame);
    case PELV_IMAGE_FORMAT_ABGR:
      return TransAbgrToYuv420(frame);
    case PELV_IMAGE_FORMAT_MJPEG:
      return TransMjpgToYuv420(frame);
    default:
      return 1;
  }
}

uint32_t DevCaptureManager::BlockSize(uint32_t width, uint32_t height) {
  const uint32_t rounded = (height + 15U) / 16U * 16U;
  return rounded * width * 3U / 2U;
}

bool DevCaptureManager::HasBytes(const _PEL_V_FRAME& frame, uint64_t needed) const {
  if (frame.dataSize < needed) {
    FRAME_ERR("frame data too short [%u < %llu], format[%u] [%u-%u].", frame.dataSize,
              static_cast<unsigned long long>(needed), frame.format, frame.width, frame.height);
    return false;
  }
  return true;
}

uint8_t* DevCaptureManager::NewBlock(uint32_t width, uint32_t height, uint32_t& size) {
  size = BlockSize(width, height);
  auto* block =
      size != 0 ? static_cast<uint8_t*>(Seam<FrameMemory>::Get().Allocate(size)) : nullptr;
  if (block == nullptr) {
    FRAME_ERR("alloc frame block failed, size[%u] [%u-%u].", size, width, height);
  }
  return block;
}

void DevCaptureManager::TakeBlock(_PEL_V_FRAME& frame, uint8_t* block, uint32_t size) {
  frame.data = block;
  frame.dataSize = size;
  frame.format = PELV_IMAGE_FORMAT_I420;
}

void DevCaptureManager::ReleaseBuffer(void* data) { std::free(data); }

uint32_t DevCaptureManager::CopyYuv420(_PEL_V_FRAME& frame) {
  const uint64_t picture = uint64_t{frame.width} * frame.height * 3 / 2;
  if (!HasBytes(frame, picture)) {
    return 1;
  }
  uint32_t size = 0;
  uint8_t* block = NewBlock(frame.width, frame.height, size);
  if (block == nullptr) {
    return 1;
  }
  // A device may report padding past the picture; the block keeps what fits.
  std::memcpy(block, frame.data, std::min(frame.dataSize, size));
  TakeBlock(frame, block, size);
  return 0;
}

uint32_t DevCaptureManager::CopyNv21(_PEL_V_FRAME& frame) {
  if (frame.data == nullptr || frame.dataSize == 0) {
    FRAME_ERR("frame data is null.");
    return 1;
  }
  auto* block = static_cast<uint8_t*>(Seam<FrameMemory>::Get().Allocate(frame.dataSize));
  if (block == nullptr) {
    FRAME_ERR("alloc frame block failed, size[%u] [%u-%u].", frame.dataSize, frame.width,
              frame.height);
    return 1;
  }
  std::memcpy(block, frame.data, frame.dataSize);
  frame.data = block;
  return 0;
}

uint32_t DevCaptureManager::ConvertIntoBlock(_PEL_V_FRAME& frame, uint64_t needed,
                                             const char* failure,
                                             const std::function<int(uint8_t* block)>& convert) {
  if (!HasBytes(frame, needed)) {
    return 1;
  }
  uint32_t size = 0;
  uint8_t* block = NewBlock(frame.width, frame.height, size);
  if (block == nullptr) {
    return 1;
  }
  const int ret = convert(block);
  if (ret != 0) {
    ReleaseBuffer(block);
    FRAME_ERR("%s%d", failure, ret);
    return 1;
  }
  TakeBlock(frame, block, size);
  return 0;
}

uint32_t DevCaptureManager::TransPackedToYuv420(_PEL_V_FRAME& frame, uint32_t bytesPerPixel,
                                                uint64_t extraBytes, PackedToI420 convert,
                                                const char* failure) {
  const uint64_t needed = uint64_t{frame.width} * bytesPerPixel * frame.height + extraBytes;
  return ConvertIntoBlock(frame, needed, failure, [&](uint8_t* block) {
    const I420Planes out = PlanesOf(block, frame.width, frame.height);
    return convert(frame.data, Int(frame.width * bytesPerPixel), out.y, out.strideY, out.u,
                   out.strideUv, out.v, out.strideUv, Int(frame.width), Int(frame.height));
  });
}

uint32_t DevCaptureManager::TransYuy2ToYuv420(_PEL_V_FRAME& frame) {
  // Rows of width*2 bytes; an odd width reads a whole last pixel pair.
  return TransPackedToYuv420(frame, 2, uint64_t{frame.width & 1U} * 2, libyuv::YUY2ToI420,
                             "convert yuy2 to yuv420 fail. ret = ");
}

namespace {

// Bytes an NV12/NV21 frame with luma and chroma stride `width` needs.
uint64_t SemiPlanarBytes(uint32_t width, uint32_t height) {
  return uint64_t{width} * height + uint64_t{width} * ((height + 1) / 2) + (width & 1U);
}

}  // namespace

uint32_t DevCaptureManager::TransSemiPlanarToYuv420(_PEL_V_FRAME& frame, SemiPlanarToI420 convert,
                                                    const char* failure) {
  return ConvertIntoBlock(frame, SemiPlanarBytes(frame.width, frame.height), failure,
                          [&](uint8_t* block) {
                            const I420Planes out = PlanesOf(block, frame.width, frame.height);
                            const uint8_t* chroma = frame.data + size_t{frame.width} * frame.height;
                            return convert(frame.data, Int(frame.width), chroma, Int(frame.width),
                                           out.y, out.strideY, out.u, out.strideUv, out.v,
                                           out.strideUv, Int(frame.width), Int(frame.height));
                          });
}

uint32_t DevCaptureManager::TransNv12ToYuv420(_PEL_V_FRAME& frame) {
  return TransSemiPlanarToYuv420(frame, libyuv::NV12ToI420, "convert NV12 to yuv420 fail. ret = ");
}

uint32_t DevCaptureManager::TransNv21ToYuv420(_PEL_V_FRAME& frame) {
  const uint32_t result =
      TransSemiPlanarToYuv420(frame, libyuv::NV21ToI420, "convert Nv21 to yuvI420 fail. ret = ");
  if (result == 0) {
    frame.stride = frame.width;
  }
  return result;
}

uint32_t DevCaptureManager::TransNV12ToI420Rotate(_PEL_V_FRAME& frame) {
  if (!HasBytes(frame, SemiPlanarBytes(frame.width, frame.height))) {
    return 1;
  }
  const libyuv::RotationMode mode = RotationModeOf(frame.rotation);
  const bool turned = mode == libyuv::kRotate90 || mode == libyuv::kRotate270;
  const uint32_t outWidth = turned ? frame.height : frame.width;
  const uint32_t outHeight = turned ? frame.width : frame.height;
  // The block is sized for the input; an odd input width turned into an odd output height
  // needs the output's rounding too, or the last chroma row lands past the block.
  uint32_t size = 0;
  uint8_t* block = BlockSize(outWidth, outHeight) > BlockSize(frame.width, frame.height)
                       ? NewBlock(outWidth, outHeight, size)
                       : NewBlock(frame.width, frame.height, size);
  if (block == nullptr) {
    return 1;
  }
  const I420Planes out = PlanesOf(block, outWidth, outHeight);
  const uint8_t* uv = frame.data + size_t{frame.width} * frame.height;
  const int ret = libyuv::NV12ToI420Rotate(frame.data, Int(frame.width), uv, Int(frame.width),
                                           out.y, out.strideY, out.u, out.strideUv, out.v,
                                           out.strideUv, Int(frame.width), Int(frame.height), mode);
  if (ret != 0) {
    ReleaseBuffer(block);
    FRAME_ERR("convert NV12 to yuv420 rotate fail. ret = %d", ret);
    return 1;
  }
  TakeBlock(frame, block, size);
  frame.width = outWidth;
  frame.height = outHeight;
  frame.rotation = 0;
  return 0;
}

uint32_t DevCaptureManager::TransRGB24ToYuv420(_PEL_V_FRAME& frame) {
  return TransPackedToYuv420(frame, 3, 0, libyuv::RGB24ToI420,
                             "convert RGB24 to yuv420 fail. ret = ");
}

uint32_t DevCaptureManager::TransAbgrToYuv420(_PEL_V_FRAME& frame) {
  return TransPackedToYuv420(frame, 4, 0, libyuv::ABGRToI420,
                             "convert argb to yuvI420 fail. ret = ");
}

uint32_t DevCaptureManager::TransMjpgToYuv420(_PEL_V_FRAME& frame) {
  if (!HasBytes(frame, 1)) {
    return 1;
  }
  uint32_t size = 0;
  uint8_t* block = NewBlock(frame.width, frame.height, size);
  if (block == nullptr) {
    return 1;
  }
  const I420Planes out = PlanesOf(block, frame.width, frame.height);
  // libyuv refuses a picture whose own size is not the frame's.
  const int ret = libyuv::MJPGToI420(frame.data, frame.dataSize, out.y, out.strideY, out.u,
                                     out.strideUv, out.v, out.strideUv, Int(frame.width),
                                     Int(frame.height), Int(frame.width), Int(frame.height));
  if (ret != 0) {
    ReleaseBuffer(block);
    FRAME_ERR("ConvertToI420 fail. ret = %d", ret);
    return 1;
  }
  TakeBlock(frame, block, size);
  return 0;
}

uint32_t DevCaptureManager::TransRotate(_PEL_V_FRAME& frame) {
  const libyuv::RotationMode mode = RotationModeOf(frame.rotation);
  if (mode == libyuv::kRotate0) {
    return 0;
  }
  if (frame.data == nullptr || frame.width > kMaxFrameSide || frame.height > kMaxFrameSide ||
      !HasBytes(frame, uint64_t{frame.width} * frame.height * 3 / 2)) {
    FRAME_ERR("I420Rotate fail. ret = %d", -1);
    return 1;
  }
  const bool turned = mode != libyuv::kRotate180;
  const uint32_t outWidth = turned ? frame.height : frame.width;
  const uint32_t outHeight = turned ? frame.width : frame.height;
  uint32_t size = 0;
  uint8_t* block = NewBlock(outWidth, outHeight, size);
  if (block == nullptr) {
    return 1;
  }
  const I420Planes in = PlanesOf(frame.data, frame.width, frame.height);
  const I420Planes out = PlanesOf(block, outWidth, outHeight);
  const int ret = libyuv::I420Rotate(in.y, in.strideY, in.u, in.strideUv, in.v, in.strideUv, out.y,
                                     out.strideY, out.u, out.strideUv, out.v, out.strideUv,
                                     Int(frame.width), Int(frame.height), mode);
  if (ret != 0) {
    ReleaseBuffer(block);
    FRAME_ERR("I420Rotate fail. ret = %d", ret);
    return 1;
  }
  ReleaseBuffer(frame.data);
  TakeBlock(frame, block, size);
  frame.width = outWidth;
  frame.height = outHeight;
  frame.rotation = 0;
  return 0;
}

uint32_t DevCaptureManager::MirrorYuvI420(_PEL_V_FRAME& frame) {
  int ret = -1;
  uint8_t* block = nullptr;
  uint32_t size = 0;
  if (frame.data != nullptr && frame.width <= kMaxFrameSide && frame.height <= kMaxFrameSide &&
      HasBytes(frame, uint64_t{frame.width} * frame.height * 3 / 2)) {
    block = NewBlock(frame.width, frame.height, size);
  }
  if (block != nullptr) {
    const I420Planes in = PlanesOf(frame.data, frame.width, frame.height);
    const I420Planes out = PlanesOf(block, frame.width, frame.height);
    ret = libyuv::I420Mirror(in.y, in.strideY, in.u, in.strideUv, in.v, in.strideUv, out.y,
                             out.strideY, out.u, out.strideUv, out.v, out.strideUv,
                             Int(frame.width), Int(frame.height));
  }
  if (ret != 0) {
    ReleaseBuffer(block);
    FRAME_ERR("libyuv::I420Mirror failed [%d]!", ret);
    PELV_Trace(1, 0, "DevCaptureManager", __func__, __LINE__, "libyuv::I420Mirror failed [%d]!",
               ret);
    return 1;
  }
  ReleaseBuffer(frame.data);
  TakeBlock(frame, block, size);
  frame.mirror = 0;
  return 0;
}

uint32_t DevCaptureManager::SetIvrParam(int channel, const TavoVideoOverlayTextInfo* info) {
  if (!m_csnProxy) {
    VLOG_ERR("m_csnProxy is null");
    return 1;
  }
  if (info == nullptr || info->overlayText[0] == '\0') {
    VLOG_ERR("overlayText is null");
    return 1;
  }
  TavoVideoOverlayTextInfo text{};
  // The host's text need not be terminated within its 256 bytes: the copy is bounded.
  char bounded[kOverlayTextLength + 1] = {};
  std::memcpy(bounded, info->overlayText, kOverlayTextLength);
  const errno_t copied = strcpy_s(text.overlayText, sizeof(text.overlayText), bounded);
  if (copied != 0) {
    VLOG_ERR("call strcpy_s failed! retError = %d", static_cast<int>(copied));
    return 1;
  }
  text.overlayKind = info->overlayKind;
  text.overlayWord1 = info->overlayWord1;
  text.overlayWord2 = info->overlayWord2;
  text.showTime = 0;
  if (m_csnProxy->SetOverlayText(channel, &text) != 0) {
    VLOG_ERR("SetIvrParam infoText fail!");
    return 1;
  }
  if (info->showTime != 0) {
    TavoVideoOverlayTextInfo time{};
    time.overlayKind = info->overlayKind;
    time.overlayWord1 = info->overlayWord1;
    time.overlayWord2 = info->overlayWord2;
    time.showTime = 1;
    if (m_csnProxy->SetOverlayText(channel, &time) != 0) {
      VLOG_ERR("SetIvrParam infoTime fail!");
      return 1;
    }
  }
  return 0;
}

uint32_t DevCaptureManager::CloseIvr() {
  if (!m_csnProxy) {
    VLOG_INF("m_csnProxy is null");
    return 1;
  }
  return static_cast<uint32_t>(m_csnProxy->CloseOverlay());
}

uint32_t DevCaptureManager::CaptureQiCreate() {
  StreamQiCreateParam param{};
  param.print = StreamQiPrint;
  param.streamId = m_qiStreamId;
  if (strcpy_s(param.streamName, sizeof(param.streamName), "capture") != 0) {
    return kFailed;
  }
  param.kind = kQiKindCapture;
  m_qiHandle = StreamQiCreate(&param);
  return m_qiHandle != nullptr ? 0 : kFailed;
}

uint32_t DevCaptureManager::CaptureQiDestory() {
  if (m_qiHandle == nullptr) {
    return kFailed;
  }
  if (StreamQiDelete(m_qiHandle) != 0) {
    return kFailed;
  }
  m_qiHandle = nullptr;
  return 0;
}
