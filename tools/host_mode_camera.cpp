// Camera mode: a camera input bound to an encoder, whose frames go to a Y4M file, and to a
// preview window. The camera is a real one with the asked bus identity or, without one,
// the file camera the host preloads. --background switches the virtual background on
// through the overlay functions (and --background-off-after N off again); --capture-size
// asks for another size with TavoVideoSetCapResolution, which takes effect when the camera
// next starts, so the link is then taken down and made again.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>

#include "host_clock.h"
#include "host_encoder_sink.h"
#include "host_file_camera.h"
#include "host_frame_number.h"
#include "host_legs.h"
#include "host_modes.h"
#include "host_plots.h"
#include "host_render_windows.h"
#include "tools/common/host_image.h"

namespace {

constexpr LinkNode kCameraNode{130, TAVO_VIDEO_COMPONENT_CAMERA, 30, "camera"};
constexpr LinkNode kEncoderNode{131, TAVO_VIDEO_COMPONENT_ENCODER, 7, "camera encoder"};
constexpr LinkNode kPreviewNode{132, TAVO_VIDEO_COMPONENT_PREVIEW, 64, "camera preview"};
constexpr uint64_t kWindow = 0x501;
constexpr uint32_t kChannel = 1;
constexpr uint32_t kWidth = 1280;
constexpr uint32_t kHeight = 720;
constexpr uint32_t kFrameRate = 30;

// Frames that arrive this soon after the background was switched may have been taken in
// the other state: they are not timed.
constexpr uint64_t kSwitchSettleUs = 500000;
// A frame number seen again this long after its frame was taken may be an older pass of the
// clip's loop, which lasts 6 s (or no number at all). Under a sanitizer the virtual
// background alone can keep a frame well over a second.
constexpr uint64_t kTimingLimitUs = 5000000;

// Time from the camera to the host of the frames whose number the host could read (the
// file camera's clip numbers its frames), for one state of the virtual background.
struct Timing {
  uint64_t sumUs = 0;
  uint64_t maxUs = 0;
  uint32_t frames = 0;
  double MeanMs() const { return frames ? static_cast<double>(sumUs) / frames / 1000.0 : 0.0; }
};

class CameraLeg final : public Leg {
 public:
  CameraLeg(const Library& lib, const Tables& tables, const Options& options,
            std::string background)
      : m_lib(lib),
        m_tables(tables),
        m_options(options),
        m_background(std::move(background)),
        m_link(lib, {kCameraNode, kEncoderNode, kPreviewNode},
               {{kEncoderNode, kCameraNode}, {kPreviewNode, kCameraNode}}) {}

  std::string Name() const override { return "camera"; }
  uint64_t Window() const override { return kWindow; }

  bool Prepare() override {
    if (m_lib.setCapResolution == nullptr || m_lib.overlayCreate == nullptr) {
      std::fprintf(stderr, "camera: this library has no capture or overlay functions\n");
      return false;
    }
    return true;
  }

  bool SetUp() override {
    if (!m_link.Resolve(m_tables)) {
      return false;
    }
    if (!m_sink) {
      m_sink = std::make_unique<EncoderSink>(
          m_lib, kEncoderNode.nodeId,
          (std::filesystem::path(m_options.outDir) / "camera.y4m").string());
      m_sink->SetTimelineName("camera");
      m_sink->SetInspector(
          [this](const OsvGraphicBuffer& buffer, uint64_t arrivalUs) { Time(buffer, arrivalUs); });
    }
    m_link.StoreNodeIds();
    // The background is set before the camera exists: the bind makes the virtual-background
    // node with the stored picture, so it never reads an empty path. (Set and enable each
    // trace that the camera is not there yet.)
    if (!m_background.empty() && !m_restarted && !SwitchBackgroundOn()) {
      return false;
    }
    auto camera = NewRecord();
    camera->camera.width = kWidth;
    camera->camera.height = kHeight;
    camera->camera.frameRate = kFrameRate;
    std::snprintf(camera->camera.cameraId, sizeof(camera->camera.cameraId), "%s",
                  m_options.cameraId.c_str());
    auto encoder = NewRecord();
    m_sink->FillRecord(*encoder, kWidth, kHeight, kFrameRate);
    auto preview = PreviewRecord(kWindow, kCameraNode.nodeId);  // the camera stamps its node id
    std::printf("create camera \"%s\" (%ux%u at %u/s): %u\n", m_options.cameraId.c_str(), kWidth,
                kHeight, kFrameRate, m_link.Create(kCameraNode, camera.get()));
    if (m_restarted) {
      // The created camera has the record's size again; the new one applies at its start.
      std::printf("camera: capture size %ux%u through TavoVideoSetCapResolution: %u\n",
                  m_options.captureWidth, m_options.captureHeight,
                  m_lib.setCapResolution(kCameraNode.nodeId, m_options.captureWidth,
                                         m_options.captureHeight));
    }
    std::printf("create camera encoder: %u\n", m_link.Create(kEncoderNode, encoder.get()));
    std::printf("create camera preview (window 0x%llx): %u\n",
                static_cast<unsigned long long>(kWindow),
                m_link.Create(kPreviewNode, preview.get()));
    return m_link.BindAll() == 0;
  }

  void Tick() override {
    const EncoderFigures f = m_sink->Figures();
    if (m_backgroundOn && m_options.backgroundOffAfter > 0 &&
        f.frames >= static_cast<uint32_t>(m_options.backgroundOffAfter)) {
      KeepBackgroundFrame();
      std::printf("camera: virtual background off after %u frames: %u\n", f.frames,
                  m_lib.overlayEnable(kChannel, 0));
      m_backgroundOn = false;
      m_switchedAtUs = NowUs();
    }
    const uint32_t restartAt =
        m_options.frames > 0 ? static_cast<uint32_t>(m_options.frames) / 2 : 90;
    if (m_options.captureWidth > 0 && !m_restarted && f.frames >= restartAt) {
      std::printf("camera: restarting the link for the capture size %ux%u\n",
                  m_options.captureWidth, m_options.captureHeight);
      m_teardown |= m_link.TearDown([this] { m_sink->Drain(kStallLimit); });
      m_restarted = true;
      if (!SetUp()) {
        m_teardown |= 1;
      }
    }
  }

  uint32_t Frames() override { return m_sink ? m_sink->Figures().frames : 0; }

  std::string Progress() override {
    const EncoderFigures f = m_sink->Figures();
    char line[160];
    std::snprintf(line, sizeof(line), "camera %u frames %.1f/s %ux%u%s", f.frames, f.Rate(),
                  f.width, f.height, m_backgroundOn ? " bg" : "");
    return line;
  }

  uint32_t TearDown() override {
    // The background stays on to the last frame: its channel goes once frames have stopped.
    uint32_t result = m_link.TearDown([this] {
      m_sink->Drain(kStallLimit);
      if (m_backgroundSet) {
        m_lib.overlayDestroy(kChannel);
      }
    });
    result |= m_teardown;
    m_link.ReleaseContainers();
    if (m_sink) {
      m_sink->Stop();
    }
    m_dequeued = FileCameraFrames();
    return result;
  }

  LegRow Row() override {
    LegRow row =
        EncoderRow(FileCameraLoaded() ? "camera (file camera)" : "camera", m_sink.get(), kWindow);
    const EncoderFigures f = m_sink ? m_sink->Figures() : EncoderFigures{};
    const uint64_t underflows = OsvGraphicBuffer::GetUnderflowCount();
    std::string notes = ", " + std::to_string(underflows) + " released twice, last " +
                        std::to_string(f.width) + "x" + std::to_string(f.height);
    if (!m_background.empty()) {
      char text[200];
      std::snprintf(text, sizeof(text), "; background %s", m_backgroundSet ? "on" : "FAILED");
      notes += text;
    }
    notes += TimingNotes();
    if (FileCameraLoaded()) {
      notes += "; " + std::to_string(m_dequeued) + " captured";
    }
    row.notes += notes;
    {
      std::lock_guard<std::mutex> lock(m_timingLock);
      const Timing& off = m_timing[0];
      const Timing& on = m_timing[1];
      char text[160];
      if (on.frames > 0 && off.frames > 0) {
        std::snprintf(text, sizeof(text), "camera to host %.0f ms, background adds %.0f ms",
                      off.MeanMs(), on.MeanMs() - off.MeanMs());
        row.sheetNote = text;
      }
    }
    const bool sizeOk = m_options.captureWidth == 0 ||
                        (f.width == m_options.captureWidth && f.height == m_options.captureHeight);
    row.ok = row.ok && underflows == 0 && (m_background.empty() || m_backgroundSet) && sizeOk;
    return row;
  }

  bool Showcase(RgbImage& image) override {
    image = m_backgroundFrame;
    return image.width > 0;
  }

 private:
  // The preview's frame with the background, kept for the contact sheet and written as
  // camera_background_on.png before the background goes off.
  void KeepBackgroundFrame() {
    const int window = WindowIndex(kWindow);
    std::string error;
    if (window >= 0 && LatestImage(static_cast<size_t>(window), m_backgroundFrame) &&
        !WritePng((std::filesystem::path(m_options.outDir) / "camera_background_on.png").string(),
                  m_backgroundFrame, error)) {
      std::fprintf(stderr, "%s\n", error.c_str());
    }
  }

  // On the sink's writer thread: times a frame from the camera by the number in it.
  void Time(const OsvGraphicBuffer& buffer, uint64_t arrivalUs) {
    const OsvGraphicBufferInfo info = buffer.GetImageInfo();
    const int number =
        info.format == TAVO_VIDEO_VLINK_FORMAT_I420 && buffer.GetImageAddr(0) != nullptr
            ? ReadFrameNumber(buffer.GetImageAddr(0), info.stride[0], info.width, info.height)
            : -1;
    const uint64_t takenUs =
        number >= 0 ? FileCameraCapturedAtUs(static_cast<uint32_t>(number)) : 0;
    std::lock_guard<std::mutex> lock(m_timingLock);
    if (takenUs == 0 || takenUs > arrivalUs || arrivalUs - takenUs > kTimingLimitUs) {
      ++m_untimed;
      return;
    }
    if (arrivalUs - m_switchedAtUs.load() < kSwitchSettleUs) {
      return;
    }
    Timing& timing = m_timing[m_backgroundOn.load() ? 1 : 0];
    const uint64_t latency = arrivalUs - takenUs;
    RecordLatency(
        "camera",
        m_backgroundOn.load() ? "camera to host, background on" : "camera to host, background off",
        arrivalUs, latency);
    timing.sumUs += latency;
    timing.maxUs = std::max(timing.maxUs, latency);
    ++timing.frames;
  }

  std::string TimingNotes() {
    std::lock_guard<std::mutex> lock(m_timingLock);
    const Timing& off = m_timing[0];
    const Timing& on = m_timing[1];
    if (off.frames + on.frames == 0) {
      return "";
    }
    char text[240];
    std::snprintf(text, sizeof(text), "; camera to host %.1f ms (max %.1f) without background",
                  off.MeanMs(), Ms(off.maxUs));
    std::string notes = off.frames ? text : "";
    if (on.frames > 0) {
      std::snprintf(text, sizeof(text), "; camera to host %.1f ms (max %.1f) with background",
                    on.MeanMs(), Ms(on.maxUs));
      notes += text;
    }
    if (on.frames > 0 && off.frames > 0) {
      std::snprintf(text, sizeof(text), ": it adds %.1f ms", on.MeanMs() - off.MeanMs());
      notes += text;
    }
    std::snprintf(text, sizeof(text), " (%u frames timed, %u unread)", off.frames + on.frames,
                  m_untimed);
    return notes + text;
  }

  bool SwitchBackgroundOn() {
    uint32_t queue = 0;
    const uint32_t created = m_lib.overlayCreate(kCameraNode.nodeId, kChannel, &queue,
                                                 TAVO_VIDEO_OVERLAY_VIRTUAL_BACKGROUND);
    auto param = std::make_unique<tagTavoVideoOverlayParam>();
    std::memset(param.get(), 0, sizeof(*param));
    std::snprintf(param->background.bgImagePath, sizeof(param->background.bgImagePath), "%s",
                  m_background.c_str());
    const uint32_t set = m_lib.overlaySet(kChannel, param.get());
    const uint32_t enabled = m_lib.overlayEnable(kChannel, 1);
    std::printf("camera: virtual background %s: create %u, set %u, enable %u\n",
                m_background.c_str(), created, set, enabled);
    m_backgroundSet = created == 0 && set == 0 && enabled == 0;
    m_backgroundOn = m_backgroundSet;
    m_switchedAtUs = NowUs();
    return m_backgroundSet;
  }

  const Library& m_lib;
  const Tables& m_tables;
  const Options& m_options;
  const std::string m_background;
  HostLink m_link;
  std::unique_ptr<EncoderSink> m_sink;
  bool m_backgroundSet = false;
  std::atomic<bool> m_backgroundOn{false};  // read by the sink's writer thread
  bool m_restarted = false;
  uint32_t m_teardown = 0;
  std::atomic<uint64_t> m_switchedAtUs{0};
  uint32_t m_dequeued = 0;
  std::mutex m_timingLock;  // guards the two below; taken on the sink's writer thread
  Timing m_timing[2];       // background off, on
  uint32_t m_untimed = 0;
  RgbImage m_backgroundFrame;
};

}  // namespace

std::unique_ptr<Leg> MakeCameraLeg(const Library& lib, const Tables& tables, const Options& options,
                                   const std::string& background) {
  return std::make_unique<CameraLeg>(lib, tables, options, background);
}

int RunCamera(const Library& lib, const Tables& tables, const Options& options,
              HostDisplay& display) {
  std::vector<std::unique_ptr<Leg>> legs;
  legs.push_back(MakeCameraLeg(lib, tables, options, options.background));
  return RunLegs(legs, lib, options, display);
}
