#include "render/tavo_video_render_manager.h"

#include <cstdlib>
#include <new>
#include <utility>

#include "render/tavo_video_vlink_render_adapter.h"
#include "trace/tavo_video_vlink_log.h"

namespace {

constexpr uint32_t kRenderFailure = 0xFFFFFFFF;
// The manager whose frame this thread is rendering: the host's render callback runs under
// that manager's lock, so its calls back into the same manager must not take it again.
thread_local const DevRenderManager* t_rendering = nullptr;

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
  std::unique_lock<std::mutex> lock(m_renderLock);
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
  const DevRenderManager* outer = std::exchange(t_rendering, this);
  const uint32_t result = m_renderProxy->RenderFrame(buffer);
  t_rendering = outer;
  // Deleted from inside the callback: done now that the renderer is no longer in use.
  if (m_deletedInFrame) {
    m_renderProxy.reset();
  }
  const bool destroy = m_destroyInFrame;
  lock.unlock();
  if (destroy) {
    delete this;
  }
  return result;
}

uint32_t DevRenderManager::RenderSetParams(PelvRenderParams& params) {
  // Locked although the renderer locks itself: RenderDelete must not destroy it mid-call.
  // From inside this manager's own frame the lock is ours already.
  std::unique_lock<std::mutex> lock(m_renderLock, std::defer_lock);
  if (t_rendering != this) {
    lock.lock();
  }
  if (!m_renderProxy) {
    VLOG_ERR("m_renderProxy is null");
    return kRenderFailure;
  }
  return m_renderProxy->RenderSetParams(params);
}

uint32_t DevRenderManager::RenderStop() {
  std::unique_lock<std::mutex> lock(m_renderLock, std::defer_lock);
  if (t_rendering != this) {
    lock.lock();
  }
  if (!m_renderProxy) {
    VLOG_ERR("m_renderProxy is nullptr");
    return 0;
  }
  return m_renderProxy->RenderStop();
}

uint32_t DevRenderManager::RenderDelete() {
  VLOG_INF("RenderDelete m_window:%p", reinterpret_cast<void*>(m_window));
  if (t_rendering == this) {
    // The renderer is on this thread's stack: it goes when the frame returns.
    m_isStopping.store(true);
    m_deletedInFrame = true;
    return 0;
  }
  std::lock_guard<std::mutex> lock(m_renderLock);
  m_renderProxy.reset();
  return 0;
}

bool DevRenderManager::DeferDestruction() {
  if (t_rendering != this) {
    return false;
  }
  m_destroyInFrame = true;
  return true;
}
