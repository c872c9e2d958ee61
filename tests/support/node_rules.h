// The receive side's time-outs and bounds, for the models of it.
#pragma once

#include <cstdint>

namespace pkgdist::test {

inline constexpr uint64_t kMs = 1'000'000;  // nanoseconds
inline constexpr uint64_t kInfoTimeout = 1000 * kMs;
inline constexpr uint64_t kMissingTimeout = 2000 * kMs;
inline constexpr uint64_t kNotDoneTimeout = 2000 * kMs;
inline constexpr uint64_t kStatAge = 30'000 * kMs;
inline constexpr uint32_t kMaxRetries = 5;
inline constexpr uint32_t kTail = 200;  // segments

// 0 when `then` lies ahead.
constexpr uint64_t since(uint64_t now, uint64_t then) {
  return now > then ? now - then : 0;
}

}  // namespace pkgdist::test
