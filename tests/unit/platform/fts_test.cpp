#include "platform/fts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

uint64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

TEST(Fts, stamps_are_nanoseconds_of_the_monotonic_clock) {
  const uint64_t before = monotonic_ns();
  const uint64_t stamp = fts_get_stamp_fast();
  const uint64_t after = monotonic_ns();
  EXPECT_LE(before, stamp);
  EXPECT_LE(stamp, after);
}

TEST(Fts, stamps_never_go_back) {
  uint64_t last = fts_get_stamp_fast();
  for (int i = 0; i < 10000; ++i) {
    const uint64_t now = fts_get_stamp_fast();
    ASSERT_LE(last, now);
    last = now;
  }
}

TEST(Fts, platform_is_simulated_only_when_the_environment_says_1) {
  unsetenv("PKGDIST_SIM_PLATFORM");
  EXPECT_FALSE(platform_is_sim_platform());
  for (const char* other : {"", "0", "2", "10", "yes"}) {
    setenv("PKGDIST_SIM_PLATFORM", other, 1);
    EXPECT_FALSE(platform_is_sim_platform()) << other;
  }
  setenv("PKGDIST_SIM_PLATFORM", "1", 1);
  EXPECT_TRUE(platform_is_sim_platform());
  unsetenv("PKGDIST_SIM_PLATFORM");
}

}  // namespace
