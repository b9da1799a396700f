// The pictures the host draws of a run: labels on the contact sheet's tiles, and a timeline
// of every link's latencies (out/timeline.png, with the samples in out/timeline.csv).
// Drawn with OpenCV on the host's RGB images; the library draws nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/host_image.h"

// One latency sample of a link: `panel` names the link, `series` the measure (a link may
// have several: hand-off, camera to host with and without the background). Any thread.
void RecordLatency(const std::string& panel, const std::string& series, uint64_t atUs,
                   uint64_t latencyUs);

// Writes <dir>/timeline.csv (panel, series, seconds since startUs, milliseconds) and
// <dir>/timeline.png (one panel per link, the latency over the run). false, with a message
// in error, when there are no samples or a file cannot be written.
bool WriteTimeline(const std::string& dir, uint64_t startUs, std::string& error);

// Writes lines of text on a dark band at (x, y) of the image, first line larger.
void LabelTile(RgbImage& image, uint32_t x, uint32_t y, const std::vector<std::string>& lines);
