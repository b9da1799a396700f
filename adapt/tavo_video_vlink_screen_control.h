// The screen component's record conversion, used by the component tables.
#pragma once

#include <cstdint>

#include "screen/tavo_video_vlink_screen_capture_node.h"
#include "tavo_video_vlink_component.h"

uint32_t VlinkCreateScreenIn(ViDevInfo& out, uint32_t portId, uint32_t imgNo,
                             const tagTavoVideoComponentParam* param);

// The screen rows of the create and destroy tables.
struct ScreenComponent {
  using Node = ScreenCaptureNode;
  static uint32_t Convert(ViDevInfo& out, uint32_t portId, uint32_t imgNo,
                          const tagTavoVideoComponentParam* param) {
    return VlinkCreateScreenIn(out, portId, imgNo, param);
  }
};
