// A host program that drives libtavo_video_vlink.so the way the terminal's media process
// does: only through dlopen, the exported functions, the component tables and callbacks.
//
// The tour (default, or --mode tour): four links at once, none needing a device: the test
//   image, the screen of a private Xvfb, decoded frames, and the file camera with the
//   virtual background; one Y4M a link, a PNG of every preview, a contact sheet, a table.
// --mode encode: a test-image input bound to an encoder output; every frame the
//   encoder callback hands over goes to a Y4M file and back with TavoVideoReleaseVEncFrame.
// --mode preview: a test-image input bound to a preview with two windows; the render
//   callback's frames are shown in X11 windows (when there is a display) and the last one
//   of each window is written as a PNG.
// --mode decode: frames read from a Y4M file (or a synthetic clip) are pushed as decoded
//   frames into a decoder input bound to two previews and a virtual camera; every frame
//   must come back through the release callback and reach every window.
// --mode screen: the display (or a private Xvfb with an animated scene) as a screen input
//   bound to an encoder and a preview; cursor drawn, hidden or sent apart (--cursor); a
//   snapshot through the host's shared-memory queue.
// --mode camera: a camera with the bus identity --camera-id, or the file camera (the host
//   runs itself again with libvlink_fake_camera.so preloaded) playing --clip or the built
//   clip, bound to an encoder and a preview; --background, --background-off-after and
//   --capture-size drive the overlay and capture-size functions.
//
// The library's trace lines (level --trace, default 1: errors) go to <out-dir>/trace.log, and
// to stderr too with --trace-to-terminal; the summary counts its error and warning lines.
//
// usage: vlink_host --help (or any option it does not know) prints the options.
// Without --image the test input shows the test pattern the build writes.
//
// Each mode lives in its own host_mode_*.cpp; host_library.h is the way into the library.
#include <filesystem>

#include "host_file_camera.h"
#include "host_library.h"
#include "host_modes.h"
#include "host_options.h"
#include "host_window.h"

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    return 2;
  }
  if (options.image.empty()) {
    options.image = BuiltTestPattern();
  }
  // Before the library is loaded: without a camera the program runs itself again with the
  // file camera preloaded.
  if (options.mode == Mode::kCamera || options.mode == Mode::kTour) {
    const std::string clip = options.clip.empty() ? BuiltFile("camera_clip.mjpeg") : options.clip;
    if (!EnsureCamera(argv, options.cameraId, clip)) {
      return 1;
    }
  }
  Library lib;
  if (!lib.Load(options.library)) {
    return 1;
  }
  // The library's trace lines go to a file, so that the terminal shows the host's own lines.
  lib.Start(options.trace, (std::filesystem::path(options.outDir) / "trace.log").string(),
            options.traceToTerminal);
  Tables tables;
  if (!tables.Fetch(lib)) {
    return 1;
  }
  if (options.mode == Mode::kEncode) {
    return RunEncode(lib, tables, options);
  }
  HostDisplay display;
  if (options.window) {
    display.Open();
  }
  switch (options.mode) {
    case Mode::kPreview:
      return RunPreview(lib, tables, options, display);
    case Mode::kDecode:
      return RunDecode(lib, tables, options, display);
    case Mode::kScreen:
      return RunScreen(lib, tables, options, display);
    case Mode::kCamera:
      return RunCamera(lib, tables, options, display);
    default:
      return RunTour(lib, tables, options, display);
  }
}
