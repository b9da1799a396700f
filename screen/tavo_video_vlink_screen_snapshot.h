// Single pictures of the screen for the host: the captured ARGB image scaled to the size
// asked for and written, behind its 48-byte record, into one buffer of the host's
// shared-memory queue.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>

#include "screen/tavo_video_vlink_screen_types.h"

// Scales `image` (capture width x height, 32 bits a pixel) into `storage`'s size (the
// capture size for a 0 side) and queues it. 0, or 1 with the failure logged.
uint32_t SnapshotToQueue(const XImage& image, uint32_t captureWidth, uint32_t captureHeight,
                         const TagTavoVideoSnapshotStorage& storage);
uint32_t WritePicureToQueue(const uint8_t* pixels, uint32_t size,
                            const TagTavoVideoSnapshotStorage& storage);
