// Decode mode: frames read from a Y4M file (or a synthetic clip) are pushed as decoded
// frames into a decoder input bound to two previews and a virtual camera. Every frame must
// come back through the release callback and reach every window.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "host_clock.h"
#include "host_modes.h"
#include "host_render_windows.h"
#include "tools/common/host_image.h"
#include "tools/common/y4m_reader.h"

namespace {

// Image numbers 150 to 177 are the ones whose first frame in a window is reported.
constexpr LinkNode kDecoderNode{110, TAVO_VIDEO_COMPONENT_DECODER, 150, "decoder"};
constexpr LinkNode kPreviewNodes[2] = {{111, TAVO_VIDEO_COMPONENT_PREVIEW, 61, "preview 1"},
                                       {112, TAVO_VIDEO_COMPONENT_PREVIEW, 62, "preview 2"}};
constexpr LinkNode kCameraNode{113, TAVO_VIDEO_COMPONENT_VIRTUAL_CAMERA, 70, "virtual camera"};
constexpr uint64_t kWindows[2] = {0x201, 0x202};

// The synthetic clip: two seconds of 640x360 at 30 frames a second.
constexpr uint32_t kClipWidth = 640;
constexpr uint32_t kClipHeight = 360;
constexpr uint32_t kClipFrames = 60;
constexpr uint32_t kClipRate = 30;
// Decoded frames the host keeps in the link at most, as a decoder's output pool would.
constexpr size_t kPoolSize = 8;

// The decoded frames the host owns: a record and a buffer each, in the link from the push
// until the release callback gives them back.
struct PoolSlot {
  tagOS_S_VIDEO_CODEC_IMG_INFO* record = nullptr;
  OsvGraphicBuffer* buffer = nullptr;
  const uint8_t* memory = nullptr;  // the buffer's memory, as the render callback sees it
  std::atomic<int64_t> pushedUs{-1};
  bool inFlight = false;  // guarded by Pool::lock
  uint32_t serial = 0;    // guarded by Pool::lock: which pushed frame it holds
};

struct Pool {
  std::array<PoolSlot, kPoolSize> slots;
  std::mutex lock;  // guards the slots' flags and everything below
  std::condition_variable returned;
  uint32_t returns = 0;
  uint32_t duplicates = 0;         // records given back while not in the link
  uint32_t strangers = 0;          // records this host never pushed
  uint32_t wrongNode = 0;          // records given back under another node id
  std::vector<uint8_t> returnsOf;  // per pushed frame
  uint64_t holdSumUs = 0;
  uint64_t holdMaxUs = 0;
};
Pool g_pool;

std::atomic<uint32_t> g_virtualCameraCalls{0};

uint32_t OnDecRelease(uint32_t nodeId, tagOS_S_VIDEO_CODEC_IMG_INFO* record) {
  const uint64_t now = NowUs();
  {
    std::lock_guard<std::mutex> lock(g_pool.lock);
    PoolSlot* slot = nullptr;
    for (PoolSlot& candidate : g_pool.slots) {
      if (candidate.record == record) {
        slot = &candidate;
      }
    }
    // Kept either way: the library must never free a record of this host's pool.
    if (slot == nullptr) {
      ++g_pool.strangers;
      return 1;
    }
    if (!slot->inFlight) {
      ++g_pool.duplicates;
      return 1;
    }
    if (nodeId != kDecoderNode.nodeId) {
      ++g_pool.wrongNode;
    }
    slot->inFlight = false;
    ++g_pool.returns;
    if (slot->serial < g_pool.returnsOf.size()) {
      ++g_pool.returnsOf[slot->serial];
    }
    const uint64_t held = now - static_cast<uint64_t>(slot->pushedUs.load());
    g_pool.holdSumUs += held;
    g_pool.holdMaxUs = std::max(g_pool.holdMaxUs, held);
  }
  g_pool.returned.notify_all();
  return 1;  // taken back: the buffer and the record are reused
}

int64_t PushedAt(const uint8_t* data) {
  for (const PoolSlot& slot : g_pool.slots) {
    if (slot.memory == data) {
      return slot.pushedUs.load();
    }
  }
  return -1;
}

uint32_t OnVirtualOut(uint32_t /*port*/, void* /*target*/, uint32_t /*targetSize*/,
                      void* /*source*/, uint32_t /*sourceSize*/) {
  ++g_virtualCameraCalls;
  return 0;
}

bool AllocatePool(uint32_t width, uint32_t height) {
  for (PoolSlot& slot : g_pool.slots) {
    slot.record = static_cast<tagOS_S_VIDEO_CODEC_IMG_INFO*>(
        std::calloc(1, sizeof(tagOS_S_VIDEO_CODEC_IMG_INFO)));
    slot.buffer = new OsvGraphicBuffer(width, height, TAVO_VIDEO_VLINK_FORMAT_I420);
    if (slot.record == nullptr || slot.buffer->GetBufHandle() == nullptr) {
      std::fprintf(stderr, "no memory for the frame pool\n");
      return false;
    }
    slot.memory = static_cast<const uint8_t*>(slot.buffer->GetBufHandle());
    slot.record->pBuffer = slot.buffer;
  }
  return true;
}

// A free slot, marked in flight, or nullptr when none came back for kStallLimit. The
// windows are served while it waits.
PoolSlot* TakeFreeSlot(HostDisplay& display) {
  const uint64_t waitFrom = NowUs();
  while (true) {
    {
      std::unique_lock<std::mutex> lock(g_pool.lock);
      g_pool.returned.wait_for(lock, std::chrono::milliseconds(20), [] {
        return std::any_of(g_pool.slots.begin(), g_pool.slots.end(),
                           [](const PoolSlot& s) { return !s.inFlight; });
      });
      for (PoolSlot& slot : g_pool.slots) {
        if (!slot.inFlight) {
          slot.inFlight = true;  // before the push: the release may come at once
          slot.serial = static_cast<uint32_t>(g_pool.returnsOf.size());
          g_pool.returnsOf.push_back(0);
          return &slot;
        }
      }
    }
    ServiceWindows(display, std::chrono::microseconds(0), false, 0);
    if (StalledSince(waitFrom)) {
      std::fprintf(stderr, "no frame came back for 10 s; stopping\n");
      return nullptr;
    }
  }
}

// Hands a slot to the link at pushUs; returns the library's answer (0: accepted) and, in
// returnedSoFar, the frames given back by then.
uint32_t Push(const Library& lib, PoolSlot& slot, uint64_t pushUs, uint32_t& returnedSoFar) {
  slot.pushedUs.store(static_cast<int64_t>(pushUs));
  const uint32_t accepted = lib.receiveDecFrame(0, kDecoderNode.nodeId, slot.record);
  std::lock_guard<std::mutex> lock(g_pool.lock);
  if (accepted != 0) {
    slot.inFlight = false;  // not in the link: still ours
    g_pool.returnsOf.pop_back();
  }
  returnedSoFar = g_pool.returns;
  return accepted;
}

// Waits, serving the windows, until every pushed frame has come back or kStallLimit passed.
void WaitForReturns(HostDisplay& display, uint32_t pushed) {
  bool drained = false;
  const uint64_t drainFrom = NowUs();
  while (!drained) {
    {
      std::unique_lock<std::mutex> lock(g_pool.lock);
      drained = g_pool.returned.wait_for(lock, std::chrono::milliseconds(20),
                                         [&] { return g_pool.returns >= pushed; });
    }
    ServiceWindows(display, std::chrono::microseconds(0), false, 0);
    if (!drained && StalledSince(drainFrom)) {
      std::fprintf(stderr, "frames still in the link after 10 s\n");
      break;
    }
  }
}

// What came back through the release callback.
struct Returns {
  uint32_t returns = 0;
  uint32_t once = 0;
  uint32_t leftInLink = 0;
  uint64_t holdSumUs = 0;
  uint64_t holdMaxUs = 0;
  uint32_t duplicates = 0;
  uint32_t strangers = 0;
  uint32_t wrongNode = 0;
};

// Counts the returns and frees the slots the link gave back. Records still in the link are
// left to it: freeing them could pull memory from under a library thread.
Returns TallyAndFreePool() {
  Returns r;
  std::lock_guard<std::mutex> lock(g_pool.lock);
  r.returns = g_pool.returns;
  r.once = static_cast<uint32_t>(
      std::count(g_pool.returnsOf.begin(), g_pool.returnsOf.end(), uint8_t{1}));
  r.holdSumUs = g_pool.holdSumUs;
  r.holdMaxUs = g_pool.holdMaxUs;
  r.duplicates = g_pool.duplicates;
  r.strangers = g_pool.strangers;
  r.wrongNode = g_pool.wrongNode;
  for (PoolSlot& slot : g_pool.slots) {
    if (slot.inFlight) {
      ++r.leftInLink;
      continue;
    }
    delete slot.buffer;
    std::free(slot.record);
    slot.buffer = nullptr;
    slot.record = nullptr;
  }
  return r;
}

// Copies a packed I420 frame into a buffer, row by row as its strides say.
void FillBuffer(const std::vector<uint8_t>& i420, const Y4mReader& reader,
                OsvGraphicBuffer& buffer) {
  const OsvGraphicBufferInfo info = buffer.GetImageInfo();
  const uint8_t* source = i420.data();
  for (uint32_t plane = 0; plane < 3; ++plane) {
    const uint32_t rows = plane == 0 ? reader.Height() : reader.ChromaHeight();
    const uint32_t bytes = plane == 0 ? reader.Width() : reader.ChromaWidth();
    uint8_t* row = buffer.GetImageAddr(plane);
    for (uint32_t y = 0; y < rows; ++y, row += info.stride[plane], source += bytes) {
      std::memcpy(row, source, bytes);
    }
  }
}

bool OpenInput(const Options& options, Y4mReader& reader) {
  if (!options.input.empty()) {
    if (!reader.Open(options.input)) {
      std::fprintf(stderr, "%s: %s\n", options.input.c_str(), reader.Error().c_str());
      return false;
    }
    std::printf("input: %s, %ux%u at %u/%u frames/s\n", options.input.c_str(), reader.Width(),
                reader.Height(), reader.RateNumerator(), reader.RateDenominator());
    return true;
  }
  std::vector<std::vector<uint8_t>> frames(kClipFrames);
  for (uint32_t i = 0; i < kClipFrames; ++i) {
    DrawMovingBars(kClipWidth, kClipHeight, i, kClipFrames, frames[i]);
  }
  if (!reader.OpenBytes(MakeY4m(kClipWidth, kClipHeight, kClipRate, 1, frames))) {
    std::fprintf(stderr, "synthetic clip: %s\n", reader.Error().c_str());
    return false;
  }
  std::printf("input: synthetic clip, %u frames %ux%u at %u frames/s\n", kClipFrames, kClipWidth,
              kClipHeight, kClipRate);
  return true;
}

// Creates the four components and binds them; returns the link's status.
uint32_t SetUpLink(HostLink& link, const Y4mReader& reader) {
  auto decoderParam = NewRecord();
  decoderParam->vdec.imgNo = kDecoderNode.nodeId;
  decoderParam->vdec.decReleaseFunc = OnDecRelease;
  auto cameraParam = NewRecord();
  cameraParam->virCam.voPort = 0;
  cameraParam->virCam.width = reader.Width();
  cameraParam->virCam.height = reader.Height();
  cameraParam->virCam.frameRate =
      std::max<uint32_t>(1, reader.RateNumerator() / reader.RateDenominator());
  cameraParam->virCam.virtualOutFunc = OnVirtualOut;

  std::printf("create decoder input (image number %u): %u\n", kDecoderNode.nodeId,
              link.Create(kDecoderNode, decoderParam.get()));
  for (size_t i = 0; i < 2; ++i) {
    auto previewParam = NewRecord();
    previewParam->vo.winNum = 1;
    previewParam->vo.windows[0].winHandle = kWindows[i];
    previewParam->vo.windows[0].imgNo = kDecoderNode.nodeId;  // the decoder's image number
    previewParam->vo.renderCb = OnRender;
    std::printf("create preview %zu (window 0x%llx): %u\n", i + 1,
                static_cast<unsigned long long>(kWindows[i]),
                link.Create(kPreviewNodes[i], previewParam.get()));
  }
  std::printf("create virtual camera: %u\n", link.Create(kCameraNode, cameraParam.get()));
  return link.BindAll();
}

}  // namespace

int RunDecode(const Library& lib, const Tables& tables, const Options& options,
              HostDisplay& display) {
  HostLink link(lib, {kDecoderNode, kCameraNode, kPreviewNodes[0], kPreviewNodes[1]},
                {{kPreviewNodes[0], kDecoderNode},
                 {kPreviewNodes[1], kDecoderNode},
                 {kCameraNode, kDecoderNode}});
  if (!link.Resolve(tables)) {
    return 1;
  }
  Y4mReader reader;
  if (!OpenInput(options, reader)) {
    return 1;
  }
  const uint32_t limit = options.frames > 0 ? static_cast<uint32_t>(options.frames) : UINT32_MAX;
  const uint64_t frameUs = uint64_t{1000000} * reader.RateDenominator() / reader.RateNumerator();
  if (!AllocatePool(reader.Width(), reader.Height())) {
    return 1;
  }
  SetUpWindows(lib, kWindows, 2, display, PushedAt);
  link.StoreNodeIds();

  PrintWindowTarget(display);
  uint32_t result = SetUpLink(link, reader);
  std::fflush(stdout);

  uint32_t pushed = 0;
  uint32_t refused = 0;
  bool inputOk = true;
  std::vector<uint8_t> frame;
  const uint64_t start = NowUs();
  uint64_t firstPushUs = start;
  while (result == 0 && pushed + refused < limit) {
    if (!reader.ReadFrame(frame)) {
      if (!reader.Error().empty()) {
        std::fprintf(stderr, "input: %s\n", reader.Error().c_str());
        inputOk = false;
      }
      break;
    }
    // A free record, or wait for the link to give one back.
    PoolSlot* slot = TakeFreeSlot(display);
    if (slot == nullptr) {
      result = 1;
      break;
    }
    if (!slot->buffer->IsAvailable()) {
      std::fprintf(stderr, "a returned buffer is still held (%u references)\n",
                   slot->buffer->GetRefCount());
    }
    FillBuffer(frame, reader, *slot->buffer);
    const uint64_t pushUs = NowUs();
    firstPushUs = pushed + refused == 0 ? pushUs : firstPushUs;
    uint32_t returnedSoFar = 0;
    const uint32_t accepted = Push(lib, *slot, pushUs, returnedSoFar);
    if (accepted != 0) {
      ++refused;
      std::fprintf(stderr, "frame %u refused: %u\n", pushed + refused, accepted);
    } else {
      ++pushed;
    }
    const uint64_t now = NowUs();
    std::printf("frame %u pushed: returned %u, rendered 0x%llx:%u 0x%llx:%u, %.2f frames/s\n",
                pushed, returnedSoFar, static_cast<unsigned long long>(kWindows[0]), FramesOf(0),
                static_cast<unsigned long long>(kWindows[1]), FramesOf(1),
                Rate(pushed > 0 ? pushed - 1 : 0, now - firstPushUs));
    // Paced at the clip's rate unless --fast; the windows are served meanwhile.
    const uint64_t due = options.fast ? now : start + frameUs * (pushed + refused);
    do {
      const uint64_t left = due > NowUs() ? due - NowUs() : 0;
      ServiceWindows(display, std::chrono::microseconds(std::min<uint64_t>(left, 20000)), false, 0);
    } while (NowUs() < due);
  }
  const double pushSeconds = SecondsSince(start);

  // Every frame in the link must come back before the link comes down.
  WaitForReturns(display, pushed);
  const double seconds = SecondsSince(start);

  const uint32_t teardown = link.TearDown();
  link.ReleaseContainers();
  ServiceWindows(display, std::chrono::microseconds(0), false, 0);

  const Returns r = TallyAndFreePool();
  const bool pngsOk = WritePngs(options.outDir);

  // One a window: the decoder's image number is one of those reported.
  const uint32_t expectedReports = 2;
  const uint32_t anomalies = r.duplicates + r.strangers + r.wrongNode;
  std::printf(
      "\nsummary: %u frames pushed in %.2f s (%.2f frames/s%s), %u refused, "
      "%.2f s to the last return\n",
      pushed, pushSeconds, Rate(pushed, static_cast<uint64_t>(pushSeconds * 1e6)),
      options.fast ? ", as fast as possible" : ", paced", refused, seconds);
  std::printf(
      "  returned through the release callback: %u of %u, each exactly once: %s, "
      "held in the link mean %.2f ms max %.2f ms\n",
      r.returns, pushed, r.once == pushed && r.returns == pushed ? "yes" : "NO",
      r.returns ? static_cast<double>(r.holdSumUs) / r.returns / 1000.0 : 0.0, Ms(r.holdMaxUs));
  if (anomalies != 0 || r.leftInLink != 0) {
    std::printf(
        "  release anomalies: %u duplicate, %u unknown, %u under another node id; "
        "%u records left in the link\n",
        r.duplicates, r.strangers, r.wrongNode, r.leftInLink);
  }
  const bool windowsOk = PrintWindowSummary(pushed, true);
  std::printf("  virtual camera: bound, %u output calls\n", g_virtualCameraCalls.load());
  std::printf("  first-frame reports: %zu of %u expected\n", ReportsPrinted(), expectedReports);
  CloseSummary(teardown, display, options.linger);
  const bool returnsOk = r.returns == pushed && r.once == pushed && anomalies == 0;
  return result == 0 && inputOk && pushed > 0 && returnsOk && windowsOk && pngsOk &&
                 teardown == 0 && ReportsPrinted() == expectedReports
             ? 0
             : 1;
}
