// Collects module-log records for the length of a test, with waits for a line to appear
// (threads of the library write them on their own schedule).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/adapt_common/om_log.h"
#include "tests/support/wait.h"

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
  // True when `count` such records arrived within the limit.
  bool WaitFor(const std::string& text, size_t count = 1, uint32_t level = 0,
               std::chrono::seconds limit = kGenerousTimeout);
  std::vector<OmLogRecord> Records();

 private:
  size_t CountLocked(const std::string& text, uint32_t level) const;

  std::mutex m_lock;  // guards m_records; no code under test runs under it
  std::condition_variable m_added;
  std::vector<OmLogRecord> m_records;
  OmLogSink m_previous;
};
