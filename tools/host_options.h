// The host program's command line.
#pragma once

#include <string>

enum class Mode { kTour, kEncode, kPreview, kDecode, kScreen, kCamera };
enum class CursorMode { kIndependent, kDrawn, kHidden };

struct Options {
  Mode mode = Mode::kTour;
  std::string library = "libtavo_video_vlink.so";
  std::string image;
  std::string out = "vlink_out.y4m";
  std::string outDir = "out";
  std::string input;
  int frames = 0;                // 0: the mode's own default
  int trace = 1;                 // the library's trace level: errors
  bool traceToTerminal = false;  // trace lines also on stderr, not only in out/trace.log
  bool fast = false;
  bool window = true;
  double linger = 0;
  double seconds = 0;  // how long the screen, camera and tour modes run without --frames
  CursorMode cursor = CursorMode::kIndependent;
  std::string cameraId = "usb-vlink-file";  // the camera's bus identity
  std::string clip;                         // the file camera's clip; "" = the built one
  std::string background;                   // the virtual background's picture
  int backgroundOffAfter = 0;               // frames; 0 = stays on
  uint32_t captureWidth = 0;                // --capture-size; 0 = unchanged
  uint32_t captureHeight = 0;
  std::string links = "test,screen,decode,camera";  // the tour's links
};

// Fills options from the arguments; false, with the usage on stderr, when one is not
// understood.
bool ParseOptions(int argc, char** argv, Options& options);

// The test pattern the build writes beside the tools folder, or "" when there is none:
// without an image the test input has nothing to send.
std::string BuiltTestPattern();
