// The capture manager: every camera pixel format, rotation and mirror against libyuv's own
// output of the same input, the size and data checks, the try-lock frame path, the
// quality-indicator stream and a capturer's failures passed up.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <thread>

#include "camera/tavo_video_vlink_capture_manager.h"
#include "platform/adapt_common/stream_qi.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tools/common/jpeg_util.h"

namespace {

// The planes of a packed I420 picture of w x h in `bytes`, as the manager lays it out:
// strides w and w/2.
struct Planes {
  Planes(std::vector<uint8_t>& bytes, int w, int h)
      : y(bytes.data()), u(y + size_t(w) * h), v(u + size_t(w) * h / 4) {}
  uint8_t *y, *u, *v;
};

// A frame over `input`, owned by the test; after a conversion the block is the frame's.
_PEL_V_FRAME FrameOver(std::vector<uint8_t>& input, uint32_t format, uint32_t width,
                       uint32_t height) {
  return {format, width, height, input.data(), static_cast<uint32_t>(input.size()), 0, 0, 0, 0};
}

// The I420 picture a converted frame holds.
std::vector<uint8_t> PictureOf(const _PEL_V_FRAME& frame) {
  return std::vector<uint8_t>(frame.data, frame.data + size_t{frame.width} * frame.height * 3 / 2);
}

// libyuv's own I420 of a w x h `fourcc` sample, turned by `rotation`.
std::vector<uint8_t> Oracle(const std::vector<uint8_t>& in, uint32_t fourcc, int w, int h,
                            uint32_t rotation = 0) {
  const int ow = rotation == 90 || rotation == 270 ? h : w;
  std::vector<uint8_t> out(size_t(w) * h * 3 / 2);
  Planes o(out, ow, ow == w ? h : w);
  EXPECT_EQ(libyuv::ConvertToI420(in.data(), in.size(), o.y, ow, o.u, ow / 2, o.v, ow / 2, 0, 0, w,
                                  h, w, h, static_cast<libyuv::RotationMode>(rotation), fourcc),
            0);
  return out;
}

// libyuv's mirror of a packed I420 picture.
std::vector<uint8_t> Mirrored(std::vector<uint8_t> in, int w, int h) {
  std::vector<uint8_t> out(in.size());
  Planes i(in, w, h), o(out, w, h);
  EXPECT_EQ(
      libyuv::I420Mirror(i.y, w, i.u, w / 2, i.v, w / 2, o.y, w, o.u, w / 2, o.v, w / 2, w, h), 0);
  return out;
}

struct FormatCase {
  const char* name;
  uint32_t format;
  bool copyOnly;
  uint32_t halfBytesPerPixel;  // input bytes per pixel, times two; 0: a JPEG of a picture
  uint32_t fourcc;             // libyuv's name of the format; copies are their input
};

const FormatCase kFormats[] = {
    {"I420", PELV_IMAGE_FORMAT_I420, false, 3, libyuv::FOURCC_I420},
    {"NV21 copy", PELV_IMAGE_FORMAT_NV21, true, 3, 0},
    {"YUY2", PELV_IMAGE_FORMAT_YUY2, false, 4, libyuv::FOURCC_YUY2},
    {"NV12", PELV_IMAGE_FORMAT_NV12, false, 3, libyuv::FOURCC_NV12},
    {"NV21", PELV_IMAGE_FORMAT_NV21, false, 3, libyuv::FOURCC_NV21},
    {"RGB24", PELV_IMAGE_FORMAT_RGB24, false, 6, libyuv::FOURCC_24BG},
    {"ABGR", PELV_IMAGE_FORMAT_ABGR, false, 8, libyuv::FOURCC_ABGR},
    {"MJPEG", PELV_IMAGE_FORMAT_MJPEG, false, 0, libyuv::FOURCC_MJPG},
};

class CaptureManagerTest : public ::testing::Test {
 protected:
  LogCapture log;
  DevCaptureManager manager;
};

TEST_F(CaptureManagerTest, EveryFormatMatchesLibyuvByteForByte) {
  const std::pair<uint32_t, uint32_t> sizes[] = {{1280, 720}, {640, 480}, {64, 36}, {2, 2}};
  uint32_t seed = 1;
  for (const FormatCase& c : kFormats) {
    for (auto [width, height] : sizes) {
      SCOPED_TRACE(std::string(c.name) + " " + std::to_string(width));
      std::vector<uint8_t> input =
          c.halfBytesPerPixel == 0
              ? EncodeI420Jpeg(MakePatternI420(width, height, seed++).data(), width, height)
              : RandomBytes(size_t{width} * height * c.halfBytesPerPixel / 2, seed++);
      _PEL_V_FRAME frame = FrameOver(input, c.format, width, height);
      frame.copyOnly = c.copyOnly ? 1 : 0;
      frame.rotation = 90;  // carried, not applied
      ASSERT_EQ(manager.FrameConvert(frame), 0U);
      ASSERT_NE(frame.data, input.data());
      EXPECT_EQ(PictureOf(frame), c.copyOnly ? input : Oracle(input, c.fourcc, width, height));
      EXPECT_EQ((std::vector<size_t>{frame.rotation, frame.format, frame.dataSize, frame.stride}),
                (std::vector<size_t>{
                    90, c.copyOnly ? c.format : PELV_IMAGE_FORMAT_I420,
                    c.copyOnly ? input.size() : DevCaptureManager::BlockSize(width, height),
                    c.format == PELV_IMAGE_FORMAT_NV21 && !c.copyOnly ? width : 0U}));
      DevCaptureManager::ReleaseBuffer(frame.data);
    }
  }
}

// libyuv writes whole chroma rows and columns: for odd sizes the last ones reach past the
// packed w x h x 3/2. The block must still hold them.
TEST_F(CaptureManagerTest, RotationAndMirrorMatchLibyuvAndOddSizesFitTheirBlocks) {
  auto written = [](uint32_t w, uint32_t h) {
    const uint64_t v = uint64_t{w} * h + uint64_t{w} * h / 4;
    return v + uint64_t{(h + 1) / 2 - 1} * (w / 2) + (w + 1) / 2;
  };
  // NV12 rotates while converting; the I420 it gives turns and mirrors on its own. 45 degrees
  // is no turn. Odd sizes are checked for their blocks only: the packed picture the oracle
  // writes has no room for them.
  for (auto [width, height] :
       {std::pair<uint32_t, uint32_t>{640, 480}, {3, 16}, {5, 32}, {7, 9}, {1, 1}}) {
    for (uint32_t angle : {0U, 90U, 180U, 270U, 45U}) {
      SCOPED_TRACE(std::to_string(width) + " " + std::to_string(angle));
      const uint32_t applied = angle == 45 ? 0 : angle;
      const bool odd = ((width | height) & 1U) != 0;
      std::vector<uint8_t> input = RandomBytes(size_t{width} * height * 2 + 2, angle + 7);
      _PEL_V_FRAME frame = FrameOver(input, PELV_IMAGE_FORMAT_NV12_ROTATE, width, height);
      frame.rotation = angle;
      ASSERT_EQ(manager.ConvertToI420(frame), 0U);
      EXPECT_GE(frame.dataSize, written(frame.width, frame.height));
      EXPECT_EQ(
          (std::vector{frame.width, frame.rotation, frame.format}),
          (std::vector<uint32_t>{applied % 180 == 0 ? width : height, 0, PELV_IMAGE_FORMAT_I420}));
      const std::vector<uint8_t> converted = PictureOf(frame);
      EXPECT_TRUE(odd || converted == Oracle(input, libyuv::FOURCC_NV12, width, height, applied));

      const _PEL_V_FRAME before = frame;
      frame.rotation = angle;
      ASSERT_EQ(manager.TransRotate(frame), 0U);  // frees the old block: ASan checks
      EXPECT_GE(frame.dataSize, written(frame.width, frame.height));
      EXPECT_EQ(frame.data == before.data, applied == 0);  // no turn: the frame stays as it is
      EXPECT_EQ(
          (std::vector{frame.width, frame.rotation, frame.dataSize}),
          (std::vector{applied % 180 == 0 ? before.width : before.height, applied == 0 ? angle : 0U,
                       DevCaptureManager::BlockSize(frame.width, frame.height)}));
      const std::vector<uint8_t> turned = PictureOf(frame);
      EXPECT_TRUE(odd || turned == Oracle(converted, libyuv::FOURCC_I420, before.width,
                                          before.height, applied));
      frame.mirror = 1;
      ASSERT_EQ(manager.MirrorYuvI420(frame), 0U);
      EXPECT_EQ(frame.mirror, 0);
      EXPECT_TRUE(odd || PictureOf(frame) == Mirrored(turned, frame.width, frame.height));
      DevCaptureManager::ReleaseBuffer(frame.data);
    }
  }
  _PEL_V_FRAME empty{};
  empty.mirror = 1;
  EXPECT_EQ(manager.MirrorYuvI420(empty), 1U);
  EXPECT_EQ(empty.mirror, 1);
}

// Frames too large, empty, short by one byte or damaged: refused, and their bytes stay the
// caller's; a manager without capturer refuses start and stop. A short frame sits in a block of
// exactly its size, so an over-read trips ASan.
TEST_F(CaptureManagerTest, BadFramesAreRefusedAndLeftToTheCallerAndNoCapturerNoStart) {
  auto convert = [&](std::vector<uint8_t> bytes, uint32_t format, uint32_t w, uint32_t h) {
    _PEL_V_FRAME frame = FrameOver(bytes, format, w, h);
    const uint32_t rc = manager.ConvertToI420(frame);
    EXPECT_EQ(frame.data == bytes.data(), rc != 0);
    DevCaptureManager::ReleaseBuffer(rc == 0 ? frame.data : nullptr);
    return rc;
  };
  const std::vector<uint8_t> few(64, 0x80);
  EXPECT_EQ(convert(few, PELV_IMAGE_FORMAT_NONE, 8192, 8192), 1U);  // size fine, no such format
  for (auto [width, height] : {std::pair<uint32_t, uint32_t>{8193, 100}, {100, 8193}}) {
    EXPECT_EQ(convert(few, PELV_IMAGE_FORMAT_YUY2, width, height), DevCaptureManager::kFailed);
  }
  _PEL_V_FRAME nothing{};  // no format either: the missing data is what refuses it
  EXPECT_EQ(manager.ConvertToI420(nothing), DevCaptureManager::kFailed);
  for (uint32_t format : {100U, 102U, 104U, 105U, 106U, 201U, 205U, 300U}) {
    for (auto [width, height] : {std::pair<uint32_t, uint32_t>{0, 16}, {16, 0}, {0, 0}}) {
      EXPECT_NE(convert(few, format, width, height), 0U) << format << " " << width << "x" << height;
    }
  }
  for (const FormatCase& c : kFormats) {
    if (!c.copyOnly && c.halfBytesPerPixel != 0) {  // one byte short
      const size_t size = 64 * 48 * c.halfBytesPerPixel / 2 - 1;
      EXPECT_EQ(convert(RandomBytes(size, 3), c.format, 64, 48), 1U) << c.name;
    }
  }
  const std::vector<uint8_t> picture = MakePatternI420(320, 240, 1);
  const std::vector<uint8_t> jpeg = EncodeI420Jpeg(picture.data(), 320, 240);
  const std::vector<uint8_t> damaged[] = {RandomBytes(4096, 11),
                                          {jpeg.begin(), jpeg.begin() + 20},
                                          {jpeg.begin() + 2, jpeg.end()},
                                          {0xFF}};
  for (const std::vector<uint8_t>& bytes : damaged) {
    EXPECT_EQ(convert(bytes, PELV_IMAGE_FORMAT_MJPEG, 320, 240), 1U) << bytes.size();
  }
  EXPECT_EQ(convert(jpeg, PELV_IMAGE_FORMAT_MJPEG, 640, 480), 1U);  // another size than the frame
  // Start and stop need a capturer.
  tagCameraCaptureParams params{};
  EXPECT_EQ(manager.CaptureStart(&params), 1U);
  EXPECT_EQ(manager.CaptureStop(), 1U);
}

// A capturer whose results the test sets; its stop waits for stopGate, holding the manager's
// capture lock.
class ScriptedCapturer final : public IDevCaptureProxy {
 public:
  uint32_t Init(std::string) override { return initResult; }
  uint32_t CaptureStart(tagCameraCaptureParams*) override { return startResult; }
  uint32_t CaptureStop() override {
    stopEntered.Add();
    stopGate.Pass();
    return 0;
  }
  void SetCaptureCallback(CaptureFrameCallback cb) override { callback = std::move(cb); }

  uint32_t initResult = 0;
  uint32_t startResult = 0;
  CaptureFrameCallback callback;
  CountLatch stopEntered;
  Gate stopGate;
};

// Frames are converted, counted on the quality stream and handed on, with the sink's result;
// failing frames are paced; frames while stopped or during a stop are dropped without waiting;
// the capturer's failures are passed up.
TEST_F(CaptureManagerTest, FramePathConvertsPacesFailuresDropsWhileStoppedAndPassesFailuresUp) {
  auto owned = std::make_unique<ScriptedCapturer>();
  ScriptedCapturer& capturer = *owned;
  manager.SetDevCaptureProxy(std::move(owned));
  ASSERT_EQ(manager.Init("usb-1"), 0U);
  std::vector<uint32_t> handed;  // formats of the frames handed on
  manager.SetCaptureCallback([&](_PEL_V_FRAME& frame) {
    handed.push_back(frame.format);
    DevCaptureManager::ReleaseBuffer(frame.data);
    return 7;
  });
  auto push = [&](uint32_t format, uint32_t width, uint32_t height, std::vector<uint8_t>& input) {
    _PEL_V_FRAME frame = FrameOver(input, format, width, height);
    return capturer.callback(frame);
  };
  std::vector<uint8_t> good = RandomBytes(64 * 48 * 2, 4);
  EXPECT_EQ(push(PELV_IMAGE_FORMAT_YUY2, 64, 48, good), 1);  // not started: dropped

  tagCameraCaptureParams params{};
  ASSERT_EQ(manager.CaptureStart(&params), 0U);
  EXPECT_EQ(push(PELV_IMAGE_FORMAT_YUY2, 64, 48, good), 7);
  EXPECT_EQ(handed, std::vector<uint32_t>{PELV_IMAGE_FORMAT_I420});
  std::vector<uint8_t> garbage = RandomBytes(512, 2);
  for (int i = 0; i < 249; ++i) {
    EXPECT_EQ(push(PELV_IMAGE_FORMAT_MJPEG, 64, 48, garbage), 1);
  }
  std::vector<uint8_t> unknown(64);
  EXPECT_EQ(push(PELV_IMAGE_FORMAT_NONE, 4, 4, unknown), 1);  // no such format
  EXPECT_EQ(log.CountModule("FrameConvert fail", 1), 3U);     // failures 1, 101 and 201
  EXPECT_EQ(log.CountModule("ConvertToI420 fail. ret = ", 1), 3U);
  // Failed frames are counted in, never out.
  StreamQiStats stats{};
  ASSERT_EQ(StreamQiGetStats(manager.GetQiHandle(), &stats), 0);
  EXPECT_EQ((std::vector<uint64_t>{stats.framesIn, stats.framesOut, stats.bytesIn, stats.bytesOut}),
            (std::vector<uint64_t>{251, 1, good.size() + 249 * garbage.size() + unknown.size(),
                                   DevCaptureManager::BlockSize(64, 48)}));
  EXPECT_EQ(push(PELV_IMAGE_FORMAT_YUY2, 64, 48, good), 7);
  EXPECT_EQ(push(PELV_IMAGE_FORMAT_MJPEG, 64, 48, garbage), 1);
  EXPECT_EQ(log.CountModule("FrameConvert fail", 1), 4U);  // a good frame restarts the pace

  std::thread stopper([&] { EXPECT_EQ(manager.CaptureStop(), 0U); });
  ASSERT_TRUE(capturer.stopEntered.WaitFor(1));
  EXPECT_EQ(push(PELV_IMAGE_FORMAT_YUY2, 64, 48, good), 1);  // never waits for the lock
  capturer.stopGate.Open();
  stopper.join();
  EXPECT_FALSE(manager.IsCapturing());
  EXPECT_EQ(handed.size(), 2U);

  capturer.startResult = 1;
  EXPECT_EQ(manager.CaptureStart(&params), 1U);
  EXPECT_TRUE(manager.IsCapturing());  // stays set until stop
  capturer.initResult = 1;
  EXPECT_EQ(manager.Init("usb-2"), 1U);
  EXPECT_EQ(manager.CaptureStart(nullptr), 1U);
}

}  // namespace
