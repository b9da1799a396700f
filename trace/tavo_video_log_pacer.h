// Pacing of log lines that can repeat with every frame, so that a failure at frame rate
// cannot flood the trace or the module log. One counter per thing that repeats (a call site,
// a node's message, a device's error): its line is written the first time and then every
// `every`-th time; or, for a periodic report, once per period.
#pragma once

#include <atomic>
#include <cstdint>

namespace vlink {

// Per-frame failures are logged once every this many times.
constexpr uint64_t kPerFrameLogEvery = 100;

// True for the occurrences (counted from 0) whose line is written: 0, every, 2 * every...
constexpr bool IsPacedTurn(uint64_t occurrence, uint64_t every) { return occurrence % every == 0; }

// Counts occurrences; safe from any thread (relaxed: a line more or less under a race is no
// harm).
class LogPacer {
 public:
  LogPacer() : LogPacer(kPerFrameLogEvery) {}
  explicit LogPacer(uint64_t every) : m_every(every) {}
  LogPacer(const LogPacer&) = delete;
  LogPacer& operator=(const LogPacer&) = delete;

  // Counts one occurrence; true when its line is due. `number` (if given) receives its
  // number counted from 1, for lines that print how often the failure happened.
  bool Due(uint64_t* number = nullptr) {
    const uint64_t occurrence = m_count.fetch_add(1, std::memory_order_relaxed);
    if (number != nullptr) {
      *number = occurrence + 1;
    }
    return IsPacedTurn(occurrence, m_every);
  }
  // Whether the next occurrence's line would be due, without counting it.
  bool NextDue() const { return IsPacedTurn(m_count.load(std::memory_order_relaxed), m_every); }
  // The failure cleared (or changed): its next occurrence is logged again.
  void Reset() { m_count.store(0, std::memory_order_relaxed); }

 private:
  const uint64_t m_every;
  std::atomic<uint64_t> m_count{0};
};

// A report written once per period of a caller's clock. Not thread-safe: one owner (or its
// lock) drives it.
class PeriodicLog {
 public:
  explicit PeriodicLog(uint64_t period) : m_period(period) {}
  // The period starts now.
  void Start(uint64_t now) { m_last = now; }
  // True (and the next period starts) once a whole period has passed since the last start.
  bool Due(uint64_t now) {
    if (now - m_last < m_period) {
      return false;
    }
    m_last = now;
    return true;
  }

 private:
  const uint64_t m_period;
  uint64_t m_last = 0;
};

}  // namespace vlink
