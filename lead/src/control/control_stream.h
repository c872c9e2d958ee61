// The multicast control stream: numbered messages, each kept until every node that it is for has
// finished it.
//
// A node finishes a message visibly by an ACK of its sequence, or by a cumulative point (in ACKs,
// NACKs and ping replies) at or above it. It asks for what it lacks by NACK, which it sends at once
// when a later sequence or a ping shows the gap. Pings therefore follow a message closely; a node
// whose reply to a ping still stands below a message that was sent before it gets this again at
// once, without waiting for its NACK, and so does a node that says nothing, at growing intervals.
//
// Every retransmission is marked as one: a node takes an old sequence without the mark for a new
// message. A finished message is kept a little longer, since a duplicate that the network made can
// let a node begin it anew, and then its point stands still until it is answered.
#pragma once

#include <deque>
#include <functional>

#include "admission.h"
#include "control/control_message.h"
#include "node_table.h"

namespace pkgdist::lead {

class ControlStream {
 public:
  // A node has finished a message that was sent for it, first at `first_sent`. `direct`: it said so
  // by an ACK of this message, which it sends only for what it has.
  struct Finished {
    uint32_t sequence = 0;
    NodeIndex node = kNoNode;
    bool direct = false;
    Time first_sent = 0;
  };
  using Acknowledged = std::function<void(const Finished&)>;

  ControlStream(const Settings& self, DatagramSink& sink, Counters& counters,
                Acknowledged acknowledged);

  // Sends a message now. `waiting` are the nodes that have to acknowledge it.
  uint32_t post(uint32_t msg_class, std::vector<uint8_t> payload, Audience audience,
                std::vector<NodeIndex> waiting, Time now);

  // The highest sequence sent so far.
  uint32_t last_sequence() const { return last_sequence_; }
  // Nothing was sent since the beginning.
  bool unused() const { return last_sequence_ == self_.initial_sequence; }

  void on_ack(NodeIndex node, uint32_t sequence);
  void on_nack(NodeIndex node, uint32_t sequence, bool has_segment, uint32_t segment, Time now);
  // Everything up to `point` is finished on the node.
  void on_point(NodeIndex node, uint32_t point);
  // A ping reply: also a sign that the node lacks what stands above its point and was sent before
  // the ping, at `asked`; 0 when that is not known.
  void on_ping_reply(NodeIndex node, uint32_t point, Time asked, Time now);
  // The node is gone or was replaced: nothing is waited for.
  void forget(NodeIndex node);
  // Nobody is waited for any longer; who asks for the message still gets it for a while.
  void give_up(uint32_t sequence);
  // The same for one node.
  void give_up(uint32_t sequence, NodeIndex node);
  // Nothing of what was sent is repeated; sequences go on.
  void abandon();
  // Lists for the nodes' data side that not everybody has acknowledged.
  bool lists_outstanding() const;

  // How soon a node that appears is noticed.
  enum class Watch : uint8_t {
    kIdle,
    kPushing,    // late nodes are welcome
    kGathering,  // nothing goes on until the nodes are there
  };
  void set_watch(Watch watch, Time now);
  void set_round_trip(Time round_trip);
  // Since when this lead leads, in wall-clock seconds: told in every ping.
  void set_leading_since(uint32_t seconds) { leading_since_ = seconds; }
  // Somebody waits for a ping: one soon, and no more of them than a lead that asks whether somebody
  // leads needs.
  void ping_soon(Time now);
  void run(Time now);
  Time next_deadline() const;

 private:
  struct Entry {
    ControlMessage message;
    std::vector<NodeIndex> waiting;  // sorted
    std::vector<Time> segment_sent;  // when each segment last went out
    Time first_sent = 0;
    Time last_sent = 0;
    Time done_at = 0;       // when the last node acknowledged, 0 before
    uint32_t attempts = 0;  // repeated because of silence
    uint32_t repeats = 0;   // because of a ping reply
  };

  Entry* find(uint32_t sequence);
  void acknowledge(Entry& entry, NodeIndex node, bool direct);
  void stop_waiting(Entry& entry);
  void stop_waiting(Entry& entry, NodeIndex node);
  void transmit(Entry& entry, uint32_t segment, bool again, Time now);
  bool retransmit(Entry& entry, Time up_to, Time now);
  Time held_off(Time now) const;
  void ping_after_repeat(Entry& entry, Time now);
  void send_ping(Time now);
  void drop_finished(Time now);
  Time ping_interval() const;

  const Settings& self_;
  DatagramSink& sink_;
  Counters& counters_;
  Acknowledged acknowledged_;
  std::deque<Entry> entries_;  // ascending sequences without gaps
  Allowance whole_messages_;   // segments that a node's NACKs of whole messages may draw
  Time resend_holdoff_;
  uint32_t last_sequence_;
  size_t outstanding_ = 0;  // entries that nodes have not acknowledged
  size_t kept_bytes_ = 0;
  size_t nodes_ = 0;  // highest node index seen + 1: bounds the replies that a ping draws
  Watch watch_ = Watch::kIdle;
  Time next_ping_ = 0;
  Time last_ping_ = 0;
  uint32_t leading_since_ = 0;
  Time now_ = 0;  // of the event being handled
};

}  // namespace pkgdist::lead
