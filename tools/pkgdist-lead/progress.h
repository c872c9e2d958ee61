// What stands on a terminal while a push waits or runs, redrawn in place.
#pragma once

#include <string>
#include <vector>

#include "push_bars.h"

namespace pkgdist::lead_program {

class ProgressBars {
 public:
  ProgressBars();

  // Draws over what was drawn before. Nothing while the terminal has not taken that.
  void draw(const PushState& state);
  // The same with one line only.
  void draw_line(const std::string& line);
  // What takes the lines off the screen when it is written; the next draw() starts where the cursor
  // is.
  std::string erasure();
  void erase();

 private:
  void show(const std::vector<std::string>& lines, const Screen& screen);

  std::vector<size_t> widths_;  // of the lines on the screen, in columns
  bool utf8_ = false;
};

// The size of the terminal at this moment.
Screen screen_of_terminal();

}  // namespace pkgdist::lead_program
