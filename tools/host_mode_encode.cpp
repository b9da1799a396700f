// Encode mode: a test-image input bound to an encoder output. Every frame the encoder
// callback hands over goes to a Y4M file and back with TavoVideoReleaseVEncFrame.
#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <tuple>
#include <utility>

#include "host_clock.h"
#include "host_modes.h"

namespace {

constexpr LinkNode kEncoderNode{101, TAVO_VIDEO_COMPONENT_ENCODER, 5, "encoder"};
constexpr int kDefaultFrames = 10;

// Frames handed over by the encoder callback, waiting for the host thread. The callback
// runs on a library worker and only queues: it must not block on the library.
struct Handoffs {
  std::mutex lock;  // guards everything below
  std::condition_variable arrived;
  std::deque<std::pair<VencOutFrame*, uint64_t>> frames;  // record, time received
  uint32_t encodersCreated = 0;
};
Handoffs g_handoffs;

uint32_t OnEncoderCreate(uint32_t imgNo, uint32_t /*hostKey*/, uint32_t /*hostSubKey*/) {
  std::printf("encoder %u created\n", imgNo);
  std::lock_guard<std::mutex> lock(g_handoffs.lock);
  ++g_handoffs.encodersCreated;
  return 0;
}

uint32_t OnEncoderFrame(uint32_t /*imgNo*/, uint32_t /*hostKey*/, uint32_t /*hostSubKey*/,
                        VencOutFrame* frame) {
  {
    std::lock_guard<std::mutex> lock(g_handoffs.lock);
    g_handoffs.frames.emplace_back(frame, NowUs());
  }
  g_handoffs.arrived.notify_one();
  return 1;  // exactly 1 accepts the frame
}

// The next handed-over frame and when it arrived; false after kStallLimit without one.
bool NextFrame(VencOutFrame*& frame, uint64_t& receivedAt) {
  std::unique_lock<std::mutex> lock(g_handoffs.lock);
  if (!g_handoffs.arrived.wait_for(lock, kStallLimit, [] { return !g_handoffs.frames.empty(); })) {
    return false;
  }
  std::tie(frame, receivedAt) = g_handoffs.frames.front();
  g_handoffs.frames.pop_front();
  return true;
}

// Frames that arrived after the last one wanted go back too.
void ReleaseLeftovers(const Library& lib) {
  std::lock_guard<std::mutex> lock(g_handoffs.lock);
  for (auto& [frame, at] : g_handoffs.frames) {
    lib.releaseFrame(frame);
  }
  g_handoffs.frames.clear();
}

bool WriteY4mFrame(FILE* out, const OsvGraphicBuffer& buffer, bool& headerWritten) {
  const OsvGraphicBufferInfo info = buffer.GetImageInfo();
  if (info.format != TAVO_VIDEO_VLINK_FORMAT_I420 || buffer.GetImageAddr(0) == nullptr) {
    return false;
  }
  if (!headerWritten) {
    std::fprintf(out, "YUV4MPEG2 W%u H%u F2:1 Ip A1:1 C420jpeg\n", info.width, info.height);
    headerWritten = true;
  }
  std::fputs("FRAME\n", out);
  for (uint32_t plane = 0; plane < 3; ++plane) {
    const uint32_t rows = plane == 0 ? info.height : info.height / 2;
    const uint32_t bytes = plane == 0 ? info.width : info.width / 2;
    const uint8_t* row = buffer.GetImageAddr(plane);
    for (uint32_t y = 0; y < rows; ++y, row += info.stride[plane]) {
      std::fwrite(row, 1, bytes, out);
    }
  }
  return true;
}

}  // namespace

int RunEncode(const Library& lib, const Tables& tables, const Options& options) {
  HostLink link(lib, {kTestImageNode, kEncoderNode}, {{kEncoderNode, kTestImageNode}});
  if (!link.Resolve(tables)) {
    return 1;
  }
  const int frames = options.frames > 0 ? options.frames : kDefaultFrames;
  link.StoreNodeIds();

  auto testParam = TestImageRecord(options.image);
  auto encoderParam = NewRecord();
  encoderParam->venc.width = 1280;
  encoderParam->venc.height = 720;
  encoderParam->venc.frameRate = 2;
  encoderParam->venc.hostKey = 7;
  encoderParam->venc.hostSubKey = 8;
  encoderParam->venc.encOutFunc = OnEncoderFrame;
  encoderParam->venc.encCreateFunc = OnEncoderCreate;

  std::printf("image: %s\n", options.image.empty() ? "(none)" : options.image.c_str());
  link.Create(kTestImageNode, testParam.get());
  std::printf("create test image: %u\n", link.Status());
  link.Create(kEncoderNode, encoderParam.get());
  std::printf("create encoder: %u\n", link.Status());
  uint32_t result = link.BindAll();

  FILE* out = std::fopen(options.out.c_str(), "wb");
  if (out == nullptr) {
    std::perror(options.out.c_str());
    return 1;
  }
  bool headerWritten = false;
  int received = 0;
  int written = 0;
  uint64_t delaySum = 0;
  uint64_t delayMax = 0;
  uint64_t lastSequence = 0;
  bool sequenceOk = true;
  const uint64_t start = NowUs();
  while (result == 0 && received < frames) {
    VencOutFrame* frame = nullptr;
    uint64_t receivedAt = 0;
    // The test image comes twice a second: ten seconds without a frame is a stall.
    if (!NextFrame(frame, receivedAt)) {
      std::fprintf(stderr, "no frame for 10 s; stopping\n");
      result = 1;
      break;
    }
    const uint64_t delay = receivedAt - frame->timestampUs;
    delaySum += delay;
    delayMax = std::max(delayMax, delay);
    sequenceOk = sequenceOk && (received == 0 || frame->sequence == lastSequence + 1);
    lastSequence = frame->sequence;
    if (WriteY4mFrame(out, *frame->buffer, headerWritten)) {
      ++written;
    }
    const OsvGraphicBufferInfo info = frame->buffer->GetImageInfo();
    ++received;
    const double seconds = SecondsSince(start);
    std::printf("frame %d: seq %llu %ux%u, %.2f frames/s, hand-off %llu us\n", received,
                static_cast<unsigned long long>(frame->sequence), info.width, info.height,
                seconds > 0 ? received / seconds : 0.0, static_cast<unsigned long long>(delay));
    std::fflush(stdout);
    lib.releaseFrame(frame);
  }
  const double seconds = SecondsSince(start);

  const uint32_t teardown = link.TearDown();
  ReleaseLeftovers(lib);
  link.ReleaseContainers();
  std::fclose(out);

  std::printf("\nsummary: %d frames received in %.1f s (%.2f frames/s), %d written to %s\n",
              received, seconds, seconds > 0 ? received / seconds : 0.0, written,
              options.out.c_str());
  std::printf("hand-off delay to the host thread: mean %.0f us, max %llu us; sequence %s\n",
              received ? static_cast<double>(delaySum) / received : 0.0,
              static_cast<unsigned long long>(delayMax), sequenceOk ? "continuous" : "BROKEN");
  PrintTeardown(teardown);
  return result == 0 && teardown == 0 && received == frames && sequenceOk ? 0 : 1;
}
