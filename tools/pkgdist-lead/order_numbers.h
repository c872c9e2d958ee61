// Numbers of a lead's orders about releases. They come from the clock and grow from one process to
// the next: nodes tell an order that is repeated from the first one of another process, and leads
// tell what is said to an earlier one.
#pragma once

#include <chrono>
#include <cstdint>
#include <ratio>

namespace pkgdist::lead_program {

// With which a process begins; up to eight a second may follow.
inline uint32_t first_order_number() {
  using EighthsOfSeconds = std::chrono::duration<uint64_t, std::ratio<1, 8>>;
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  constexpr uint64_t kLatest = UINT32_MAX / 2;  // eight years and a half, then from the beginning
  return static_cast<uint32_t>(std::chrono::duration_cast<EighthsOfSeconds>(time).count() %
                               kLatest) +
         1;
}

}  // namespace pkgdist::lead_program
