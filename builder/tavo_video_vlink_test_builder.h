// Links whose input is a still test image: every sink hangs directly off the test node
// and receives the image at its own size in I420.
#pragma once

#include "builder/tavo_video_vlink_builder.h"

class VlinkTestBuilder : public VlinkBuilder {
 public:
  VlinkTestBuilder(uint32_t viNodeId, OS_E_MPP_DEV_TYPE type) : VlinkBuilder(viNodeId, type) {}

  uint32_t BindVo(uint32_t voNodeId) override;
  uint32_t UnBindVo(uint32_t voNodeId) override;
};
