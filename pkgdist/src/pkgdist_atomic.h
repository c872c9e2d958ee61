// Plain globals that several threads read and write without a lock (flags, addresses, counters).
//
// They stay plain objects, because the process may look at them by name, but every access that can
// meet another thread goes through these two: a relaxed atomic of the same size. No ordering is
// promised and none is needed; what must be ordered has a mutex.
#pragma once

#include <atomic>

namespace pkgdist {

template <class T>
T load(const T& object) {
  return std::atomic_ref<T>(const_cast<T&>(object)).load(std::memory_order_relaxed);
}

template <class T, class V>
void store(T& object, V value) {
  std::atomic_ref<T>(object).store(static_cast<T>(value), std::memory_order_relaxed);
}

}  // namespace pkgdist
