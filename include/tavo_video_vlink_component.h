// Component tables and the host records they read.
//
// The host fetches seven tables (create, bind, unbind, destroy, update, dump, snapshot),
// each row keyed by a component type, and drives every video component through them with
// its own component ids. Before creating a component it stores "imgNo" (the node id) and
// "portId" in the parameter container "Node[<component id>]PresentParam".
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "osv_graphic_buffer.h"
#include "tavo_video_render_interface.h"
#include "tavo_video_vlink_trace.h"  // TAVO_VLINK_API

// Component types: the keys of the tables.
enum TavoVideoComponentType : uint32_t {
  TAVO_VIDEO_COMPONENT_CAMERA = 0,
  TAVO_VIDEO_COMPONENT_TEST_IMAGE = 2,
  TAVO_VIDEO_COMPONENT_DECODER = 3,
  TAVO_VIDEO_COMPONENT_INPUT = 4,  // appears only as the source of bind and unbind rows
  TAVO_VIDEO_COMPONENT_SCREEN = 7,
  TAVO_VIDEO_COMPONENT_ENCODER = 10,
  TAVO_VIDEO_COMPONENT_PREVIEW = 13,
  TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA = 29,
};

// The codec the host encodes with; the library only carries it.
typedef uint32_t TavoVideoCodecType;

struct tagTavoVideoRect {
  uint32_t x;
  uint32_t y;
  uint32_t width;
  uint32_t height;
};
static_assert(sizeof(tagTavoVideoRect) == 16);

// What the encoder node hands the host with every frame: 144 bytes, allocated by the
// library, given back with TavoVideoReleaseVEncFrame. Bytes marked unused are not written.
struct VencOutFrame {
  uint32_t imgNo;       // 0: the encoder component's node id
  uint32_t hostSubKey;  // 4
  uint32_t hostKey;     // 8
  uint8_t unused12[20];
  OsvGraphicBuffer* buffer;  // 32: the frame; read the image through it
  uint8_t unused40[8];
  uint32_t hostTag;  // 48
  uint8_t unused52[20];
  uint64_t sequence;     // 72: frames offered by this encoder before this one
  uint64_t timestampUs;  // 80: monotonic time of the hand-off
  uint8_t unused88[56];
};
static_assert(sizeof(VencOutFrame) == 144);
static_assert(offsetof(VencOutFrame, buffer) == 32);
static_assert(offsetof(VencOutFrame, hostTag) == 48);
static_assert(offsetof(VencOutFrame, sequence) == 72);

// The host accepts a frame by returning exactly 1; it then owns the record and the frame's
// reference until it calls TavoVideoReleaseVEncFrame.
typedef uint32_t (*TavoVideoEncOutFunc)(uint32_t imgNo, uint32_t hostKey, uint32_t hostSubKey,
                                        VencOutFrame* frame);
// Asked to create the encoder when the node starts; 0 means created.
typedef uint32_t (*TavoVideoEncCreateFunc)(uint32_t imgNo, uint32_t hostKey, uint32_t hostSubKey);

// Encoder component (type 10).
struct tagTavoVideoVEncParam {
  uint32_t hostTag;       // 0
  uint32_t voPort;        // 4
  uint32_t imgNo;         // 8: not read; the node id comes from the parameter container
  uint32_t hostKey;       // 12
  uint32_t width;         // 16
  uint32_t height;        // 20
  uint32_t hostValue6;    // 24
  uint32_t frameRate;     // 28
  uint32_t hostValue8;    // 32
  tagTavoVideoRect rect;  // 36
  uint32_t reserved52;
  uint32_t hostSubKey;                   // 56
  uint32_t format;                       // 60: TavoVideoVlinkFormat
  TavoVideoEncOutFunc encOutFunc;        // 64
  TavoVideoEncCreateFunc encCreateFunc;  // 72
  uint32_t reserved80;
  TavoVideoCodecType codecType;  // 84
};
static_assert(offsetof(tagTavoVideoVEncParam, rect) == 36);
static_assert(offsetof(tagTavoVideoVEncParam, hostSubKey) == 56);
static_assert(offsetof(tagTavoVideoVEncParam, encOutFunc) == 64);
static_assert(offsetof(tagTavoVideoVEncParam, codecType) == 84);

// Test-image component (type 2).
#define TAVO_VIDEO_TEST_FILE_NAME_LEN 1024
struct tagTavoVideoTestParam {
  uint32_t width;       // 0: size of a raw I420 file
  uint32_t height;      // 4
  uint32_t frameRate;   // 8: must be non-zero; frames go out twice a second regardless
  uint32_t hostValue4;  // 12
  uint8_t reserved16[16];
  char fileName[TAVO_VIDEO_TEST_FILE_NAME_LEN];  // 32: BMP, or raw I420 ("dat"/"yuv")
};
static_assert(offsetof(tagTavoVideoTestParam, fileName) == 32);

// A decoded frame as the host hands it over (152 bytes, owned by the host).
typedef uint64_t TavoVideoDefreezeStrategy;  // 8 bytes; the library copies it unchanged
struct tagOS_S_VIDEO_CODEC_IMG_INFO {
  uint8_t reserved0[112];
  OsvGraphicBuffer* pBuffer;  // 112: made by the host with new
  uint8_t reserved120[24];
  TavoVideoDefreezeStrategy defreezeStrategy;  // 144: written once after a freeze request
};
static_assert(sizeof(tagOS_S_VIDEO_CODEC_IMG_INFO) == 152);
static_assert(offsetof(tagOS_S_VIDEO_CODEC_IMG_INFO, pBuffer) == 112);

// Gives a frame record back once the link is done with it; non-zero means the host took
// it. On 0 the library deletes the buffer (delete) and the record (free) itself.
typedef uint32_t (*TavoVideoDecReleaseFunc)(uint32_t nodeId, tagOS_S_VIDEO_CODEC_IMG_INFO* frame);

// Decoder input component (type 3), 336 bytes.
#define TAVO_VIDEO_WATERMARK_CONTENT_LEN 271
struct tagTavoVideoVDecParam {
  uint32_t imgNo;  // 0: 0 to 225; stamped on every frame
  uint8_t reserved4[36];
  TavoVideoDecReleaseFunc decReleaseFunc;  // 40
  uint8_t reserved48[16];
  uint8_t watermarkEnable;                                  // 64
  char watermarkContent[TAVO_VIDEO_WATERMARK_CONTENT_LEN];  // 65: NUL-terminated
};
static_assert(sizeof(tagTavoVideoVDecParam) == 336);
static_assert(offsetof(tagTavoVideoVDecParam, decReleaseFunc) == 40);
static_assert(offsetof(tagTavoVideoVDecParam, watermarkContent) == 65);

// One preview window (64 bytes).
struct tagTavoVideoVoWinParam {
  uint32_t reserved0;
  uint32_t imgNo;  // 4: the source image number this window shows
  uint8_t reserved8[7];
  uint8_t flag;  // 15
  uint8_t reserved16[32];
  uint64_t winHandle;  // 48: the host's window handle
  uint8_t reserved56[8];
};
static_assert(sizeof(tagTavoVideoVoWinParam) == 64);

// Preview component (type 13), 2632 bytes.
#define TAVO_VIDEO_MAX_VO_WINDOWS 40
#define TAVO_VIDEO_VO_COLOR_SPACE_WORD 6
struct tagTavoVideoVoChnParam {
  uint32_t header[14];  // word 6 is the colour space; the others are carried
  tagTavoVideoVoWinParam windows[TAVO_VIDEO_MAX_VO_WINDOWS];  // 56
  uint32_t winNum;  // 2616: valid window entries, at most 40
  uint32_t reserved2620;
  TavoVideoRenderCallback renderCb;  // 2624
};
static_assert(sizeof(tagTavoVideoVoChnParam) == 2632);
static_assert(offsetof(tagTavoVideoVoChnParam, winNum) == 2616);
static_assert(offsetof(tagTavoVideoVoChnParam, renderCb) == 2624);

// What the first-frame report tells the host about a window (80 bytes).
struct TavoVideoDisplayWinInfo {
  uint32_t viPort;  // 0
  uint8_t reserved4[64];
  uint8_t firstFrameFlag;  // 68
  uint8_t reserved69[3];
  uint32_t winId;  // 72: low 32 bits of the window handle
  uint32_t reserved76;
};
static_assert(sizeof(TavoVideoDisplayWinInfo) == 80);
static_assert(offsetof(TavoVideoDisplayWinInfo, winId) == 72);

// Receives each frame record given to a virtual camera: (port, target, its size, source,
// its size) -> 0 on success.
typedef uint32_t (*TavoVideoVirtualOutFunc)(uint32_t port, void* target, uint32_t targetSize,
                                            void* source, uint32_t sourceSize);

// Virtual camera output component (type 29).
struct tagTavoVideoVirCamParam {
  uint32_t reserved0;
  uint32_t voPort;     // 4
  uint32_t width;      // 8
  uint32_t height;     // 12
  uint32_t frameRate;  // 16
  uint32_t reserved20;
  TavoVideoVirtualOutFunc virtualOutFunc;  // 24
};
static_assert(offsetof(tagTavoVideoVirCamParam, virtualOutFunc) == 24);

// Camera input component (type 0). The size and rate are what the host asks of the camera.
struct tagTavoVideoCameraParam {
  uint32_t reserved0;
  uint32_t width;      // 4
  uint32_t height;     // 8
  uint32_t frameRate;  // 12
  uint8_t reserved16[24];
  char cameraId[192];  // 40: NUL-terminated device identity (V4L2 bus information)
};
static_assert(offsetof(tagTavoVideoCameraParam, cameraId) == 40);

// Told about an input: (node id, status); status 0 = opened, 3 = no frame for 5 s.
typedef void (*TavoVideoInputStatusFunc)(uint32_t nodeId, uint32_t status);

// Screen input component (type 7). The node id ("imgNo" in the container) is 90 + the
// screen port.
struct tagTavoVideoScreenParam {
  uint8_t reserved0[16];
  uint32_t frameRate;  // 16: also the rate the capture paces itself by; non-zero
  uint32_t width;      // 20: non-zero
  uint32_t height;     // 24: non-zero
  uint8_t reserved28[292];
  uint32_t hostValue32;  // 320: carried unchanged
  uint8_t reserved324[12];
  TavoVideoInputStatusFunc statusCallback;  // 336: may be null
  uint64_t hostValue64;                     // 344: carried unchanged
};
static_assert(offsetof(tagTavoVideoScreenParam, frameRate) == 16);
static_assert(offsetof(tagTavoVideoScreenParam, hostValue32) == 320);
static_assert(offsetof(tagTavoVideoScreenParam, statusCallback) == 336);
static_assert(offsetof(tagTavoVideoScreenParam, hostValue64) == 344);

// The host's component record, read according to the component's type.
#define TAVO_VIDEO_COMPONENT_PARAM_SIZE 4096
union tagTavoVideoComponentParam {
  tagTavoVideoVEncParam venc;
  tagTavoVideoTestParam test;
  tagTavoVideoVDecParam vdec;
  tagTavoVideoVoChnParam vo;
  tagTavoVideoVirCamParam virCam;
  tagTavoVideoCameraParam camera;
  tagTavoVideoScreenParam screen;
  uint8_t raw[TAVO_VIDEO_COMPONENT_PARAM_SIZE];
};

// Table rows, 16 bytes each: component type (the sink's for bind and unbind), source type
// (bind and unbind only, else 0), the function.
typedef uint32_t (*TavoVideoCreateNodeFunc)(uint32_t componentId,
                                            tagTavoVideoComponentParam* param);
typedef uint32_t (*TavoVideoBindNodeFunc)(uint32_t sinkComponentId, uint32_t sourceComponentId);
typedef uint32_t (*TavoVideoDestroyNodeFunc)(uint32_t componentId);
typedef uint32_t (*TavoVideoUpdateNodeFunc)(uint32_t componentId,
                                            tagTavoVideoComponentParam* param);
typedef uint32_t (*TavoVideoDumpNodeFunc)(uint32_t componentId);
typedef uint32_t (*TavoVideoSnapshotFunc)(uint32_t componentId);

template <class Func>
struct tagTavoVideoFuncMapRow {
  uint32_t type;
  uint32_t srcType;
  Func func;
};
using tagTavoVideoCreateFuncMap = tagTavoVideoFuncMapRow<TavoVideoCreateNodeFunc>;
using tagTavoVideoBindFuncMap = tagTavoVideoFuncMapRow<TavoVideoBindNodeFunc>;
using tagTavoVideoDestroyFuncMap = tagTavoVideoFuncMapRow<TavoVideoDestroyNodeFunc>;
using tagTavoVideoUpdateFuncMap = tagTavoVideoFuncMapRow<TavoVideoUpdateNodeFunc>;
using tagTavoVideoDumpFuncMap = tagTavoVideoFuncMapRow<TavoVideoDumpNodeFunc>;
using tagTavoVideoSnapshotFuncMap = tagTavoVideoFuncMapRow<TavoVideoSnapshotFunc>;
static_assert(sizeof(tagTavoVideoCreateFuncMap) == 16);

// Each getter stores the table's address and row count; 1 when either pointer is null.
TAVO_VLINK_API uint32_t TavoVideoGetCreateNodeFuncMap(const tagTavoVideoCreateFuncMap** table,
                                                      uint32_t* count);
TAVO_VLINK_API uint32_t TavoVideoGetBindNodeFuncMap(const tagTavoVideoBindFuncMap** table,
                                                    uint32_t* count);
TAVO_VLINK_API uint32_t TavoVideoGetUnBindNodeFuncMap(const tagTavoVideoBindFuncMap** table,
                                                      uint32_t* count);
TAVO_VLINK_API uint32_t TavoVideoGetDestroyNodeFuncMap(const tagTavoVideoDestroyFuncMap** table,
                                                       uint32_t* count);
TAVO_VLINK_API uint32_t TavoVideoGetUpdateNodeFuncMap(const tagTavoVideoUpdateFuncMap** table,
                                                      uint32_t* count);
TAVO_VLINK_API uint32_t TavoVideoGetDumpNodeFuncMap(const tagTavoVideoDumpFuncMap** table,
                                                    uint32_t* count);
TAVO_VLINK_API uint32_t TavoVideoGetSnapshotFuncMap(const tagTavoVideoSnapshotFuncMap** table,
                                                    uint32_t* count);

// Gives back a record received through the encoder callback (also when its encoder is
// gone); the record is freed either way. 1 for a null record or a missing encoder.
TAVO_VLINK_API uint32_t TavoVideoReleaseVEncFrame(VencOutFrame* frame);
// Passes an error the host's encoder met to the encoder node's error callback.
TAVO_VLINK_API uint32_t TavoVideoReportEncError(uint32_t componentId, uint32_t error);

// A decoded frame for the decoder input node `nodeId` (a node id, not a component id).
// 0: the frame is in the link and comes back through decReleaseFunc; otherwise the host
// keeps it.
TAVO_VLINK_API uint32_t TavoVideoReceiveVDecFrame(uint64_t decId, uint32_t nodeId,
                                                  tagOS_S_VIDEO_CODEC_IMG_INFO* frame);
// The next frame record of decoder node `nodeId` carries the first strategy of the list.
TAVO_VLINK_API uint32_t TavoVideoVlinkFreezeLastFrame(
    uint32_t nodeId, uint64_t ignored, std::vector<TavoVideoDefreezeStrategy>* strategies);
// Stops rendering into one window of a preview component; it drops frames from then on.
TAVO_VLINK_API uint32_t TavoVideoVlinkVoStopRender(uint32_t componentId, uint64_t winHandle);
// 0 when a node with that id exists; does nothing else.
TAVO_VLINK_API uint32_t TavoVideoVlinkVoSetDefaultImage(uint32_t nodeId);
// Learns of the first frame rendered in each window (for image numbers 150 to 177).
TAVO_VLINK_API uint32_t
TavoVideoSetWinReportCb(std::function<int(TavoVideoDisplayWinInfo&)> winReportCb);

// Kept for the host interface; they take any arguments and do nothing.
TAVO_VLINK_API uint32_t TavoVideoFindFreeVoChnId(...);  // 1
TAVO_VLINK_API uint32_t TavoVideoSetSrEnableInAdapt(...);
TAVO_VLINK_API uint32_t TavoVideoSetMouseDisplay(...);
TAVO_VLINK_API uint32_t TavoVideoInitTermType(...);
TAVO_VLINK_API uint32_t TavoVideoMouseStart(...);
TAVO_VLINK_API uint32_t TavoVideoUploadLocalMouse(...);
TAVO_VLINK_API uint32_t TavoVideoSetDecAntiJitterStatus(...);
TAVO_VLINK_API uint32_t TavoVideoSetVoDisplayMode(...);
TAVO_VLINK_API uint32_t TavoVideoRegisterTimerHandler(...);
TAVO_VLINK_API uint32_t TavoVideoSetCropRect(...);
TAVO_VLINK_API uint32_t TavoVideoEnableVoDev(...);
TAVO_VLINK_API uint32_t TavoVideoGetCropRect(...);
TAVO_VLINK_API uint32_t TavoVideoSetEptzMove(...);
TAVO_VLINK_API uint32_t TavoVideoSetEptzMoveSpeed(...);
TAVO_VLINK_API uint32_t TavoVideoReplaceViPort(...);
TAVO_VLINK_API uint32_t TavoVideoOverlayCfgProc(...);
TAVO_VLINK_API uint32_t TavoVideoVlinkGetQueHandle(...);
TAVO_VLINK_API uint32_t TavoVideoVlinkAddFilterWindow(...);
TAVO_VLINK_API uint32_t TavoVideoVlinkDeleteFilterWindow(...);
TAVO_VLINK_API uint32_t TavoVideoVlinkSetAnnotationStatus(...);
TAVO_VLINK_API uint32_t TavoVideoRegistVlinkOverlayCallBack(...);
TAVO_VLINK_API uint32_t TavoVideoSetDispParam(...);
TAVO_VLINK_API uint32_t TavoVideoKeepWindow(...);
TAVO_VLINK_API uint32_t TavoVideoPrintOverlayCacheInfo(...);
