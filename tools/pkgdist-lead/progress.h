// Progress bars on a terminal: one line per node, redrawn in place.
#pragma once

#include <vector>

#include "pkgdist_lead/push.h"

namespace pkgdist::lead_program {

class ProgressBars {
 public:
  // Draws over what was drawn before.
  void draw(const lead::PushReport& report, lead::Time now);
  // Takes the bars off the screen; the next draw() starts where the cursor is.
  void erase();

 private:
  struct Sample {
    lead::Time time = 0;
    uint64_t bytes = 0;
    double rate = 0;  // bytes per second, smoothed
  };
  void draw_node(const lead::PushReport& report, const lead::PushNodeReport& node, Sample& sample,
                 lead::Time now);

  size_t lines_ = 0;
  std::vector<Sample> samples_;  // by position in the report
};

}  // namespace pkgdist::lead_program
