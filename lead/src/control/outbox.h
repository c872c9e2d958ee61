// The messages of the lead's owner: which nodes each was for, and who has acknowledged it.
//
// A message goes by the multicast stream, in several messages when its list of nodes is long, or by
// the unicast stream of its only node. It is finished when nobody is waited for: each node has
// acknowledged, is gone, or none has acknowledged for as long as the owner waits.
//
// What an acknowledgement is worth: an ACK says that the node has the message. A cumulative point
// above the message also passes over what the node has given up, which takes it more than 5 s, and
// over what was sent before the node followed this lead. Outside of that it says the same as an
// ACK; inside, the delivery is uncertain and reported as that.
//
// Nodes do not process messages in order. A list to cancel or to delete files therefore waits until
// the lists before it were acknowledged, for a bounded time: a list of files that arrives behind
// its cancellation would begin them again.
#pragma once

#include <deque>
#include <map>

#include "control/control_stream.h"
#include "control/node_stream.h"
#include "pkgdist_lead/events.h"

namespace pkgdist::lead {

class Outbox {
 public:
  Outbox(const NodeTable& nodes, ControlStream& control, NodeStreams& streams, Events& events)
      : nodes_(nodes), control_(control), streams_(streams), events_(events) {}

  // 0 when there are no bytes, too many, or the audience makes no sense.
  MessageId post(MessageKind kind, uint32_t msg_class, std::vector<uint8_t> bytes,
                 const Audience& audience, Time timeout, Time now);
  MessageReport report(MessageId id) const;

  // False when the sequence is none of the owner's messages.
  bool on_acknowledged(uint32_t sequence, NodeIndex node, bool certain);
  void on_unicast_acknowledged(MessageId id);
  // The node is not waited for any longer.
  void on_gone(NodeIndex node, Delivery why);
  void give_up_all(Delivery why);
  void run(Time now);
  Time next_deadline() const;

 private:
  struct Message {
    MessageReport report;
    uint32_t msg_class = 0;
    std::vector<uint8_t> bytes;  // until they are handed to a stream
    Audience audience;
    std::vector<uint32_t> sequences;  // in the multicast stream
    Time timeout = 0;
    Time deadline = 0;
    Time hold_until = 0;  // sent behind the lists before it, but not later
    bool sent = false;
    bool progressed = false;  // a node has acknowledged it since the deadline was set
    uint32_t pending = 0;
  };

  void enter_nodes(Message& message) const;
  void send_if_due(Message& message, Time now);
  void send(Message& message, Time now);
  void send_multicast(Message& message, Time now);
  void settle(Message& message, MessageNode& node, Delivery how);
  void settle_rest(Message& message, Delivery how);
  void finish_if_ended(Message& message);
  void check_deadline(Message& message, Time now);
  Message* find(MessageId id);
  std::vector<MessageId> open_messages() const;

  const NodeTable& nodes_;
  ControlStream& control_;
  NodeStreams& streams_;
  Events& events_;
  std::map<MessageId, Message> messages_;
  std::map<uint32_t, MessageId> by_sequence_;
  std::deque<MessageId> finished_;  // oldest first
  MessageId last_id_ = 0;
  size_t open_ = 0;
};

}  // namespace pkgdist::lead
