// Preview rendering as the host sees it: the render callback and its image header, the
// render channel records, one renderer per window behind five entry points, and the
// placement of an image in a window.
#pragma once

#include <cstddef>
#include <cstdint>

#include "osv_graphic_buffer.h"

#define TAVO_VLINK_CXX_API __attribute__((visibility("default")))

// What the render callback receives for every frame: 48 bytes describing the pixels.
// The memory is valid only during the callback.
struct TavoVideoRenderImgHeader {
  uint32_t headerSize;  // 0: 48
  uint32_t width;       // 4
  uint32_t height;      // 8
  uint32_t stride0;     // 12
  uint32_t stride1;     // 16
  uint32_t format;      // 20: 4 I420, 0 packed 24-bit RGB
  uint32_t planeMode;   // 24: 1
  uint8_t contiguous;   // 28: 1
  uint8_t unused29[3];
  uint32_t dataSize;  // 32
  uint32_t unused36;
  uint8_t* data;  // 40: the frame's memory (I420) or the adapter's RGB buffer
};
static_assert(sizeof(TavoVideoRenderImgHeader) == 48);
static_assert(offsetof(TavoVideoRenderImgHeader, data) == 40);

enum TavoVideoRenderImgFormat : uint32_t {
  TAVO_VIDEO_RENDER_IMG_RGB24 = 0,
  TAVO_VIDEO_RENDER_IMG_I420 = 4,
};

// The host's renderer: (low 32 bits of the window handle, header) -> 0 on success. Called
// from library threads; it must be done with the pixels when it returns.
typedef int (*TavoVideoRenderCallback)(uint32_t winHandle, TavoVideoRenderImgHeader* header);

#define PELV_WATERMARK_TEXT_LEN 256
// Render parameters of one window (296 bytes).
struct PelvRenderParams {
  uint32_t enable;  // 0: 1
  uint8_t reserved4[16];
  uint8_t watermarkOn;                          // 20
  char watermarkText[PELV_WATERMARK_TEXT_LEN];  // 21: NUL-terminated, at most 255 characters
  uint8_t reserved277[3];
  uint32_t colorSpace;  // 280
  uint32_t reserved284;
  TavoVideoRenderCallback renderCb;  // 288
};
static_assert(sizeof(PelvRenderParams) == 296);
static_assert(offsetof(PelvRenderParams, watermarkText) == 21);
static_assert(offsetof(PelvRenderParams, colorSpace) == 280);
static_assert(offsetof(PelvRenderParams, renderCb) == 288);

typedef uint32_t PelvRenderMode;

// A render channel as created (312 bytes).
struct tagOS_S_SOFT_VO_CHN_PARAM {
  PelvRenderMode renderMode;  // 0: the preview passes 40
  uint32_t reserved4;
  uint64_t winHandle;       // 8
  PelvRenderParams params;  // 16
};
static_assert(sizeof(tagOS_S_SOFT_VO_CHN_PARAM) == 312);

// One renderer per window; opaque to the host.
class DevRenderManager;

// 0xFFFFFFFF is this layer's failure code.
TAVO_VLINK_CXX_API uint32_t TavoVideoRenderCreate(tagOS_S_SOFT_VO_CHN_PARAM* param,
                                                  DevRenderManager** out);
TAVO_VLINK_CXX_API uint32_t TavoVideoRenderFrame(DevRenderManager* manager,
                                                 OsvGraphicBuffer* buffer);
TAVO_VLINK_CXX_API uint32_t TavoVideoRenderSetParams(DevRenderManager* manager,
                                                     PelvRenderParams& params);
TAVO_VLINK_CXX_API uint32_t TavoVideoRenderStop(DevRenderManager* manager);
TAVO_VLINK_CXX_API uint32_t TavoVideoRenderDelete(DevRenderManager* manager);

// Placement of an image in a window.
struct RenderSize {
  uint32_t srcWidth;
  uint32_t srcHeight;
  uint32_t dstWidth;
  uint32_t dstHeight;
};
struct RenderRect {
  float left;
  float top;
  float right;
  float bottom;
  int32_t width;
  int32_t height;
};
enum PelvAspectRatioMode : uint32_t {
  PELV_ASPECT_STRETCH = 0,
  PELV_ASPECT_AUTO = 1,  // stretch when the ratios are within 5 hundredths, else fit
  PELV_ASPECT_CROP = 2,
  PELV_ASPECT_IMAGE_SIZE = 3,
  PELV_ASPECT_FIT = 4,
  PELV_ASPECT_CROP2 = 5,
};
// Always 0; unknown modes fit.
TAVO_VLINK_CXX_API uint32_t RenderGetRenderPos(RenderSize size, RenderRect& rect,
                                               PelvAspectRatioMode mode);
