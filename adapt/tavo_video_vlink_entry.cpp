// Library entry and the host's trace controls.
#include "tavo_video_vlink.h"
#include "trace/tavo_video_host_guard.h"
#include "trace/tavo_video_vlink_log.h"

uint32_t TavoVideoVlinkInit(uint64_t /*reserved1*/, uint64_t /*reserved2*/,
                            std::function<void()> /*initDone*/) try {
  VLOG_INF_MODULE("TavoVideoVlinkInit OK");
  return 0;
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoSetTraceLevel(int level) try {
  const int result = OS_VLink_Debug_SetTraceLevel(static_cast<unsigned char>(level & 0xFF));
  if (result != 0) {
    VLOG_ERR("VLink_Debug_SetTraceLevel failed!");
  }
  return static_cast<uint32_t>(result);
}
VLINK_HOST_CATCH(1)

uint32_t TavoVideoRegisterTraceCallBack(unsigned int channel, TavoVideoTraceCallBack callback) try {
  const int result = OS_VLink_Debug_TraceRegister(channel, callback);
  if (result != 0) {
    VLOG_ERR("VLink_Debug_TraceRegister failed! type[%d].", static_cast<int>(channel));
  }
  return static_cast<uint32_t>(result);
}
VLINK_HOST_CATCH(1)
