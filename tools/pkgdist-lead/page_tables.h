// The tables of the report page: the slowest nodes and why, repairs, nodes that never came, what is
// missing.
#pragma once

#include <string>

#include "push_story.h"

namespace pkgdist::lead_program {

std::string page_tables(const PushStory& story);

// "and 12 more", when not all are shown.
std::string more(size_t all, size_t shown);

}  // namespace pkgdist::lead_program
