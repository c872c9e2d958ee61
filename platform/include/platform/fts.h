/* Fast time-stamps and the platform query. */
#ifndef PLATFORM_FTS_H
#define PLATFORM_FTS_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Nanoseconds of the monotonic clock (the same clock as CLOCK_MONOTONIC). Any thread. */
uint64_t fts_get_stamp_fast(void);

/* True on a simulated platform, where everything is slow and time-outs are stretched: the
 * environment has PKGDIST_SIM_PLATFORM=1. */
bool platform_is_sim_platform(void);

#ifdef __cplusplus
}
#endif

#endif
