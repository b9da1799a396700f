// The render entry points the host calls, and the placement of an image in a window.
#include "tavo_video_render_interface.h"

#include <cstdint>
#include <new>

#include "render/tavo_video_render_manager.h"
#include "trace/tavo_video_host_guard.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

constexpr uint32_t kRenderFailure = 0xFFFFFFFF;
// Ratios (x100) this close look the same on screen, so the image is simply stretched.
constexpr uint32_t kAutoStretchTolerance = 5;

// Truncates toward zero like a cast, but saturates: a cast of an out-of-range float is
// undefined, and huge sizes come from the host unchecked.
int32_t ToInt(float value) {
  if (!(value > -2147483648.0F)) {  // also NaN
    return value < 0.0F ? INT32_MIN : 0;
  }
  if (value >= 2147483648.0F) {
    return INT32_MAX;
  }
  return static_cast<int32_t>(value);
}

void SetRect(RenderRect& rect, float left, float top, float right, float bottom) {
  rect.left = left;
  rect.top = top;
  rect.right = right;
  rect.bottom = bottom;
  rect.width = ToInt(right - left);
  rect.height = ToInt(bottom - top);
}

// The window's size and the image's and window's width-to-height ratios, as floats.
struct Shape {
  float dw;
  float dh;
  float rs;
  float rd;
};

// The window's size and both ratios in single precision, as written: a zero height gives
// an infinite or NaN ratio, which the formulas carry like any other value (the rect's
// integer sizes saturate).
Shape GetShape(const RenderSize& size) {
  Shape shape{};
  shape.dw = static_cast<float>(size.dstWidth);
  shape.dh = static_cast<float>(size.dstHeight);
  shape.rs = static_cast<float>(size.srcWidth) / static_cast<float>(size.srcHeight);
  shape.rd = shape.dw / shape.dh;
  return shape;
}

// The whole window, whatever the image's shape.
uint32_t RenderGetPosNone(RenderSize size, RenderRect& rect) {
  SetRect(rect, 0.0F, 0.0F, static_cast<float>(size.dstWidth), static_cast<float>(size.dstHeight));
  return 0;
}

// The image at its own size at the window's origin.
uint32_t RenderGetPosOrg(RenderSize size, RenderRect& rect) {
  SetRect(rect, 0.0F, 0.0F, static_cast<float>(size.srcWidth), static_cast<float>(size.srcHeight));
  return 0;
}

// The whole image, as large as fits, centred; bars on the other axis.
uint32_t RenderGetPosAdapt(RenderSize size, RenderRect& rect) {
  const auto [dw, dh, rs, rd] = GetShape(size);
  if (rs > rd) {
    const float f = (1.0F - rd / rs) * 0.5F;
    SetRect(rect, 0.0F, dh * f, dw, (1.0F - f) * dh);
  } else {
    const float f = (1.0F - rs / rd) * 0.5F;
    SetRect(rect, dw * f, 0.0F, (1.0F - f) * dw, dh);
  }
  return 0;
}

// The window filled, centred; the image's overhang lies outside it.
uint32_t RenderGetPosCrop(RenderSize size, RenderRect& rect) {
  const auto [dw, dh, rs, rd] = GetShape(size);
  const float w = rs > rd ? rs * dh : dw;
  const float h = rs > rd ? dh : dw / rs;
  const float left = -(w - dw) * 0.5F;
  const float top = -(h - dh) * 0.5F;
  SetRect(rect, left, top, w + left, h + top);
  return 0;
}

}  // namespace

uint32_t RenderGetRenderPos(RenderSize size, RenderRect& rect, PelvAspectRatioMode mode) {
  switch (mode) {
    case PELV_ASPECT_STRETCH:
      return RenderGetPosNone(size, rect);
    case PELV_ASPECT_AUTO: {
      if (size.srcHeight == 0 || size.dstHeight == 0) {
        return RenderGetPosAdapt(size, rect);
      }
      const uint32_t ra = size.srcWidth * 100U / size.srcHeight;
      const uint32_t rb = size.dstWidth * 100U / size.dstHeight;
      const uint32_t diff = ra > rb ? ra - rb : rb - ra;
      return diff <= kAutoStretchTolerance ? RenderGetPosNone(size, rect)
                                           : RenderGetPosAdapt(size, rect);
    }
    case PELV_ASPECT_CROP:
    case PELV_ASPECT_CROP2:
      return RenderGetPosCrop(size, rect);
    case PELV_ASPECT_IMAGE_SIZE:
      return RenderGetPosOrg(size, rect);
    case PELV_ASPECT_FIT:
    default:
      return RenderGetPosAdapt(size, rect);
  }
}

uint32_t TavoVideoRenderCreate(tagOS_S_SOFT_VO_CHN_PARAM* param, DevRenderManager** out) try {
  if (param == nullptr || out == nullptr) {
    VLOG_ERR("param or out is null");
    return kRenderFailure;
  }
  auto* manager = new (std::nothrow) DevRenderManager();
  if (manager == nullptr) {
    VLOG_ERR("no memory for DevRenderManager");
    return kRenderFailure;
  }
  if (manager->Init(param) != 0) {
    VLOG_ERR("DevRenderManager Init failed");
    delete manager;
    return kRenderFailure;
  }
  *out = manager;
  return 0;
}
VLINK_HOST_CATCH(kRenderFailure)

uint32_t TavoVideoRenderFrame(DevRenderManager* manager, OsvGraphicBuffer* buffer) try {
  if (manager == nullptr) {
    VLOG_ERR("DevRenderManager is null");
    return 0;
  }
  return manager->RenderFrame(buffer);
}
VLINK_HOST_CATCH(kRenderFailure)

uint32_t TavoVideoRenderSetParams(DevRenderManager* manager, PelvRenderParams& params) try {
  if (manager == nullptr) {
    VLOG_ERR("DevRenderManager is null");
    return 0;
  }
  return manager->RenderSetParams(params);
}
VLINK_HOST_CATCH(kRenderFailure)

uint32_t TavoVideoRenderStop(DevRenderManager* manager) try {
  if (manager == nullptr) {
    VLOG_ERR("DevRenderManager is null");
    return 0;
  }
  return manager->RenderStop();
}
VLINK_HOST_CATCH(kRenderFailure)

uint32_t TavoVideoRenderDelete(DevRenderManager* manager) try {
  if (manager == nullptr) {
    VLOG_ERR("DevRenderManager is null");
    return 0;
  }
  manager->RenderDelete();
  if (!manager->DeferDestruction()) {
    delete manager;
  }
  return 0;
}
VLINK_HOST_CATCH(kRenderFailure)
