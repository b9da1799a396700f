// What a renderer of one window does, whatever the platform behind it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "core/tavo_video_seam.h"
#include "osv_graphic_buffer.h"
#include "tavo_video_render_interface.h"

class IDevRenderStreamProxy {
 public:
  virtual ~IDevRenderStreamProxy() = default;

  // All return 0 on success.
  virtual uint32_t Init(tagOS_S_SOFT_VO_CHN_PARAM* param) = 0;
  virtual uint32_t RenderStop() = 0;
  virtual uint32_t RenderSetParams(PelvRenderParams& params) = 0;
  virtual uint32_t RenderFrame(OsvGraphicBuffer* buffer) = 0;

  void SetIsRenderFirstFrame(bool rendered) {
    m_isRenderFirstFrame.store(rendered, std::memory_order_relaxed);
  }
  bool GetIsRenderFirstFrame() const {
    return m_isRenderFirstFrame.load(std::memory_order_relaxed);
  }

 protected:
  // Atomics: frames, stop and parameters arrive on different host threads.
  std::atomic<bool> m_isRender{false};  // running: between Init and RenderStop
  std::atomic<bool> m_isRenderFirstFrame{false};
};

// Makes the renderer of one window; the real side makes the Linux adapter, which reads
// VANTOR_SOREN. Tests choose a renderer (or the adapter's processor) through the seam.
class RenderProxyFactory {
 public:
  virtual ~RenderProxyFactory() = default;
  // Null when no renderer can be made.
  virtual std::unique_ptr<IDevRenderStreamProxy> Create(PelvRenderMode mode) = 0;
  static RenderProxyFactory& Real();
};
