// GoogleTest before the X headers, whose None macro it cannot take.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "platform/adapt_common/os_shm_queue.h"
#include "tests/screen/screen_test_support.h"

namespace {

constexpr uint32_t kQueue = 0x5a;

// Every picture goes through the fake queue, whose handles carry only the two fields the
// platform's do.
class SnapshotTest : public ScreenTest {
 protected:
  FakeHostShmQueue m_queue;
  ScopedSeamOverride<HostShmQueue> m_queueSeam{m_queue};

  void SetUp() override { ASSERT_EQ(OsShmAdvancedQueueCreate(kQueue, 4, 64 << 20), 0); }
  void TearDown() override {
    OsShmAdvancedQueueDestroy(kQueue);
    ScreenTest::TearDown();
  }
  static TagTavoVideoSnapshotStorage Request(uint32_t width, uint32_t height) {
    TagTavoVideoSnapshotStorage storage{};
    storage.width = width;
    storage.height = height;
    storage.queueId = kQueue;
    storage.format = 3;
    return storage;
  }
  // The one picture queued: its record's fields (size, width, height, format, count, flag,
  // size again), its pixels (alpha cleared) and how many were opaque.
  struct Picture {
    std::vector<uint32_t> header;
    uint64_t stamp = 0;
    std::vector<uint32_t> pixels;
    size_t opaque = 0;
  };
  static Picture Take() {
    OsShmAdvancedBuffer* buffer = nullptr;
    Picture picture;
    if (OsShmAdvancedReadBulkQueue(kQueue, &buffer, 1, 0) != 1) {
      return picture;
    }
    const auto* memory = static_cast<const uint8_t*>(buffer->mem);
    uint32_t word[12];  // the record's 32-bit fields
    std::memcpy(word, memory, sizeof(word));
    picture.header = {word[0], word[1], word[2], word[5], word[6], uint32_t{memory[28]}, word[8]};
    picture.stamp = word[10] | uint64_t{word[11]} << 32;
    const uint32_t size = word[0];
    EXPECT_EQ(buffer->usedLen, size + kSnapshotHeaderBytes);
    picture.pixels.resize(size / 4);
    std::memcpy(picture.pixels.data(), memory + kSnapshotHeaderBytes, size);
    for (uint32_t& pixel : picture.pixels) {
      picture.opaque += (pixel >> 24) == 255 ? 1 : 0;
      pixel &= 0xFFFFFFU;
    }
    OsShmAdvancedMemFreeBuffer(buffer);
    return picture;
  }
  // libyuv's box scaling of `source` into width x height (alpha cleared).
  static std::vector<uint32_t> Scaled(const std::vector<uint32_t>& source, uint32_t sw, uint32_t sh,
                                      uint32_t width, uint32_t height) {
    std::vector<uint32_t> out(size_t(width) * height);
    libyuv::ARGBScale(reinterpret_cast<const uint8_t*>(source.data()), static_cast<int>(sw * 4),
                      static_cast<int>(sw), static_cast<int>(sh),
                      reinterpret_cast<uint8_t*>(out.data()), static_cast<int>(width * 4),
                      static_cast<int>(width), static_cast<int>(height), libyuv::kFilterBox);
    for (uint32_t& pixel : out) {
      pixel &= 0xFFFFFFU;
    }
    return out;
  }
};

TEST_F(SnapshotTest, StoppedRunningAndPortraitScreensAreCapturedIntoTheQueueNothingStays) {
  StartServer({{320, 240}, {270, 480}});  // port 1: a portrait monitor
  // Only UOS on Soren 7A gives opaque pixels (of a blank screen).
  for (const auto& [cpu, opaque] : {std::pair{"Soren 7A", true}, std::pair{"Soren 8C", false}}) {
    OsPlatformSetIdentity(cpu, "UOS");
    X11ScreenCapturer other(90);
    ASSERT_EQ(other.CapturePictureImp(Request(32, 24)), 0u);
    EXPECT_EQ(Take().opaque, opaque ? 32u * 24u : 0u) << cpu;
  }
  OsPlatformSetIdentity(nullptr, nullptr);
  m_server->PutPixels(0, 0, 0, 320, 240, PatternPixels(320, 240, 17));
  const auto screen = m_server->GetPixels(0, 0, 0, 320, 240);  // no alpha, as the capturer reads
  const size_t segments = CountOwnShmSegments();
  X11ScreenCapturer capturer(90);
  ASSERT_EQ(capturer.CapturePictureImp(Request(160, 100)), 0u);
  const Picture picture = Take();
  EXPECT_EQ(picture.header, (std::vector<uint32_t>{64000, 160, 100, 3, 1, 1, 64000}));
  EXPECT_NE(picture.stamp, 0u);
  EXPECT_EQ(picture.pixels, Scaled(screen, 320, 240, 160, 100));
  // A zero side means the capture size.
  for (const auto& [width, height] : {std::pair{0u, 100u}, std::pair{100u, 0u}}) {
    ASSERT_EQ(capturer.CapturePictureImp(Request(width, height)), 0u);
    const Picture whole = Take();
    EXPECT_EQ(whole.header, (std::vector<uint32_t>{307200, 320, 240, 3, 1, 1, 307200}));
    EXPECT_EQ(whole.pixels, screen);
  }

  // A running capture gives its last frame without opening the display again; queue
  // failures give the buffer back and leave the capture running.
  FrameSink sink;
  auto running = MakeCapturer(sink);
  ASSERT_EQ(running->StartCapture(), 0u);
  ASSERT_TRUE(sink.WaitFrames(1));
  const int opens = m_displaySystem->opens.load();
  ASSERT_EQ(running->CapturePictureImp(Request(0, 0)), 0u);
  EXPECT_EQ(Take().pixels, screen);
  EXPECT_EQ(m_displaySystem->opens.load(), opens);
  for (const auto& [failure, line, lines] :
       {std::tuple{&m_queue.allocFails, "WritePicureToQueue failed", 1u},
        std::tuple{&m_queue.nullMemory, "QueueBuffer is nullptr", 2u},
        std::tuple{&m_queue.writeFails, "OsShmAdvancedWriteBulkQueue fail", 1u}}) {
    *failure = true;
    EXPECT_EQ(running->CapturePictureImp(Request(64, 48)), 1u);
    EXPECT_EQ(m_logs.CountModule(line, 1), lines) << line;
    *failure = false;
  }
  EXPECT_EQ(m_queue.frees.load(), 3);
  EXPECT_TRUE(running->IsStarted());
  ASSERT_TRUE(sink.WaitFrames(sink.Count() + 1));
  running.reset();
  EXPECT_EQ(capturer.WritePicureToQueue(nullptr, 4, Request(1, 1)), 1u);
  EXPECT_TRUE(m_logs.HasModule("input null", 1));

  // A portrait monitor keeps its aspect between bars: 270 wide is more than 180 high, region
  // trunc(180 / 320 x 180) = 101, offset 109.
  m_server->PutPixels(1, 0, 0, 270, 480, PatternPixels(270, 480, 23));
  const auto portrait = m_server->GetPixels(1, 0, 0, 270, 480);
  ASSERT_EQ(capturer.SetCaptureScreenPort(1), 0u);
  ASSERT_EQ(capturer.CapturePictureImp(Request(320, 180)), 0u);
  const auto region = Scaled(portrait, 270, 480, 101, 180);
  std::vector<uint32_t> framed(320 * 180, 0);
  for (uint32_t row = 0; row < 180; ++row) {
    std::copy_n(region.begin() + row * 101, 101, framed.begin() + row * 320 + 109);
  }
  EXPECT_EQ(Take().pixels, framed);
  // Not wider than the picture is high: the whole picture is filled.
  ASSERT_EQ(capturer.CapturePictureImp(Request(480, 270)), 0u);
  EXPECT_EQ(Take().pixels, Scaled(portrait, 270, 480, 480, 270));

  // Failures: what was made for each snapshot is gone again, as after the good ones.
  ASSERT_EQ(capturer.SetCaptureScreenPort(3), 0u);  // names no monitor
  EXPECT_EQ(capturer.CapturePictureImp(Request(64, 48)), 1u);
  EXPECT_TRUE(m_logs.HasModule("not find the screen[3]!", 1));
  ASSERT_EQ(capturer.SetCaptureScreenPort(0), 0u);
  EXPECT_EQ(capturer.CapturePictureImp(Request(100000, 48)), 1u);  // absurd size
  EXPECT_TRUE(m_logs.HasModule("libyuv::ARGBScale failed", 1));
  m_displaySystem->refuseOpen = true;
  EXPECT_EQ(capturer.CapturePictureImp(Request(64, 48)), 1u);
  EXPECT_TRUE(m_logs.HasModule("XOpenDisplay failed!", 1));
  EXPECT_EQ(CountOwnShmSegments(), segments);
  EXPECT_EQ(m_displaySystem->opens.load(), m_displaySystem->closes.load());
  EXPECT_FALSE(capturer.IsInited());
}

}  // namespace
