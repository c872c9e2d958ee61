#include "stream/pacer.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

constexpr size_t kPayload = 1472;

// Sends whenever allowed, waking when told to; returns the payload bytes sent.
uint64_t bytes_in(Pacer& pacer, Time from, Time until) {
  uint64_t bytes = 0;
  for (Time now = from; now < until; now = std::max(now + 1, pacer.next_ready(now))) {
    pacer.refill(now);
    for (; pacer.ready(); bytes += kPayload) pacer.spend(kPayload);
  }
  return bytes;
}

TEST(Pacer, keeps_the_rate_over_a_second) {
  Pacer pacer(100'000'000);
  const auto bytes = static_cast<double>(bytes_in(pacer, kSecond, 2 * kSecond));
  EXPECT_NEAR(bytes * (1500.0 / 1472), 12.5e6, 12.5e6 * 0.01);
}

TEST(Pacer, never_bursts_more_than_its_depth_after_a_pause) {
  Pacer pacer(8'000'000'000);
  pacer.refill(kSecond);
  bytes_in(pacer, kSecond, kSecond + 1);
  pacer.refill(100 * kSecond);
  uint64_t burst = 0;
  for (; pacer.ready(); burst += kPayload) pacer.spend(kPayload);
  EXPECT_LE(burst, 128 * 1024 + kPayload);
}

TEST(Pacer, survives_a_clock_that_goes_back) {
  Pacer pacer(8'000'000);
  pacer.refill(10 * kSecond);
  while (pacer.ready()) pacer.spend(kPayload);
  pacer.refill(kSecond);
  EXPECT_FALSE(pacer.ready());
}

}  // namespace
}  // namespace pkgdist::lead
