// One link as the screen, camera and tour modes run it: a "leg" sets its components up,
// is watched while frames flow, and comes down; RunLegs runs one or several at once in this
// process (sharing the preview windows and the main thread that serves them) and ends with
// a table of per-link figures, the PNG of every preview and a contact sheet of them all.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host_encoder_sink.h"
#include "host_library.h"
#include "host_options.h"
#include "host_window.h"
#include "tools/common/host_image.h"

// One row of the figures table.
struct LegRow {
  std::string link;
  uint32_t frames = 0;   // frames that reached the host (encoder, or preview for decode)
  double rate = 0;       // frames a second
  double latencyMs = 0;  // hand-off (or push-to-release) mean
  double latencyMaxMs = 0;
  uint32_t previewFrames = 0;
  std::string output;
  std::string notes;
  std::string sheetNote;  // an extra line for the link's contact-sheet tile
  bool ok = false;
};

class Leg {
 public:
  virtual ~Leg() = default;
  virtual std::string Name() const = 0;
  // The preview window this leg renders into.
  virtual uint64_t Window() const = 0;
  // Before any component: what the leg needs from the machine (an X server, ...).
  virtual bool Prepare() { return true; }
  // Creates and binds; false when the link could not be made.
  virtual bool SetUp() = 0;
  // Called about every 50 ms from the main thread while the link runs.
  virtual void Tick() {}
  // Frames counted toward the target.
  virtual uint32_t Frames() = 0;
  // One progress line.
  virtual std::string Progress() = 0;
  // Just before the link comes down, while it still runs (snapshots).
  virtual void BeforeTearDown() {}
  // Unbinds and destroys; returns 0 when clean.
  virtual uint32_t TearDown() = 0;
  virtual LegRow Row() = 0;
  // A picture that shows the link better than the preview's last frame, for the contact
  // sheet; false when there is none.
  virtual bool Showcase(RgbImage& /*image*/) { return false; }
};

// Runs the legs at once until each has `frames` frames (options.frames, else the legs run
// for options.seconds), then takes them down. The exit code: 0 when every leg is ok and
// every teardown clean.
int RunLegs(std::vector<std::unique_ptr<Leg>>& legs, const Library& lib, const Options& options,
            HostDisplay& display);

// The figures of a link whose frames reach an encoder sink: frames, rate, hand-off latency,
// the preview's frames in `window`, the Y4M file, notes on frames lost and given back; ok
// when frames came, none was lost and each was given back.
LegRow EncoderRow(const std::string& link, EncoderSink* sink, uint64_t window);

// A preview record: one window showing the frames stamped with image number `imgNo`.
std::unique_ptr<tagTavoVideoComponentParam> PreviewRecord(uint64_t window, uint32_t imgNo);

// Frames the window with this handle rendered (0 for a window not set up).
uint32_t WindowFrames(uint64_t window);

// Process CPU time in microseconds.
uint64_t CpuUs();
