// The fixed-rate rhythm of the screen and cursor capture loops: deadlines advance by whole
// periods from the start (a late frame is followed by shorter waits instead of drifting),
// and the remainder of 10^9 / fps is carried as one extra nanosecond whenever it adds up
// past one.
#pragma once

#include <cstdint>

class NamedThread;

class CapturePacer {
 public:
  static constexpr uint64_t kSecondNs = 1000000000ULL;

  // Period 10^9 / fps ns (fps must be non-zero); the first deadline is `now`.
  CapturePacer(uint32_t fps, uint64_t nowNs) : CapturePacer(kSecondNs / fps, fps, nowNs) {}
  // A period of its own, with the remainder of 10^9 / fps carried all the same (none
  // for fps 0); the first deadline is `now`.
  CapturePacer(uint64_t periodNs, uint32_t fps, uint64_t nowNs)
      : m_periodNs(periodNs),
        m_fraction(fps != 0 ? static_cast<double>(kSecondNs % fps) / fps : 0.0),
        m_accumulated(m_fraction),
        m_base(nowNs - periodNs) {}

  // New rate; the deadline base and the carried remainder go on.
  void SetRate(uint32_t fps) {
    m_periodNs = kSecondNs / fps;
    m_fraction = static_cast<double>(kSecondNs % fps) / fps;
  }
  // The next deadline: the base plus one period.
  uint64_t Deadline() const { return m_base + m_periodNs; }
  // After a frame: the base moves on by a period, plus 1 ns when the remainder passed one.
  void Advance() {
    m_accumulated += m_fraction;
    if (m_accumulated > 1.0) {
      m_base += 1;
      m_accumulated -= 1.0;
    }
    m_base += m_periodNs;
  }
  uint64_t PeriodNs() const { return m_periodNs; }

  // On `thread`: waits until the deadline, in one wait for the time left rounded up to
  // whole milliseconds. False when the thread is asked to stop.
  bool WaitForDeadline(NamedThread& thread) const;

 private:
  uint64_t m_periodNs = 0;
  double m_fraction = 0.0;
  double m_accumulated = 0.0;
  uint64_t m_base = 0;
};

// The Clock seam's time in nanoseconds.
uint64_t CaptureNowNs();
