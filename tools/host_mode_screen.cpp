// Screen mode: a screen input (screen port 0) bound to an encoder, whose frames go to a Y4M
// file, and to a preview window. The screen is the user's display when it opens, else a
// private Xvfb with an animated scene. The cursor is drawn into the frames, hidden, or sent
// apart as cursor records (counted); at the end a snapshot of the screen comes through a
// shared-memory queue of the host and is written as a PNG.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "host_clock.h"
#include "host_encoder_sink.h"
#include "host_legs.h"
#include "host_modes.h"
#include "host_render_windows.h"
#include "host_x_server.h"
#include "platform/adapt_common/os_shm_queue.h"
#include "tools/common/host_image.h"

namespace {

// Screen port 0 is node 90; snapshot id 99 names it.
constexpr LinkNode kScreenNode{120, TAVO_VIDEO_COMPONENT_SCREEN, 90, "screen"};
constexpr LinkNode kEncoderNode{121, TAVO_VIDEO_COMPONENT_ENCODER, 6, "screen encoder"};
constexpr LinkNode kPreviewNode{122, TAVO_VIDEO_COMPONENT_PREVIEW, 63, "screen preview"};
// Previews read a screen as an input of type 4: another name for the screen's node.
constexpr LinkNode kScreenInput{123, TAVO_VIDEO_COMPONENT_INPUT, 90, "screen (as input)"};
constexpr uint64_t kWindow = 0x301;
constexpr uint32_t kSnapshotId = 99;
constexpr uint32_t kSnapshotQueue = 0x5301;
constexpr uint32_t kMouseId = 1;
constexpr uint32_t kCursorShape = 7;
constexpr uint32_t kWidth = 1280;
constexpr uint32_t kHeight = 720;
// The screen capture paces itself at 20 frames a second on ordinary processors whatever
// rate is asked; asking for that rate keeps encoder and figures in step with it.
constexpr uint32_t kFrameRate = 20;

// What the cursor and status callbacks saw; one screen a process.
std::atomic<uint32_t> g_cursorRecords{0};
std::atomic<uint32_t> g_cursorShown{0};  // records with a cursor id (not hidden)
std::atomic<uint32_t> g_cursorBadLength{0};
std::atomic<uint32_t> g_opened{0};

int32_t OnCursor(VlinkCursorSendData* data, uint32_t length, uint32_t /*userData*/) {
  if (data == nullptr || length != sizeof(VlinkCursorSendData)) {
    ++g_cursorBadLength;
    return 0;
  }
  ++g_cursorRecords;
  if (data->cursorId != 0) {
    ++g_cursorShown;
  }
  return 0;
}

void OnInputStatus(uint32_t /*nodeId*/, uint32_t status) {
  if (status == 0) {
    ++g_opened;
  }
}

const char* CursorName(CursorMode cursor) {
  return cursor == CursorMode::kIndependent ? "independent"
         : cursor == CursorMode::kDrawn     ? "drawn"
                                            : "hidden";
}

class ScreenLeg final : public Leg {
 public:
  ScreenLeg(const Library& lib, const Tables& tables, const Options& options, bool ownServer)
      : m_lib(lib),
        m_tables(tables),
        m_options(options),
        m_ownServer(ownServer),
        m_link(lib, {kScreenNode, kScreenInput, kEncoderNode, kPreviewNode},
               {{kEncoderNode, kScreenNode}, {kPreviewNode, kScreenInput}}) {}

  std::string Name() const override { return "screen"; }
  uint64_t Window() const override { return kWindow; }

  bool Prepare() override {
    if (m_lib.mouseSetParam == nullptr || m_lib.snapShot == nullptr) {
      std::fprintf(stderr, "screen: this library has no mouse or snapshot functions\n");
      return false;
    }
    if (!m_ownServer && DisplayOpens()) {
      std::printf("screen: capturing the display %s\n", std::getenv("DISPLAY"));
      return true;
    }
    if (!m_server.Start(kWidth, kHeight)) {
      std::fprintf(stderr, "screen: %s\n", m_server.Error().c_str());
      return false;
    }
    // The library opens the display the environment names.
    setenv("DISPLAY", m_server.Name().c_str(), 1);
    std::printf("screen: capturing a private Xvfb %s with an animated scene\n",
                m_server.Name().c_str());
    return true;
  }

  bool SetUp() override {
    if (!m_link.Resolve(m_tables)) {
      return false;
    }
    m_sink = std::make_unique<EncoderSink>(
        m_lib, kEncoderNode.nodeId,
        (std::filesystem::path(m_options.outDir) / "screen.y4m").string());
    m_sink->SetTimelineName("screen");
    m_link.StoreNodeIds();
    // Set before the screen exists: the library keeps them until the screen starts.
    tagTavoVideoMouseParam mouse{};
    mouse.screenComponentId = kScreenNode.component;
    mouse.userData = 0x55;
    mouse.independent = m_options.cursor == CursorMode::kIndependent ? 1 : 0;
    mouse.framerate = 30;
    mouse.shape = kCursorShape;
    mouse.cursorCallback = OnCursor;
    std::printf("screen: mouse parameters (%s cursor): %u\n", CursorName(m_options.cursor),
                m_lib.mouseSetParam(kMouseId, &mouse));

    auto screen = NewRecord();
    screen->screen.frameRate = kFrameRate;
    screen->screen.width = kWidth;
    screen->screen.height = kHeight;
    screen->screen.statusCallback = OnInputStatus;
    auto encoder = NewRecord();
    m_sink->FillRecord(*encoder, kWidth, kHeight, kFrameRate);
    auto preview = PreviewRecord(kWindow, kScreenNode.nodeId);  // the screen stamps its node id
    std::printf("create screen (port 0, %ux%u at %u/s): %u\n", kWidth, kHeight, kFrameRate,
                m_link.Create(kScreenNode, screen.get()));
    std::printf("create screen encoder: %u\n", m_link.Create(kEncoderNode, encoder.get()));
    std::printf("create screen preview (window 0x%llx): %u\n",
                static_cast<unsigned long long>(kWindow),
                m_link.Create(kPreviewNode, preview.get()));
    if (m_link.BindAll() != 0) {
      return false;
    }
    const uint32_t shown = m_options.cursor == CursorMode::kHidden ? m_lib.hideMouse(kMouseId)
                                                                   : m_lib.showMouse(kMouseId);
    std::printf("screen: %s the cursor: %u\n",
                m_options.cursor == CursorMode::kHidden ? "hide" : "show", shown);
    m_start = NowUs();
    return shown == 0;
  }

  uint32_t Frames() override { return m_sink ? m_sink->Figures().frames : 0; }

  std::string Progress() override {
    const EncoderFigures f = m_sink->Figures();
    char line[160];
    std::snprintf(line, sizeof(line), "screen %u frames %.1f/s cursor %u", f.frames, f.Rate(),
                  g_cursorRecords.load());
    return line;
  }

  void BeforeTearDown() override {
    m_seconds = m_start > 0 ? SecondsSince(m_start) : 0.0;
    m_snapshot = (std::filesystem::path(m_options.outDir) / "screen_snapshot.png").string();
    m_snapshotOk = TakeSnapshot(m_lib, kSnapshotId, kSnapshotQueue, m_snapshot, m_snapshotSize);
  }

  uint32_t TearDown() override {
    uint32_t result = m_link.TearDown([this] { m_sink->Drain(kStallLimit); });
    m_lib.mouseStop(kMouseId);
    m_link.ReleaseContainers();
    if (m_sink) {
      m_sink->Stop();
    }
    m_server.Stop();
    return result;
  }

  LegRow Row() override {
    LegRow row = EncoderRow("screen (port 0)", m_sink.get(), kWindow);
    const EncoderFigures f = m_sink ? m_sink->Figures() : EncoderFigures{};
    // Frames the time and rate promise: the capture paces itself at kFrameRate.
    const double expected = m_seconds * kFrameRate;
    const bool rateOk = m_seconds < 2 || f.frames >= expected * 0.5;
    const bool cursorOk = m_options.cursor != CursorMode::kIndependent || g_cursorRecords > 0;
    char notes[256];
    std::snprintf(notes, sizeof(notes),
                  ", %u of ~%.0f expected, cursor %s: %u records (%u shown), snapshot %s", f.frames,
                  expected, CursorName(m_options.cursor), g_cursorRecords.load(),
                  g_cursorShown.load(), m_snapshotOk ? m_snapshotSize.c_str() : "FAILED");
    row.notes += notes;
    row.ok = row.ok && rateOk && cursorOk && g_cursorBadLength == 0 && m_snapshotOk && g_opened > 0;
    return row;
  }

 private:
  const Library& m_lib;
  const Tables& m_tables;
  const Options& m_options;
  const bool m_ownServer;
  HostLink m_link;
  HostXServer m_server;
  std::unique_ptr<EncoderSink> m_sink;
  uint64_t m_start = 0;
  double m_seconds = 0;
  std::string m_snapshot;
  std::string m_snapshotSize;
  bool m_snapshotOk = false;
};

}  // namespace

bool TakeSnapshot(const Library& lib, uint32_t id, uint32_t queueId, const std::string& path,
                  std::string& size) {
  // One picture of up to 4K ARGB behind its 48-byte header.
  constexpr uint32_t kHeader = 48;
  constexpr uint32_t kMaxBytes = 3840 * 2160 * 4 + kHeader;
  if (OsShmAdvancedQueueCreate(queueId, 2, kMaxBytes) != 0) {
    std::fprintf(stderr, "snapshot: cannot create queue %u\n", queueId);
    return false;
  }
  TagTavoVideoSnapshotStorage storage{};
  storage.width = 0;  // the capture's own size
  storage.height = 0;
  storage.queueId = queueId;
  storage.format = 3;
  const uint32_t result = lib.snapShot(id, &storage);
  OsShmAdvancedBuffer* buffer = nullptr;
  const uint32_t got = result == 0 ? OsShmAdvancedReadBulkQueue(queueId, &buffer, 1, 5000) : 0;
  bool ok = false;
  if (got == 1 && buffer->usedLen >= kHeader) {
    const auto* bytes = static_cast<const uint8_t*>(buffer->mem);
    uint32_t header[3];
    std::memcpy(header, bytes, sizeof(header));  // pixel bytes, width, height
    const uint32_t n = header[0];
    RgbImage image;
    image.width = header[1];
    image.height = header[2];
    if (n == image.width * image.height * 4 && buffer->usedLen == n + kHeader) {
      image.pixels.resize(size_t{image.width} * image.height * 3);
      const uint8_t* argb = bytes + kHeader;  // B, G, R, A in memory
      for (size_t i = 0; i < size_t{image.width} * image.height; ++i) {
        image.pixels[i * 3] = argb[i * 4 + 2];
        image.pixels[i * 3 + 1] = argb[i * 4 + 1];
        image.pixels[i * 3 + 2] = argb[i * 4];
      }
      std::string error;
      ok = WritePng(path, image, error);
      if (!ok) {
        std::fprintf(stderr, "%s\n", error.c_str());
      }
      size = std::to_string(image.width) + "x" + std::to_string(image.height);
    } else {
      std::fprintf(stderr, "snapshot: a record of %u bytes for %ux%u (%u bytes of pixels)\n",
                   buffer->usedLen, image.width, image.height, n);
    }
  }
  std::printf("snapshot %u: %u, %s\n", id, result, ok ? path.c_str() : "no picture");
  if (buffer != nullptr) {
    OsShmAdvancedMemFreeBuffer(buffer);
  }
  OsShmAdvancedQueueDestroy(queueId);
  return ok;
}

std::unique_ptr<Leg> MakeScreenLeg(const Library& lib, const Tables& tables, const Options& options,
                                   bool ownServer) {
  return std::make_unique<ScreenLeg>(lib, tables, options, ownServer);
}

int RunScreen(const Library& lib, const Tables& tables, const Options& options,
              HostDisplay& display) {
  std::vector<std::unique_ptr<Leg>> legs;
  legs.push_back(MakeScreenLeg(lib, tables, options, false));
  return RunLegs(legs, lib, options, display);
}
