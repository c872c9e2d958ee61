// Progress bars on a terminal: one line per node and one for the whole push, redrawn in place.
#pragma once

#include "push_meter.h"

namespace pkgdist::lead_program {

class ProgressBars {
 public:
  // Draws over what was drawn before; `overall` is the last line.
  void draw(const lead::PushReport& report, const PushMeter& meter, const std::string& overall);
  // Takes the bars off the screen; the next draw() starts where the cursor is.
  void erase();

 private:
  size_t lines_ = 0;
};

}  // namespace pkgdist::lead_program
