// Collects module-log records and trace-channel texts for the length of a test.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/adapt_common/om_log.h"

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Number of module-log records whose text contains `text`, at `level` (0: any level).
  size_t CountModule(const std::string& text, uint32_t level = 0);
  bool HasModule(const std::string& text, uint32_t level = 0) {
    return CountModule(text, level) > 0;
  }
  std::vector<OmLogRecord> Records();

 private:
  std::mutex m_lock;  // guards m_records
  std::vector<OmLogRecord> m_records;
  OmLogSink m_previous;
};
