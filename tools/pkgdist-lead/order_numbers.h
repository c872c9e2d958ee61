// Numbers of a lead's orders about releases. They come from the clock and grow from one process to
// the next: a lead tells by them what a node says to it from what it said to an earlier one.
#pragma once

#include <chrono>
#include <cstdint>

namespace pkgdist::lead_program {

// With which a process begins; up to a thousand a second may follow.
inline uint32_t first_order_number() {
  const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::system_clock::now().time_since_epoch());
  constexpr uint64_t kLatest = UINT32_MAX / 2;  // 24 days, then from the beginning
  return static_cast<uint32_t>(static_cast<uint64_t>(time.count()) % kLatest) + 1;
}

}  // namespace pkgdist::lead_program
