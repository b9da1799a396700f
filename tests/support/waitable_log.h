// Module-log records collected for the length of a test, with waits for a line to appear
// (the capture thread writes them on its own schedule).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/adapt_common/om_log.h"
#include "tests/support/wait.h"

class WaitableLog {
 public:
  WaitableLog() {
    m_previous = OmLogSetSink([this](const OmLogRecord& record) {
      {
        std::lock_guard<std::mutex> lock(m_lock);
        m_records.push_back(record);
      }
      m_added.notify_all();
    });
  }
  ~WaitableLog() { OmLogSetSink(std::move(m_previous)); }
  WaitableLog(const WaitableLog&) = delete;
  WaitableLog& operator=(const WaitableLog&) = delete;

  // Records containing `text` at `level` (0: any level).
  size_t CountModule(const std::string& text, uint32_t level = 0) {
    std::lock_guard<std::mutex> lock(m_lock);
    return CountLocked(text, level);
  }
  bool HasModule(const std::string& text, uint32_t level = 0) {
    return CountModule(text, level) > 0;
  }
  // True when `count` such records arrived within the limit.
  bool WaitFor(const std::string& text, size_t count = 1, uint32_t level = 0,
               std::chrono::seconds limit = kGenerousTimeout) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_added.wait_for(lock, limit, [&] { return CountLocked(text, level) >= count; });
  }

 private:
  size_t CountLocked(const std::string& text, uint32_t level) const {
    size_t count = 0;
    for (const OmLogRecord& record : m_records) {
      if ((level == 0 || record.level == level) && record.text.find(text) != std::string::npos) {
        ++count;
      }
    }
    return count;
  }

  std::mutex m_lock;  // guards m_records; no code under test runs under it
  std::condition_variable m_added;
  std::vector<OmLogRecord> m_records;
  OmLogSink m_previous;
};
