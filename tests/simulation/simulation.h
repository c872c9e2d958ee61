// One run: a cluster of real nodes and real leads goes through the scenario of a seed.
//
// First there is trouble, as the scenario has it. Then everything heals, and the run waits for what
// was begun to end by itself. Then a push brings every file to every node, which must succeed. Then
// nothing happens for long enough that the nodes forget everything. The judge watches all of it.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "simulated_node.h"

namespace pkgdist::sim {

struct Verdict {
  std::vector<std::string> violations;  // none: the run was as it must be
  uint64_t trace = 0;                   // equal runs have equal ones
  uint64_t datagrams = 0;
  uint64_t virtual_ns = 0;
};

// `record`: where the whole exchange goes, or null.
Verdict run_seed(uint64_t seed, Workspace& workspace, std::FILE* record);

}  // namespace pkgdist::sim
