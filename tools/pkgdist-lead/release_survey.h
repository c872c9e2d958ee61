// Asks nodes how their releases stand.
#pragma once

#include <map>
#include <optional>
#include <vector>

#include "release_link.h"

namespace pkgdist::lead_program {

struct ReleaseSurvey {
  uint32_t location = 1;
  bool verify = false;  // every file of the current release is read again
  lead::Time silence = 10 * lead::kSecond;

  // What each of the nodes says; those that take no releases or do not answer are left out. Nothing
  // when a signal came first.
  std::optional<std::map<uint32_t, cli::ReleaseState>> ask(
      ReleaseLink& link, const HeardNodes& heard, const std::vector<uint32_t>& nodes) const;
};

}  // namespace pkgdist::lead_program
