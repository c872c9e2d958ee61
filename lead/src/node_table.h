// The nodes that were heard: address, identity, process, how far each got in the control stream and
// when it last spoke. A node keeps its index for good, so that others can keep arrays by node.
//
// A node is known from the first message that carries its address and process. A changed process
// identifier is a restarted node: it takes up the control stream where it stands and knows nothing
// of what was sent before. Late datagrams of the replaced process are recognised and ignored.
//
// One ping is answered by one process: a second answer to it with another process identifier comes
// from another host with the same address. That is told once, and the other host is ignored as long
// as the first one answers.
#pragma once

#include <unordered_map>
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
  uint32_t point = 0;  // every control message up to here is finished on the node
  Time last_heard = 0;
  Time last_reply = 0;  // to a ping of this process
  // Since when the node answers the pings of this process without a long gap, 0 when it does not:
  // from then on its position in the control stream is this lead's.
  Time adopted_at = 0;
  bool silent = false;
  uint64_t answered_ping = 0;  // status of the last ping that this process has answered
  uint32_t other_pid = 0;      // of another host with the address
};

enum class Sighting : uint8_t {
  kIgnored,  // of a replaced process, without an address, or the table is full
  kKnown,
  kAppeared,
  kRestarted,
  kReturned,  // had fallen silent
  kShared,    // another host has the address, too: told of each of its processes once
};

class NodeTable {
 public:
  // More are ignored: forged addresses must not fill the memory.
  static constexpr size_t kMaxNodes = 4096;

  struct Result {
    Sighting sighting = Sighting::kIgnored;
    NodeIndex index = kNoNode;
  };

  // A message of the control channel; `point` is its position in the control stream.
  Result observe_control(const pkgdist_ctrl_msg_hdr& header, uint32_t from, bool has_point,
                         uint32_t point, Time now);
  // The node has answered a ping that this process sent.
  void note_reply(NodeIndex index, Time now);
  // A message of the data channel, which carries the address only. A node that was never heard on
  // the control channel is entered with process 0.
  Result observe_data(uint32_t address, Time now);

  // Marks the nodes that were not heard for `limit` and calls gone(index) for each.
  template <class Gone>
  void expire(Time now, Time limit, Gone&& gone) {
    for (NodeIndex i = 0; i < nodes_.size(); ++i) {
      if (nodes_[i].silent || elapsed(now, nodes_[i].last_heard) < limit) continue;
      nodes_[i].silent = true;
      gone(i);
    }
  }

  NodeIndex find(uint32_t address) const;
  const Node& operator[](NodeIndex index) const { return nodes_[index]; }
  NodeIndex size() const { return static_cast<NodeIndex>(nodes_.size()); }

 private:
  NodeIndex enter(uint32_t address);
  Sighting heard(Node& node, Time now);
  static bool is_of_other_host(const Node& node, const pkgdist_ctrl_msg_hdr& header, Time now);

  std::vector<Node> nodes_;
  std::unordered_map<uint32_t, NodeIndex> by_address_;
};

}  // namespace pkgdist::lead
