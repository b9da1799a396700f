// The virtual-background configuration of one camera, as the overlay control and the camera
// builder hand it to the virtual-background node.
#pragma once

#include <cstdint>

struct BackgroundVirtualityParams {
  char bgImagePath[1024];  // replacement background image, NUL-terminated
  uint32_t width;          // of the camera that feeds the node
  uint32_t height;
  uint32_t frameRate;
  uint32_t reserved;  // always 0
};
