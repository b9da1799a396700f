// Links whose input is a decoded-frame node: every sink hangs directly off the decoder,
// and each bind pushes the decoder's watermark to the previews it feeds.
#pragma once

#include "builder/tavo_video_vlink_builder.h"

class VlinkDecodeBuilder : public VlinkBuilder {
 public:
  VlinkDecodeBuilder(uint32_t viNodeId, OS_E_MPP_DEV_TYPE type) : VlinkBuilder(viNodeId, type) {}

  uint32_t BindVo(uint32_t voNodeId) override;
  uint32_t UnBindVo(uint32_t voNodeId) override;
};
