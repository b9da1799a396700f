// Which buffers of a producer's pool are out (being filled or held downstream) and which
// retired ones wait for their last holder. A buffer is taken when the producer hands it out
// and comes back when its last holder lets go (ReleaseBufferDeal, on that holder's thread),
// which is also when a retired buffer is deleted: deleting it on any other thread could
// race the holder's release. Make it the release target of every pool buffer.
#pragma once

#include <mutex>
#include <set>

#include "osv_graphic_buffer.h"

class PoolBufferTracker final : public OsvReleaseBase<OsvGraphicBuffer> {
 public:
  // Marks a free buffer as handed out; false when it is still out.
  bool TryTake(OsvGraphicBuffer* buffer) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_busy.count(buffer) != 0 || !buffer->IsAvailable()) {
      return false;
    }
    m_busy.insert(buffer);
    return true;
  }
  bool IsFree(OsvGraphicBuffer* buffer) {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_busy.count(buffer) == 0;
  }
  // Deletes the buffer now when it is free, else when its last holder lets go.
  void Retire(OsvGraphicBuffer* buffer) {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      if (m_busy.count(buffer) != 0) {
        m_retired.insert(buffer);
        return;
      }
    }
    delete buffer;
  }
  // Retired buffers still out.
  size_t RetiredCount() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_retired.size();
  }
  void ReleaseBufferDeal(OsvGraphicBuffer* buffer) override {
    bool retired = false;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_busy.erase(buffer);
      retired = m_retired.erase(buffer) != 0;
    }
    if (retired) {
      delete buffer;  // the buffer touches nothing of itself after this call
    }
  }

 private:
  std::mutex m_lock;  // guards m_busy and m_retired; no callback runs under it
  std::set<OsvGraphicBuffer*> m_busy;
  std::set<OsvGraphicBuffer*> m_retired;
};
