// The library's reader of the host's parameter containers.
#pragma once

#include <cstdint>
#include <string>

#include "tavo_video_data_container.h"

// "Node[<component id>]PresentParam".
std::string PresentParamContainerName(uint32_t componentId);

// Reads "imgNo" of the component's container into imgNo (the node that serves it). 1 and
// imgNo untouched when it is missing; the container is created if the host never made it.
int GetImgNoFromNodeId(uint32_t componentId, uint32_t* imgNo);
// The same for "portId" (camera or screen index of an input component).
int GetPortIdFromNodeId(uint32_t componentId, uint32_t* portId);
