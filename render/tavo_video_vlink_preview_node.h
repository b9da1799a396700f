// The sink that shows a link's frames in the host's preview windows: one renderer per
// window, each window showing the frames of one source image number.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "core/tavo_video_vlink_node.h"
#include "tavo_video_render_interface.h"
#include "tavo_video_vlink_component.h"

class VideoPreviewNode : public VideoVlinkNode {
 public:
  using WinReportCallback = std::function<int(TavoVideoDisplayWinInfo&)>;

  // Per window with a live renderer.
  struct RenderParam {
    uint32_t imgNo;
    uint32_t frameCnt;
    DevRenderManager* manager;
  };

  static constexpr uint32_t kFirstReportedImgNo = 150;
  static constexpr uint32_t kLastReportedImgNo = 177;
  static constexpr uint32_t kViPortOffset = 88;
  static constexpr PelvRenderMode kRenderMode = 40;

  explicit VideoPreviewNode(uint32_t id);
  ~VideoPreviewNode() override;

  // Renders the frame into every window of its source image number, synchronously.
  uint32_t HandleBuffer(FrameRef& frame) override;
  // Keeps the record; windows are made at start. 1 for a winNum above 40.
  virtual uint32_t SetParam(const tagTavoVideoVoChnParam& param);
  // Applies a changed record to a running node: new windows get renderers, windows no
  // longer listed lose theirs, the others keep their frame counts.
  uint32_t UpdateParam(const tagTavoVideoVoChnParam& param);

  bool IsNeedCreate(uint64_t winHandle);
  uint32_t RenderCreate(uint64_t winHandle);
  uint32_t RenderDelete(uint64_t winHandle);
  // The window's renderer drops frames from now on, until it is deleted or re-created.
  uint32_t RenderStop(uint64_t winHandle);
  uint32_t RenderSetParam(uint64_t winHandle, bool flag);
  void SetWaterMarkParam(uint32_t imgNo, bool enable, const std::string& content) override;
  void ReportFirstFrame(uint32_t imgNo, uint64_t winHandle);
  static uint32_t SetWinReportCb(WinReportCallback callback);

  tagTavoVideoVoChnParam GetParam();
  size_t GetWindowCount();
  // The watermark text kept for an image number; false when it has none.
  bool GetWaterMark(uint32_t imgNo, std::string& text);

 protected:
  uint32_t OnStart() override;
  uint32_t OnStop() override;

 private:
  // Renderers for the windows of m_param that lack one; returns the handles served.
  std::set<uint64_t> ApplyWindows();
  static bool ValidWinNum(const tagTavoVideoVoChnParam& param);
  // What the host asked from inside a render callback of this node, done once the frame
  // has been through every window.
  void ApplyDeferred();
  void CloseWindows();
  std::optional<tagTavoVideoVoChnParam> m_deferredParam;  // guarded by m_nodeLock
  bool m_closeDeferred = false;                           // guarded by m_nodeLock

  tagTavoVideoVoChnParam m_param{};                // guarded by m_nodeLock
  std::map<uint64_t, RenderParam> m_renderMap;     // guarded by m_nodeLock
  std::map<uint32_t, std::string> m_waterMarkMap;  // guarded by m_nodeLock
  std::set<uint64_t> m_createdWins;                // guarded by m_nodeLock

  // Guards m_winReportCb; the callback itself is called on a copy, after it is released.
  static std::mutex s_winReportLock;
  static WinReportCallback m_winReportCb;
};
