#include "host_legs.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "host_clock.h"
#include "host_plots.h"
#include "host_render_windows.h"
#include "tools/common/host_image.h"

namespace {

constexpr double kDefaultSeconds = 10;
constexpr auto kProgressEvery = std::chrono::seconds(1);
// Each tile of the contact sheet.
constexpr uint32_t kTileWidth = 640;
constexpr uint32_t kTileHeight = 360;

// The newest frame of every preview in a grid of two columns, each scaled to fit its tile
// and labelled with its link's figures.
bool WriteContactSheet(const std::vector<std::unique_ptr<Leg>>& legs,
                       const std::vector<LegRow>& figures, const std::string& path) {
  const uint32_t columns = legs.size() > 1 ? 2 : 1;
  const uint32_t rows = static_cast<uint32_t>((legs.size() + columns - 1) / columns);
  RgbImage sheet;
  sheet.width = columns * kTileWidth;
  sheet.height = rows * kTileHeight;
  sheet.pixels.assign(size_t{sheet.width} * sheet.height * 3, 32);
  for (size_t i = 0; i < legs.size(); ++i) {
    const int window = WindowIndex(legs[i]->Window());
    RgbImage tile;
    const uint32_t x = static_cast<uint32_t>(i % columns) * kTileWidth;
    const uint32_t y = static_cast<uint32_t>(i / columns) * kTileHeight;
    if (legs[i]->Showcase(tile) ||
        (window >= 0 && LatestImage(static_cast<size_t>(window), tile))) {
      PasteScaled(tile, sheet, x, y, kTileWidth, kTileHeight);
    }
    const LegRow& r = figures[i];
    char counts[96];
    std::snprintf(counts, sizeof(counts), "%u frames, %.2f frames/s", r.frames, r.rate);
    char latency[96];
    std::snprintf(latency, sizeof(latency), "%s %.3f ms mean, %.3f max",
                  r.link == "decoded frames" ? "push to release" : "hand-off", r.latencyMs,
                  r.latencyMaxMs);
    std::vector<std::string> lines{r.ok ? r.link : r.link + " (FAILED)", counts, latency};
    if (!r.sheetNote.empty()) {
      lines.push_back(r.sheetNote);
    }
    LabelTile(sheet, x, y, lines);
  }
  std::string error;
  if (!WritePng(path, sheet, error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return false;
  }
  return true;
}

void PrintTable(const std::vector<LegRow>& rows, double seconds, uint64_t cpuUs) {
  std::printf("\n%-26s %7s %8s %19s %8s  %-30s %s\n", "link", "frames", "rate/s",
              "latency mean/max ms", "preview", "output", "notes");
  uint32_t frames = 0;
  for (const LegRow& r : rows) {
    char latency[32];
    std::snprintf(latency, sizeof(latency), "%.2f / %.2f", r.latencyMs, r.latencyMaxMs);
    std::printf("%-26s %7u %8.2f %19s %8u  %-30s %s%s\n", r.link.c_str(), r.frames, r.rate, latency,
                r.previewFrames, r.output.c_str(), r.ok ? "" : "FAILED: ", r.notes.c_str());
    frames += r.frames + r.previewFrames;
  }
  std::printf("process CPU: %.2f s in %.1f s (%.0f%% of one core), %.2f ms per frame handled\n",
              static_cast<double>(cpuUs) / 1e6, seconds,
              seconds > 0 ? static_cast<double>(cpuUs) / 1e4 / seconds : 0.0,
              frames ? static_cast<double>(cpuUs) / 1000.0 / frames : 0.0);
}

}  // namespace

LegRow EncoderRow(const std::string& link, EncoderSink* sink, uint64_t window) {
  LegRow row;
  const EncoderFigures f = sink != nullptr ? sink->Figures() : EncoderFigures{};
  row.link = link;
  row.frames = f.frames;
  row.rate = f.Rate();
  row.latencyMs = f.LatencyMeanMs();
  row.latencyMaxMs = Ms(f.latencyMaxUs);
  row.previewFrames = WindowFrames(window);
  row.output = sink != nullptr ? std::filesystem::path(sink->Path()).filename().string() : "";
  row.notes = std::to_string(f.gaps) + " lost, " + std::to_string(f.released) + " of " +
              std::to_string(f.frames) + " returned";
  row.ok = f.frames > 0 && f.gaps == 0 && f.released == f.frames;
  return row;
}

std::unique_ptr<tagTavoVideoComponentParam> PreviewRecord(uint64_t window, uint32_t imgNo) {
  auto record = NewRecord();
  record->vo.winNum = 1;
  record->vo.windows[0].winHandle = window;
  record->vo.windows[0].imgNo = imgNo;
  record->vo.renderCb = OnRender;
  return record;
}

uint32_t WindowFrames(uint64_t window) {
  const int index = WindowIndex(window);
  return index >= 0 ? FramesOf(static_cast<size_t>(index)) : 0;
}

uint64_t CpuUs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<uint64_t>(t.tv_sec) * 1000000U + static_cast<uint64_t>(t.tv_nsec) / 1000U;
}

int RunLegs(std::vector<std::unique_ptr<Leg>>& legs, const Library& lib, const Options& options,
            HostDisplay& display) {
  std::error_code error;
  std::filesystem::create_directories(options.outDir, error);
  for (auto& leg : legs) {
    if (!leg->Prepare()) {
      return 1;
    }
  }
  std::vector<uint64_t> handles;
  for (auto& leg : legs) {
    handles.push_back(leg->Window());
  }
  SetUpWindows(lib, handles.data(), handles.size(), display);
  PrintWindowTarget(display);

  bool ok = true;
  size_t made = 0;
  for (; made < legs.size() && ok; ++made) {
    ok = legs[made]->SetUp();
  }
  std::fflush(stdout);

  const double seconds = options.seconds > 0 ? options.seconds : kDefaultSeconds;
  const uint32_t target = options.frames > 0 ? static_cast<uint32_t>(options.frames) : 0;
  const uint64_t start = NowUs();
  const uint64_t cpuStart = CpuUs();
  const uint64_t limitUs = static_cast<uint64_t>(seconds * 1e6);
  // A frame target gives the legs time enough for it, the slowest (the test image sends two
  // frames a second) included.
  const uint64_t deadline =
      start +
      (target > 0 ? std::max<uint64_t>(limitUs, target * 600000ULL + 10000000ULL) : limitUs);
  uint64_t nextProgress = start;
  auto allDone = [&] {
    return std::all_of(legs.begin(), legs.end(),
                       [&](const auto& leg) { return target > 0 && leg->Frames() >= target; });
  };
  while (ok && NowUs() < deadline && !allDone()) {
    ServiceWindows(display, std::chrono::milliseconds(50), false, 0);
    for (auto& leg : legs) {
      leg->Tick();
    }
    if (NowUs() >= nextProgress) {
      nextProgress += std::chrono::microseconds(kProgressEvery).count();
      std::printf("[%5.1f s]", SecondsSince(start));
      for (auto& leg : legs) {
        std::printf("  %s", leg->Progress().c_str());
      }
      std::printf("\n");
      std::fflush(stdout);
    }
  }
  const bool targetMet = target == 0 || allDone();
  if (!targetMet) {
    std::fprintf(stderr, "not every link reached %u frames in time\n", target);
  }
  for (auto& leg : legs) {
    leg->BeforeTearDown();
  }
  const double ran = SecondsSince(start);
  const uint64_t cpu = CpuUs() - cpuStart;

  uint32_t teardown = 0;
  for (size_t i = made; i-- > 0;) {
    teardown |= legs[i]->TearDown();
  }
  ServiceWindows(display, std::chrono::microseconds(0), false, 0);
  StopRecording();

  std::vector<LegRow> rows;
  for (auto& leg : legs) {
    rows.push_back(leg->Row());
    ok = ok && rows.back().ok;
  }
  const bool pngsOk = WritePngs(options.outDir);
  const std::string sheet = (std::filesystem::path(options.outDir) / "contact_sheet.png").string();
  const bool sheetOk = WriteContactSheet(legs, rows, sheet);
  std::string timelineError;
  const bool timelineOk = WriteTimeline(options.outDir, start, timelineError);
  PrintTable(rows, ran, cpu);
  if (sheetOk) {
    std::printf("contact sheet: %s\n", sheet.c_str());
  }
  if (timelineOk) {
    std::printf("timeline: %s\n",
                (std::filesystem::path(options.outDir) / "timeline.png").string().c_str());
  } else {
    std::printf("no timeline: %s\n", timelineError.c_str());
  }
  CloseSummary(teardown, display, options.linger);
  return ok && targetMet && pngsOk && sheetOk && teardown == 0 ? 0 : 1;
}
