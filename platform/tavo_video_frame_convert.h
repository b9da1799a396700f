// Moved to platform/adapt_common/; kept until screen/ includes the new path.
#pragma once
#include "platform/adapt_common/tavo_video_frame_convert.h"
