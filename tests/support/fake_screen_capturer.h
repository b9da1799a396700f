// A screen capturer whose frames the test pushes (no X server), with the calls the screen
// node made on it recorded and each step able to fail; and the factory that hands it out.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "screen/tavo_video_vlink_screen_capturer.h"

class FakeScreenCapturer final : public ScreenCapturer {
 public:
  explicit FakeScreenCapturer(uint32_t id) : capturerId(id) {}
  uint32_t SetCaptureParams(const ViDevInfo& info) override {
    params = info;
    return 0;
  }
  uint32_t SetEncodeResolution(uint32_t width, uint32_t /*height*/) override {
    encWidth = width;
    return 0;
  }
  uint32_t SetCaptureScreenPort(uint32_t value) override {
    port = value;
    return 0;
  }
  uint32_t SetCaptureCursorParams(const VlinkCursorParams& value) override {
    cursor = value;
    return 0;
  }
  uint32_t GetCaptureCursorParams(VlinkCursorParams* out) override {
    *out = cursor;
    return 0;
  }
  uint32_t SetSendFrameCallback(SendFrameCallback value) override {
    std::lock_guard<std::mutex> lock(m_lock);
    callback = std::move(value);
    return 0;
  }
  uint32_t Init() override {
    ++inits;
    return failInit ? 1 : 0;
  }
  uint32_t StartCapture() override {
    ++starts;
    return 0;
  }
  uint32_t StopCapture() override {
    ++stops;
    return 0;
  }
  uint32_t CapturePictureImp(const TagTavoVideoSnapshotStorage& storage) override {
    snapshotWidth = storage.width;
    return failSnapshot ? 1 : 0;
  }
  // A frame as the capture thread would hand it out; the callback's answer.
  int Push(OsvGraphicBuffer* frame) {
    std::lock_guard<std::mutex> lock(m_lock);
    return callback ? callback(FrameRef::Share(frame)) : -1;
  }

  const uint32_t capturerId;
  ViDevInfo params{};
  uint32_t encWidth = 0;
  uint32_t port = 0xFFFFFFFF;
  VlinkCursorParams cursor{};
  uint32_t snapshotWidth = 0;
  std::atomic<int> inits{0};
  std::atomic<int> starts{0};
  std::atomic<int> stops{0};
  bool failInit = false;
  bool failSnapshot = false;

 private:
  std::mutex m_lock;  // guards callback; frames are pushed from the test thread
  SendFrameCallback callback;
};

// Hands out FakeScreenCapturers and keeps a pointer to the latest (owned by the node).
class FakeScreenCapturerFactory final : public ScreenCapturerFactory {
 public:
  std::unique_ptr<ScreenCapturer> Create(uint32_t capturerId) override {
    auto capturer = std::make_unique<FakeScreenCapturer>(capturerId);
    capturer->failInit = failNextInit;
    capturer->failSnapshot = failSnapshots;
    latest = capturer.get();
    return capturer;
  }
  FakeScreenCapturer* latest = nullptr;
  bool failNextInit = false;
  bool failSnapshots = false;
};
