// The virtual camera output: hands decoded-frame records to the host's virtual camera
// callback through AcquireBuffer. Frames queued to it through a link are refused, so they
// go straight back to their producer.
#pragma once

#include <cstdint>
#include <map>

#include "core/tavo_video_vlink_node.h"
#include "tavo_video_vlink_component.h"

struct VoDevInfo {
  uint32_t voPort;
  uint32_t frameRate;
  uint32_t width;
  uint32_t height;
  std::map<uint32_t, uint32_t> hostMap;  // carried, not read
  TavoVideoVirtualOutFunc virtualOutFunc;
};

class VirtualCameraNode : public VideoVlinkNode {
 public:
  explicit VirtualCameraNode(uint32_t id);
  ~VirtualCameraNode() override;

  virtual uint32_t SetParam(const VoDevInfo& info);
  uint32_t CheckParam(const VoDevInfo& info);
  // Passes the record to the host callback as both target and source.
  uint32_t AcquireBuffer(tagOS_S_VIDEO_CODEC_IMG_INFO& info);
  VoDevInfo GetParam();

 protected:
  uint32_t OnStartWhileStarted() override;
  uint32_t OnStop() override;

 private:
  VoDevInfo m_param{};  // guarded by m_nodeLock
};
