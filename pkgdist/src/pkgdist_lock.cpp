#include "pkgdist_lock.h"

// The assertion below is part of the behaviour of release builds too.
#undef NDEBUG
#include <cassert>
#include <cstring>

#include "pkgdist_log.h"

namespace pkgdist {

void assertion_failed(Caller caller) {
  __assert_fail("0", caller.file, static_cast<unsigned>(caller.line), caller.function);
}

int mutex_lock(pthread_mutex_t& mutex, Caller caller) {
  const int result = pthread_mutex_lock(&mutex);
  if (result != 0) {
    PKGDIST_ERR_TEXT("ERR:%s pthread_mutex_lock failed: %s\n", caller.function,
                     std::strerror(result));
    assertion_failed(caller);
  }
  return result;
}

int mutex_unlock(pthread_mutex_t& mutex, Caller caller) {
  const int result = pthread_mutex_unlock(&mutex);
  if (result != 0) {
    PKGDIST_ERR_TEXT("ERR:%s pthread_mutex_unlock failed: %s\n", caller.function,
                     std::strerror(result));
    assertion_failed(caller);
  }
  return result;
}

}  // namespace pkgdist
