// Patience with nodes that have to appear. It is over when none has come for so long; how long all
// of them take has no limit.
#pragma once

#include <cstddef>

#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class Patience {
 public:
  Patience(Time limit, Time now) : limit_(limit), since_(now) {}

  // So many are there now. One that went and came back is not new.
  void note(size_t nodes, Time now) {
    if (nodes <= most_) return;
    most_ = nodes;
    since_ = now;
  }
  bool over(Time now) const { return elapsed(now, since_) >= limit_; }
  Time deadline() const { return since_ + limit_; }
  // When the last one came; before, when the waiting began.
  Time since() const { return since_; }

 private:
  Time limit_;
  Time since_;
  size_t most_ = 0;
};

}  // namespace pkgdist::lead
