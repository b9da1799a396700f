// The host program's ways of driving the library, one entry function each. Each returns
// the process exit code: 0 when every check of its summary passed.
#pragma once

#include <memory>
#include <string>

#include "host_legs.h"
#include "host_library.h"
#include "host_options.h"
#include "host_window.h"

// A test-image input bound to an encoder output; the encoded frames go to options.out.
int RunEncode(const Library& lib, const Tables& tables, const Options& options);
// A test-image input bound to a preview with two windows.
int RunPreview(const Library& lib, const Tables& tables, const Options& options,
               HostDisplay& display);
// Decoded frames pushed into a decoder input bound to two previews and a virtual camera.
int RunDecode(const Library& lib, const Tables& tables, const Options& options,
              HostDisplay& display);
// A screen input bound to an encoder and a preview, with the cursor and a snapshot.
int RunScreen(const Library& lib, const Tables& tables, const Options& options,
              HostDisplay& display);
// A camera input (a real one or the file camera) bound to an encoder and a preview, with
// the virtual background and a capture-size change.
int RunCamera(const Library& lib, const Tables& tables, const Options& options,
              HostDisplay& display);
// Test-image, screen, decoded-frame and camera links at once, with a table of figures.
int RunTour(const Library& lib, const Tables& tables, const Options& options, HostDisplay& display);

// The screen link; with ownServer it always captures a private Xvfb.
std::unique_ptr<Leg> MakeScreenLeg(const Library& lib, const Tables& tables, const Options& options,
                                   bool ownServer);
// The camera link; `background` is the virtual background's picture ("" = off).
std::unique_ptr<Leg> MakeCameraLeg(const Library& lib, const Tables& tables, const Options& options,
                                   const std::string& background);

// Takes snapshot `id` through the host's shared-memory queue `queueId` and writes it as a
// PNG; `size` gets "WxH". False when no picture came.
bool TakeSnapshot(const Library& lib, uint32_t id, uint32_t queueId, const std::string& path,
                  std::string& size);
