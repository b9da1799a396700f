#include "core/tavo_video_named_thread.h"

#include <cerrno>

#include "core/tavo_video_os_seams.h"
#include "trace/tavo_video_vlink_log.h"

NamedThread::NamedThread(std::string name) : m_name(std::move(name)) {}

NamedThread::~NamedThread() { Stop(); }

int32_t NamedThread::Start(std::function<void()> body) {
  std::lock_guard<std::mutex> join(m_joinLock);
  {
    std::lock_guard<std::mutex> lock(m_waitLock);
    if (m_started) {
      return EBUSY;
    }
    m_body = std::move(body);
    m_stopRequested.store(false, std::memory_order_release);
    m_started = true;
  }
  const int32_t code = Seam<ThreadSystem>::Get().Create(&m_thread, &NamedThread::Trampoline, this);
  if (code != 0) {
    VLOG_ERR("create thread %s failed, ret[%d]", m_name.c_str(), code);
    std::lock_guard<std::mutex> lock(m_waitLock);
    m_started = false;
    m_body = nullptr;
  }
  return code;
}

void* NamedThread::Trampoline(void* self) {
  auto* thread = static_cast<NamedThread*>(self);
  Seam<ThreadSystem>::Get().SetName(thread->m_name.c_str());
  thread->m_body();
  return nullptr;
}

void NamedThread::RequestStop() {
  m_stopRequested.store(true, std::memory_order_release);
  Wake();
}

void NamedThread::Stop() {
  RequestStop();
  std::lock_guard<std::mutex> join(m_joinLock);
  bool started = false;
  {
    std::lock_guard<std::mutex> lock(m_waitLock);
    started = m_started;
  }
  if (!started) {
    return;
  }
  Seam<ThreadSystem>::Get().Join(m_thread);
  std::lock_guard<std::mutex> lock(m_waitLock);
  m_started = false;
  m_body = nullptr;
}

bool NamedThread::IsRunning() const {
  std::lock_guard<std::mutex> lock(m_waitLock);
  return m_started;
}

bool NamedThread::WaitFor(uint32_t milliseconds, const std::function<bool()>& done) {
  std::unique_lock<std::mutex> lock(m_waitLock);
  const uint64_t seen = m_wakeups;
  Seam<Clock>::Get().WaitFor(lock, m_waitSignal, milliseconds, [&] {
    return StopRequested() || m_wakeups != seen || (done && done());
  });
  return !StopRequested();
}

void NamedThread::Wake() {
  {
    std::lock_guard<std::mutex> lock(m_waitLock);
    ++m_wakeups;
  }
  m_waitSignal.notify_all();
}
