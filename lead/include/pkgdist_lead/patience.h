// A time-out for nodes to appear. It starts again with every node that appears, so the total time
// has no limit.
#pragma once

#include <cstddef>

#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class Patience {
 public:
  Patience(Time limit, Time now) : limit_(limit), since_(now) {}

  // The number of nodes that are present now. A node that left and came back does not count as new.
  void note(size_t nodes, Time now) {
    if (nodes <= most_) return;
    most_ = nodes;
    since_ = now;
  }
  bool over(Time now) const { return elapsed(now, since_) >= limit_; }
  Time deadline() const { return since_ + limit_; }
  // When the last node appeared, or when the waiting began if none has.
  Time since() const { return since_; }

 private:
  Time limit_;
  Time since_;
  size_t most_ = 0;
};

}  // namespace pkgdist::lead
