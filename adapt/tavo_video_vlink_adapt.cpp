// The seven component tables and the exported functions that work on encoder frames.
#include "adapt/tavo_video_vlink_adapt.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "adapt/tavo_video_component_kinds.h"
#include "adapt/tavo_video_param_store.h"
#include "adapt/tavo_video_vlink_screen_control.h"
#include "builder/tavo_video_vlink_builder_factory.h"
#include "core/pelv_print_struct.h"
#include "core/tavo_video_frame_ref.h"
#include "platform/adapt_common/os_time.h"
#include "platform/adapt_common/safe_string.h"
#include "trace/tavo_video_host_guard.h"

namespace {

bool InfoTraced() { return g_ucOSVLinkTraceLevel.load(std::memory_order_relaxed) >= 3; }

using vlink::component::CameraComponent;
using vlink::component::DecoderComponent;
using vlink::component::EncoderComponent;
using vlink::component::PreviewComponent;
using vlink::component::TestImageComponent;
using vlink::component::VirtualCameraComponent;

template <class Component>
uint32_t CreateVarietyNode(uint32_t componentId, tagTavoVideoComponentParam* param) try {
  using Node = typename Component::Node;
  if (param == nullptr) {
    std::printf("compParam is nullpter\n");
    VLOG_ERR("null compParam! nodeId[%d].", static_cast<int>(componentId));
    return 1;
  }
  const std::string name = PresentParamContainerName(componentId);
  std::shared_ptr<DataContainer> container = DataContainer::GetInstance(name);
  uint32_t imgNo = 0;
  uint32_t portId = 0;
  int result = container->GetDataByString<uint32_t>("imgNo", imgNo);
  if (result != 0) {
    VLOG_ERR("[%s]GetDataByString imgNo failed!", name.c_str());
    return static_cast<uint32_t>(result);
  }
  result = container->GetDataByString<uint32_t>("portId", portId);
  if (result != 0) {
    VLOG_ERR("[%s]GetDataByString portId failed!", name.c_str());
    return static_cast<uint32_t>(result);
  }
  container.reset();

  std::shared_ptr<Node> node = VideoVlinkNode::GetNodeByUnique<Node>(imgNo);
  if (!node) {
    VideoVlinkNode::CreateNodeByUnique<Node>(imgNo);
    node = VideoVlinkNode::GetNodeByUnique<Node>(imgNo);
  }
  if (!node) {
    VLOG_ERR("nodePtr still null");
    std::printf("nodePtr still null\n");
    return 1;
  }
  VLOG_INF_MODULE("CREATE_VARIETY_NODE, nodeId %d", static_cast<int>(componentId));
  std::remove_cv_t<std::remove_reference_t<decltype(std::declval<Node>().GetParam())>> record{};
  Component::Convert(record, portId, imgNo, param);
  return node->SetParam(record);
}
VLINK_HOST_CATCH(1)

// Bind, unbind and encoder-update rows under way on this thread. A host callback that runs
// inside one (the encoder's create callback, when a bind starts it) cannot enter another:
// this thread holds the builder's lock already. Such rows are refused at once; a destroy
// then unhooks the node directly instead of through its input's builder.
thread_local int t_linkRows = 0;
struct LinkRowScope {
  LinkRowScope() { ++t_linkRows; }
  ~LinkRowScope() { --t_linkRows; }
  LinkRowScope(const LinkRowScope&) = delete;
  LinkRowScope& operator=(const LinkRowScope&) = delete;
};
bool RefusedInsideLinkRow(const char* row) {
  if (t_linkRows == 0) {
    return false;
  }
  VLOG_ERR("%s refused: called from inside a bind, unbind or update", row);
  return true;
}

// Takes a component's node apart; from inside a link row the builders' lock is this
// thread's already, so the node is unhooked directly.
void TakeApart(const VideoVlinkNode::NodePtr& node) {
  VlinkBuilderFactory::GetInstance().TakeApart(node, t_linkRows == 0);
}

template <class Node>
uint32_t DestroyVarietyNode(uint32_t componentId) try {
  uint32_t id = 0;
  GetImgNoFromNodeId(componentId, &id);
  std::shared_ptr<Node> node = VideoVlinkNode::GetNodeByUnique<Node>(id);
  if (!node) {
    VLOG_INF_TRACE("node has closed");
    return 0;
  }
  // From inside the node's own frame callback, whose lock this thread holds: it takes no
  // further frame from now, and is taken apart once the callback has returned (the locks
  // that takes come before the node's own).
  VideoVlinkNode::NodePtr base = node;
  if (base->DeferUntilOwnHandoffEnds([base] { TakeApart(base); })) {
    base->RefuseFrames();
    return 0;
  }
  TakeApart(base);
  return 0;
}
VLINK_HOST_CATCH(1)

uint32_t DumpNothing(uint32_t /*componentId*/) try { return 0; }
VLINK_HOST_CATCH(1)

const tagTavoVideoCreateFuncMap kCreateTable[] = {
    {TAVO_VIDEO_COMPONENT_ENCODER, 0, CreateVarietyNode<EncoderComponent>},
    {TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, 0, CreateVarietyNode<VirtualCameraComponent>},
    {TAVO_VIDEO_COMPONENT_CAMERA, 0, CreateVarietyNode<CameraComponent>},
    {TAVO_VIDEO_COMPONENT_DECODER, 0, CreateVarietyNode<DecoderComponent>},
    {TAVO_VIDEO_COMPONENT_TEST_IMAGE, 0, CreateVarietyNode<TestImageComponent>},
    {TAVO_VIDEO_COMPONENT_SCREEN, 0, CreateVarietyNode<ScreenComponent>},
    {TAVO_VIDEO_COMPONENT_PREVIEW, 0, CreateVarietyNode<PreviewComponent>},
};

#define VLINK_BIND_PAIRS(func)                                                        \
  {                                                                                   \
    {TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_CAMERA, func},                \
        {TAVO_VIDEO_COMPONENT_PREVIEW, TAVO_VIDEO_COMPONENT_CAMERA, func},            \
        {TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, TAVO_VIDEO_COMPONENT_DECODER, func},    \
        {TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, TAVO_VIDEO_COMPONENT_TEST_IMAGE, func}, \
        {TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_TEST_IMAGE, func},        \
        {TAVO_VIDEO_COMPONENT_PREVIEW, TAVO_VIDEO_COMPONENT_TEST_IMAGE, func},        \
        {TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_SCREEN, func},            \
        {TAVO_VIDEO_COMPONENT_PREVIEW, TAVO_VIDEO_COMPONENT_DECODER, func},           \
        {TAVO_VIDEO_COMPONENT_ENCODER, TAVO_VIDEO_COMPONENT_INPUT, func}, {           \
      TAVO_VIDEO_COMPONENT_PREVIEW, TAVO_VIDEO_COMPONENT_INPUT, func                  \
    }                                                                                 \
  }

const tagTavoVideoBindFuncMap kBindTable[] = VLINK_BIND_PAIRS(VlinkBind);
const tagTavoVideoBindFuncMap kUnbindTable[] = VLINK_BIND_PAIRS(VlinkUnbind);

const tagTavoVideoDestroyFuncMap kDestroyTable[] = {
    {TAVO_VIDEO_COMPONENT_ENCODER, 0, DestroyVarietyNode<VirtualEncoderNode>},
    {TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, 0, DestroyVarietyNode<VirtualCameraNode>},
    {TAVO_VIDEO_COMPONENT_CAMERA, 0, DestroyVarietyNode<CameraCaptureNode>},
    {TAVO_VIDEO_COMPONENT_DECODER, 0, DestroyVarietyNode<VirtualDecoderNode>},
    {TAVO_VIDEO_COMPONENT_TEST_IMAGE, 0, DestroyVarietyNode<TestInputInputNode>},
    {TAVO_VIDEO_COMPONENT_PREVIEW, 0, DestroyVarietyNode<VideoPreviewNode>},
    {TAVO_VIDEO_COMPONENT_SCREEN, 0, DestroyVarietyNode<ScreenCaptureNode>},
};

const tagTavoVideoUpdateFuncMap kUpdateTable[] = {
    {TAVO_VIDEO_COMPONENT_ENCODER, 0, VlinkUpdateVENC},
    {TAVO_VIDEO_COMPONENT_DECODER, 0, VlinkUpdateVdec},
    {TAVO_VIDEO_COMPONENT_PREVIEW, 0, VlinkUpdateVoChn},
};

const tagTavoVideoDumpFuncMap kDumpTable[] = {
    {TAVO_VIDEO_COMPONENT_ENCODER, 0, DumpNothing},
    {TAVO_VIDEO_COMPONENT_DECODER, 0, DumpNothing},
};

template <class Row, size_t N>
uint32_t GetTable(const Row (&rows)[N], const Row** table, uint32_t* count) {
  if (table == nullptr || count == nullptr) {
    return 1;
  }
  *table = rows;
  *count = static_cast<uint32_t>(N);
  return 0;
}

}  // namespace

uint32_t ConvertVencInfo(uint32_t imgNo, VencDevInfo& out, const tagTavoVideoVEncParam& in) {
  out = VencDevInfo{};
  out.hostTag = in.hostTag;
  out.voPort = in.voPort;
  out.imgNo = imgNo;
  out.hostKey = in.hostKey;
  out.width = in.width;
  out.height = in.height;
  out.hostValue6 = in.hostValue6;
  out.frameRate = in.frameRate;
  out.hostValue8 = in.hostValue8;
  out.rect = in.rect;
  out.hostSubKey = in.hostSubKey;
  out.format = in.format;
  out.encOutFunc = in.encOutFunc;
  out.encCreateFunc = in.encCreateFunc;
  out.codecType = in.codecType;
  if (InfoTraced()) {
    VLOG_INF("%s", Pelv::PrintStruct(out).c_str());
  }
  return 0;
}

uint32_t VlinkCreateTest(TestDevInfo& out, uint32_t portId, uint32_t imgNo,
                         const tagTavoVideoComponentParam* param) {
  out = TestDevInfo{};
  const tagTavoVideoTestParam& in = param->test;
  out.width = in.width;
  out.height = in.height;
  out.frameRate = in.frameRate;
  out.hostValue4 = in.hostValue4;
  out.imgNo = imgNo;
  out.portId = portId;
  // At most 1023 characters: a longer or unterminated name is refused whole.
  const size_t length = strnlen(in.fileName, sizeof(in.fileName));
  if (length >= sizeof(in.fileName) ||
      strcpy_s(out.fileName.data(), sizeof(in.fileName), in.fileName) != 0) {
    VLOG_ERR("strcpy_s fileName failed!");
    out = TestDevInfo{};
    return 1;
  }
  if (InfoTraced()) {
    VLOG_INF("%s", Pelv::PrintStruct(out).c_str());
  }
  return 0;
}

uint32_t VlinkCreateCameraIn(tagCameraCaptureParams& out, uint32_t portId, uint32_t imgNo,
                             const tagTavoVideoComponentParam* param) {
  out = tagCameraCaptureParams{};
  const tagTavoVideoCameraParam& in = param->camera;
  out.uiWidth = in.width;
  out.uiHeight = in.height;
  out.uiFrameRate = in.frameRate;
  out.imgNo = imgNo;
  out.viPort = portId;
  // An identity that fills all 192 bytes has no terminator: it is left empty, which the
  // node's SetParam refuses ("cameraId is null").
  if (strnlen(in.cameraId, sizeof(in.cameraId)) >= sizeof(in.cameraId) ||
      strcpy_s(out.cameraId, sizeof(out.cameraId), in.cameraId) != 0) {
    VLOG_ERR("strcpy_s failed");
    std::memset(out.cameraId, 0, sizeof(out.cameraId));
  }
  VLOG_INF("viInfo: w[%u] h[%u] fps[%u]", out.uiWidth, out.uiHeight, out.uiFrameRate);
  std::printf("viInfo: w[%u] h[%u] fps[%u]\n", out.uiWidth, out.uiHeight, out.uiFrameRate);
  return 0;
}

uint32_t VlinkCreateVirCam(VoDevInfo& out, const tagTavoVideoComponentParam* param) {
  out = VoDevInfo{};
  const tagTavoVideoVirCamParam& in = param->virCam;
  out.voPort = in.voPort;
  out.width = in.width;
  out.height = in.height;
  out.frameRate = in.frameRate;
  out.virtualOutFunc = in.virtualOutFunc;
  VLOG_INF("VirCamInfo: w[%u] h[%u] fps[%u]", out.width, out.height, out.frameRate);
  return 0;
}

namespace {

// Bind and unbind differ only in the builder operation and the words in their messages.
uint32_t ChangeLink(uint32_t sinkComponentId, uint32_t sourceComponentId, bool bind) {
  if (RefusedInsideLinkRow(bind ? "VlinkBind" : "VlinkUnbind")) {
    return 1;
  }
  uint32_t sinkId = 0;
  uint32_t sourceId = 0;
  GetImgNoFromNodeId(sinkComponentId, &sinkId);
  GetImgNoFromNodeId(sourceComponentId, &sourceId);
  // An unbind from inside the sink's own frame callback is done once that has returned.
  if (VideoVlinkNode::NodePtr sink = VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(sinkId);
      !bind && sink && sink->DeferUntilOwnHandoffEnds([sinkComponentId, sourceComponentId] {
        ChangeLink(sinkComponentId, sourceComponentId, false);
      })) {
    return 0;
  }
  const LinkRowScope scope;
  VLOG_INF_TRACE("%s [%d]->[%d]", bind ? "VlinkBind" : "VlinkUnbind", static_cast<int>(sourceId),
                 static_cast<int>(sinkId));
  std::shared_ptr<VlinkBuilder> builder = VlinkBuilderFactory::GetInstance().GetBuilder(sourceId);
  if (!builder) {
    VLOG_ERR("builder is nullptr");
    return 1;
  }
  const uint32_t result = bind ? builder->BindVo(sinkId) : builder->UnBindVo(sinkId);
  if (result != 0) {
    VLOG_ERR("%s failed", bind ? "BindVo" : "UnBindVo");
  } else if (bind) {
    VlinkBuilderFactory::GetInstance().PrintLink();
  }
  return result;
}

}  // namespace

uint32_t VlinkBind(uint32_t sinkComponentId, uint32_t sourceComponentId) try {
  return ChangeLink(sinkComponentId, sourceComponentId, true);
}
VLINK_HOST_CATCH(1)

uint32_t VlinkUnbind(uint32_t sinkComponentId, uint32_t sourceComponentId) try {
  return ChangeLink(sinkComponentId, sourceComponentId, false);
}
VLINK_HOST_CATCH(1)

namespace {

// The node of a component looked up as a T, with the messages of the host's entry points
// (`missing` is logged when there is no such node). `result` is 0, the failed read's code,
// or 1 when there is no such node.
std::string MissingEncoder(uint32_t componentId) {
  return "not find encoder Node! encId " + std::to_string(componentId);
}

template <class T>
std::shared_ptr<T> FindComponentNode(uint32_t componentId, const std::string& missing, uint32_t& id,
                                     uint32_t& result) {
  id = 0;
  const int read = GetImgNoFromNodeId(componentId, &id);
  if (read != 0) {
    VLOG_ERR("[%s]GetDataByString imgNo failed!", PresentParamContainerName(componentId).c_str());
    result = static_cast<uint32_t>(read);
    return nullptr;
  }
  std::shared_ptr<T> node = VideoVlinkNode::GetNodeByUnique<T>(id);
  result = node ? 0 : 1;
  if (!node) {
    VLOG_ERR("%s", missing.c_str());
  }
  return node;
}

}  // namespace

uint32_t VlinkUpdateVENC(uint32_t componentId, tagTavoVideoComponentParam* param) try {
  if (param == nullptr) {
    VLOG_ERR("null compParam! encId[%u].", componentId);
    return 1;
  }
  uint32_t id = 0;
  uint32_t result = 0;
  std::shared_ptr<VirtualEncoderNode> node =
      FindComponentNode<VirtualEncoderNode>(componentId, MissingEncoder(componentId), id, result);
  if (!node) {
    return result;
  }
  VencDevInfo info{};
  ConvertVencInfo(id, info, param->venc);
  result = node->SetParam(info);
  if (result != 0) {
    VLOG_ERR("SetParam failed");
    return result;
  }
  if (node->GetViNodeId() == 0xFFFFFFFFU) {
    return 0;
  }
  std::shared_ptr<VlinkBuilder> builder =
      VlinkBuilderFactory::GetInstance().GetBuilderNoCreate(node->GetViNodeId());
  if (!builder) {
    return 0;
  }
  if (RefusedInsideLinkRow("VlinkUpdateVENC")) {
    return 1;
  }
  const LinkRowScope scope;
  result = builder->UpdateVoParam(id, OS_E_MPP_DEV_VENC, param);
  if (result != 0) {
    VLOG_ERR("UpdateVoParam failed");
  }
  return result;
}
VLINK_HOST_CATCH(1)

namespace {

// The decoder's and the preview's updates differ only in the node class.
template <class Node, class Record>
uint32_t UpdateOutputNode(uint32_t componentId, const Record& record) {
  uint32_t id = 0;
  GetImgNoFromNodeId(componentId, &id);
  std::shared_ptr<Node> node = VideoVlinkNode::GetNodeByUnique<Node>(id);
  if (!node) {
    VLOG_ERR("not find OutputNode!");
    return 1;
  }
  return node->UpdateParam(record);
}

}  // namespace

uint32_t VlinkUpdateVdec(uint32_t componentId, tagTavoVideoComponentParam* param) try {
  if (param == nullptr) {
    VLOG_ERR("compParam is null! node [%d].", static_cast<int>(componentId));
    return 1;
  }
  tagTavoVideoVDecParam record;
  std::memcpy(&record, &param->vdec, sizeof(record));
  return UpdateOutputNode<VirtualDecoderNode>(componentId, record);
}
VLINK_HOST_CATCH(1)

uint32_t VlinkUpdateVoChn(uint32_t componentId, tagTavoVideoComponentParam* param) try {
  if (param == nullptr) {
    VLOG_ERR("compParam is null! node [%d].", static_cast<int>(componentId));
    return 1;
  }
  tagTavoVideoVoChnParam record;
  std::memcpy(&record, &param->vo, sizeof(record));
  return UpdateOutputNode<VideoPreviewNode>(componentId, record);
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoReceiveVDecFrame(uint64_t decId, uint32_t nodeId,
                                   tagOS_S_VIDEO_CODEC_IMG_INFO* frame) try {
  if (frame == nullptr) {
    VLOG_ERR("null pData! portId[%d], decId[%d].", static_cast<int>(nodeId),
             static_cast<int>(decId));
    return 1;
  }
  VLOG_INF_TRACE("TavoVideoReceiveVDecFrame is Received! imgNo[%u] timeStamp[%llu]", nodeId,
                 static_cast<unsigned long long>(OsVLinkGetTimestampUs()));
  std::shared_ptr<VirtualDecoderNode> node =
      VideoVlinkNode::GetNodeByUnique<VirtualDecoderNode>(nodeId);
  if (!node) {
    VLINK_LOG(0, 2, ::vlink::kToTrace, "Node[%d] is not existed!", static_cast<int>(nodeId));
    return 1;
  }
  const uint32_t result = node->ReceiveVdecFrame(static_cast<int>(decId), nodeId, frame);
  if (result != 0) {
    VLINK_LOG(0, 4, ::vlink::kToTrace,
              "VLink_ReceiveVDecFrame failed! ret[0x%x], decId[%d], portId[%d].", result,
              static_cast<int>(decId), static_cast<int>(nodeId));
  }
  return result;
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoVlinkFreezeLastFrame(uint32_t nodeId, uint64_t /*ignored*/,
                                       std::vector<TavoVideoDefreezeStrategy>* strategies) try {
  std::shared_ptr<VirtualDecoderNode> node =
      VideoVlinkNode::GetNodeByUnique<VirtualDecoderNode>(nodeId);
  if (!node) {
    VLOG_ERR_MODULE("decnode of inEngNo:%u is null.", nodeId);
    return 1;
  }
  node->SetDecFreeze(strategies != nullptr ? *strategies
                                           : std::vector<TavoVideoDefreezeStrategy>{});
  return 0;
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoVlinkVoStopRender(uint32_t componentId, uint64_t winHandle) try {
  uint32_t id = 0;
  uint32_t result = 0;
  std::shared_ptr<VideoPreviewNode> node =
      FindComponentNode<VideoPreviewNode>(componentId, "not find OutputNode!", id, result);
  if (!node) {
    return result;
  }
  return node->RenderStop(winHandle);
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoVlinkVoSetDefaultImage(uint32_t nodeId) try {
  if (!VideoVlinkNode::GetNodeByUnique<VideoVlinkNode>(nodeId)) {
    VLOG_ERR_MODULE("node isn't exist! videoPort[%u]", nodeId);
    return 1;
  }
  return 0;
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoSetWinReportCb(std::function<int(TavoVideoDisplayWinInfo&)> winReportCb) try {
  if (!winReportCb) {
    VLOG_ERR("winReportCb is nullptr");
    return 1;
  }
  return VideoPreviewNode::SetWinReportCb(std::move(winReportCb));
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoGetCreateNodeFuncMap(const tagTavoVideoCreateFuncMap** table, uint32_t* count) {
  return GetTable(kCreateTable, table, count);
}
uint32_t TavoVideoGetBindNodeFuncMap(const tagTavoVideoBindFuncMap** table, uint32_t* count) {
  return GetTable(kBindTable, table, count);
}
uint32_t TavoVideoGetUnBindNodeFuncMap(const tagTavoVideoBindFuncMap** table, uint32_t* count) {
  return GetTable(kUnbindTable, table, count);
}
uint32_t TavoVideoGetDestroyNodeFuncMap(const tagTavoVideoDestroyFuncMap** table, uint32_t* count) {
  return GetTable(kDestroyTable, table, count);
}
uint32_t TavoVideoGetUpdateNodeFuncMap(const tagTavoVideoUpdateFuncMap** table, uint32_t* count) {
  return GetTable(kUpdateTable, table, count);
}
uint32_t TavoVideoGetDumpNodeFuncMap(const tagTavoVideoDumpFuncMap** table, uint32_t* count) {
  return GetTable(kDumpTable, table, count);
}
uint32_t TavoVideoGetSnapshotFuncMap(const tagTavoVideoSnapshotFuncMap** table, uint32_t* count) {
  if (table == nullptr || count == nullptr) {
    return 1;
  }
  *table = nullptr;  // no snapshot rows
  *count = 0;
  return 0;
}

uint32_t TavoVideoReleaseVEncFrame(VencOutFrame* frame) try {
  if (frame == nullptr) {
    VLOG_ERR("data is nullptr");
    return 1;
  }
  // Only a record out with the host is read or freed: one given back twice, or never
  // handed out, is left alone.
  if (!VirtualEncoderNode::TakeBackRecord(frame)) {
    VLOG_ERR("frame[%p] is not out with the host", static_cast<void*>(frame));
    return 1;
  }
  std::shared_ptr<VirtualEncoderNode> node =
      VideoVlinkNode::GetNodeByUnique<VirtualEncoderNode>(frame->imgNo);
  if (!node) {
    VLOG_ERR("VirtualEncoderNode is nullptr");
    // The encoder went while the host held the frame: its reference still goes, so the
    // producer gets the frame back.
    if (frame->buffer != nullptr) {
      FrameRef::Adopt(frame->buffer).Reset();
    }
    std::free(frame);
    return 1;
  }
  node->ReleaseBuffer(frame->buffer);
  std::free(frame);
  return 0;
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoReportEncError(uint32_t componentId, uint32_t error) try {
  uint32_t id = 0;
  uint32_t result = 0;
  std::shared_ptr<VirtualEncoderNode> node =
      FindComponentNode<VirtualEncoderNode>(componentId, MissingEncoder(componentId), id, result);
  if (!node) {
    return result;
  }
  if (node->ReportEncError(static_cast<int>(error)) != 0) {
    VLOG_ERR("Enc[%u] ReportEncError failed!", id);
    return 1;
  }
  return 0;
}
VLINK_HOST_CATCH(1)

// Kept for the host interface only.
uint32_t TavoVideoFindFreeVoChnId(...) { return 1; }
#define VLINK_INERT_ENTRY(name) \
  uint32_t name(...) { return 0; }
VLINK_INERT_ENTRY(TavoVideoSetSrEnableInAdapt)
VLINK_INERT_ENTRY(TavoVideoSetMouseDisplay)
VLINK_INERT_ENTRY(TavoVideoInitTermType)
VLINK_INERT_ENTRY(TavoVideoMouseStart)
VLINK_INERT_ENTRY(TavoVideoUploadLocalMouse)
VLINK_INERT_ENTRY(TavoVideoSetDecAntiJitterStatus)
VLINK_INERT_ENTRY(TavoVideoSetVoDisplayMode)
VLINK_INERT_ENTRY(TavoVideoRegisterTimerHandler)
VLINK_INERT_ENTRY(TavoVideoSetCropRect)
VLINK_INERT_ENTRY(TavoVideoEnableVoDev)
VLINK_INERT_ENTRY(TavoVideoGetCropRect)
VLINK_INERT_ENTRY(TavoVideoSetEptzMove)
VLINK_INERT_ENTRY(TavoVideoSetEptzMoveSpeed)
VLINK_INERT_ENTRY(TavoVideoReplaceViPort)
VLINK_INERT_ENTRY(TavoVideoOverlayCfgProc)
VLINK_INERT_ENTRY(TavoVideoVlinkGetQueHandle)
VLINK_INERT_ENTRY(TavoVideoVlinkAddFilterWindow)
VLINK_INERT_ENTRY(TavoVideoVlinkDeleteFilterWindow)
VLINK_INERT_ENTRY(TavoVideoVlinkSetAnnotationStatus)
VLINK_INERT_ENTRY(TavoVideoRegistVlinkOverlayCallBack)
VLINK_INERT_ENTRY(TavoVideoSetDispParam)
VLINK_INERT_ENTRY(TavoVideoKeepWindow)
VLINK_INERT_ENTRY(TavoVideoPrintOverlayCacheInfo)
