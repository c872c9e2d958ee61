#include "node_table.h"

#include <utility>

#include "pkgdist/wire_fields.hpp"

namespace pkgdist::lead {

namespace {

// A node that has followed another lead meanwhile was away for twice the 7.5 s of its patience.
constexpr Time kAdoptionGap = 10 * kSecond;
// Of two hosts with one address, the other one is listened to when the first has not answered for
// so long: three pings.
constexpr Time kHostPatience = 3 * kSecond;

}  // namespace

NodeIndex NodeTable::find(uint32_t address) const {
  const auto found = by_address_.find(address);
  return found != by_address_.end() ? found->second : kNoNode;
}

NodeIndex NodeTable::enter(uint32_t address) {
  if (address == 0 || nodes_.size() >= kMaxNodes) return kNoNode;
  const NodeIndex index = size();
  nodes_.emplace_back().info.address = address;
  by_address_.emplace(address, index);
  return index;
}

Sighting NodeTable::heard(Node& node, Time now) {
  node.last_heard = now;
  if (!node.silent) return Sighting::kKnown;
  node.silent = false;
  return Sighting::kReturned;
}

// Every caller has seen to it that a reply's status is that of a ping of this lead.
bool NodeTable::is_of_other_host(const Node& node, const pkgdist_ctrl_msg_hdr& header, Time now) {
  if (header.pid == 0 || node.info.pid == 0 || header.pid == node.info.pid) return false;
  const bool same_ping = header.msg_id == PKGDIST_CTRL_MSG_PING_REPLY && header.status != 0 &&
                         header.status == node.answered_ping;
  const bool known = header.pid == node.other_pid && elapsed(now, node.last_reply) < kHostPatience;
  return same_ping || known;
}

NodeTable::Result NodeTable::observe_control(const pkgdist_ctrl_msg_hdr& header, uint32_t from,
                                             bool has_point, uint32_t point, Time now) {
  const uint32_t address = header.node_ip != 0 ? header.node_ip : from;
  NodeIndex index = find(address);
  const bool first = index == kNoNode;
  if (first) index = enter(address);
  if (index == kNoNode) return {};

  Node& node = nodes_[index];
  if (is_of_other_host(node, header, now)) {
    if (std::exchange(node.other_pid, header.pid) == header.pid) return {};
    return {Sighting::kShared, index};
  }
  if (header.pid != 0 && header.pid == node.previous_pid) return {};
  const bool started = node.info.pid == 0 || (header.pid != 0 && header.pid != node.info.pid);
  const bool restarted = started && node.info.pid != 0;
  Sighting sighting = heard(node, now);
  if (started) {
    node.previous_pid = node.info.pid;
    node.info.pid = header.pid != 0 ? header.pid : node.info.pid;
    node.point = has_point ? point : 0;
    node.adopted_at = 0;
  } else if (has_point && point > node.point) {
    node.point = point;
  }
  if (header.msg_id == PKGDIST_CTRL_MSG_PING_REPLY) node.answered_ping = header.status;
  if (qidl::has<&pkgdist_ctrl_msg_hdr::node_id>(header)) node.info.node_id = header.node_id;
  if (qidl::has<&pkgdist_ctrl_msg_hdr::card_class>(header))
    node.info.card_class = header.card_class;

  if (restarted) sighting = Sighting::kRestarted;
  if (first || (started && !restarted)) sighting = Sighting::kAppeared;
  return {sighting, index};
}

void NodeTable::note_reply(NodeIndex index, Time now) {
  Node& node = nodes_[index];
  if (node.adopted_at == 0 || elapsed(now, node.last_reply) >= kAdoptionGap) node.adopted_at = now;
  node.last_reply = now;
}

NodeTable::Result NodeTable::observe_data(uint32_t address, Time now) {
  NodeIndex index = find(address);
  if (index == kNoNode) {
    index = enter(address);
    if (index == kNoNode) return {};
    nodes_[index].last_heard = now;
    return {Sighting::kKnown, index};  // appears once its process is known
  }
  return {heard(nodes_[index], now), index};
}

}  // namespace pkgdist::lead
