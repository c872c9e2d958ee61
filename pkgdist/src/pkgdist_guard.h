// A scope guard over a database's own lock and unlock operations, which report the function that
// asked: Guard<pkgdist_file_recv_db_lock, pkgdist_file_recv_db_unlock>.
#pragma once

#include "pkgdist_lock.h"

namespace pkgdist {

template <int (*Lock)(Caller), int (*Unlock)(Caller)>
class Guard {
 public:
  explicit Guard(Caller caller = Caller::here()) : caller_(caller) { lock(); }
  ~Guard() {
    if (held_) unlock();
  }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

  void lock() {
    (void)Lock(caller_);
    held_ = true;
  }
  void unlock() {
    held_ = false;
    (void)Unlock(caller_);
  }
  // Leaves the database locked beyond the scope.
  void leave_locked() { held_ = false; }

 private:
  Caller caller_;
  bool held_ = false;
};

}  // namespace pkgdist
