// The image stages of the virtual-background node: the background image, the RGB24 copy
// sent for inference, and the blend of frame and background under the mask.
//
// Colour order: OpenCV reads colour images as B, G, R bytes and the platform's packed 24-bit
// frames hold B, G, R too, so background and frame copy pair their bytes directly.
#include <algorithm>
#include <cstring>
#include <string>

#include "background/tavo_video_background_log.h"
#include "background/tavo_video_background_virtuality.h"
#include "background/tavo_video_opencv_binding.h"
#include "platform/adapt_common/tavo_video_rgb_convert.h"

uint32_t BackgroundVirtualityNode::LoadBackgroundImage() {
  const BackgroundVirtualityParams param = GetParam();
  const void* end = std::memchr(param.bgImagePath, '\0', sizeof param.bgImagePath);
  if (end == nullptr) {
    VLOG_ERR("bgImagePath has no terminator within %zu bytes", sizeof param.bgImagePath);
    return 1;
  }
  const std::string path(param.bgImagePath, static_cast<const char*>(end));
  std::lock_guard<std::mutex> lock(m_imageMutex);
  VLOG_INF("read image, file path[%s]", path.c_str());
  CMat* loaded = cvbind::CImread(path.c_str(), cvbind::C_IMREAD_COLOR());
  uint32_t result = 0;
  if (cvbind::CMatEmpty(loaded)) {
    VLOG_ERR("read image faild, file path[%s]", path.c_str());
    result = 1;
  } else if (param.width == 0 || param.height == 0) {
    cvbind::CMatCopy(loaded, m_bgImage);  // no frame size yet: the first frame rescales it
  } else {
    CSize* size =
        cvbind::CSizeCreate(static_cast<int>(param.width), static_cast<int>(param.height));
    cvbind::CResize(loaded, m_bgImage, size);
    cvbind::CSizeDestroy(size);
  }
  cvbind::CMatDestroy(loaded);
  return result;
}

void BackgroundVirtualityNode::UpdateBgImageSize(unsigned int width, unsigned int height) {
  if (cvbind::CMatRows(m_bgImage) == static_cast<int>(height) &&
      cvbind::CMatCols(m_bgImage) == static_cast<int>(width)) {
    return;
  }
  CSize* size = cvbind::CSizeCreate(static_cast<int>(width), static_cast<int>(height));
  cvbind::CResize(m_bgImage, m_bgImage, size);
  cvbind::CSizeDestroy(size);
}

uint32_t BackgroundVirtualityNode::DataConvertBeforeVirtual(OsvGraphicBuffer* frame,
                                                            OsvGraphicBuffer** rgbOut) {
  const OsvGraphicBufferInfo info = frame->GetImageInfo();
  if (m_argbBuffer && (m_argbBuffer->GetImageInfo().width != info.width ||
                       m_argbBuffer->GetImageInfo().height != info.height)) {
    m_argbBuffer.reset();
  }
  if (!m_argbBuffer) {
    m_argbBuffer = std::make_unique<OsvGraphicBuffer>(info.width, info.height,
                                                      TAVO_VIDEO_VLINK_FORMAT_ARGB, false, false);
  }
  if (ConvertToARGB(frame, m_argbBuffer.get(), static_cast<PelvRotationAngle>(info.rotation)) !=
      0) {
    VLOG_ERR_PACED(kPacedConvertArgb, "ConvertToARGB Error");
    return 1;
  }
  auto rgb = std::make_unique<OsvGraphicBuffer>(info.width, info.height,
                                                TAVO_VIDEO_VLINK_FORMAT_RGB24, false, false);
  if (ARGBToRGB24(m_argbBuffer.get(), rgb.get()) != 0) {
    VLOG_ERR_PACED(kPacedArgbToRgb, "ARGBToRGB24 Error");
    return 1;
  }
  *rgbOut = rgb.release();
  return 0;
}

uint32_t BackgroundVirtualityNode::DataOverlayer(OsvGraphicBuffer* frame, uint8_t* mask,
                                                 OsvGraphicBuffer* rgb) {
  const OsvGraphicBufferInfo info = frame->GetImageInfo();
  const OsvGraphicBufferInfo rgbInfo = rgb->GetImageInfo();
  const uint64_t pixels = uint64_t{info.width} * info.height;
  {
    std::lock_guard<std::mutex> lock(m_imageMutex);
    UpdateBgImageSize(info.width, info.height);
    // Only a background of exactly the frame's packed size is blended against: a failed
    // rescale (or none loaded) must not make the blend read past it.
    unsigned char* bg = cvbind::CMatData(m_bgImage);
    if (cvbind::CMatRows(m_bgImage) != static_cast<int>(info.height) ||
        cvbind::CMatCols(m_bgImage) != static_cast<int>(info.width) ||
        cvbind::CMatChannels(m_bgImage) != 3 || cvbind::CMatStep(m_bgImage) != info.width * 3U) {
      bg = nullptr;
    }
    unsigned char* out = rgb->GetImageAddr(0);
    if (rgbInfo.width != info.width || rgbInfo.height != info.height || pixels * 3 > rgbInfo.size ||
        pixels > kMaskBytes) {
      out = nullptr;
    }
    if (pixels == kComposePixels) {
      Compose32(out, bg, mask, out);
    } else {
      ComposePixels(out, bg, mask, out, static_cast<uint32_t>(pixels));
    }
  }
  if (RGBToYUV420(rgb, frame) != 0) {
    VLOG_ERR_PACED(kPacedRgbToYuv, "RGBToYUV420SP failed");
    return 1;
  }
  return 0;
}

uint32_t BackgroundVirtualityNode::Compose32(unsigned char* out, unsigned char* bg,
                                             unsigned char* alpha, unsigned char* fg) {
  return ComposePixels(out, bg, alpha, fg, kComposePixels);
}

uint32_t BackgroundVirtualityNode::ComposePixels(unsigned char* out, const unsigned char* bg,
                                                 const unsigned char* alpha,
                                                 const unsigned char* fg, uint32_t pixels) {
  if (bg == nullptr || alpha == nullptr || out == nullptr || fg == nullptr) {
    VLOG_ERR_PACED(kPacedCompose,
                   "m_nodeId[%u] buffer is nullptr bgPtr:%d alphaPtr:%d outImagePtr:%d", m_nodeId,
                   bg == nullptr ? 1 : 0, alpha == nullptr ? 1 : 0, out == nullptr ? 1 : 0);
    return 1;
  }
  // Weights out of 256 per pixel: alpha up to 69 is background only, 250 and above frame
  // only, in between bg x (255 - a) + fg x a, which sums to 255 over a divisor of 256 (a
  // mid-range blend of equal values comes out up to one step darker). Exact for all three
  // ranges, and every sum fits 16 bits. Weights are spread to bytes a block at a time so the
  // blend itself runs over plain byte rows, which the compiler vectorises.
  constexpr uint32_t kBlock = 512;
  uint16_t weightBg[kBlock * 3];
  uint16_t weightFg[kBlock * 3];
  for (uint32_t start = 0; start < pixels; start += kBlock) {
    const uint32_t count = std::min(kBlock, pixels - start);
    for (uint32_t p = 0; p < count; ++p) {
      const uint16_t a = alpha[start + p];
      const uint16_t wf = a <= 69 ? 0 : (a >= 250 ? 256 : a);
      const uint16_t wb = a <= 69 ? 256 : (a >= 250 ? 0 : static_cast<uint16_t>(255 - a));
      weightBg[p * 3] = weightBg[p * 3 + 1] = weightBg[p * 3 + 2] = wb;
      weightFg[p * 3] = weightFg[p * 3 + 1] = weightFg[p * 3 + 2] = wf;
    }
    const size_t base = size_t{start} * 3;
    const size_t bytes = size_t{count} * 3;
    for (size_t k = 0; k < bytes; ++k) {
      out[base + k] = static_cast<unsigned char>(
          static_cast<uint16_t>(bg[base + k] * weightBg[k] + fg[base + k] * weightFg[k]) >> 8);
    }
  }
  return 0;
}
