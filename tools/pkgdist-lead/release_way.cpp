#include <fmt/core.h>

#include <CLI/Error.hpp>

#include "release_link.h"

namespace pkgdist::lead_program {

ReleaseWay find_release_way(const LeadOptions& given) {
  if (given.control_path.empty()) (void)require_interface(given);
  const std::optional<ServingLead> serving = find_serving_lead(given);
  if (!serving) (void)require_interface(given);
  if (const char* setting = setting_of_the_lead(given); serving && setting != nullptr)
    throw CLI::ValidationError(
        fmt::format("{}: the lead that serves here was told at its start; leave it out", setting));
  return {serving ? with_settings_of(*serving, given) : given, serving.has_value()};
}

std::unique_ptr<ReleaseLink> ReleaseWay::open(Reporter& reporter) const {
  return serving ? open_remote_link(options, reporter) : open_own_link(options, reporter);
}

}  // namespace pkgdist::lead_program
