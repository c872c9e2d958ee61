// Messages to single nodes: a numbered unicast stream for each node.
//
// A node takes the first sequence that it hears from a lead's process as the start of the stream,
// and a repetition below the highest one that it has heard as seen. So one message at a time is on
// its way to a node, and the next one follows when it was acknowledged or given up.
//
// A node whose first datagram from this lead is a unicast one would set its multicast position by
// it: messages wait until the node has answered a ping.
#pragma once

#include <deque>
#include <functional>
#include <map>

#include "control/control_message.h"
#include "node_table.h"

namespace pkgdist::lead {

class NodeStreams {
 public:
  using Acknowledged = std::function<void(MessageId id)>;

  NodeStreams(const Settings& self, const NodeTable& nodes, DatagramSink& sink, Counters& counters,
              Acknowledged acknowledged);

  void post(MessageId id, NodeIndex node, uint32_t msg_class, std::vector<uint8_t> payload,
            Time now);
  // When the message was first sent, 0 while it waits.
  Time first_sent(MessageId id, NodeIndex node) const;
  void give_up(MessageId id, NodeIndex node, Time now);
  // The node's process is gone, and with it what it was to receive.
  void forget(NodeIndex node);
  // The same, and another node may get its index.
  void remove(NodeIndex node);

  void set_round_trip(Time round_trip);
  void on_ack(NodeIndex node, uint32_t sequence, Time now);
  void on_nack(NodeIndex node, uint32_t sequence, bool has_segment, uint32_t segment, Time now);
  void run(Time now);
  Time next_deadline() const;

 private:
  struct Waiting {
    MessageId id = 0;
    ControlMessage message;  // its sequence is set when its turn comes
    Time first_sent = 0;
    Time last_sent = 0;
    uint32_t attempts = 0;
  };
  struct Stream {
    uint32_t last_sequence = 0;
    std::deque<Waiting> queue;  // the front is on its way
  };

  Stream* stream_of(NodeIndex node, uint32_t sequence);
  void transmit(NodeIndex node, Waiting& waiting, uint32_t segment, bool again, Time now);
  void transmit_all(NodeIndex node, Waiting& waiting, bool again, Time now);
  void start_next(NodeIndex node, Stream& stream, Time now);
  static Time retry_at(const Waiting& waiting);

  const Settings& self_;
  const NodeTable& nodes_;
  DatagramSink& sink_;
  Counters& counters_;
  Acknowledged acknowledged_;
  std::map<NodeIndex, Stream> streams_;
  uint32_t first_sequence_ = 0;  // above those of removed nodes, which may come back
  size_t queued_ = 0;
  Time resend_holdoff_;
};

}  // namespace pkgdist::lead
