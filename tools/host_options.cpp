#include "host_options.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

std::string BuiltTestPattern() {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) {
    return "";
  }
  // Beside the tools folder in a build tree, in share/tavo_video/ in an installed one.
  const std::filesystem::path root = self.parent_path().parent_path();
  for (const std::filesystem::path& pattern :
       {root / "test_pattern.bmp", root / "share" / "tavo_video" / "test_pattern.bmp"}) {
    if (std::filesystem::is_regular_file(pattern, error)) {
      return pattern.string();
    }
  }
  return "";
}

bool ParseOptions(int argc, char** argv, Options& options) {
  bool ok = true;
  for (int i = 1; i < argc && ok; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--mode" && hasValue) {
      const std::string mode = argv[++i];
      if (mode == "encode") {
        options.mode = Mode::kEncode;
      } else if (mode == "preview") {
        options.mode = Mode::kPreview;
      } else if (mode == "decode") {
        options.mode = Mode::kDecode;
      } else if (mode == "screen") {
        options.mode = Mode::kScreen;
      } else if (mode == "camera") {
        options.mode = Mode::kCamera;
      } else if (mode == "tour") {
        options.mode = Mode::kTour;
      } else {
        ok = false;
      }
    } else if (arg == "--library" && hasValue) {
      options.library = argv[++i];
    } else if (arg == "--image" && hasValue) {
      options.image = argv[++i];
    } else if (arg == "--frames" && hasValue) {
      options.frames = std::atoi(argv[++i]);
      ok = options.frames > 0;
    } else if (arg == "--out" && hasValue) {
      options.out = argv[++i];
    } else if (arg == "--out-dir" && hasValue) {
      options.outDir = argv[++i];
    } else if (arg == "--input" && hasValue) {
      options.input = argv[++i];
    } else if (arg == "--fast") {
      options.fast = true;
    } else if (arg == "--no-window") {
      options.window = false;
    } else if (arg == "--linger" && hasValue) {
      options.linger = std::atof(argv[++i]);
    } else if (arg == "--seconds" && hasValue) {
      options.seconds = std::atof(argv[++i]);
      ok = options.seconds > 0;
    } else if (arg == "--cursor" && hasValue) {
      const std::string cursor = argv[++i];
      options.cursor = cursor == "drawn"    ? CursorMode::kDrawn
                       : cursor == "hidden" ? CursorMode::kHidden
                                            : CursorMode::kIndependent;
      ok = cursor == "drawn" || cursor == "hidden" || cursor == "independent";
    } else if (arg == "--camera-id" && hasValue) {
      options.cameraId = argv[++i];
    } else if (arg == "--clip" && hasValue) {
      options.clip = argv[++i];
    } else if (arg == "--background" && hasValue) {
      options.background = argv[++i];
    } else if (arg == "--background-off-after" && hasValue) {
      options.backgroundOffAfter = std::atoi(argv[++i]);
      ok = options.backgroundOffAfter > 0;
    } else if (arg == "--capture-size" && hasValue) {
      unsigned width = 0;
      unsigned height = 0;
      ok = std::sscanf(argv[++i], "%ux%u", &width, &height) == 2 && width > 0 && height > 0;
      options.captureWidth = width;
      options.captureHeight = height;
    } else if (arg == "--links" && hasValue) {
      options.links = argv[++i];
    } else if (arg == "--trace" && hasValue) {
      options.trace = std::atoi(argv[++i]);
    } else if (arg == "--trace-to-terminal") {
      options.traceToTerminal = true;
    } else {
      ok = false;
    }
  }
  if (!ok) {
    std::fprintf(stderr,
                 "usage: %s [--mode tour|encode|preview|decode|screen|camera] [--library PATH]\n"
                 "          [--image PATH] [--frames N] [--seconds S] [--out FILE.y4m]\n"
                 "          [--out-dir DIR] [--input FILE.y4m] [--fast] [--no-window]\n"
                 "          [--linger SECONDS] [--trace 0-4] [--trace-to-terminal]\n"
                 "          [--cursor independent|drawn|hidden]\n"
                 "          [--camera-id BUS-ID] [--clip FILE.mjpeg|FILE.y4m]\n"
                 "          [--background IMAGE] [--background-off-after N]\n"
                 "          [--capture-size WxH] [--links test,screen,decode,camera]\n",
                 argv[0]);
  }
  return ok;
}
