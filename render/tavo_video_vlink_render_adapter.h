// The Linux renderer: describes every frame in a TavoVideoRenderImgHeader and hands it to
// the host's render callback, either as the I420 frame itself or converted to packed RGB.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "render/tavo_video_render_proxy.h"

class DevRenderLinuxAdapter : public IDevRenderStreamProxy {
 public:
  // m_cpuType values: the processor the terminal runs on decides which path it can draw.
  static constexpr uint32_t kCpuTypeRgb = 0;
  static constexpr uint32_t kCpuTypeYuv = 3;

  // `processor` is the value of VANTOR_SOREN (null when unset); only exactly "Soren"
  // selects RGB. The latest construction applies to every adapter of the process.
  explicit DevRenderLinuxAdapter(const char* processor);
  ~DevRenderLinuxAdapter() override;

  DevRenderLinuxAdapter(const DevRenderLinuxAdapter&) = delete;
  DevRenderLinuxAdapter& operator=(const DevRenderLinuxAdapter&) = delete;

  uint32_t Init(tagOS_S_SOFT_VO_CHN_PARAM* param) override;
  uint32_t RenderStop() override;
  uint32_t RenderSetParams(PelvRenderParams& params) override;
  // Calls the host's callback with the adapter's lock held; from inside it the host may
  // change this renderer's parameters or stop it, which then applies to the next frame.
  uint32_t RenderFrame(OsvGraphicBuffer* buffer) override;

 private:
  // Everything of the header but its data address, alike for both paths.
  TavoVideoRenderImgHeader& FillHeader(const OsvGraphicBufferInfo& info, uint32_t format,
                                       uint32_t dataSize);
  uint32_t RenderYuvHdlPadding(OsvGraphicBuffer* buffer);
  uint32_t RenderRgbHdlPadding(OsvGraphicBuffer* buffer);
  uint32_t RenderBufMalloc(uint32_t size);
  static uint32_t CpuTypeOfProcessor();
  void LogColorSpace() const;
  uint32_t WindowId() const { return static_cast<uint32_t>(m_winHandle); }

  // Guards every field below. The host's render callback runs under it; RenderSetParams
  // from inside the callback runs on the thread that holds it. A frame is handed to the
  // host under it, never queued.
  std::mutex m_frameLock;
  uint64_t m_winHandle = 0;
  uint32_t m_frameCount = 0;
  tagOS_S_SOFT_VO_CHN_PARAM m_chnParam{};  // params: the current render parameters
  TavoVideoRenderCallback m_renderCallback = nullptr;
  uint32_t m_cpuType = kCpuTypeYuv;
  std::unique_ptr<TavoVideoRenderImgHeader> m_outImgHeader;  // made by the first frame
  std::unique_ptr<uint8_t[]> m_imgBuff;                      // the RGB path's pixels
  uint32_t m_imgBuffSize = 0;
};
