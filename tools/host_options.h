// The host program's command line.
#pragma once

#include <string>

enum class Mode { kEncode, kPreview, kDecode };

struct Options {
  Mode mode = Mode::kEncode;
  std::string library = "libtavo_video_vlink.so";
  std::string image;
  std::string out = "vlink_out.y4m";
  std::string outDir = "out";
  std::string input;
  int frames = 0;  // 0: the mode's own default
  int trace = 1;
  bool fast = false;
  bool window = true;
  double linger = 0;
};

// Fills options from the arguments; false, with the usage on stderr, when one is not
// understood.
bool ParseOptions(int argc, char** argv, Options& options);

// The test pattern the build writes beside the tools folder, or "" when there is none:
// without an image the test input has nothing to send.
std::string BuiltTestPattern();
