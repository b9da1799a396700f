// Camera mode: a camera input bound to an encoder, whose frames go to a Y4M file, and to a
// preview window. The camera is a real one with the asked bus identity or, without one,
// the file camera the host preloads. --background switches the virtual background on
// through the overlay functions (and --background-off-after N off again); --capture-size
// asks for another size with TavoVideoSetCapResolution, which takes effect when the camera
// next starts, so the link is then taken down and made again.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "host_clock.h"
#include "host_encoder_sink.h"
#include "host_file_camera.h"
#include "host_image.h"
#include "host_legs.h"
#include "host_modes.h"
#include "host_render_windows.h"

namespace {

constexpr LinkNode kCameraNode{130, TAVO_VIDEO_COMPONENT_CAMERA, 30, "camera"};
constexpr LinkNode kEncoderNode{131, TAVO_VIDEO_COMPONENT_ENCODER, 7, "camera encoder"};
constexpr LinkNode kPreviewNode{132, TAVO_VIDEO_COMPONENT_PREVIEW, 64, "camera preview"};
constexpr uint64_t kWindow = 0x501;
constexpr uint32_t kChannel = 1;
constexpr uint32_t kWidth = 1280;
constexpr uint32_t kHeight = 720;
constexpr uint32_t kFrameRate = 30;

// Frames in flight between the camera and the host, sampled while the virtual background
// is in one state; their mean over the capture rate is the time a frame spends in the link
// (Little's law), so the difference between the states is what the background adds.
struct InFlight {
  double sum = 0;
  uint32_t samples = 0;
  double Mean() const { return samples ? sum / samples : 0.0; }
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
    }
    m_link.StoreNodeIds();
    auto camera = NewRecord();
    camera->camera.width = kWidth;
    camera->camera.height = kHeight;
    camera->camera.frameRate = kFrameRate;
    std::snprintf(camera->camera.cameraId, sizeof(camera->camera.cameraId), "%s",
                  m_options.cameraId.c_str());
    auto encoder = NewRecord();
    m_sink->FillRecord(*encoder, kWidth, kHeight, kFrameRate);
    auto preview = NewRecord();
    preview->vo.winNum = 1;
    preview->vo.windows[0].winHandle = kWindow;
    preview->vo.windows[0].imgNo = kCameraNode.nodeId;  // the camera stamps its node id
    preview->vo.renderCb = OnRender;
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
    if (m_link.BindAll() != 0) {
      return false;
    }
    if (!m_background.empty() && !m_restarted) {
      return SwitchBackgroundOn();
    }
    return true;
  }

  void Tick() override {
    const EncoderFigures f = m_sink->Figures();
    if (FileCameraLoaded() && f.frames > 0) {
      InFlight& phase = m_backgroundOn ? m_inFlightOn : m_inFlightOff;
      phase.sum += static_cast<double>(FileCameraFrames()) - f.frames;
      ++phase.samples;
    }
    if (m_backgroundOn && m_options.backgroundOffAfter > 0 &&
        f.frames >= static_cast<uint32_t>(m_options.backgroundOffAfter)) {
      KeepBackgroundFrame();
      std::printf("camera: virtual background off after %u frames: %u\n", f.frames,
                  m_lib.overlayEnable(kChannel, 0));
      m_backgroundOn = false;
      m_offAtUs = NowUs();
      // Frames in flight when it switched belong to neither state.
      m_inFlightOff = InFlight{};
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
    LegRow row;
    const EncoderFigures f = m_sink ? m_sink->Figures() : EncoderFigures{};
    row.link = FileCameraLoaded() ? "camera (file camera)" : "camera";
    row.frames = f.frames;
    row.rate = f.Rate();
    row.latencyMs = f.LatencyMeanMs();
    row.latencyMaxMs = Ms(f.latencyMaxUs);
    const int window = WindowIndex(kWindow);
    row.previewFrames = window >= 0 ? FramesOf(static_cast<size_t>(window)) : 0;
    row.output = m_sink ? std::filesystem::path(m_sink->Path()).filename().string() : "";
    const uint64_t underflows = OsvGraphicBuffer::GetUnderflowCount();
    std::string notes = std::to_string(f.gaps) + " lost, " + std::to_string(f.released) + " of " +
                        std::to_string(f.frames) + " returned, " + std::to_string(underflows) +
                        " released twice, last " + std::to_string(f.width) + "x" +
                        std::to_string(f.height);
    if (!m_background.empty()) {
      char text[200];
      const double periodMs = 1000.0 / kFrameRate;
      std::snprintf(text, sizeof(text), "; background %s", m_backgroundSet ? "on" : "FAILED");
      notes += text;
      if (m_inFlightOn.samples > 0 && m_inFlightOff.samples > 0) {
        // Frames captured before the encoder started count in both states alike: only the
        // difference is the background's.
        std::snprintf(text, sizeof(text), ", it adds %.1f ms from camera to host",
                      (m_inFlightOn.Mean() - m_inFlightOff.Mean()) * periodMs);
        notes += text;
      }
      if (m_offAtUs > 0) {
        const auto [count, sum] = m_sink->LatencySince(m_offAtUs);
        const uint32_t before = f.frames - count;
        std::snprintf(text, sizeof(text), ", hand-off %.2f ms with it, %.2f ms without",
                      before ? static_cast<double>(f.latencySumUs - sum) / before / 1000.0 : 0.0,
                      count ? static_cast<double>(sum) / count / 1000.0 : 0.0);
        notes += text;
      }
    }
    if (FileCameraLoaded()) {
      notes += "; " + std::to_string(m_dequeued) + " captured";
    }
    row.notes = notes;
    const bool sizeOk = m_options.captureWidth == 0 ||
                        (f.width == m_options.captureWidth && f.height == m_options.captureHeight);
    row.ok = f.frames > 0 && f.gaps == 0 && f.released == f.frames && underflows == 0 &&
             (m_background.empty() || m_backgroundSet) && sizeOk;
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
    return m_backgroundSet;
  }

  const Library& m_lib;
  const Tables& m_tables;
  const Options& m_options;
  const std::string m_background;
  HostLink m_link;
  std::unique_ptr<EncoderSink> m_sink;
  bool m_backgroundSet = false;
  bool m_backgroundOn = false;
  bool m_restarted = false;
  uint32_t m_teardown = 0;
  uint64_t m_offAtUs = 0;
  uint32_t m_dequeued = 0;
  InFlight m_inFlightOn;
  InFlight m_inFlightOff;
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
