// One pattern for every OS or service seam the library reaches through (clock, threads,
// dynamic loading, render proxy, V4L2 devices, the X display, the inference client, the
// image-operations library, the shared-memory queue):
//   - a small interface with a static Real() that returns the process-wide real side;
//   - Seam<I>::Get(), the one place code asks for the side in force;
//   - ScopedSeamOverride<I>, which a test uses to put a fake in for its own lifetime.
// An interface that hands out objects (devices, displays) is itself the factory for them.
#pragma once

#include <atomic>

template <class Interface>
class ScopedSeamOverride;

template <class Interface>
class Seam {
 public:
  static Interface& Get() {
    Interface* current = Slot().load(std::memory_order_acquire);
    return current != nullptr ? *current : Interface::Real();
  }

 private:
  friend class ScopedSeamOverride<Interface>;
  static std::atomic<Interface*>& Slot() {
    static std::atomic<Interface*> slot{nullptr};
    return slot;
  }
};

// Install before the code under test starts threads, remove after it has stopped them.
template <class Interface>
class ScopedSeamOverride {
 public:
  explicit ScopedSeamOverride(Interface& fake)
      : m_previous(Seam<Interface>::Slot().exchange(&fake, std::memory_order_acq_rel)) {}
  ~ScopedSeamOverride() { Seam<Interface>::Slot().store(m_previous, std::memory_order_release); }
  ScopedSeamOverride(const ScopedSeamOverride&) = delete;
  ScopedSeamOverride& operator=(const ScopedSeamOverride&) = delete;

 private:
  Interface* m_previous;
};
