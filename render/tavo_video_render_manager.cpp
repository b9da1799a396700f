#include "render/tavo_video_render_manager.h"

#include <cstdlib>
#include <new>

#include "render/tavo_video_vlink_render_adapter.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

constexpr uint32_t kRenderFailure = 0xFFFFFFFF;

}  // namespace

DevRenderManager::~DevRenderManager() {
  m_isStopping.store(true);
  // Waits for a frame still inside the renderer; later ones see m_isStopping.
  { std::lock_guard<std::mutex> lock(m_renderLock); }
  m_renderProxy.reset();
}

namespace {

class LinuxRenderProxyFactory final : public RenderProxyFactory {
 public:
  std::unique_ptr<IDevRenderStreamProxy> Create(PelvRenderMode /*mode*/) override {
    // Linux has one renderer for every mode.
    return std::unique_ptr<IDevRenderStreamProxy>(
        new (std::nothrow) DevRenderLinuxAdapter(std::getenv("VANTOR_SOREN")));
  }
};

}  // namespace

RenderProxyFactory& RenderProxyFactory::Real() {
  static LinuxRenderProxyFactory factory;
  return factory;
}

std::unique_ptr<IDevRenderStreamProxy> DevRenderManager::CreateRenderProxy(PelvRenderMode mode) {
  return Seam<RenderProxyFactory>::Get().Create(mode);
}

uint32_t DevRenderManager::Init(tagOS_S_SOFT_VO_CHN_PARAM* param) {
  if (param == nullptr) {
    VLOG_ERR("param is null");
    return kRenderFailure;
  }
  std::unique_ptr<IDevRenderStreamProxy> proxy = CreateRenderProxy(param->renderMode);
  if (!proxy) {
    VLOG_ERR("CreateRenderProxy failed, mode[%u]", param->renderMode);
    return kRenderFailure;
  }
  const uint32_t ret = proxy->Init(param);
  if (ret != 0) {
    VLOG_ERR("render proxy Init failed[%u]", ret);
    return kRenderFailure;
  }
  std::lock_guard<std::mutex> lock(m_renderLock);
  m_renderProxy = std::move(proxy);
  m_window = param->winHandle;
  VLOG_INF("CreateRenderProxy m_window:%p", reinterpret_cast<void*>(m_window));
  return 0;
}

uint32_t DevRenderManager::RenderFrame(OsvGraphicBuffer* buffer) {
  std::lock_guard<std::mutex> lock(m_renderLock);
  if (m_isStopping.load()) {
    return kRenderFailure;
  }
  if (!m_renderProxy) {
    VLOG_ERR("m_renderProxy is null");
    return kRenderFailure;
  }
  if (!m_renderProxy->GetIsRenderFirstFrame()) {
    VLOG_INF("m_window %llu render first frame", static_cast<unsigned long long>(m_window));
    m_renderProxy->SetIsRenderFirstFrame(true);
  }
  return m_renderProxy->RenderFrame(buffer);
}

uint32_t DevRenderManager::RenderSetParams(PelvRenderParams& params) {
  // Locked although the renderer locks itself: RenderDelete must not destroy it mid-call.
  std::lock_guard<std::mutex> lock(m_renderLock);
  if (!m_renderProxy) {
    VLOG_ERR("m_renderProxy is null");
    return kRenderFailure;
  }
  return m_renderProxy->RenderSetParams(params);
}

uint32_t DevRenderManager::RenderStop() {
  std::lock_guard<std::mutex> lock(m_renderLock);
  if (!m_renderProxy) {
    VLOG_ERR("m_renderProxy is nullptr");
    return 0;
  }
  return m_renderProxy->RenderStop();
}

uint32_t DevRenderManager::RenderDelete() {
  std::lock_guard<std::mutex> lock(m_renderLock);
  VLOG_INF("RenderDelete m_window:%p", reinterpret_cast<void*>(m_window));
  m_renderProxy.reset();
  return 0;
}
