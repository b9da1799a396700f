#include "render/tavo_video_vlink_render_adapter.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "platform/adapt_common/pelv_trace.h"
#include "platform/adapt_common/tavo_video_image_convert.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

// Whether the terminal runs on the processor whose display takes RGB; every construction
// reads it again, and Init and RenderSetParams of any adapter follow the latest reading.
std::atomic<bool> g_isSorenProcessor{false};
// Shared by all adapters and never reset: their only use is to thin out the error lines
// of a failure that repeats every frame.
constexpr uint32_t kLogEvery = 1000;
vlink::LogPacer g_callbackFailures(kLogEvery);
vlink::LogPacer g_convertFailures(kLogEvery);

// The adapter whose host callback this thread is in: the callback runs under that adapter's
// lock, and may change its parameters.
thread_local const DevRenderLinuxAdapter* t_inCallback = nullptr;

}  // namespace

DevRenderLinuxAdapter::DevRenderLinuxAdapter(const char* processor) {
  if (processor != nullptr && std::strcmp(processor, "Soren") == 0) {
    g_isSorenProcessor.store(true, std::memory_order_relaxed);
    VLOG_INF("getenv VANTOR_SOREN eq \"Soren\".");
  } else {
    g_isSorenProcessor.store(false, std::memory_order_relaxed);
    VLOG_INF("getenv VANTOR_SOREN failed or it ne \"Soren\".");
  }
}

DevRenderLinuxAdapter::~DevRenderLinuxAdapter() = default;

uint32_t DevRenderLinuxAdapter::CpuTypeOfProcessor() {
  return g_isSorenProcessor.load(std::memory_order_relaxed) ? kCpuTypeRgb : kCpuTypeYuv;
}

void DevRenderLinuxAdapter::LogColorSpace() const {
  if (g_ucOSVLinkTraceLevel.load(std::memory_order_relaxed) >= 3) {
    VLOG_INF("m_colorSpace :%u,%u.", m_cpuType, m_chnParam.params.colorSpace);
  }
}

uint32_t DevRenderLinuxAdapter::Init(tagOS_S_SOFT_VO_CHN_PARAM* param) {
  if (param == nullptr) {
    VLOG_ERR("param is null");
    return 1;
  }
  std::lock_guard<std::mutex> lock(m_frameLock);
  m_chnParam = *param;
  m_winHandle = param->winHandle;
  m_isRender.store(true);
  m_cpuType = CpuTypeOfProcessor();
  m_renderCallback = m_chnParam.params.renderCb;
  LogColorSpace();
  return 0;
}

uint32_t DevRenderLinuxAdapter::RenderSetParams(PelvRenderParams& params) {
  std::unique_lock<std::mutex> lock(m_frameLock, std::defer_lock);
  if (t_inCallback != this) {
    lock.lock();
  }
  m_chnParam.params = params;
  m_renderCallback = params.renderCb;
  m_cpuType = CpuTypeOfProcessor();
  LogColorSpace();
  return 0;
}

uint32_t DevRenderLinuxAdapter::RenderStop() {
  m_isRender.store(false);
  return 0;
}

uint32_t DevRenderLinuxAdapter::RenderFrame(OsvGraphicBuffer* buffer) {
  if (buffer == nullptr) {
    VLOG_ERR("buffer is null");
    return 1;
  }
  // Locked before the callback check: RenderSetParams may be replacing the callback.
  std::lock_guard<std::mutex> lock(m_frameLock);
  if (m_renderCallback == nullptr) {
    VLOG_ERR("m_renderCallback is null");
    return 1;
  }
  if (!m_isRender.load()) {
    VLINK_LOG(0, 2, ::vlink::kToTrace, "[%s][%d]:render has stopped.", __func__, __LINE__);
    return 0;
  }
  if (!m_outImgHeader) {
    // Zeroed so that the bytes no path writes reach the host as zeros.
    m_outImgHeader.reset(new (std::nothrow) TavoVideoRenderImgHeader{});
    if (!m_outImgHeader) {
      VLOG_ERR("no memory for the image header");
      return 1;
    }
  }
  ++m_frameCount;
  uint32_t prepared = 0;
  switch (m_cpuType) {
    case kCpuTypeRgb:
      prepared = RenderRgbHdlPadding(buffer);
      break;
    case kCpuTypeYuv:
      prepared = RenderYuvHdlPadding(buffer);
      break;
    default:
      VLOG_ERR("Get Invalid cpu type[%u], pls check.", m_cpuType);
      return 1;
  }
  TavoVideoRenderImgHeader& header = *m_outImgHeader;
  // A frame that failed to convert is still shown (the previous pixels), but a header
  // without pixels behind it must never reach the host.
  if (header.data == nullptr) {
    return prepared != 0 ? prepared : 1;
  }
  if (vlink::IsPacedTurn(m_frameCount - 1U, kLogEvery)) {
    VLOG_INF("m_outImgHeader %u %d %d %d | %u %u %u %u %u | %u %u %u", WindowId(),
             static_cast<int>(m_cpuType), static_cast<int>(header.format),
             static_cast<int>(header.planeMode), header.headerSize, header.width, header.height,
             header.stride0, header.stride1, static_cast<unsigned>(header.contiguous),
             header.dataSize, m_frameCount);
  }
  const DevRenderLinuxAdapter* outer = std::exchange(t_inCallback, this);
  const int result = m_renderCallback(WindowId(), &header);
  t_inCallback = outer;
  if (result == 0) {
    return 0;
  }
  uint64_t failures = 0;
  if (g_callbackFailures.Due(&failures)) {
    VLOG_ERR("callback failed, ret[%d],cnt[%d].", result, static_cast<int>(failures));
  }
  return static_cast<uint32_t>(result);
}

TavoVideoRenderImgHeader& DevRenderLinuxAdapter::FillHeader(const OsvGraphicBufferInfo& info,
                                                            uint32_t format, uint32_t dataSize) {
  TavoVideoRenderImgHeader& header = *m_outImgHeader;
  header.headerSize = sizeof(TavoVideoRenderImgHeader);
  header.width = info.width;
  header.height = info.height;
  header.stride0 = info.stride[0];
  header.stride1 = info.stride[1];
  header.format = format;
  header.planeMode = 1;
  header.contiguous = 1;
  header.dataSize = dataSize;
  return header;
}

uint32_t DevRenderLinuxAdapter::RenderYuvHdlPadding(OsvGraphicBuffer* buffer) {
  const OsvGraphicBufferInfo info = buffer->GetImageInfo();
  TavoVideoRenderImgHeader& header = FillHeader(info, TAVO_VIDEO_RENDER_IMG_I420, info.size);
  header.data = static_cast<uint8_t*>(buffer->GetBufHandle());
  if (header.data == nullptr) {
    VLOG_ERR("[%u]frame %ux%u has no memory", WindowId(), info.width, info.height);
    return 1;
  }
  return 0;
}

uint32_t DevRenderLinuxAdapter::RenderRgbHdlPadding(OsvGraphicBuffer* buffer) {
  const OsvGraphicBufferInfo info = buffer->GetImageInfo();
  const uint64_t rgbSize = uint64_t{info.width} * info.height * 3U;
  TavoVideoRenderImgHeader& header =
      FillHeader(info, TAVO_VIDEO_RENDER_IMG_RGB24, static_cast<uint32_t>(rgbSize));
  // Until this frame's buffer is known the header may still point at an earlier frame's
  // memory, freed by now.
  header.data = nullptr;
  uint32_t ret = 1;
  if (rgbSize > std::numeric_limits<uint32_t>::max()) {
    VLOG_ERR("[%u]frame %ux%u too large", WindowId(), info.width, info.height);
  } else {
    ret = RenderBufMalloc(static_cast<uint32_t>(rgbSize));
  }
  if (ret != 0) {
    PELV_Trace(1, 0, "VLINK", __func__, __LINE__, "no RGB buffer for %ux%u", info.width,
               info.height);
    VLOG_ERR("%s failed[%d].", "RenderRgbHdlPadding", static_cast<int>(ret));
    return ret;
  }
  header.data = m_imgBuff.get();
  const int32_t converted = ChangeI420ToRGB(buffer, m_imgBuff.get(), info.width, info.height);
  if (converted != 0) {
    uint64_t failures = 0;
    if (g_convertFailures.Due(&failures)) {
      VLOG_ERR("%s failed, ret:%d, cnt:%u.", "RenderRgbHdlPadding", converted,
               static_cast<uint32_t>(failures));
    }
    return static_cast<uint32_t>(converted);
  }
  return 0;
}

uint32_t DevRenderLinuxAdapter::RenderBufMalloc(uint32_t size) {
  // Checked first: a zero size must be reported even before any buffer exists.
  if (size == 0) {
    VLOG_ERR("%s: invalid len:%u", "RenderBufMalloc", size);
    return 1;
  }
  if (size == m_imgBuffSize) {
    return 0;
  }
  if (m_imgBuff) {
    VLOG_INF("[%u]delete m_imgBuff", WindowId());
    m_imgBuff.reset();
    m_imgBuffSize = 0;
  }
  // Zeroed: a first frame that fails to convert shows black, not stale heap bytes.
  m_imgBuff.reset(new (std::nothrow) uint8_t[size]());
  if (!m_imgBuff) {
    VLOG_ERR("[%u]malloc imgBuf size:%u failed.", WindowId(), size);
    return 1;
  }
  m_imgBuffSize = size;
  VLOG_INF("[%u]malloc new imgBuf size:%u.", WindowId(), size);
  return 0;
}
