// For whom a control message is.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace pkgdist::lead {

// Card class that every node accepts.
inline constexpr uint32_t kCardClassEveryone = 3;
// Card class of messages for the nodes that are listed.
inline constexpr uint32_t kCardClassListed = 4;

struct Audience {
  uint32_t card_class = kCardClassEveryone;
  std::vector<uint32_t> nodes;  // addresses, for kCardClassListed only

  static Audience everyone() { return {}; }
  static Audience of_class(uint32_t card_class) { return {card_class, {}}; }
  static Audience only(std::vector<uint32_t> addresses) {
    return {kCardClassListed, std::move(addresses)};
  }

  // Whether a node takes the message, by the rules of the receiving side.
  bool includes(uint32_t address, uint32_t node_class) const;
};

}  // namespace pkgdist::lead
