// Starting detached threads and splitting their waits.
#pragma once

#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <cstdint>

namespace pkgdist {

inline constexpr uint64_t kMicrosecondsPerSecond = 1'000'000;
inline constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;

// Creates a detached thread without argument. Returns 0 or an error number.
inline int create_detached_thread(void* (*body)(void*)) {
  pthread_attr_t attributes;
  if (int error = pthread_attr_init(&attributes); error != 0) return error;
  pthread_t thread{};
  int error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (error == 0) error = pthread_create(&thread, &attributes, body, nullptr);
  (void)pthread_attr_destroy(&attributes);
  return error;
}

constexpr timeval timeval_of(uint64_t microseconds) {
  return {static_cast<time_t>(microseconds / kMicrosecondsPerSecond),
          static_cast<suseconds_t>(microseconds % kMicrosecondsPerSecond)};
}

constexpr timespec timespec_of(uint64_t nanoseconds) {
  return {static_cast<time_t>(nanoseconds / kNanosecondsPerSecond),
          static_cast<long>(nanoseconds % kNanosecondsPerSecond)};
}

}  // namespace pkgdist
