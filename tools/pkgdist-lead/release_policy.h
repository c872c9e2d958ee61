// --activate: when the nodes that are ready switch to a release.
#pragma once

#include <cstddef>
#include <string>

namespace pkgdist::lead_program {

struct ActivationPolicy {
  enum class Kind { kAll, kReady, kShare, kNever };
  Kind kind = Kind::kAll;
  unsigned percent = 100;  // of kShare

  bool allows(size_t ready, size_t total) const;
  bool operator==(const ActivationPolicy&) const = default;
};

// "all", "those", "90%" or "no". Throws CLI::ValidationError.
ActivationPolicy parse_policy(const std::string& text);
std::string policy_text(const ActivationPolicy& policy);

}  // namespace pkgdist::lead_program
