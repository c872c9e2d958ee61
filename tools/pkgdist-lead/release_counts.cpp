#include "release_counts.h"

namespace pkgdist::lead_program {

namespace {

using cli::ReleasePhase;

// Of the release that is current, when there is nothing else to tell.
bool is_at_rest(ReleasePhase phase) {
  return phase == ReleasePhase::kIdle || phase == ReleasePhase::kConfirmed ||
         phase == ReleasePhase::kVerifying;
}

}  // namespace

std::vector<ReleaseCount> release_counts(const cli::ReleaseState& state) {
  std::vector<ReleaseCount> counts;
  if (state.current) counts.push_back({std::to_string(state.current->version), "current"});
  if (state.current && state.drifted.value_or(0) != 0)
    counts.push_back({std::to_string(state.current->version), "drifted"});
  if (!is_at_rest(state.phase))
    counts.push_back({state.candidate ? std::to_string(state.candidate->version) : std::string(),
                      cli::phase_name(state.phase)});
  return counts;
}

}  // namespace pkgdist::lead_program
