// Time in the lead: nanoseconds of some monotonic clock that the owner reads and hands in.
#pragma once

#include <algorithm>
#include <cstdint>

namespace pkgdist::lead {

using Time = uint64_t;

inline constexpr Time kMicrosecond = 1'000;
inline constexpr Time kMillisecond = 1'000'000;
inline constexpr Time kSecond = 1'000'000'000;
inline constexpr Time kNever = UINT64_MAX;

// 0 when `since` lies ahead of `now`.
inline Time elapsed(Time now, Time since) {
  return now > since ? now - since : 0;
}

// interval * 2^doublings, at most `ceiling`.
inline Time backoff(Time interval, uint32_t doublings, Time ceiling) {
  constexpr uint32_t kMaxShift = 20;  // keeps the product far below 64 bits
  return std::min(ceiling, interval << std::min(doublings, kMaxShift));
}

}  // namespace pkgdist::lead
