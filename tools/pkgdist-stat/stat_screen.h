// A sample on a terminal's screen: the five answers about its health, then what moves, fastest
// first, then what does not move as far as there is room.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "sample.h"

namespace pkgdist::stat {

struct ScreenSize {
  size_t rows = 24;
  size_t columns = 80;
};

// At most `size.rows` lines of at most `size.columns` characters. A label stands at the front of
// its line and is whole in every terminal of 20 columns or more.
std::vector<std::string> screen_of(const Sample& sample, const Sample* earlier, bool changed_only,
                                   const ScreenSize& size);

}  // namespace pkgdist::stat
