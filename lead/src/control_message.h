// Datagrams of the control channel that the lead sends.
#pragma once

#include <vector>

#include "datagram.h"
#include "pkgdist_lead/lead.h"

namespace pkgdist::lead {

// Card class that every node accepts.
inline constexpr uint32_t kCardClassEveryone = 3;

// For whom a control message is: a card class, or the nodes listed.
struct Audience {
  uint32_t card_class = kCardClassEveryone;
  std::vector<uint32_t> nodes;  // addresses, for PKGDIST_CARD_CLASS_NODE_LIST only

  static Audience everyone() { return {}; }
  static Audience only(std::vector<uint32_t> addresses) {
    return {PKGDIST_CARD_CLASS_NODE_LIST, std::move(addresses)};
  }
};

// What of a control message goes into every datagram of it, and its bytes.
struct ControlMessage {
  uint32_t sequence = 0;
  uint32_t msg_class = 0;
  Audience audience;
  std::vector<uint8_t> payload;

  uint32_t segment_size() const;
  uint32_t segments() const;
};

// The most addresses that fit beside a segment.
inline constexpr size_t kMaxNodesPerMessage = 48;

// Each returns the datagram's length, 0 when it does not fit.
size_t build_ping(std::span<uint8_t> out, const Settings& self, uint32_t last_sequence,
                  uint64_t status);
size_t build_segment(std::span<uint8_t> out, const Settings& self, const ControlMessage& message,
                     uint32_t segment, bool retransmission);

}  // namespace pkgdist::lead
