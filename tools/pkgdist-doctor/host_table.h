// The hosts of the other side in one table, a line for each.
#pragma once

#include <string>
#include <vector>

#include "finding.h"

namespace pkgdist::doctor {

// Those with trouble first, then by address; behind them how many there are and how many of them
// are well.
std::vector<std::string> host_table(std::vector<HostLine> hosts);

}  // namespace pkgdist::doctor
