// The receive side's time-outs and bounds, for the models of it.
#pragma once

#include <cstdint>

namespace pkgdist::test {

inline constexpr uint64_t kMs = 1'000'000;  // nanoseconds

// What a program may choose before it starts the receive side.
struct NodeTimeouts {
  uint64_t scan = 500 * kMs;      // between time-out passes
  uint64_t info = 1000 * kMs;     // for the information of a file
  uint64_t missing = 2000 * kMs;  // for a segment that was asked for
  uint64_t not_done = 2000 * kMs;
  uint32_t max_retries = 5;

  static constexpr NodeTimeouts of_the_library() { return {}; }
  static constexpr NodeTimeouts of_the_node_program() {
    return {20 * kMs, 1000 * kMs, 100 * kMs, 2000 * kMs, 24};
  }
};

inline constexpr uint64_t kStatAge = 30'000 * kMs;
inline constexpr uint32_t kMaxRetries = 5;  // of the control channel
inline constexpr uint32_t kTail = 200;      // segments

// 0 when `then` lies ahead.
constexpr uint64_t since(uint64_t now, uint64_t then) {
  return now > then ? now - then : 0;
}

}  // namespace pkgdist::test
