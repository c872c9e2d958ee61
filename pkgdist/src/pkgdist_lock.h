// Mutexes of the library: every lock and unlock goes through here and is checked.
//
// A mutex that cannot be locked or unlocked means that the process's state is damaged: the failure
// is logged with the name of the function that wanted it and the process ends through a failed
// assertion, also in release builds. No caller has to look at a result.
#pragma once

#include <pthread.h>

// For mutexes that are taken for every datagram and held for moments: who finds one taken looks
// again a few times before it goes to sleep, where the C library offers that.
#ifdef PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP
#define PKGDIST_BRIEF_MUTEX_INITIALIZER PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP
#else
#define PKGDIST_BRIEF_MUTEX_INITIALIZER PTHREAD_MUTEX_INITIALIZER
#endif

namespace pkgdist {

// Where a lock was asked for. As a default argument it names the caller:
//   int lock(pthread_mutex_t& mutex, Caller caller = Caller::here());
struct Caller {
  const char* function;
  const char* file;
  int line;

  static constexpr Caller here(const char* function = __builtin_FUNCTION(),
                               const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {function, file, line};
  }
};

// Both return the mutex call's result.
int mutex_lock(pthread_mutex_t& mutex, Caller caller = Caller::here());
int mutex_unlock(pthread_mutex_t& mutex, Caller caller = Caller::here());

// Ends the process like a failed assert(0), whatever NDEBUG says.
[[noreturn]] void assertion_failed(Caller caller = Caller::here());

// Holds a mutex for a scope.
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t& mutex, Caller caller = Caller::here())
      : mutex_(mutex), caller_(caller) {
    (void)mutex_lock(mutex_, caller_);
  }
  ~MutexLock() { (void)mutex_unlock(mutex_, caller_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t& mutex_;
  Caller caller_;
};

}  // namespace pkgdist
