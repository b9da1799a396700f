// What the create row needs of each component type: the node class that serves it, the
// record its SetParam takes and how that record is made from the host's.
#pragma once

#include <cstdint>
#include <cstring>

#include "adapt/tavo_video_vlink_adapt.h"

namespace vlink::component {

struct EncoderComponent {
  using Node = VirtualEncoderNode;
  static uint32_t Convert(VencDevInfo& out, uint32_t /*portId*/, uint32_t imgNo,
                          const tagTavoVideoComponentParam* param) {
    return ConvertVencInfo(imgNo, out, param->venc);
  }
};

struct TestImageComponent {
  using Node = TestInputInputNode;
  static uint32_t Convert(TestDevInfo& out, uint32_t portId, uint32_t imgNo,
                          const tagTavoVideoComponentParam* param) {
    return VlinkCreateTest(out, portId, imgNo, param);
  }
};

struct CameraComponent {
  using Node = CameraCaptureNode;
  static uint32_t Convert(tagCameraCaptureParams& out, uint32_t portId, uint32_t imgNo,
                          const tagTavoVideoComponentParam* param) {
    return VlinkCreateCameraIn(out, portId, imgNo, param);
  }
};

struct VirtualCameraComponent {
  using Node = VirtualCameraNode;
  static uint32_t Convert(VoDevInfo& out, uint32_t /*portId*/, uint32_t /*imgNo*/,
                          const tagTavoVideoComponentParam* param) {
    return VlinkCreateVirCam(out, param);
  }
};

// Decoder and preview records begin with the node's own record, copied whole.
struct DecoderComponent {
  using Node = VirtualDecoderNode;
  static uint32_t Convert(tagTavoVideoVDecParam& out, uint32_t /*portId*/, uint32_t /*imgNo*/,
                          const tagTavoVideoComponentParam* param) {
    std::memcpy(&out, &param->vdec, sizeof(out));
    return 0;
  }
};

struct PreviewComponent {
  using Node = VideoPreviewNode;
  static uint32_t Convert(tagTavoVideoVoChnParam& out, uint32_t /*portId*/, uint32_t /*imgNo*/,
                          const tagTavoVideoComponentParam* param) {
    std::memcpy(&out, &param->vo, sizeof(out));
    return 0;
  }
};

}  // namespace vlink::component
