// The host's controls of camera inputs: the capture size and the overlay channels (on-screen
// text and the virtual background). Overlay settings are kept per camera by the camera
// node's tables, so a link built later picks them up.
//
// A virtual-background path that fills all 1024 bytes of the host record without a
// terminator is refused (1, nothing stored): a cut path would name another file.
#include <cstring>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "background/tavo_video_background_virtuality.h"
#include "camera/tavo_video_vlink_camera_capture_node.h"
#include "tavo_video_vlink_capture.h"
#include "trace/tavo_video_host_guard.h"

namespace {

// Overlay channels by kind: channel id -> camera node id.
struct OverlayChannels {
  // Guards both maps. Held only to read or change them: node operations (which start and
  // join threads) run after it is let go. No host callback runs under it.
  std::mutex lock;
  std::unordered_map<uint32_t, uint32_t> text;
  std::unordered_map<uint32_t, uint32_t> background;
};

OverlayChannels& Channels() {
  static OverlayChannels channels;
  return channels;
}

std::optional<uint32_t> CameraOf(const std::unordered_map<uint32_t, uint32_t>& table,
                                 uint32_t channelId) {
  auto it = table.find(channelId);
  if (it == table.end()) {
    return std::nullopt;
  }
  return it->second;
}

struct ChannelLookup {
  std::optional<uint32_t> textCamera;
  std::optional<uint32_t> backgroundCamera;
};

ChannelLookup Lookup(uint32_t channelId) {
  OverlayChannels& channels = Channels();
  std::lock_guard<std::mutex> lock(channels.lock);
  return {CameraOf(channels.text, channelId), CameraOf(channels.background, channelId)};
}

// The camera's virtual-background node, logging what is missing.
std::shared_ptr<BackgroundVirtualityNode> BackgroundNodeOf(
    const std::shared_ptr<CameraCaptureNode>& camera, uint32_t cameraId, uint32_t channelId) {
  if (!camera) {
    VLOG_ERR("GetNodeByUnique fail, imgNo:%d channelId:%d", static_cast<int>(cameraId),
             static_cast<int>(channelId));
    return nullptr;
  }
  uint32_t bgNodeId = 0;
  if (CameraCaptureNode::GetBgVirtualNodeId(cameraId, bgNodeId) != 0) {
    VLOG_ERR("GetBgVirtualNodeId fail, imgNo:%d channelId:%d", static_cast<int>(cameraId),
             static_cast<int>(channelId));
    return nullptr;
  }
  return VideoVlinkNode::GetNodeByUnique<BackgroundVirtualityNode>(bgNodeId);
}

uint32_t EnableOverlay(uint32_t channelId, bool enable) {
  const ChannelLookup channel = Lookup(channelId);
  if (channel.backgroundCamera) {
    const uint32_t cameraId = *channel.backgroundCamera;
    // Kept first, so a virtual-background node made later starts in this state.
    CameraCaptureNode::SetBgVirtualParamEnableStatus(enable, cameraId);
    if (auto bgNode = BackgroundNodeOf(VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(cameraId),
                                       cameraId, channelId)) {
      bgNode->SetEnable(enable);
    }
    return 0;
  }
  if (enable) {
    return 0;
  }
  if (channel.textCamera) {
    std::shared_ptr<CameraCaptureNode> camera =
        VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(*channel.textCamera);
    if (!camera) {
      VLOG_ERR_MODULE("GetNodeByUnique fail, imgNo:%d", static_cast<int>(*channel.textCamera));
      return 1;
    }
    return camera->CloseIvr();
  }
  VLOG_ERR_MODULE("channel:%d not create!", static_cast<int>(channelId));
  return 1;
}

uint32_t SetBackgroundOverlay(uint32_t cameraId, uint32_t channelId,
                              const tagTavoVideoOverlayParam& param) {
  const char* path = param.background.bgImagePath;
  if (strnlen(path, kBackgroundImagePathLength) >= kBackgroundImagePathLength) {
    VLOG_ERR("channel:%d bgImagePath is not terminated", static_cast<int>(channelId));
    return 1;
  }
  BackgroundVirtualityParams record{};
  std::memcpy(record.bgImagePath, path, sizeof(record.bgImagePath));
  CameraCaptureNode::SetBgVirtualParam(record, cameraId);
  std::shared_ptr<CameraCaptureNode> camera =
      VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(cameraId);
  if (camera) {
    const tagCameraCaptureParams capture = camera->GetParam();
    record.width = capture.uiWidth;
    record.height = capture.uiHeight;
    record.frameRate = capture.uiFrameRate;
  }
  if (auto bgNode = BackgroundNodeOf(camera, cameraId, channelId)) {
    bgNode->SetParam(record);
  }
  return 0;
}

}  // namespace

uint32_t TavoVideoSetCapResolution(uint32_t nodeId, uint32_t width, uint32_t height) try {
  VideoVlinkNode::NodePtr node = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(nodeId);
  if (!node) {
    VLOG_ERR_MODULE("node isn't exist! viPort[%u]", nodeId);
    return 1;
  }
  if (node->GetNodeType() != OS_E_MPP_DEV_CAMERA) {
    return 0;  // only cameras have a capture size
  }
  std::shared_ptr<CameraCaptureNode> camera =
      VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(nodeId);
  if (!camera) {
    VLOG_ERR_MODULE("CameraCaptureNode isn't exist! viPort[%u]", nodeId);
    return 1;
  }
  tagCameraCaptureParams params = camera->GetParam();
  params.uiWidth = width;
  params.uiHeight = height;
  VLOG_INF_MODULE("updataCapture resolution w:%u h:%u vi:%u", width, height, params.viPort);
  const uint32_t result = camera->SetParam(params);
  if (result != 0) {
    VLOG_ERR("SetParam failed");
  }
  return result;
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoVlinkOverlayParamCreate(uint32_t cameraNodeId, uint32_t channelId,
                                          uint32_t* queId, uint32_t overlayType, ...) try {
  VLOG_INF_MODULE("Overlay Param Create: imgNo[%u], channelId[%u], queId[%u], vlinkOverlayType[%d]",
                  cameraNodeId, channelId, queId != nullptr ? *queId : 0U,
                  static_cast<int>(overlayType));
  {
    OverlayChannels& channels = Channels();
    std::lock_guard<std::mutex> lock(channels.lock);
    if (overlayType == TAVO_VIDEO_OVERLAY_TEXT) {
      channels.text[channelId] = cameraNodeId;
    } else if (overlayType == TAVO_VIDEO_OVERLAY_VIRTUAL_BACKGROUND) {
      channels.background[channelId] = cameraNodeId;
    }
  }
  VLOG_INF_MODULE("TavoVideoVlinkOverlayParamCreate enter imgNo:%d channelId:%d",
                  static_cast<int>(cameraNodeId), static_cast<int>(channelId));
  return 0;
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoVlinkOverlayParamEnable(uint32_t channelId, uint32_t enable, ...) try {
  const bool on = (enable & 0xFFU) != 0;
  VLOG_INF_MODULE("Overlay Param Enable: channelId[%u], enable[%d]", channelId,
                  static_cast<int>(enable & 0xFFU));
  return EnableOverlay(channelId, on);
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoVlinkOverlayParamSet(uint32_t channelId, tagTavoVideoOverlayParam* param,
                                       ...) try {
  VLOG_INF_MODULE("Overlay Param Set: channelId[%u]", channelId);
  if (param == nullptr) {
    VLOG_ERR("overlay param is nullptr, channelId:%u", channelId);
    return 1;
  }
  const ChannelLookup channel = Lookup(channelId);
  if (channel.backgroundCamera) {
    return SetBackgroundOverlay(*channel.backgroundCamera, channelId, *param);
  }
  if (channel.textCamera) {
    std::shared_ptr<CameraCaptureNode> camera =
        VideoVlinkNode::GetNodeByUnique<CameraCaptureNode>(*channel.textCamera);
    if (!camera) {
      VLOG_ERR_MODULE("GetNodeByUnique fail, imgNo:%d", static_cast<int>(*channel.textCamera));
      return 1;
    }
    return camera->SetIvrParam(1, &param->text);
  }
  VLOG_ERR_MODULE("channel:%d not create!", static_cast<int>(channelId));
  return 1;
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoVlinkOverlayParamDestroy(uint32_t channelId, ...) try {
  VLOG_INF_MODULE("Overlay Param Destroy: channelId[%u]", channelId);
  const ChannelLookup channel = Lookup(channelId);
  if (!channel.textCamera && !channel.backgroundCamera) {
    return 0;
  }
  const uint32_t result = EnableOverlay(channelId, false);
  OverlayChannels& channels = Channels();
  std::lock_guard<std::mutex> lock(channels.lock);
  if (channel.textCamera) {
    channels.text.erase(channelId);
  } else {
    channels.background.erase(channelId);
  }
  return result;
}
VLINK_HOST_CATCH(1)
