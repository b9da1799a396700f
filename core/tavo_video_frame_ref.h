// The library's one way to hold a frame reference: a move-only holder, so a reference can
// be handed on but not dropped twice. Raw IncreaseRef/DecreaseRef stay inside this file.
#pragma once

#include <utility>

#include "osv_graphic_buffer.h"

class FrameRef {
 public:
  FrameRef() = default;
  // Takes over a reference somebody already added (a frame the host or a task passes in).
  static FrameRef Adopt(OsvGraphicBuffer* buffer) { return FrameRef(buffer); }
  // Adds a reference of its own.
  static FrameRef Share(OsvGraphicBuffer* buffer) {
    if (buffer != nullptr) {
      buffer->IncreaseRef();
    }
    return FrameRef(buffer);
  }

  FrameRef(FrameRef&& other) noexcept : m_buffer(std::exchange(other.m_buffer, nullptr)) {}
  FrameRef& operator=(FrameRef&& other) noexcept {
    if (this != &other) {
      Reset();
      m_buffer = std::exchange(other.m_buffer, nullptr);
    }
    return *this;
  }
  FrameRef(const FrameRef&) = delete;
  FrameRef& operator=(const FrameRef&) = delete;
  ~FrameRef() { Reset(); }

  // Another holder of the same frame.
  FrameRef Clone() const { return Share(m_buffer); }
  // Drops the reference now (the last one returns the frame to its producer).
  void Reset() {
    if (OsvGraphicBuffer* buffer = std::exchange(m_buffer, nullptr)) {
      buffer->DecreaseRef();
    }
  }
  // Hands the reference to somebody outside the holder's reach (a host record whose
  // release call drops it with Adopt(...).Reset()).
  [[nodiscard]] OsvGraphicBuffer* Detach() { return std::exchange(m_buffer, nullptr); }

  OsvGraphicBuffer* Get() const { return m_buffer; }
  OsvGraphicBuffer* operator->() const { return m_buffer; }
  explicit operator bool() const { return m_buffer != nullptr; }

 private:
  explicit FrameRef(OsvGraphicBuffer* buffer) : m_buffer(buffer) {}
  OsvGraphicBuffer* m_buffer = nullptr;
};
