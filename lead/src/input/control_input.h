// What arrives at the lead's control port: nodes' answers to pings, acknowledgements, and messages.
#pragma once

#include "control/control_message.h"
#include "node_watch.h"

namespace pkgdist::lead {

class ControlInput {
 public:
  ControlInput(LeadParts& parts, NodeWatch& watch) : parts_(parts), watch_(watch) {}

  void on_datagram(const Frame& frame, uint32_t from, Time now);

 private:
  using Header = pkgdist_ctrl_msg_hdr;

  void on_node(const Header& header, std::span<const uint8_t> body, uint32_t address, Time asked,
               Time now);
  bool follows(uint32_t address, uint32_t pid) const;
  Time asked_at(const Header& header, Time now) const;
  void on_ping_reply(NodeIndex node, const Header& header, Time asked, Time now);
  void on_answer(NodeIndex node, const Header& header, Time now);
  void on_message(NodeIndex node, const Header& header, std::span<const uint8_t> bytes, Time now);
  void measure_round_trip(uint64_t echo, Time now);

  LeadParts& parts_;
  NodeWatch& watch_;
  Time round_trip_ = 0;
};

}  // namespace pkgdist::lead
