// Time-stamps from the monotonic clock, which the C library reads without a system call, and the
// question whether the platform is simulated.
#include "platform/fts.h"

#include <ctime>

#include "environment.h"

uint64_t fts_get_stamp_fast(void) {
  constexpr uint64_t kNsPerSecond = 1000000000;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

bool platform_is_sim_platform(void) {
  return platform::environment_switch("PKGDIST_SIM_PLATFORM");
}
