// Library entry and the host's trace controls.
#include "trace/tavo_video_vlink_log.h"
#include "tavo_video_vlink.h"

uint32_t TavoVideoVlinkInit(uint64_t /*reserved1*/, uint64_t /*reserved2*/,
                            std::function<void()> /*initDone*/) {
  VLOG_INF_MODULE("TavoVideoVlinkInit OK");
  return 0;
}

uint32_t TavoVideoSetTraceLevel(int level) {
  const int result = OS_VLink_Debug_SetTraceLevel(static_cast<unsigned char>(level & 0xFF));
  if (result != 0) {
    VLOG_ERR("VLink_Debug_SetTraceLevel failed!");
  }
  return static_cast<uint32_t>(result);
}

uint32_t TavoVideoRegisterTraceCallBack(unsigned int channel, TavoVideoTraceCallBack callback) {
  const int result = OS_VLink_Debug_TraceRegister(channel, callback);
  if (result != 0) {
    VLOG_ERR("VLink_Debug_TraceRegister failed! type[%d].", static_cast<int>(channel));
  }
  return static_cast<uint32_t>(result);
}
