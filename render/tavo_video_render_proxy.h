// What a renderer of one window does, whatever the platform behind it.
#pragma once

#include <atomic>
#include <cstdint>

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
