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
  const std::filesystem::path pattern = self.parent_path().parent_path() / "test_pattern.bmp";
  return std::filesystem::is_regular_file(pattern, error) ? pattern.string() : "";
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
    } else if (arg == "--trace" && hasValue) {
      options.trace = std::atoi(argv[++i]);
    } else {
      ok = false;
    }
  }
  if (!ok) {
    std::fprintf(stderr,
                 "usage: %s [--mode encode|preview|decode] [--library PATH] [--image PATH]\n"
                 "          [--frames N] [--out FILE.y4m] [--out-dir DIR] [--input FILE.y4m]\n"
                 "          [--fast] [--no-window] [--linger SECONDS] [--trace 0-4]\n",
                 argv[0]);
  }
  return ok;
}
