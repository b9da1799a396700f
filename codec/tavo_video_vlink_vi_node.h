// The virtual input base: the input parameter record of a screen input.
#pragma once

#include <cstddef>
#include <cstdint>

// Host function told about an input: (node id, status); status 0 = opened, 3 = no frame.
using VlinkInputStatusCallback = void (*)(uint32_t nodeId, uint32_t status);

// The parameter record of a virtual (screen) input.
struct ViDevInfo {
  uint32_t reserved0;  // 0
  uint32_t imgNo;      // node id given by the host; screens use 90 and up
  uint32_t portId;
  uint32_t width;       // asked by the host, non-zero
  uint32_t height;      // asked by the host, non-zero
  uint32_t fps;         // frame rate
  uint32_t captureFps;  // the rate the capturer paces itself by, non-zero
  uint32_t reserved[9];
  VlinkInputStatusCallback statusCallback;  // may be null
  uint64_t hostValue64;                     // carried unchanged
  uint32_t hostValue32;                     // carried unchanged
};
