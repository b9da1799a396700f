// Links whose input is a camera: camera -> one virtual-background node -> every sink. The
// virtual-background node is made at the first bind, shared by every later sink, and
// removed by the camera's stop; the camera records which node it is.
#pragma once

#include "builder/tavo_video_vlink_builder.h"

class VlinkCameraBuilder : public VlinkBuilder {
 public:
  VlinkCameraBuilder(uint32_t viNodeId, OS_E_MPP_DEV_TYPE type) : VlinkBuilder(viNodeId, type) {}

  uint32_t BindVo(uint32_t voNodeId) override;
  uint32_t UnBindVo(uint32_t voNodeId) override;

 private:
  // Starts the camera and puts a configured virtual-background node behind it; m_bindLock
  // held.
  uint32_t BuildCameraHead(const NodePtr& camera);
};
