// The host program's three ways of driving the library, one entry function each. Each
// returns the process exit code: 0 when every check of its summary passed.
#pragma once

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
