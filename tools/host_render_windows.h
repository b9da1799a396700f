// The preview windows the preview and decode modes hand to the library: the render
// callback copies and counts each frame (on a library thread); the main thread prints what
// happened, draws the frames on screen and writes each window's last frame as a PNG.
//
// One set of windows a process: the render callback is a plain function and finds them in
// this file's state.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "host_library.h"
#include "host_window.h"
#include "tavo_video_render_interface.h"

inline constexpr size_t kMaxWindows = 8;

// Sets up the windows with these handles (kMaxWindows at most), on display when it is open,
// and asks the library for first-frame reports. pushedAt, when given, tells when the frame
// whose memory the render callback sees was pushed (-1 when unknown), for the push-to-render
// latency. Call before any component exists.
void SetUpWindows(const Library& lib, const uint64_t* handles, size_t count, HostDisplay& display,
                  int64_t (*pushedAt)(const uint8_t* data) = nullptr);

// The render callback to put in a preview's record.
int OnRender(uint32_t winHandle, TavoVideoRenderImgHeader* header);

// Frames window `window` has rendered so far.
uint32_t FramesOf(size_t window);
// The index of the window with this handle, or -1.
int WindowIndex(uint64_t handle);
// Writes every I420 frame window `window` renders from now on to a Y4M file (frames of
// another size than the first are left out: a Y4M stream has one size). False when the
// file cannot be written.
bool RecordWindow(size_t window, const std::string& path);
// Frames written by RecordWindow so far.
uint32_t RecordedFrames(size_t window);
// The newest frame of window `window` as RGB; false when it has none.
bool LatestImage(size_t window, RgbImage& out);

// Waits up to `wait` for news from the callbacks, then prints it (each frame when
// printFrames, against `target`) and draws the windows' new frames. Returns true when there
// was news.
bool ServiceWindows(HostDisplay& display, std::chrono::microseconds wait, bool printFrames,
                    int target);
// First-frame reports printed so far.
size_t ReportsPrinted();

// Closes the files of RecordWindow; call once the links are down.
void StopRecording();
// Says where the windows show: on screen or in PNG files only.
void PrintWindowTarget(const HostDisplay& display);
// Writes the last frame of every window as window_<handle>.png in dir; false when one failed.
bool WritePngs(const std::string& dir);
// Prints one line per window; true when each got `expected` frames (at least, unless exact)
// and every header could be read.
bool PrintWindowSummary(uint32_t expected, bool exact);
// Ends a window mode's summary: the PNG files written and the teardown; then keeps the
// windows on screen for `linger` seconds.
void CloseSummary(uint32_t teardown, HostDisplay& display, double linger);
