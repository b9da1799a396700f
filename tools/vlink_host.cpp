// A host program that drives libtavo_video_vlink.so the way the terminal's media process
// does: only through dlopen, the exported functions, the component tables and callbacks.
//
// --mode encode (default): a test-image input bound to an encoder output; every frame the
//   encoder callback hands over goes to a Y4M file and back with TavoVideoReleaseVEncFrame.
// --mode preview: a test-image input bound to a preview with two windows; the render
//   callback's frames are shown in X11 windows (when there is a display) and the last one
//   of each window is written as a PNG.
// --mode decode: frames read from a Y4M file (or a synthetic clip) are pushed as decoded
//   frames into a decoder input bound to two previews and a virtual camera; every frame
//   must come back through the release callback and reach every window.
//
// usage: vlink_host [--mode encode|preview|decode] [--library PATH] [--image PATH]
//                   [--frames N] [--out FILE.y4m] [--out-dir DIR] [--input FILE.y4m]
//                   [--fast] [--no-window] [--linger SECONDS] [--trace LEVEL]
// Without --image the test input shows the test pattern the build writes.
//
// Each mode lives in its own host_mode_*.cpp; host_library.h is the way into the library.
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
  Library lib;
  if (!lib.Load(options.library)) {
    return 1;
  }
  lib.Start(options.trace);
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
  return options.mode == Mode::kPreview ? RunPreview(lib, tables, options, display)
                                        : RunDecode(lib, tables, options, display);
}
