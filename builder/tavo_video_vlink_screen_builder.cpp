#include "builder/tavo_video_vlink_screen_builder.h"

#include "process/tavo_video_vlink_image_process_node.h"
#include "screen/tavo_video_vlink_screen_capture_node.h"

uint32_t VlinkScreenBuilder::BindVo(uint32_t voNodeId) {
  DirectBindSteps steps;
  steps.findInput = [this] {
    return VideoVlinkNode::GetNodeByUnique<ScreenCaptureNode>(m_viNodeId);
  };
  // The sink learns its input; an encoder sink bound first sets the screen's rate and size.
  steps.beforeStart = [this](const NodePtr& input, const NodePtr& sink) -> uint32_t {
    sink->SetViNodeId(m_viNodeId);
    const bool isEncoder = sink->GetNodeType() == OS_E_MPP_DEV_VENC;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t fps = 0;
    if (isEncoder && sink->GetNodeResolution(width, height, fps) != 0) {
      width = height = fps = 0;
    }
    if (m_isFirstBind && isEncoder) {
      auto* screen = static_cast<ScreenCaptureNode*>(input.get());
      screen->SetCaptureFps(fps);
      if (screen->SetEncodeResolution(width, height) != 0) {
        VLOG_ERR("SetEncodeResolution failed");
        return 1;
      }
    }
    return 0;
  };
  steps.reportLinkFailure = false;
  return BindDirectSink(voNodeId, steps);
}

uint32_t VlinkScreenBuilder::UnBindVo(uint32_t voNodeId) {
  const uint32_t result = UnBindDirectSink(voNodeId);
  std::lock_guard<std::mutex> lock(m_bindLock);
  if (m_processNodeId != kNoProcessNode &&
      !VideoVlinkNode::GetNodeByUnique<ImageProcessNode>(m_processNodeId)) {
    m_processNodeId = kNoProcessNode;
  }
  return result;
}

uint32_t VlinkScreenBuilder::UpdateVoParam(uint32_t /*voNodeId*/, OS_E_MPP_DEV_TYPE voType,
                                           tagTavoVideoComponentParam* param) {
  if (voType != OS_E_MPP_DEV_VENC) {
    return 0;
  }
  if (param == nullptr) {
    VLOG_ERR("encParam is nullptr");
    return 1;
  }
  std::shared_ptr<ScreenCaptureNode> screen =
      VideoVlinkNode::GetNodeByUnique<ScreenCaptureNode>(m_viNodeId);
  if (!screen) {
    VLOG_ERR("vi node is nullptr");
    return 1;
  }
  // Not checked: a screen that cannot take the size now gets it at its next start.
  screen->SetEncodeResolution(param->venc.width, param->venc.height);
  return 0;
}

uint32_t VlinkScreenBuilder::CreateProcessNode(uint32_t width, uint32_t height,
                                               const NodePtr& screenNode, const NodePtr& sinkNode) {
  std::lock_guard<std::mutex> lock(m_bindLock);
  if (!screenNode || !sinkNode) {
    VLOG_ERR("node is nullptr");
    return 1;
  }
  VideoNodeRequirement requirement{1, width, height, TAVO_VIDEO_VLINK_FORMAT_I420};
  sinkNode->SetRequirement(requirement);
  uint32_t processNodeId = kNoProcessNode;
  if (CreateImageProcessNode(screenNode, processNodeId) != 0) {
    VLOG_ERR("CreateImageProcessNode failed");
    return 1;
  }
  m_processNodeId = processNodeId;
  NodePtr process = VideoVlinkNode::GetNodeByUnique<ImageProcessNode>(processNodeId);
  if (!process) {
    VLOG_ERR("process node is nullptr");
    return 1;
  }
  // The sink is already started; nothing is undone on failure.
  const vlink::LinkResult link = vlink::LinkNodes(process, sinkNode, {.startReceiver = false});
  VLINK_REPORT_LINK_FAILURE(link, sinkNode->GetNodeId());
  return link.code;
}
