#include "screen/tavo_video_vlink_screen_buffer_pool.h"

#include <new>

#include "core/tavo_video_pool_buffer_tracker.h"
#include "screen/tavo_video_vlink_x11_log.h"

ScreenBufferPool::ScreenBufferPool() : m_tracker(std::make_shared<PoolBufferTracker>()) {}

ScreenBufferPool::~ScreenBufferPool() { Delete(); }

uint32_t ScreenBufferPool::Create(uint32_t width, uint32_t height, uint32_t captureWidth,
                                  uint32_t captureHeight) {
  // No encoder size given yet: frames go out at the capture size.
  if (width == 0 || height == 0) {
    width = captureWidth;
    height = captureHeight;
  }
  Delete();
  for (OsvGraphicBuffer*& slot : m_buffers) {
    slot = new (std::nothrow) OsvGraphicBuffer(width, height, TAVO_VIDEO_VLINK_FORMAT_I420);
    if (slot == nullptr || slot->GetBufHandle() == nullptr) {
      X11_ERR("create OsvGraphicBuffer fail!");
      Delete();
      return 1;
    }
    slot->SetReleaseTarget(m_tracker);
  }
  m_scratch = new (std::nothrow)
      OsvGraphicBuffer(captureWidth, captureHeight, TAVO_VIDEO_VLINK_FORMAT_I420);
  if (m_scratch == nullptr || m_scratch->GetBufHandle() == nullptr) {
    X11_ERR("create OsvGraphicBuffer fail!");
    Delete();
    return 1;
  }
  return 0;
}

uint32_t ScreenBufferPool::Resize(uint32_t width, uint32_t height) {
  std::array<std::unique_ptr<OsvGraphicBuffer>, kBufferCount> fresh;
  for (auto& buffer : fresh) {
    buffer.reset(new (std::nothrow) OsvGraphicBuffer(width, height, TAVO_VIDEO_VLINK_FORMAT_I420));
    if (!buffer || buffer->GetBufHandle() == nullptr) {
      X11_ERR("create OsvGraphicBuffer fail!");
      return 1;  // all slots keep their buffers
    }
    buffer->SetReleaseTarget(m_tracker);
  }
  for (uint32_t slot = 0; slot < kBufferCount; ++slot) {
    if (m_buffers[slot] != nullptr) {
      m_unused.push_back(m_buffers[slot]);
    }
    m_buffers[slot] = fresh[slot].release();
  }
  // Each change restarts the delay, so a host that resizes more often than the delay lasts
  // would keep every old set: beyond two sets the oldest go now (a busy one when its last
  // holder lets go).
  while (m_unused.size() > kMaxUnusedBuffers) {
    m_tracker->Retire(m_unused.front());
    m_unused.pop_front();
  }
  m_unusedDelay = kUnusedDelayFrames;
  return 0;
}

void ScreenBufferPool::Delete() {
  for (OsvGraphicBuffer*& slot : m_buffers) {
    if (slot != nullptr) {
      m_tracker->Retire(slot);
      slot = nullptr;
    }
  }
  for (OsvGraphicBuffer* buffer : m_unused) {
    m_tracker->Retire(buffer);
  }
  m_unused.clear();
  delete m_scratch;  // never leaves the capturer
  m_scratch = nullptr;
}

OsvGraphicBuffer* ScreenBufferPool::Take() {
  for (OsvGraphicBuffer* candidate : m_buffers) {
    if (candidate != nullptr && m_tracker->TryTake(candidate)) {
      return candidate;
    }
  }
  return nullptr;
}

OsvGraphicBuffer* ScreenBufferPool::TakePreferring(OsvGraphicBuffer* preferred) {
  if (preferred != nullptr && m_tracker->TryTake(preferred)) {
    return preferred;
  }
  return Take();
}

void ScreenBufferPool::CheckUnused() {
  if (m_unusedDelay > 0) {
    --m_unusedDelay;
    return;
  }
  for (auto it = m_unused.begin(); it != m_unused.end(); ++it) {
    if (m_tracker->IsFree(*it)) {
      m_tracker->Retire(*it);
      m_unused.erase(it);
      return;
    }
  }
}
