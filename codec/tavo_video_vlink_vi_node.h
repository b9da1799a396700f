// Moved to core/ (both inputs build on it); kept until screen/ includes the new path.
#pragma once
#include "core/tavo_video_vlink_vi_node.h"
