// This host's packet filter: what its rules would do with pkgdist's datagrams, and the counters of
// the rules that drop.
#pragma once

#include <string>
#include <vector>

#include "filter_rules.h"
#include "finding.h"
#include "host_checks.h"

namespace pkgdist::doctor {

class PacketFilter {
 public:
  // Reads the rules. Needs privileges, and `nft` or `iptables-save`.
  PacketFilter();

  bool readable() const { return readable_; }
  const FilterRules& rules() const { return rules_; }
  // Rules and policies that drop.
  const std::vector<std::string>& drops() const { return drops_; }
  // Those whose counter is not what it was `before`.
  std::vector<std::string> counted_since(const PacketFilter& before) const;

 private:
  bool readable_ = false;
  FilterRules rules_;
  std::vector<std::string> drops_;
};

// A port of pkgdist at which the rules of this host drop what comes, or what goes.
struct BlockedPort {
  bool incoming = true;
  uint16_t port = 0;
};

// What the rules are known to drop is a problem, with the rule that lets it through: said before
// anything was sent.
std::vector<BlockedPort> check_filter(const DoctorOptions& options, const Interface& interface,
                                      const PacketFilter& filter, Findings& findings);

}  // namespace pkgdist::doctor
