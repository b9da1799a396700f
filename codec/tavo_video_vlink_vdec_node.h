// The source through which frames decoded by the host enter a link. Each frame goes back
// to the host through its release callback once the last holder in the link lets go.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/tavo_video_vlink_node.h"
#include "tavo_video_vlink_component.h"

// Frames per second over the last `capacity` arrivals.
class FrameRateRecorder {
 public:
  FrameRateRecorder(std::string name, uint64_t capacity);
  void Record();
  double GetRate();

 private:
  std::mutex m_lock;  // guards m_times; no host callback runs under it
  std::string m_name;
  std::list<uint64_t> m_times;  // nanoseconds, oldest first
  uint64_t m_capacity;
  uint32_t m_minSamples = 2;
};

class VirtualDecoderNode : public VideoVlinkNode {
 public:
  static constexpr uint32_t VDEC_MIN_IMGNO = 0;
  static constexpr uint32_t VDEC_MAX_IMGNO = 225;
  static constexpr int kMaxVdecId = 31;
  static constexpr uint64_t kRateReportPeriodUs = 180000000;
  static constexpr TavoVideoDefreezeStrategy kDefaultFreezeStrategy = 3;

  explicit VirtualDecoderNode(uint32_t id);
  ~VirtualDecoderNode() override;

  // The last holder of a frame let go: give its record back to the host.
  void ReleaseFrame(OsvGraphicBuffer* buffer) override;
  virtual uint32_t SetParam(const tagTavoVideoVDecParam& param);
  virtual uint32_t CheckParam(const tagTavoVideoVDecParam& param);

  // 0: the frame entered the link; 1: the host keeps it.
  uint32_t ReceiveVdecFrame(int vdecId, uint32_t imgNo, tagOS_S_VIDEO_CODEC_IMG_INFO* info);
  uint32_t CheckReceiveVdecFrameParam(int vdecId, tagOS_S_VIDEO_CODEC_IMG_INFO* info);
  uint32_t UpdateParam(const tagTavoVideoVDecParam& param);
  // Arms a one-shot strategy that the next frame record carries.
  void SetDecFreeze(const std::vector<TavoVideoDefreezeStrategy>& strategies);
  // Gives every linked preview the current watermark setting.
  void SetLinkedVoWaterMarkParam();
  uint32_t CalcFrameRate();

  tagTavoVideoVDecParam GetParam();
  size_t GetFramesInFlight();

 protected:
  uint32_t OnStart() override;
  uint32_t OnStop() override;

 private:
  std::unique_ptr<FrameRateRecorder> m_frameRateRecorder;  // made on the first frame
  uint32_t frameNum = 0;
  vlink::PeriodicLog m_rateLog{kRateReportPeriodUs};                      // guarded by m_rateLock
  tagTavoVideoVDecParam m_param{};                                        // guarded by m_nodeLock
  std::map<tagOS_S_VIDEO_CODEC_IMG_INFO*, OsvGraphicBuffer*> m_frameMap;  // guarded by m_nodeLock
  std::atomic<TavoVideoDefreezeStrategy> m_freezeStrategy{kDefaultFreezeStrategy};
  std::atomic<bool> m_freezeApplied{true};
  // Guards the recorder, the counters and the rate report (frames come from any host
  // thread); no host callback runs under it and no frame is queued under it.
  std::mutex m_rateLock;
};
