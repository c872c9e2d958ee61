// What stands on a terminal while a push waits or runs: progress bars, one line per node and one
// for the whole push, redrawn in place. No line is wider than the terminal.
#pragma once

#include <string>
#include <vector>

#include "push_meter.h"

namespace pkgdist::lead_program {

class ProgressBars {
 public:
  // Draws over what was drawn before; `overall` is the last line. Nothing while the terminal has
  // not taken what was drawn before.
  void draw(const lead::PushReport& report, const PushMeter& meter, const std::string& overall);
  // The same with one line only.
  void draw_line(const std::string& line);
  // What takes the lines off the screen when it is written; the next draw() starts where the cursor
  // is.
  std::string erasure();
  void erase();

 private:
  void show(const std::vector<std::string>& lines);

  size_t lines_ = 0;
};

}  // namespace pkgdist::lead_program
