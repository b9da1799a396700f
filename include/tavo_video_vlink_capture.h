// Capture, snapshot, mouse and overlay control: the exported functions a host calls on
// camera and screen inputs, and the records they read.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tavo_video_vlink_camera.h"
#include "tavo_video_vlink_trace.h"  // TAVO_VLINK_API

// What the library hands the host's cursor function for every cursor sample of a screen in
// independent cursor mode (28 bytes, little-endian).
struct VlinkCursorSendData {
  uint32_t cursorId;  // the mouse parameters' shape, or 0 when the cursor is hidden
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

// The host's cursor function: the record, its length (28) and the mouse's userData; 0 when
// it took the record.
typedef int32_t (*VlinkCursorCallback)(VlinkCursorSendData* data, uint32_t length,
                                       uint32_t userData);

// Cursor parameters of one screen input, as the library keeps them.
struct VlinkCursorParams {
  uint32_t hostValue;                  // kept, not read
  uint32_t userData;                   // passed back to cursorCallback
  uint8_t isHide;                      // 1: not drawn, cursor id 0 when sent
  uint8_t independent;                 // 1: sent separately instead of drawn into the frames
  uint32_t framerate;                  // samples a second in the independent mode, 1 to 60
  uint32_t shape;                      // cursor id sent while the cursor is shown
  VlinkCursorCallback cursorCallback;  // must not be null
};

// The host's mouse record for TavoVideoMouseSetParam.
struct tagTavoVideoMouseParam {
  uint32_t screenComponentId;  // 0: the screen input's component id
  uint32_t userData;           // 4
  uint8_t independent;         // 8: 1 = cursor records go to cursorCallback
  uint8_t reserved9[3];
  uint32_t framerate;  // 12: 1 to 60
  uint32_t shape;      // 16
  uint32_t reserved20;
  VlinkCursorCallback cursorCallback;  // 24
};
static_assert(offsetof(tagTavoVideoMouseParam, independent) == 8);
static_assert(offsetof(tagTavoVideoMouseParam, framerate) == 12);
static_assert(offsetof(tagTavoVideoMouseParam, cursorCallback) == 24);

// The host's snapshot request: the picture goes into the host's shared-memory queue.
struct TagTavoVideoSnapshotStorage {
  uint32_t width;   // 0: the capture width
  uint32_t height;  // 0: the capture height
  uint8_t reserved1[52];
  uint32_t queueId;  // 60: the host's shared-memory queue that receives the picture
  uint32_t reserved2;
  uint32_t format;  // 68: only 3 is supported
  uint64_t value;   // 72
};
static_assert(offsetof(TagTavoVideoSnapshotStorage, queueId) == 60);
static_assert(offsetof(TagTavoVideoSnapshotStorage, format) == 68);
static_assert(offsetof(TagTavoVideoSnapshotStorage, value) == 72);

// Overlay kinds of TavoVideoVlinkOverlayParamCreate.
enum TavoVideoVlinkOverlayType : uint32_t {
  TAVO_VIDEO_OVERLAY_TEXT = 0,
  TAVO_VIDEO_OVERLAY_VIRTUAL_BACKGROUND = 3,
};

constexpr size_t kBackgroundImagePathLength = 1024;

// The host's overlay record for TavoVideoVlinkOverlayParamSet: a text channel reads the
// text request at offset 36, a virtual-background channel the image path at offset 52.
struct tagTavoVideoOverlayParam {
  uint8_t reserved0[36];
  union {
    TavoVideoOverlayTextInfo text;  // 36
    struct {
      uint8_t reserved36[16];
      char bgImagePath[kBackgroundImagePathLength];  // 52: NUL-terminated
    } background;
  };
};
static_assert(offsetof(tagTavoVideoOverlayParam, text) == 36);
static_assert(offsetof(tagTavoVideoOverlayParam, background.bgImagePath) == 52);
static_assert(sizeof(tagTavoVideoOverlayParam) == 52 + kBackgroundImagePathLength);

// The camera node `nodeId` captures at width x height from its next start. 0 and nothing
// done for an input that is not a camera; 1 for an unknown node.
TAVO_VLINK_API uint32_t TavoVideoSetCapResolution(uint32_t nodeId, uint32_t width, uint32_t height);
// One picture of a screen input (snapshot ids 99 and 100 name screen nodes 90 and 91, other
// ids are node ids) into the host's queue; format 3 only.
TAVO_VLINK_API uint32_t TavoVideoVlinkSnapShot(uint32_t id, TagTavoVideoSnapshotStorage* storage);

// Attaches a host mouse to a screen input and sets its cursor parameters (kept until the
// screen exists when it does not yet). A mouse stays attached until TavoVideoMouseStop.
TAVO_VLINK_API uint32_t TavoVideoMouseSetParam(uint32_t mouseId, tagTavoVideoMouseParam* param);
TAVO_VLINK_API uint32_t TavoVideoShowMouse(uint32_t mouseId);
TAVO_VLINK_API uint32_t TavoVideoHideMouse(uint32_t mouseId);
TAVO_VLINK_API uint32_t TavoVideoMouseStop(uint32_t mouseId);  // always 0

// Overlay channels of camera inputs: text (type 0) or the virtual background (type 3).
// Further arguments are not read.
TAVO_VLINK_API uint32_t TavoVideoVlinkOverlayParamCreate(uint32_t cameraNodeId, uint32_t channelId,
                                                         uint32_t* queId, uint32_t overlayType,
                                                         ...);
// Only the low 8 bits of enable count.
TAVO_VLINK_API uint32_t TavoVideoVlinkOverlayParamEnable(uint32_t channelId, uint32_t enable, ...);
TAVO_VLINK_API uint32_t TavoVideoVlinkOverlayParamSet(uint32_t channelId,
                                                      tagTavoVideoOverlayParam* param, ...);
TAVO_VLINK_API uint32_t TavoVideoVlinkOverlayParamDestroy(uint32_t channelId, ...);
