// Links whose input is a screen: the sinks hang directly off the screen node, or behind a
// conversion node placed with CreateProcessNode for a sink that wants another size.
#pragma once

#include <cstdint>

#include "builder/tavo_video_vlink_builder.h"

class VlinkScreenBuilder : public VlinkBuilder {
 public:
  // Process node id of a builder that made no conversion node (generated ids start above).
  static constexpr uint32_t kNoProcessNode = 10000;

  VlinkScreenBuilder(uint32_t viNodeId, OS_E_MPP_DEV_TYPE type) : VlinkBuilder(viNodeId, type) {}

  // The first bind configures the screen from an encoder sink and starts it.
  uint32_t BindVo(uint32_t voNodeId) override;
  uint32_t UnBindVo(uint32_t voNodeId) override;
  // An encoder's new size becomes the screen's output size.
  uint32_t UpdateVoParam(uint32_t voNodeId, OS_E_MPP_DEV_TYPE voType,
                         tagTavoVideoComponentParam* param) override;
  // Puts a new conversion node between the screen and the sink, which then gets I420 at
  // width x height.
  uint32_t CreateProcessNode(uint32_t width, uint32_t height, const NodePtr& screenNode,
                             const NodePtr& sinkNode);
  uint32_t GetProcessNodeId() const { return m_processNodeId; }

 private:
  uint32_t m_processNodeId = kNoProcessNode;  // guarded by m_bindLock
};
