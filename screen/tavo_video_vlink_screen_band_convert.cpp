#include "screen/tavo_video_vlink_screen_band_convert.h"

#include "platform/adapt_common/tavo_video_frame_convert.h"

namespace {

// An I420 view of rows [begin, end) of `frame` (begin even).
void ViewI420Rows(OsvGraphicBuffer* frame, uint32_t begin, uint32_t end, OsvGraphicBuffer* view) {
  OsvGraphicBufferInfo info = frame->GetImageInfo();
  uint8_t* y = frame->GetImageAddr(0) + size_t{begin} * info.stride[0];
  uint8_t* u = frame->GetImageAddr(1) + size_t{begin / 2} * info.stride[1];
  uint8_t* v = frame->GetImageAddr(2) + size_t{begin / 2} * info.stride[2];
  info.height = end - begin;
  info.size = 0;  // foreign memory: the rows lie within the frame
  view->SetImageInfo(info);
  view->SetImageAddr(y, u, v);
}

}  // namespace

int32_t ConvertArgbRows(uint8_t* source, uint32_t stride, uint32_t width, uint32_t height,
                        const std::vector<RowBand>& bands, OsvGraphicBuffer* target) {
  for (const RowBand& band : bands) {
    if (band.end > height || band.begin >= band.end) {
      return -1;
    }
    uint8_t* rows = source + size_t{band.begin} * stride;
    OsvGraphicBuffer from(rows);
    OsvGraphicBufferInfo info{};
    info.width = width;
    info.height = band.end - band.begin;
    info.stride[0] = stride;
    info.format = TAVO_VIDEO_VLINK_FORMAT_ARGB;
    from.SetImageInfo(info);
    from.SetImageAddr(rows, nullptr, nullptr);
    OsvGraphicBuffer to(target->GetImageAddr(0));
    ViewI420Rows(target, band.begin, band.end, &to);
    const int32_t converted = ConvertToI420(&from, &to);
    if (converted != 0) {
      return converted;
    }
  }
  return 0;
}

int32_t CopyI420RowsOutside(OsvGraphicBuffer* source, const std::vector<RowBand>& bands,
                            OsvGraphicBuffer* target) {
  const uint32_t height = target->GetImageInfo().height;
  uint32_t next = 0;
  auto copy = [&](uint32_t begin, uint32_t end) {
    if (begin >= end) {
      return 0;
    }
    OsvGraphicBuffer from(source->GetImageAddr(0));
    ViewI420Rows(source, begin, end, &from);
    OsvGraphicBuffer to(target->GetImageAddr(0));
    ViewI420Rows(target, begin, end, &to);
    return ConvertToI420(&from, &to);
  };
  for (const RowBand& band : bands) {
    if (const int32_t copied = copy(next, band.begin); copied != 0) {
      return copied;
    }
    next = band.end;
  }
  return copy(next, height);
}
