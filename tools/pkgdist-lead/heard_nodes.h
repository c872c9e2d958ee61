// Which nodes a lead hears, as far as releases go.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "node_programs.h"
#include "pkgdist_lead/lead.h"

namespace pkgdist::lead_program {

struct HeardNodes {
  std::vector<uint32_t> takers;  // of releases at the location, or nothing is known about it
  std::vector<uint32_t> others;  // have said that they take no releases there
  std::map<uint32_t, std::string> names;  // of the releases that takers take, as far as is known

  size_t count() const { return takers.size() + others.size(); }
  bool has(const std::vector<uint32_t>& wanted, size_t count) const;
  bool takes(uint32_t node) const;
  // Why it does not take releases, or may not; empty when it does, as far as is known.
  std::string lack(uint32_t node) const;
};
HeardNodes heard_nodes(const lead::Lead& lead, const NodePrograms& programs, uint32_t location);

}  // namespace pkgdist::lead_program
