// Messages from nodes: put together from their segments, acknowledged, handed on once.
//
// A node sends all segments of a message, sends them again at a tenth of a second, or half a second
// where its program leaves the library's time-outs as they are, at twice that, ... until it is
// acknowledged, and answers a NACK at once with the segment asked for. So a message that lacks
// segments a moment after its last one arrived is asked for by segment; a node honours five of
// these per segment. A finished message of which any segment arrives again means that the
// acknowledgement was lost: it is acknowledged again, each time with more copies since the network
// loses them, and not handed on. Messages of different sequences are independent.
//
// Sequences are those of a process of the node. Which of them is the present one does not matter
// here: a process that sends a message and ends need not be known for more.
//
// Memory follows what was received, never what a header promises, and is bounded: by message (1
// MiB, and segments no smaller than they need to be), and over all unfinished ones. When these are
// too many, those of the node with the most go; it sends them again if it means it.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "control/control_message.h"
#include "node_table.h"

namespace pkgdist::lead {

class NodeMessages {
 public:
  using Deliver =
      std::function<void(NodeIndex node, uint32_t msg_class, std::span<const uint8_t> bytes)>;

  NodeMessages(const Settings& self, const NodeTable& nodes, DatagramSink& sink, Counters& counters,
               Deliver deliver);

  void on_segment(NodeIndex node, const pkgdist_ctrl_msg_hdr& header, const pkgdist_ctrl_msg& body,
                  Time now);
  // The node is gone for good.
  void forget(NodeIndex node);
  void run(Time now);
  Time next_deadline() const;

 private:
  struct Message {
    uint32_t msg_class = 0;
    uint32_t total = 0;
    uint32_t segment_size = 0;
    std::map<uint32_t, std::vector<uint8_t>> segments;
    Time last_activity = 0;
    uint32_t nacks = 0;  // rounds

    size_t kept_bytes() const;
    uint64_t expected() const { return (uint64_t{total} + segment_size - 1) / segment_size; }
    uint64_t size_of(uint32_t segment) const {
      return std::min<uint64_t>(segment_size, total - uint64_t{segment} * segment_size);
    }
    Time due() const;
  };
  struct Done {
    Time acknowledged = 0;  // last
    uint32_t repeats = 0;   // transmissions of the message that came after it was handed on
  };
  struct Peer {
    std::map<uint32_t, Message> open;  // by sequence
    std::map<uint32_t, Done> done;     // the latest sequences that were handed on
    size_t kept_bytes = 0;             // of open
  };

  static bool plausible(const pkgdist_ctrl_msg_hdr& header, const pkgdist_ctrl_msg& body);
  using Open = std::map<uint32_t, Message>::iterator;
  Message* entry(Peer& peer, uint32_t sequence, const pkgdist_ctrl_msg& body, Time now);
  void keep(Peer& peer, Message& message, uint32_t segment, const pkgdist_ctrl_msg& body);
  Open drop(Peer& peer, Open message);
  void drop_all(Peer& peer);
  void make_room();
  void finish(NodeIndex node, Peer& peer, uint32_t sequence, Time now);
  void acknowledge_again(NodeIndex node, uint32_t sequence, Done& done, Time now);
  void answer(NodeIndex node, uint32_t msg_id, uint32_t sequence, const uint32_t* segment);
  void ask_missing(NodeIndex node, uint32_t sequence, const Message& message);

  const Settings& self_;
  const NodeTable& nodes_;
  DatagramSink& sink_;
  Counters& counters_;
  Deliver deliver_;
  Peer& peer_of(NodeIndex node, uint32_t pid);

  std::map<std::pair<NodeIndex, uint32_t>, Peer> peers_;  // by node and its process
  size_t open_ = 0;
  size_t kept_bytes_ = 0;  // of unfinished messages, with what keeping them costs
  Time next_scan_ = 0;
};

}  // namespace pkgdist::lead
