// What one node adds to the counts of nodes by release: its current one, the same once more when
// the last verification found it changed, and the one that it prepares or could not take.
#pragma once

#include <string>
#include <vector>

#include "release_messages.h"

namespace pkgdist::lead_program {

struct ReleaseCount {
  std::string version;  // empty: not told
  std::string state;
};

std::vector<ReleaseCount> release_counts(const cli::ReleaseState& state);

}  // namespace pkgdist::lead_program
