// The sink that hands every frame reaching it to the host's video encoder.
#pragma once

#include <cstdint>
#include <functional>

#include "core/tavo_video_vlink_node.h"
#include "tavo_video_vlink_component.h"

// The encoder node's parameters, made from the host's tagTavoVideoVEncParam.
struct VencDevInfo {
  uint32_t hostTag;  // copied into every hand-off record
  uint32_t voPort;   // only logged
  uint32_t imgNo;    // the encoder's node id, 0 to 225
  uint32_t hostKey;  // second argument of both host callbacks
  uint32_t width;    // encode size
  uint32_t height;
  uint32_t hostValue6;  // carried, not read
  uint32_t frameRate;
  uint32_t hostValue8;  // carried, not read
  uint32_t hostSubKey;  // third argument of both host callbacks
  uint32_t format;      // TavoVideoVlinkFormat; carried, not read
  TavoVideoEncOutFunc encOutFunc;
  TavoVideoEncCreateFunc encCreateFunc;
  tagTavoVideoRect rect;
  TavoVideoCodecType codecType;
};

class VirtualEncoderNode : public VideoVlinkNode {
 public:
  static constexpr uint32_t VO_MIN_IMGNO = 0;
  static constexpr uint32_t VO_MAX_IMGNO = 225;

  explicit VirtualEncoderNode(uint32_t id);
  ~VirtualEncoderNode() override;

  uint32_t GetNodeResolution(uint32_t& width, uint32_t& height, uint32_t& frameRate) override;
  // Hands the frame to the host; on success the host owns the reference.
  uint32_t HandleBuffer(FrameRef& frame) override;
  virtual uint32_t SetParam(const VencDevInfo& info);
  virtual uint32_t CheckParam(const VencDevInfo& info);

  uint32_t NotifyEncCreate();
  // On success the host's record holds the frame's reference.
  uint32_t EncOutAfterAcquireBuffer(FrameRef& frame);
  // The host gave the frame back: drop the reference it held.
  void ReleaseBuffer(OsvGraphicBuffer* buffer);
  // The hand-off records out with the host, across every encoder. TakeBackRecord is true
  // exactly once for a record this library handed out and not yet taken back: a record
  // released twice, or never issued, is not touched.
  static void IssueRecord(VencOutFrame* record);
  static bool TakeBackRecord(VencOutFrame* record);
  uint32_t ReportEncError(int code);
  void SetEncErrorCallBackFun(std::function<int(int)> callback);
  TavoVideoCodecType GetCodecType();
  VencDevInfo GetParam();

 protected:
  uint32_t OnStart() override;
  uint32_t OnStop() override;

 private:
  VencDevInfo m_param{};                 // guarded by m_nodeLock
  std::function<int(int)> m_encErrorCb;  // guarded by m_nodeLock
  uint64_t m_frameSeq = 0;               // guarded by m_nodeLock
};
