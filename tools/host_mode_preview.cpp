// Preview mode: a test-image input bound to a preview with two windows. The render
// callback's frames are shown on screen (when there is a display) and the last one of each
// window is written as a PNG.
#include <algorithm>
#include <chrono>
#include <cstdio>

#include "host_clock.h"
#include "host_modes.h"
#include "host_render_windows.h"

namespace {

constexpr LinkNode kPreviewNode{102, TAVO_VIDEO_COMPONENT_PREVIEW, 60, "preview"};
constexpr uint64_t kWindows[2] = {0x101, 0x102};
constexpr int kDefaultFrames = 6;

}  // namespace

int RunPreview(const Library& lib, const Tables& tables, const Options& options,
               HostDisplay& display) {
  HostLink link(lib, {kTestImageNode, kPreviewNode}, {{kPreviewNode, kTestImageNode}});
  if (!link.Resolve(tables)) {
    return 1;
  }
  const int target = options.frames > 0 ? options.frames : kDefaultFrames;
  SetUpWindows(lib, kWindows, 2, display);
  link.StoreNodeIds();

  auto testParam = TestImageRecord(options.image);
  auto previewParam = NewRecord();
  tagTavoVideoVoChnParam& vo = previewParam->vo;
  vo.winNum = 2;
  for (uint32_t i = 0; i < vo.winNum; ++i) {
    vo.windows[i].winHandle = kWindows[i];
    // The test input stamps its node id on its frames.
    vo.windows[i].imgNo = kTestImageNode.nodeId;
  }
  vo.renderCb = OnRender;

  std::printf("image: %s\n", options.image.empty() ? "(none)" : options.image.c_str());
  PrintWindowTarget(display);
  link.Create(kTestImageNode, testParam.get());
  std::printf("create test image: %u\n", link.Status());
  link.Create(kPreviewNode, previewParam.get());
  std::printf("create preview (windows 0x%llx, 0x%llx): %u\n",
              static_cast<unsigned long long>(kWindows[0]),
              static_cast<unsigned long long>(kWindows[1]), link.Status());
  uint32_t result = link.BindAll();
  std::fflush(stdout);

  const uint64_t start = NowUs();
  uint64_t lastNews = start;
  while (result == 0 && std::min(FramesOf(0), FramesOf(1)) < static_cast<uint32_t>(target)) {
    if (ServiceWindows(display, std::chrono::milliseconds(50), true, target)) {
      lastNews = NowUs();
    } else if (StalledSince(lastNews)) {
      std::fprintf(stderr, "no frame for 10 s; stopping\n");
      result = 1;
    }
  }
  const double seconds = SecondsSince(start);

  const uint32_t teardown = link.TearDown();
  link.ReleaseContainers();
  // Frames rendered while the link came down: count them, draw the very last.
  ServiceWindows(display, std::chrono::microseconds(0), true, target);

  const bool pngsOk = WritePngs(options.outDir);
  std::printf("\nsummary: %.1f s, target %d frames a window\n", seconds, target);
  const bool windowsOk = PrintWindowSummary(static_cast<uint32_t>(target), false);
  std::printf("first-frame reports: %zu (none expected for image number %u)\n", ReportsPrinted(),
              kTestImageNode.nodeId);
  CloseSummary(teardown, display, options.linger);
  return result == 0 && teardown == 0 && windowsOk && pngsOk ? 0 : 1;
}
