// A fake camera that plays a file: a Y4M clip (8-bit 4:2:0) or an MJPEG stream (JPEG
// pictures one after another) is offered at its own size and frame rate, looping at the
// end. Y4M clips are offered as YU12, YUYV and MJPEG; MJPEG files as MJPEG only. Host
// programs use it where no camera is present; tests use it to feed known pictures.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/common/fake_v4l2_device.h"

class FileFrameSource final : public FakeFrameSource {
 public:
  // Null (and the reason in `error`) when the file cannot be read or holds no frame.
  // MJPEG files carry no rate: `mjpegFps` gives it. At most `maxFrames` are kept.
  static std::shared_ptr<FileFrameSource> Open(const std::string& path, std::string* error,
                                               uint32_t mjpegFps = 30, size_t maxFrames = 300);

  std::vector<uint8_t> MakeFrame(uint32_t fourcc, uint32_t width, uint32_t height,
                                 uint32_t sequence) override;

  uint32_t Width() const { return m_width; }
  uint32_t Height() const { return m_height; }
  v4l2_fract Interval() const { return m_interval; }
  bool IsMjpeg() const { return m_isMjpeg; }
  size_t FrameCount() const { return m_frames.size(); }
  // The camera that plays this file, with the given bus identity.
  FakeCameraConfig Camera(const std::string& busInfo);

 private:
  bool LoadY4m(const std::string& path, size_t maxFrames, std::string* error);
  bool LoadMjpeg(const std::string& path, uint32_t fps, size_t maxFrames, std::string* error);
  // Frame `index` as packed I420 at the file's size.
  std::vector<uint8_t> I420At(size_t index);

  uint32_t m_width = 0;
  uint32_t m_height = 0;
  v4l2_fract m_interval{1, 30};
  bool m_isMjpeg = false;
  std::vector<std::vector<uint8_t>> m_frames;  // I420 (Y4M) or JPEG pictures (MJPEG)
  std::vector<std::vector<uint8_t>> m_jpegCache;
  std::weak_ptr<FileFrameSource> m_self;
};
