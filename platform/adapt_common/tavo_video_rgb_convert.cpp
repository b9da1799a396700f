#include "platform/adapt_common/tavo_video_rgb_convert.h"

#include <libyuv.h>

#include <cstdlib>
#include <memory>

#include "platform/adapt_common/om_log.h"

#define FRAME_CONVERT_LOG_ERR(fmt, ...)                                             \
  TavoOmLogModuleLogRecord(1, TavoVideoGetPrivateLogId(0) & 0xFFFFU, __FILE_NAME__, \
                           sizeof(__FILE_NAME__) - 1, __LINE__, "%s: " fmt,         \
                           __func__ __VA_OPT__(, ) __VA_ARGS__)

namespace {

// The frame's planes lie inside its memory for its described size: what the conversions
// read or write never goes past what the buffer holds.
bool Holds(const OsvGraphicBuffer& buffer, uint32_t format) {
  const OsvGraphicBufferInfo info = buffer.GetImageInfo();
  if (info.format != format || info.width == 0 || info.height == 0 ||
      buffer.GetImageAddr(0) == nullptr) {
    return false;
  }
  const uint64_t rows = info.height;
  uint64_t need = 0;
  switch (format) {
    case TAVO_VIDEO_VLINK_FORMAT_I420: {
      if (buffer.GetImageAddr(1) == nullptr || buffer.GetImageAddr(2) == nullptr ||
          info.stride[0] < info.width || info.stride[1] < (info.width + 1) / 2 ||
          info.stride[2] < (info.width + 1) / 2) {
        return false;
      }
      // Planes may sit anywhere in the memory: measure each from the start of the buffer.
      const auto* base = static_cast<const uint8_t*>(buffer.GetBufHandle());
      if (base == nullptr || info.size == 0) {
        return true;  // foreign memory of unknown size: the producer vouches for it
      }
      const uint64_t chromaRows = (rows + 1) / 2;
      const uint64_t ends[3] = {
          static_cast<uint64_t>(buffer.GetImageAddr(0) - base) + info.stride[0] * rows,
          static_cast<uint64_t>(buffer.GetImageAddr(1) - base) + info.stride[1] * chromaRows,
          static_cast<uint64_t>(buffer.GetImageAddr(2) - base) + info.stride[2] * chromaRows};
      for (uint64_t end : ends) {
        if (end > info.size) {
          return false;
        }
      }
      return true;
    }
    case TAVO_VIDEO_VLINK_FORMAT_ARGB:
      if (info.stride[0] < uint64_t{info.width} * 4) {
        return false;
      }
      need = uint64_t{info.stride[0]} * rows;
      break;
    case TAVO_VIDEO_VLINK_FORMAT_RGB24:
      if (info.stride[0] < uint64_t{info.width} * 3) {
        return false;
      }
      need = uint64_t{info.stride[0]} * rows;
      break;
    default:
      return false;
  }
  const auto* base = static_cast<const uint8_t*>(buffer.GetBufHandle());
  if (base == nullptr || info.size == 0) {
    return true;
  }
  return static_cast<uint64_t>(buffer.GetImageAddr(0) - base) + need <= info.size;
}

int Width(const OsvGraphicBuffer& b) { return static_cast<int>(b.GetImageInfo().width); }
int Height(const OsvGraphicBuffer& b) { return static_cast<int>(b.GetImageInfo().height); }
int Stride(const OsvGraphicBuffer& b, int plane) {
  return static_cast<int>(b.GetImageInfo().stride[plane]);
}

// Source into ARGB of the source's own size, rows `dstStride` bytes apart.
int ToArgb(OsvGraphicBuffer& source, uint8_t* dst, int dstStride) {
  const int w = Width(source);
  const int h = Height(source);
  switch (source.GetImageInfo().format) {
    case TAVO_VIDEO_VLINK_FORMAT_I420:
      return libyuv::I420ToARGB(source.GetImageAddr(0), Stride(source, 0), source.GetImageAddr(1),
                                Stride(source, 1), source.GetImageAddr(2), Stride(source, 2), dst,
                                dstStride, w, h);
    case TAVO_VIDEO_VLINK_FORMAT_ARGB:
      return libyuv::ARGBCopy(source.GetImageAddr(0), Stride(source, 0), dst, dstStride, w, h);
    case TAVO_VIDEO_VLINK_FORMAT_RGB24:
      return libyuv::RGB24ToARGB(source.GetImageAddr(0), Stride(source, 0), dst, dstStride, w, h);
    default:
      return -1;
  }
}

}  // namespace

int32_t ConvertToARGB(OsvGraphicBuffer* source, OsvGraphicBuffer* argb,
                      PelvRotationAngle rotation) {
  if (source == nullptr || argb == nullptr) {
    FRAME_CONVERT_LOG_ERR("null frame");
    return -1;
  }
  const uint32_t format = source->GetImageInfo().format;
  if (!Holds(*source, format) || !Holds(*argb, TAVO_VIDEO_VLINK_FORMAT_ARGB)) {
    FRAME_CONVERT_LOG_ERR("frame format %u or planes unusable", format);
    return -1;
  }
  const bool swaps = rotation == PELV_ROTATION_90 || rotation == PELV_ROTATION_270;
  const int w = Width(*source);
  const int h = Height(*source);
  if (Width(*argb) != (swaps ? h : w) || Height(*argb) != (swaps ? w : h)) {
    FRAME_CONVERT_LOG_ERR("size %dx%d does not fit %dx%d at rotation %u", w, h, Width(*argb),
                          Height(*argb), static_cast<uint32_t>(rotation));
    return -1;
  }
  if (rotation == PELV_ROTATION_0) {
    return ToArgb(*source, argb->GetImageAddr(0), Stride(*argb, 0)) == 0 ? 0 : -1;
  }
  if (rotation != PELV_ROTATION_90 && rotation != PELV_ROTATION_180 &&
      rotation != PELV_ROTATION_270) {
    FRAME_CONVERT_LOG_ERR("rotation %u unknown", static_cast<uint32_t>(rotation));
    return -1;
  }
  const size_t bytes = size_t{static_cast<uint32_t>(w)} * static_cast<uint32_t>(h) * 4;
  std::unique_ptr<uint8_t, decltype(&std::free)> upright(static_cast<uint8_t*>(std::malloc(bytes)),
                                                         &std::free);
  if (!upright || ToArgb(*source, upright.get(), w * 4) != 0) {
    return -1;
  }
  const auto mode = static_cast<libyuv::RotationMode>(static_cast<uint32_t>(rotation));
  return libyuv::ARGBRotate(upright.get(), w * 4, argb->GetImageAddr(0), Stride(*argb, 0), w, h,
                            mode) == 0
             ? 0
             : -1;
}

int32_t ARGBToRGB24(OsvGraphicBuffer* argb, OsvGraphicBuffer* rgb) {
  if (argb == nullptr || rgb == nullptr || !Holds(*argb, TAVO_VIDEO_VLINK_FORMAT_ARGB) ||
      !Holds(*rgb, TAVO_VIDEO_VLINK_FORMAT_RGB24) || Width(*argb) != Width(*rgb) ||
      Height(*argb) != Height(*rgb)) {
    FRAME_CONVERT_LOG_ERR("frames unusable or of different sizes");
    return -1;
  }
  return libyuv::ARGBToRGB24(argb->GetImageAddr(0), Stride(*argb, 0), rgb->GetImageAddr(0),
                             Stride(*rgb, 0), Width(*argb), Height(*argb)) == 0
             ? 0
             : -1;
}

int32_t RGBToYUV420(OsvGraphicBuffer* rgb, OsvGraphicBuffer* destination) {
  if (rgb == nullptr || destination == nullptr || !Holds(*rgb, TAVO_VIDEO_VLINK_FORMAT_RGB24) ||
      !Holds(*destination, TAVO_VIDEO_VLINK_FORMAT_I420) || Width(*rgb) != Width(*destination) ||
      Height(*rgb) != Height(*destination)) {
    FRAME_CONVERT_LOG_ERR("frames unusable or of different sizes");
    return -1;
  }
  return libyuv::RGB24ToI420(rgb->GetImageAddr(0), Stride(*rgb, 0), destination->GetImageAddr(0),
                             Stride(*destination, 0), destination->GetImageAddr(1),
                             Stride(*destination, 1), destination->GetImageAddr(2),
                             Stride(*destination, 2), Width(*rgb), Height(*rgb)) == 0
             ? 0
             : -1;
}
