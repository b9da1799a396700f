#include "screen/tavo_video_vlink_screen_snapshot.h"

#include <memory>
#include <new>

#include "core/tavo_video_seam.h"
#include "platform/adapt_common/os_platform_check.h"
#include "platform/adapt_common/safe_string.h"
#include "platform/adapt_common/tavo_video_frame_convert.h"
#include "screen/tavo_video_vlink_x11_log.h"
#include "screen/tavo_video_vlink_x11_seams.h"

namespace {

constexpr uint32_t kMaxSnapshotSide = 16384;

void Put32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    at[i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

}  // namespace

uint32_t SnapshotToQueue(const XImage& image, uint32_t captureWidth, uint32_t captureHeight,
                         const TagTavoVideoSnapshotStorage& storage) {
  if (image.data == nullptr || image.bits_per_pixel != 32) {
    X11_ERR("libyuv::ARGBScale failed");
    return 1;
  }
  TagTavoVideoSnapshotStorage picture = storage;
  if (picture.width == 0 || picture.height == 0) {
    picture.width = captureWidth;
    picture.height = captureHeight;
  }
  if (picture.width > kMaxSnapshotSide || picture.height > kMaxSnapshotSide) {
    X11_ERR("libyuv::ARGBScale failed");
    return 1;
  }
  const uint32_t size = picture.width * picture.height * 4;
  std::unique_ptr<uint8_t[]> pixels(new (std::nothrow) uint8_t[size]());
  if (!pixels) {
    X11_ERR("libyuv::ARGBScale failed");
    return 1;
  }
  const ArgbPlane source{reinterpret_cast<uint8_t*>(image.data), captureWidth, captureHeight,
                         static_cast<uint32_t>(image.bytes_per_line)};
  const ArgbPlane target{pixels.get(), picture.width, picture.height, picture.width * 4};
  int32_t scaled = 0;
  if (captureWidth < captureHeight && captureWidth > picture.height) {
    // A portrait monitor in a landscape picture: its aspect kept, bars left and right.
    const auto region = static_cast<uint32_t>(static_cast<float>(picture.height) /
                                              static_cast<float>(picture.width) *
                                              static_cast<float>(picture.height));
    const uint32_t offset = (picture.width - region) / 2;
    scaled =
        region <= picture.width ? ARGBScale(source, target, region, picture.height, offset) : -1;
  } else {
    scaled = ARGBScale(source, target);
  }
  if (scaled != 0) {
    X11_ERR("libyuv::ARGBScale failed");
    return 1;
  }
  if (IsTargetCpu("Soren 7A") == 1 && IsTargetOs("Uos") == 1) {
    for (uint32_t at = 3; at < size; at += 4) {
      pixels[at] = 255;
    }
  }
  CompareArgbPixel(pixels.get(), size);
  if (WritePicureToQueue(pixels.get(), size, picture) != 0) {
    X11_ERR("WritePicureToQueue failed");
    return 1;
  }
  return 0;
}

uint32_t WritePicureToQueue(const uint8_t* pixels, uint32_t size,
                            const TagTavoVideoSnapshotStorage& storage) {
  if (pixels == nullptr) {
    X11_ERR("input null");
    return 1;
  }
  HostShmQueue& queue = Seam<HostShmQueue>::Get();
  if (size > UINT32_MAX - kSnapshotHeaderBytes) {
    X11_ERR("QueueBuffer is nullptr");
    return 1;
  }
  OsShmAdvancedBuffer* buffer = queue.Alloc(storage.queueId, size + kSnapshotHeaderBytes);
  if (buffer == nullptr || buffer->mem == nullptr) {
    X11_ERR("QueueBuffer is nullptr");
    queue.Free(buffer);
    return 1;
  }
  // The handle's first two fields (memory, used length) are all the platform gives: the
  // buffer holds what was asked for.
  auto* memory = static_cast<uint8_t*>(buffer->mem);
  const uint32_t bufferLength = size + kSnapshotHeaderBytes;
  if (memcpy_s(memory + kSnapshotHeaderBytes, bufferLength - kSnapshotHeaderBytes, pixels, size) !=
      0) {
    X11_ERR("memcpy failed, buffLen[%u], memLen[%u]", bufferLength, size);
    queue.Free(buffer);
    return 1;
  }
  Put32(memory + 0, size);
  Put32(memory + 4, storage.width);
  Put32(memory + 8, storage.height);
  Put32(memory + 20, 3);
  Put32(memory + 24, 1);
  memory[28] = 1;
  Put32(memory + 32, size);
  const auto address = reinterpret_cast<uint64_t>(pixels);
  Put32(memory + 40, static_cast<uint32_t>(address));
  Put32(memory + 44, static_cast<uint32_t>(address >> 32));
  buffer->usedLen = size + kSnapshotHeaderBytes;
  if (queue.Write(storage.queueId, &buffer, 1) != 0) {
    X11_ERR("OsShmAdvancedWriteBulkQueue fail");
    queue.Free(buffer);  // never reached the reader: ours to give back
    return 1;
  }
  return 0;
}
