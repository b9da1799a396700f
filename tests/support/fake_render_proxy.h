// Chooses the renderer previews get, instead of the environment: the Linux adapter as if
// VANTOR_SOREN had a given value.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "render/tavo_video_render_proxy.h"
#include "render/tavo_video_vlink_render_adapter.h"

class FakeRenderProxyFactory final : public RenderProxyFactory {
 public:
  // nullopt: as if VANTOR_SOREN were unset.
  explicit FakeRenderProxyFactory(std::optional<std::string> processor = std::nullopt)
      : m_processor(std::move(processor)) {}
  std::unique_ptr<IDevRenderStreamProxy> Create(PelvRenderMode /*mode*/) override {
    return std::make_unique<DevRenderLinuxAdapter>(m_processor ? m_processor->c_str() : nullptr);
  }

 private:
  std::optional<std::string> m_processor;
};
