// What a host includes to drive libtavo_video_vlink.so.
#pragma once

#include <cstdint>
#include <functional>

#include "osv_graphic_buffer.h"
#include "tavo_video_data_container.h"
#include "tavo_video_vlink_capture.h"
#include "tavo_video_vlink_component.h"
#include "tavo_video_vlink_trace.h"

// Called once after loading. The two numbers are not used; the function object is offered
// to the virtual-background subsystem, which keeps nothing of it. Creates nothing: the node
// registry and the worker pool exist from the moment the library is loaded. Returns 0.
TAVO_VLINK_API uint32_t TavoVideoVlinkInit(uint64_t reserved1, uint64_t reserved2,
                                           std::function<void()> initDone);
