// The component tables' functions and the record conversions behind them.
#pragma once

#include <cstdint>

#include "camera/tavo_video_vlink_camera_capture_node.h"
#include "codec/tavo_video_vlink_vdec_node.h"
#include "codec/tavo_video_vlink_venc_node.h"
#include "codec/tavo_video_vlink_virtual_camera_node.h"
#include "render/tavo_video_vlink_preview_node.h"
#include "tavo_video_vlink_component.h"
#include "test_input/tavo_video_vlink_test_node.h"

uint32_t ConvertVencInfo(uint32_t imgNo, VencDevInfo& out, const tagTavoVideoVEncParam& in);
uint32_t VlinkCreateTest(TestDevInfo& out, uint32_t portId, uint32_t imgNo,
                         const tagTavoVideoComponentParam* param);

// Camera (type 0): size and rate at 4, 8, 12 and the identity at 40 (at most 191
// characters); imgNo and viPort from the parameter store.
uint32_t VlinkCreateCameraIn(tagCameraCaptureParams& out, uint32_t portId, uint32_t imgNo,
                             const tagTavoVideoComponentParam* param);

uint32_t VlinkCreateVirCam(VoDevInfo& out, const tagTavoVideoComponentParam* param);

uint32_t VlinkBind(uint32_t sinkComponentId, uint32_t sourceComponentId);
uint32_t VlinkUnbind(uint32_t sinkComponentId, uint32_t sourceComponentId);
uint32_t VlinkUpdateVENC(uint32_t componentId, tagTavoVideoComponentParam* param);
uint32_t VlinkUpdateVdec(uint32_t componentId, tagTavoVideoComponentParam* param);
uint32_t VlinkUpdateVoChn(uint32_t componentId, tagTavoVideoComponentParam* param);
