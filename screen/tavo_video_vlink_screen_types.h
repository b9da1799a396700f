// Records shared by the screen capturer, the cursor capturer and the host.
#pragma once

#include <X11/Xlib.h>

#include <cstddef>
#include <cstdint>

// What the cursor capturer hands the host for every sample (28 bytes, little-endian).
struct VlinkCursorSendData {
  uint32_t cursorId;  // the parameters' shape, or 0 when the cursor is not to be shown
  uint32_t reserved1;
  uint32_t reserved2;
  int16_t x;  // pointer position in the encoded picture
  int16_t y;
  uint32_t reserved3;
  uint16_t value1;  // 32
  uint16_t value2;  // 32
  uint16_t value3;  // 32
  uint16_t value4;  // 128
};
static_assert(sizeof(VlinkCursorSendData) == 28);
static_assert(offsetof(VlinkCursorSendData, x) == 12);
static_assert(offsetof(VlinkCursorSendData, value1) == 20);
static_assert(offsetof(VlinkCursorSendData, value4) == 26);

// The host's cursor function: the record, its length (28) and the parameters' userData;
// 0 when it took the record.
using VlinkCursorCallback = int32_t (*)(VlinkCursorSendData* data, uint32_t length,
                                        uint32_t userData);

// Cursor parameters of one screen input.
struct VlinkCursorParams {
  uint32_t hostValue;                  // kept, not read
  uint32_t userData;                   // passed back to cursorCallback
  uint8_t isHide;                      // 1: not drawn, cursor id 0 when sent
  uint8_t independent;                 // 1: sent separately instead of drawn into the frames
  uint32_t framerate;                  // samples a second in the independent mode, 1 to 60
  uint32_t shape;                      // cursor id sent while the cursor is shown
  VlinkCursorCallback cursorCallback;  // must not be null
};

// What the screen capturer tells its cursor capturer about the captured monitor. All zero:
// there is no display.
struct VlinkX11ScreenInfo {
  Display* display;
  Window root;
  uint32_t width;
  uint32_t height;
  int32_t grabX;
  int32_t grabY;
};

// The host's snapshot request.
struct TagTavoVideoSnapshotStorage {
  uint32_t width;   // 0: the capture width
  uint32_t height;  // 0: the capture height
  uint8_t reserved1[52];
  uint32_t queueId;  // the host's shared-memory queue that receives the picture
  uint32_t reserved2;
  uint32_t format;
  uint64_t value;
};
static_assert(offsetof(TagTavoVideoSnapshotStorage, queueId) == 60);
static_assert(offsetof(TagTavoVideoSnapshotStorage, format) == 68);
static_assert(offsetof(TagTavoVideoSnapshotStorage, value) == 72);

// The snapshot record at the start of a queue buffer; the pixels follow it.
constexpr uint32_t kSnapshotHeaderBytes = 48;

// Width, height, depth and pixel format of the captured image.
struct VideoCaptureCapability {
  uint32_t width;
  uint32_t height;
  uint32_t depth;
  uint32_t format;  // 16 before an image was read, then 12 (ARGB)
};
