// One window's renderer as the host holds it: owns the platform renderer and keeps
// frames, stop and deletion from overlapping.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "render/tavo_video_render_proxy.h"

class DevRenderManager {
 public:
  DevRenderManager() = default;
  ~DevRenderManager();

  DevRenderManager(const DevRenderManager&) = delete;
  DevRenderManager& operator=(const DevRenderManager&) = delete;

  // 0, or 0xFFFFFFFF when the renderer cannot be set up.
  uint32_t Init(tagOS_S_SOFT_VO_CHN_PARAM* param);
  // 0xFFFFFFFF once deleted or stopping; otherwise the renderer's result. Blocks
  // RenderDelete until the host's callback has returned.
  uint32_t RenderFrame(OsvGraphicBuffer* buffer);
  uint32_t RenderSetParams(PelvRenderParams& params);
  uint32_t RenderStop();
  // Destroys the renderer; later frames are refused.
  uint32_t RenderDelete();

 private:
  static std::unique_ptr<IDevRenderStreamProxy> CreateRenderProxy(PelvRenderMode mode);

  // Guards m_renderProxy; serialises frames, stop and deletion. The host's render callback
  // runs under it; no frame is queued under it (a preview is a sink).
  std::mutex m_renderLock;
  std::unique_ptr<IDevRenderStreamProxy> m_renderProxy;
  uint64_t m_window = 0;
  std::atomic<bool> m_isStopping{false};
};
