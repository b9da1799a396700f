#include "tests/support/log_capture.h"

LogCapture::LogCapture() {
  m_previous = OmLogSetSink([this](const OmLogRecord& record) {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      m_records.push_back(record);
    }
    m_added.notify_all();
  });
}

LogCapture::~LogCapture() { OmLogSetSink(std::move(m_previous)); }

size_t LogCapture::CountLocked(const std::string& text, uint32_t level) const {
  size_t count = 0;
  for (const OmLogRecord& record : m_records) {
    if ((level == 0 || record.level == level) && record.text.find(text) != std::string::npos) {
      ++count;
    }
  }
  return count;
}

size_t LogCapture::CountModule(const std::string& text, uint32_t level) {
  std::lock_guard<std::mutex> lock(m_lock);
  return CountLocked(text, level);
}

bool LogCapture::WaitFor(const std::string& text, size_t count, uint32_t level,
                         std::chrono::seconds limit) {
  std::unique_lock<std::mutex> lock(m_lock);
  return m_added.wait_for(lock, limit, [&] { return CountLocked(text, level) >= count; });
}

std::vector<OmLogRecord> LogCapture::Records() {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_records;
}
