// The nodes that were heard: address, identity, process and when it last spoke. A node keeps its
// index until it is released, so that others can keep arrays by node.
//
// A node is known from the first message that carries its address and process. Another process
// number is a restarted node, which knows nothing of what was sent before, or it is made up: it
// counts when it comes in answers to two pings of which the present process, if it lived, would
// have answered one. A process that was taken for replaced and answers a later ping was not. Where
// both answer, two hosts have one address: that is told once, and the second one is ignored.
//
// The table is bounded. Named nodes, those of a push, have places of their own; for all others
// there is a fixed number, and the silent ones among them are released when these run short.
#pragma once

#include <deque>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "pkgdist/wire_ctrl.h"
#include "pkgdist_lead/events.h"
#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

using NodeIndex = uint32_t;
inline constexpr NodeIndex kNoNode = UINT32_MAX;

struct Node {
  NodeInfo info;
  uint32_t previous_pid = 0;
  Time answered = 0;     // when the latest ping was sent that the process has answered
  uint32_t rival = 0;    // another process number that has answered one ping, 0: none
  Time rival_asked = 0;  // when that ping was sent; of the last replacement, when there is none
  Time last_heard = 0;
  Time last_reply = 0;  // to a ping of this process
  // Since when the node answers the pings of this process without a long gap, 0 when it does not:
  // from then on its position in the control stream is this lead's.
  Time adopted_at = 0;
  bool silent = false;
  uint32_t shared_with = 0;  // process number of another host with the address
};

enum class Sighting : uint8_t {
  kIgnored,  // not of the present process, without an address, or the table is full
  kRival,    // the same, but the first answer of another process: the next ping decides
  kKnown,
  kAppeared,
  kRestarted,
  kReturned,  // had fallen silent
  kShared,    // another host has the address, too: told of each of its processes once
};

class NodeTable {
 public:
  // Beside named nodes. More are ignored: forged addresses must not fill the memory.
  static constexpr size_t kMaxNodes = 4096;

  struct Result {
    Sighting sighting = Sighting::kIgnored;
    NodeIndex index = kNoNode;
  };

  // A message of the control channel. `asked`: when the ping was sent that it answers, 0 when it
  // answers none.
  Result observe_control(const pkgdist_ctrl_msg_hdr& header, uint32_t address, Time asked,
                         Time now);
  // The node has answered a ping that this process sent.
  void note_reply(NodeIndex index, Time now);
  // A message of the data channel, which carries the address only. A node that was never heard on
  // the control channel is entered with process 0.
  Result observe_data(uint32_t address, Time now);

  // Nodes that always have a place; replaces those that were named before.
  void name(const std::vector<uint32_t>& addresses) {
    named_ = {addresses.begin(), addresses.end()};
  }
  bool named(uint32_t address) const { return named_.contains(address); }
  // Silent nodes take places that others will need.
  bool crowded() const { return by_address_.size() >= named_.size() + kMaxNodes / 2; }
  // Takes a node out. Its index is used again: whoever keeps something by it forgets that first.
  void release(NodeIndex index);

  // Marks the nodes that were not heard for `limit` and calls gone(index) for each.
  template <class Gone>
  void expire(Time now, Time limit, Gone&& gone) {
    for (NodeIndex i = 0; i < nodes_.size(); ++i) {
      if (nodes_[i].silent || elapsed(now, nodes_[i].last_heard) < limit) continue;
      nodes_[i].silent = true;
      gone(i);
    }
  }

  // kNoNode when the address is not in the table.
  NodeIndex find(uint32_t address) const;
  const Node& operator[](NodeIndex index) const { return nodes_[index]; }
  // Indexes are below this. Those that are free look like silent nodes without process and address.
  NodeIndex size() const { return static_cast<NodeIndex>(nodes_.size()); }

 private:
  // kBeside: answers as well as the present process does.
  enum class Speaker : uint8_t { kPresent, kNew, kRival, kBeside, kDoubtful };

  bool admits(uint32_t address) const {
    return by_address_.size() < kMaxNodes + (named(address) ? named_.size() : 0);
  }
  NodeIndex enter(uint32_t address);
  static Speaker speaker(Node& node, uint32_t pid, Time asked);
  static void replace(Node& node, uint32_t pid, Time asked);
  Sighting heard(Node& node, Time now);

  std::vector<Node> nodes_;
  std::deque<NodeIndex> free_;  // the longest released first
  std::unordered_map<uint32_t, NodeIndex> by_address_;
  std::unordered_set<uint32_t> named_;
};

}  // namespace pkgdist::lead
