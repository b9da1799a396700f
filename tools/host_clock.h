// Time as the host program measures and reports it: microseconds on the steady clock.
#pragma once

#include <chrono>
#include <cstdint>

// Without news for this long the link has stalled.
inline constexpr auto kStallLimit = std::chrono::seconds(10);

inline uint64_t NowUs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

inline double Ms(uint64_t us) { return static_cast<double>(us) / 1000.0; }

inline double Rate(uint64_t count, uint64_t spanUs) {
  return spanUs > 0 ? static_cast<double>(count) * 1e6 / static_cast<double>(spanUs) : 0.0;
}

inline double SecondsSince(uint64_t startUs) {
  return static_cast<double>(NowUs() - startUs) / 1e6;
}

// True once more than kStallLimit has passed since sinceUs.
inline bool StalledSince(uint64_t sinceUs) {
  return NowUs() - sinceUs > static_cast<uint64_t>(std::chrono::microseconds(kStallLimit).count());
}
