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
  // RenderDelete from other threads until the host's callback has returned; stop,
  // parameters and deletion from inside the callback itself do not wait.
  uint32_t RenderFrame(OsvGraphicBuffer* buffer);
  uint32_t RenderSetParams(PelvRenderParams& params);
  uint32_t RenderStop();
  // Destroys the renderer; later frames are refused. Called from inside this manager's
  // render callback, the renderer goes when that frame returns.
  uint32_t RenderDelete();
  // True when called from inside this manager's render callback: the manager then deletes
  // itself when that frame returns, and the caller must not delete it.
  bool DeferDestruction();

 private:
  static std::unique_ptr<IDevRenderStreamProxy> CreateRenderProxy(PelvRenderMode mode);

  // Guards m_renderProxy; serialises frames, stop and deletion. The host's render callback
  // runs under it; no frame is queued under it (a preview is a sink).
  std::mutex m_renderLock;
  std::unique_ptr<IDevRenderStreamProxy> m_renderProxy;
  uint64_t m_window = 0;
  std::atomic<bool> m_isStopping{false};
  // Set from inside the render callback, on the rendering thread under m_renderLock.
  bool m_deletedInFrame = false;
  bool m_destroyInFrame = false;
};
