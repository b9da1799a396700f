#include "builder/tavo_video_vlink_test_builder.h"

uint32_t VlinkTestBuilder::BindVo(uint32_t voNodeId) { return BindDirectSink(voNodeId, {}); }

uint32_t VlinkTestBuilder::UnBindVo(uint32_t voNodeId) { return UnBindDirectSink(voNodeId); }
