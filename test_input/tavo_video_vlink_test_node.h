// A source that needs no device: one still image, read when the node starts, sent twice
// a second through 16 buffers that all point at the same read-only image.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "core/tavo_video_named_thread.h"
#include "core/tavo_video_vlink_node.h"

struct TestDevInfo {
  uint32_t imgNo;       // stamped on every frame
  uint32_t portId;      // only logged
  uint32_t frameRate;   // must be non-zero; the pace is fixed
  uint32_t hostValue3;  // always 0
  uint32_t hostValue4;  // carried, not read
  uint32_t width;       // size of a raw I420 file; then the size of the image read
  uint32_t height;
  std::array<char, 4096> fileName;  // NUL-terminated
};

// Takes over the buffers and image of a test input's cache retired (by a restart or the
// destruction) while frames are still held, and frees each buffer as its last holder lets
// go, the image with the last one.
class TestImageKeeper;

class TestInputInputNode : public VideoVlinkNode {
 public:
  static constexpr uint32_t kCacheSize = 16;
  static constexpr uint32_t kSendPeriodMs = 500;
  static constexpr uint32_t kBlackWidth = 1920;
  static constexpr uint32_t kBlackHeight = 1080;

  explicit TestInputInputNode(uint32_t id);
  ~TestInputInputNode() override;

  virtual uint32_t SetParam(const TestDevInfo& info);
  virtual uint32_t CheckParam(const TestDevInfo& info);

  uint32_t ReadImage(const char* path);
  uint32_t ReadImageFile(const char* path, uint8_t** data, uint32_t* width, uint32_t* height);
  static uint32_t CreateBlackPicture(uint8_t** data, uint32_t* width, uint32_t* height);
  uint32_t InitCache();
  OsvGraphicBuffer* GetFreeCache();
  uint32_t ReleaseCache();
  void SendTestImgFunc();

  TestDevInfo GetParam();
  size_t GetCacheSize() const { return m_cache.size(); }

 protected:
  uint32_t OnStart() override;
  uint32_t OnStartWhileStarted() override;
  uint32_t OnStop() override;

 private:
  TestDevInfo m_param{};  // guarded by m_nodeLock
  NamedThread m_sendThread{"VLINK_TEST_SEND"};
  uint8_t* m_imageData = nullptr;  // the image of the latest start; new[] memory
  uint32_t m_cacheIndex = 0;
  // Touched by the sender thread while it runs, by the control thread only otherwise.
  std::vector<OsvGraphicBuffer*> m_cache;
  // The release target of every buffer of the cache; a new one with each image.
  std::shared_ptr<TestImageKeeper> m_keeper;
};
