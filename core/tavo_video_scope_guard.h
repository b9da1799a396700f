// Runs its clean-up exactly once: when Execute is called or when the guard goes away.
#pragma once

#include <functional>
#include <mutex>
#include <stack>

class ScopeGuard {
 public:
  static ScopeGuard Create(std::function<void()>&& cleanup) {
    return ScopeGuard(std::move(cleanup));
  }

  ScopeGuard(ScopeGuard&& other) noexcept {
    std::lock_guard<std::mutex> lock(other.m_lock);
    m_cleanups = std::move(other.m_cleanups);
    m_executed = other.m_executed;
    other.m_executed = true;
  }
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;
  ScopeGuard& operator=(ScopeGuard&&) = delete;
  ~ScopeGuard() noexcept { Execute(); }  // a throwing clean-up ends the process

  void Execute() {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      if (m_executed) {
        return;
      }
      m_executed = true;
    }
    while (!m_cleanups.empty()) {
      m_cleanups.top()();
      m_cleanups.pop();
    }
  }

 private:
  explicit ScopeGuard(std::function<void()>&& cleanup) { m_cleanups.push(std::move(cleanup)); }

  std::stack<std::function<void()>> m_cleanups;
  bool m_executed = false;
  std::mutex m_lock;  // guards m_executed; the guarded functions run after it is released
};
