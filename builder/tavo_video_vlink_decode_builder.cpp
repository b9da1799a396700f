#include "builder/tavo_video_vlink_decode_builder.h"

#include "codec/tavo_video_vlink_vdec_node.h"

uint32_t VlinkDecodeBuilder::BindVo(uint32_t voNodeId) {
  // The watermark goes out also after a failed connect, so previews already linked still
  // get it. Only the decoder class has the decoder's node type; the check guards against a
  // node of another kind registered under the input's id since the builder was made.
  DirectBindSteps steps;
  steps.afterConnect = [](const NodePtr& input) {
    if (input->GetNodeType() == OS_E_MPP_DEV_VDEC) {
      static_cast<VirtualDecoderNode*>(input.get())->SetLinkedVoWaterMarkParam();
    }
  };
  return BindDirectSink(voNodeId, steps);
}

uint32_t VlinkDecodeBuilder::UnBindVo(uint32_t voNodeId) { return UnBindDirectSink(voNodeId); }
