// Who a node is.
#pragma once

#include <cstdint>

namespace pkgdist::lead {

struct NodeInfo {
  uint32_t address = 0;  // IPv4, host byte order
  uint32_t node_id = 0;  // packed identity, 0 when unknown
  uint32_t pid = 0;
  uint32_t card_class = 0;
};

}  // namespace pkgdist::lead
