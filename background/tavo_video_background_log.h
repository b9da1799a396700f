// Failures that can repeat with every frame are logged the first time and then every
// hundredth time, counted per node and per message.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "trace/tavo_video_vlink_log.h"

enum PacedMessage : size_t {
  kPacedNullFrame,
  kPacedRetune,
  kPacedConvertBefore,
  kPacedGetBufferCopy,
  kPacedInference,
  kPacedMaskCopy,
  kPacedAnswerFailed,
  kPacedOverlayer,
  kPacedSend,
  kPacedConvertArgb,
  kPacedArgbToRgb,
  kPacedRgbToYuv,
  kPacedCompose,
  kPacedMessageCount,
};

// Inside a BackgroundVirtualityNode member (uses its m_pacedLog).
#define VLOG_ERR_PACED(kind, fmt, ...)          \
  do {                                          \
    if (m_pacedLog[kind].Due()) {               \
      VLOG_ERR(fmt __VA_OPT__(, ) __VA_ARGS__); \
    }                                           \
  } while (0)
