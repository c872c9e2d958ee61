// Who sent a datagram.
#pragma once

#include <optional>

#include "lead_parts.h"

namespace pkgdist::lead {

// Of the datagrams of another lead, and of those with a wrong address, every so many are told.
inline constexpr uint64_t kTellEvery = 1000;

// The address of whoever sent a datagram; none when it names another one than it came from: answers
// would go to somebody who did not ask. What comes from the own address was sent on this host, from
// any of its addresses; the system takes no such datagram from the network.
inline std::optional<uint32_t> checked_sender(LeadParts& parts, uint32_t named, uint32_t from) {
  if (named == 0 || named == from) return from;
  if (parts.settings.multi_homed || from == parts.settings.address) return named;
  const uint64_t dropped = ++parts.counters.misaddressed;
  if (dropped % kTellEvery == 1) parts.events.sender_mismatch(named, from, dropped);
  return std::nullopt;
}

}  // namespace pkgdist::lead
