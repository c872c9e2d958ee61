// Plain globals that several threads read and write without a lock (flags, addresses, counters).
//
// They stay plain objects, because the process may look at them by name, but every access that can
// meet another thread goes through these two: an atomic of the same size. A store publishes what
// was done before it (a socket is open once its descriptor can be read). All of them have one
// order: of two threads that each store their own word and then load the other's, at least one sees
// the other (a new lead and a registration for lead changes). What must be consistent beyond that
// has a mutex.
#pragma once

#include <atomic>

namespace pkgdist {

template <class T>
T load(const T& object) {
  return std::atomic_ref<T>(const_cast<T&>(object)).load(std::memory_order_seq_cst);
}

template <class T, class V>
void store(T& object, V value) {
  std::atomic_ref<T>(object).store(static_cast<T>(value), std::memory_order_seq_cst);
}

}  // namespace pkgdist
