// Messages of the lead's owner to nodes: for whom, and what became of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "pkgdist_lead/node_info.h"
#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

// Card class that every node accepts.
inline constexpr uint32_t kCardClassEveryone = 3;
// Card class of messages for the nodes that are listed.
inline constexpr uint32_t kCardClassListed = 4;

struct Audience {
  uint32_t card_class = kCardClassEveryone;
  std::vector<uint32_t> nodes;  // addresses, for kCardClassListed and for one node
  bool unicast = false;         // to the one node in `nodes`, which other nodes do not see

  static Audience everyone() { return {}; }
  static Audience of_class(uint32_t card_class) { return {card_class, {}}; }
  static Audience only(std::vector<uint32_t> addresses) {
    return {kCardClassListed, std::move(addresses)};
  }
  static Audience one(uint32_t address) { return {kCardClassEveryone, {address}, true}; }

  // Whether a node takes a multicast message, by the rules of the receiving side.
  bool includes(uint32_t address, uint32_t node_class) const;
};

// Of a message of the lead's owner; 0 is none.
using MessageId = uint32_t;

// How long a message is sent again to nodes that do not acknowledge it.
inline constexpr Time kMessageTimeout = 10 * kSecond;
// The same for a message to one node, at most. A node gives an unfinished message up after 5.25 s
// at the earliest, and then acknowledges its repetition as one that it has seen: an acknowledgement
// that comes earlier is true.
inline constexpr Time kUnicastTimeout = 5 * kSecond;

enum class MessageKind : uint8_t { kMessage, kCancel, kDelete };

enum class Delivery : uint8_t {
  kPending,
  kAcknowledged,
  kNeverHeard,  // a node that was asked for by its address and has not been heard
  kSilent,      // the node fell silent
  kRestarted,   // the process that the message was for is gone
  kTimeout,     // no acknowledgement came in time
  kUncertain,   // the node has gone past the message, having received it or having given it up
  kSuperseded,  // this lead stepped aside
};

struct MessageNode {
  NodeInfo info;
  Delivery delivery = Delivery::kPending;
};

struct MessageReport {
  MessageId id = 0;
  MessageKind kind = MessageKind::kMessage;
  bool finished = false;  // nobody is waited for
  std::vector<MessageNode> nodes;

  // Every node that was addressed has acknowledged, and there was one.
  bool complete() const;
};

}  // namespace pkgdist::lead
