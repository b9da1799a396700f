#include "platform/adapt_common/tavo_video_frame_convert.h"

#include <libyuv.h>

#include <cstring>

namespace {

constexpr uint32_t kMaxSide = 16384;

bool SizeOk(uint32_t width, uint32_t height) {
  return width != 0 && height != 0 && width <= kMaxSide && height <= kMaxSide;
}

// The three planes of an I420 frame, checked against the memory the frame describes.
struct I420Planes {
  uint8_t* y;
  uint8_t* u;
  uint8_t* v;
  int strideY;
  int strideU;
  int strideV;
};

bool PlaneFits(const OsvGraphicBuffer& frame, const uint8_t* plane, uint64_t stride, uint64_t rows,
               uint64_t rowBytes) {
  if (plane == nullptr || stride < rowBytes) {
    return false;
  }
  const auto* begin = static_cast<const uint8_t*>(frame.GetBufHandle());
  const OsvGraphicBufferInfo info = frame.GetImageInfo();
  if (begin == nullptr || info.size == 0) {
    return true;  // foreign memory of unknown size: the describer vouches for it
  }
  const uint64_t last = stride * (rows - 1) + rowBytes;
  return plane >= begin && static_cast<uint64_t>(plane - begin) + last <= info.size;
}

bool GetI420(const OsvGraphicBuffer* frame, I420Planes* planes) {
  if (frame == nullptr) {
    return false;
  }
  const OsvGraphicBufferInfo info = frame->GetImageInfo();
  if (info.format != TAVO_VIDEO_VLINK_FORMAT_I420 || !SizeOk(info.width, info.height)) {
    return false;
  }
  const uint64_t chromaWidth = (info.width + 1) / 2;
  const uint64_t chromaHeight = (info.height + 1) / 2;
  planes->y = frame->GetImageAddr(0);
  planes->u = frame->GetImageAddr(1);
  planes->v = frame->GetImageAddr(2);
  if (!PlaneFits(*frame, planes->y, info.stride[0], info.height, info.width) ||
      !PlaneFits(*frame, planes->u, info.stride[1], chromaHeight, chromaWidth) ||
      !PlaneFits(*frame, planes->v, info.stride[2], chromaHeight, chromaWidth)) {
    return false;
  }
  planes->strideY = static_cast<int>(info.stride[0]);
  planes->strideU = static_cast<int>(info.stride[1]);
  planes->strideV = static_cast<int>(info.stride[2]);
  return true;
}

bool PlaneOk(const ArgbPlane& plane) {
  return plane.data != nullptr && SizeOk(plane.width, plane.height) &&
         plane.stride >= uint64_t{plane.width} * 4;
}

}  // namespace

int32_t ConvertToI420(OsvGraphicBuffer* source, OsvGraphicBuffer* target) {
  I420Planes out{};
  if (source == nullptr || !GetI420(target, &out)) {
    return -1;
  }
  const OsvGraphicBufferInfo in = source->GetImageInfo();
  const OsvGraphicBufferInfo outInfo = target->GetImageInfo();
  if (in.width != outInfo.width || in.height != outInfo.height) {
    return -1;
  }
  const int width = static_cast<int>(in.width);
  const int height = static_cast<int>(in.height);
  if (in.format == TAVO_VIDEO_VLINK_FORMAT_ARGB) {
    uint8_t* pixels = source->GetImageAddr(0);
    if (!SizeOk(in.width, in.height) ||
        !PlaneFits(*source, pixels, in.stride[0], in.height, uint64_t{in.width} * 4)) {
      return -1;
    }
    return libyuv::ARGBToI420(pixels, static_cast<int>(in.stride[0]), out.y, out.strideY, out.u,
                              out.strideU, out.v, out.strideV, width, height) == 0
               ? 0
               : -1;
  }
  I420Planes src{};
  if (!GetI420(source, &src)) {
    return -1;
  }
  return libyuv::I420Copy(src.y, src.strideY, src.u, src.strideU, src.v, src.strideV, out.y,
                          out.strideY, out.u, out.strideU, out.v, out.strideV, width, height) == 0
             ? 0
             : -1;
}

int32_t I420Scale(OsvGraphicBuffer* source, OsvGraphicBuffer* target) {
  I420Planes src{};
  I420Planes out{};
  if (!GetI420(source, &src) || !GetI420(target, &out)) {
    return -1;
  }
  const OsvGraphicBufferInfo in = source->GetImageInfo();
  const OsvGraphicBufferInfo to = target->GetImageInfo();
  return libyuv::I420Scale(src.y, src.strideY, src.u, src.strideU, src.v, src.strideV,
                           static_cast<int>(in.width), static_cast<int>(in.height), out.y,
                           out.strideY, out.u, out.strideU, out.v, out.strideV,
                           static_cast<int>(to.width), static_cast<int>(to.height),
                           libyuv::kFilterBox) == 0
             ? 0
             : -1;
}

int32_t ARGBScale(const ArgbPlane& source, const ArgbPlane& target) {
  if (!PlaneOk(target)) {
    return -1;
  }
  return ARGBScale(source, target, target.width, target.height, 0);
}

int32_t ARGBScale(const ArgbPlane& source, const ArgbPlane& target, uint32_t regionWidth,
                  uint32_t regionHeight, uint32_t offsetX) {
  if (!PlaneOk(source) || !PlaneOk(target) || !SizeOk(regionWidth, regionHeight) ||
      uint64_t{offsetX} + regionWidth > target.width || regionHeight > target.height) {
    return -1;
  }
  return libyuv::ARGBScale(source.data, static_cast<int>(source.stride),
                           static_cast<int>(source.width), static_cast<int>(source.height),
                           target.data + size_t{offsetX} * 4, static_cast<int>(target.stride),
                           static_cast<int>(regionWidth), static_cast<int>(regionHeight),
                           libyuv::kFilterBox) == 0
             ? 0
             : -1;
}

int32_t CompareArgbPixel(const uint8_t* pixels, uint32_t size) {
  if (pixels == nullptr || size == 0 || size % 4 != 0) {
    return -1;
  }
  for (uint32_t at = 4; at < size; at += 4) {
    if (std::memcmp(pixels, pixels + at, 4) != 0) {
      return 0;
    }
  }
  return 1;
}
