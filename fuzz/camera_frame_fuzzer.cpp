// Arbitrary frames through the capture manager's frame path: random formats, sizes,
// rotation, mirror and copy flags, a declared dataSize no larger than the bytes given, and
// random MJPEG bytes. The pixels sit in a block of exactly dataSize bytes, so any read past
// what the frame declares shows up. Converted blocks are read in full and then, when the
// frame asks for it, rotated and mirrored.
//
// Input: [0] format selector, [1] flags (bit 0 copyOnly, bits 1-2 rotation, bit 3 mirror,
// bit 4 absurd sizes), [2-3] width, [4-5] height, [6-9] declared dataSize (little endian),
// then the pixel bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "camera/tavo_video_vlink_capture_manager.h"

namespace {

const uint32_t kFormats[] = {100, 102, 104, 105, 106, 201, 205, 300, 999, 0};

class IdleCapturer final : public IDevCaptureProxy {
 public:
  uint32_t Init(std::string) override { return 0; }
  uint32_t CaptureStart(tagCameraCaptureParams*) override { return 0; }
  uint32_t CaptureStop() override { return 0; }
  void SetCaptureCallback(CaptureFrameCallback) override {}
};

DevCaptureManager& Manager() {
  static DevCaptureManager* manager = [] {
    auto* made = new DevCaptureManager();
    made->SetDevCaptureProxy(std::make_unique<IdleCapturer>());
    made->Init("fuzz");
    tagCameraCaptureParams params{};
    made->CaptureStart(&params);
    return made;
  }();
  return *manager;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 10) {
    return 0;
  }
  DevCaptureManager& manager = Manager();
  const uint8_t flags = data[1];
  _PEL_V_FRAME frame{};
  frame.format = kFormats[data[0] % std::size(kFormats)];
  frame.copyOnly = flags & 1U;
  frame.rotation = ((flags >> 1) & 3U) * 90U;
  frame.mirror = (flags >> 3) & 1U;
  uint32_t width = data[2] | (uint32_t{data[3]} << 8);
  uint32_t height = data[4] | (uint32_t{data[5]} << 8);
  if ((flags & 0x10U) == 0) {
    width %= 1024;  // keep most inputs cheap
    height %= 1024;
  } else {
    width = width % 2 == 0 ? width | 0x2000U : width;  // around and past the 8192 limit
  }
  frame.width = width;
  frame.height = height;
  uint32_t declared = 0;
  std::memcpy(&declared, data + 6, sizeof(declared));
  const size_t available = size - 10;
  const uint32_t dataSize = declared < available ? declared : static_cast<uint32_t>(available);
  std::vector<uint8_t> pixels(data + 10, data + 10 + dataSize);
  frame.data = pixels.empty() ? nullptr : pixels.data();
  frame.dataSize = dataSize;

  int handed = 0;
  manager.SetCaptureCallback([&](_PEL_V_FRAME& converted) {
    ++handed;
    size_t bytes = converted.copyOnly != 0 ? converted.dataSize
                                           : size_t{converted.width} * converted.height * 3 / 2;
    volatile uint8_t sum = 0;
    for (size_t i = 0; i < bytes; ++i) {
      sum = static_cast<uint8_t>(sum + converted.data[i]);
    }
    if (converted.copyOnly == 0) {
      if (converted.rotation != 0) {
        manager.TransRotate(converted);
      }
      if (converted.mirror != 0) {
        manager.MirrorYuvI420(converted);
      }
    }
    DevCaptureManager::ReleaseBuffer(converted.data);
    return 0;
  });
  manager.OnCaptureCbkFrame(frame);
  return 0;
}
