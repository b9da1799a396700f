// Tracing: the host chooses how much diagnostic text the library produces and receives it
// through up to three channel callbacks.
#pragma once

#include <atomic>
#include <cstdint>

#define TAVO_VLINK_API extern "C" __attribute__((visibility("default")))

// Receives one message; the text is valid only during the call. May be called from any
// library thread, concurrently.
typedef void (*TavoVideoTraceCallBack)(uint32_t level, const char* text);

// Trace levels.
enum TavoVideoTraceLevel : uint32_t {
  TAVO_VIDEO_TRACE_OFF = 0,
  TAVO_VIDEO_TRACE_ERROR = 1,
  TAVO_VIDEO_TRACE_WARNING = 2,
  TAVO_VIDEO_TRACE_INFO = 3,
  TAVO_VIDEO_TRACE_DETAIL = 4,
};

// Current trace level, 0 to 4. One byte, readable as a plain unsigned char.
TAVO_VLINK_API std::atomic<uint8_t> g_ucOSVLinkTraceLevel;

// Level above 4: 0xFFFFFFFF and the level is unchanged.
TAVO_VLINK_API uint32_t TavoVideoSetTraceLevel(int level);
// Channel above 2 or a null callback: 0xFFFFFFFF. A callback replaces the previous one.
TAVO_VLINK_API uint32_t TavoVideoRegisterTraceCallBack(unsigned int channel,
                                                       TavoVideoTraceCallBack callback);

// The trace printer behind them.
TAVO_VLINK_API int OS_VLink_Debug_SetTraceLevel(unsigned char level);
TAVO_VLINK_API unsigned char OSV_VLink_GetTraceLevel();
TAVO_VLINK_API int OS_VLink_Debug_TraceRegister(unsigned int channel,
                                                TavoVideoTraceCallBack callback);
// Formats into 512 bytes and hands the text to the channel's callback. Texts that are
// empty or longer than 510 characters are dropped whole; the level is not checked here.
TAVO_VLINK_API void OSV_VLink_TracePrintf(unsigned int channel, unsigned int level,
                                          const char* format, ...)
    __attribute__((format(printf, 3, 4)));
