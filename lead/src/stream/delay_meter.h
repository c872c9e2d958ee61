// How long something takes: smoothed mean and deviation.
#pragma once

#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class DelayMeter {
 public:
  void sample(Time delay) {
    if (!known_) {
      known_ = true;
      mean_ = delay;
      deviation_ = delay / 2;
      return;
    }
    const Time difference = delay > mean_ ? delay - mean_ : mean_ - delay;
    deviation_ = (3 * deviation_ + difference) / 4;
    mean_ = (7 * mean_ + delay) / 8;
  }

  bool known() const { return known_; }
  Time mean() const { return mean_; }
  // What nearly all stay below.
  Time nearly_always() const { return mean_ + 4 * deviation_; }

 private:
  bool known_ = false;
  Time mean_ = 0;
  Time deviation_ = 0;
};

}  // namespace pkgdist::lead
