// The screen capturer's output buffers: five I420 buffers at the output size, handed out in
// order when no holder is left, plus one at the capture size to convert into before scaling.
// A resize retires the five into a list that is freed one buffer a frame, each once free,
// after a delay of 60 frames.
#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <memory>

#include "osv_graphic_buffer.h"

class PoolBufferTracker;

class ScreenBufferPool {
 public:
  static constexpr uint32_t kBufferCount = 5;
  static constexpr uint32_t kUnusedDelayFrames = 60;
  static constexpr size_t kMaxUnusedBuffers = 2 * kBufferCount;

  ScreenBufferPool();
  ~ScreenBufferPool();
  ScreenBufferPool(const ScreenBufferPool&) = delete;
  ScreenBufferPool& operator=(const ScreenBufferPool&) = delete;

  // The five at width x height (the capture size when either is 0) and the capture-size one.
  // 0, or 1 ("create OsvGraphicBuffer fail!" logged) with nothing made.
  uint32_t Create(uint32_t width, uint32_t height, uint32_t captureWidth, uint32_t captureHeight);
  // Five fresh buffers of the new size; the old ones wait in the unused list. 1 when memory
  // could not be had (the old ones stay in force).
  uint32_t Resize(uint32_t width, uint32_t height);
  // Frees every buffer (one still held downstream when its last holder lets go).
  void Delete();
  bool Empty() const { return m_buffers[0] == nullptr; }
  // The first free output buffer, now marked as out; null when all five are held.
  OsvGraphicBuffer* Take();
  // `preferred` (the previous frame's buffer, whose pixels the next frame builds on) when it
  // is free, else as Take.
  OsvGraphicBuffer* TakePreferring(OsvGraphicBuffer* preferred);
  OsvGraphicBuffer* Scratch() const { return m_scratch; }
  // After every frame: counts the delay down, then frees one free retired buffer.
  void CheckUnused();
  size_t UnusedCount() const { return m_unused.size(); }

 private:
  std::array<OsvGraphicBuffer*, kBufferCount> m_buffers{};
  OsvGraphicBuffer* m_scratch = nullptr;
  std::list<OsvGraphicBuffer*> m_unused;
  uint32_t m_unusedDelay = 0;
  // Knows which output buffers are downstream; frees retired ones when they come back.
  std::shared_ptr<PoolBufferTracker> m_tracker;
};
