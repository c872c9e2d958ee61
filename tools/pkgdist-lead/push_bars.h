// The lines that stand on a terminal while a push runs: a bar for each node, or for those that need
// attention when not all fit, and one line for the whole push.
#pragma once

#include <string>
#include <vector>

#include "push_state.h"

namespace pkgdist::lead_program {

struct Screen {
  size_t columns = 80;
  size_t rows = 24;
  bool utf8 = false;  // it shows characters beyond ASCII
};

// No line has more columns than the screen less one: in the last column some terminals begin a new
// line. With the line that the cursor is on they fill no more rows than the screen has.
std::vector<std::string> bar_lines(const PushState& state, const Screen& screen);

// Columns that the text takes: characters, all of which are one column wide here.
size_t columns_of(const std::string& text);
// The first so many columns of it.
std::string cut(const std::string& text, size_t columns);

// How many of the nodes have how much, from nothing on the left to everything on the right: one
// character for each of `bins`.
std::string histogram(const std::vector<const NodeState*>& nodes, size_t bins, bool utf8);

}  // namespace pkgdist::lead_program
