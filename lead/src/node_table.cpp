#include "node_table.h"

#include <utility>

#include "pkgdist/wire_fields.hpp"

namespace pkgdist::lead {

namespace {

// A node that has followed another lead meanwhile was away for twice the 7.5 s of its patience.
constexpr Time kAdoptionGap = 10 * kSecond;

}  // namespace

NodeIndex NodeTable::find(uint32_t address) const {
  const auto found = by_address_.find(address);
  return found != by_address_.end() ? found->second : kNoNode;
}

NodeIndex NodeTable::enter(uint32_t address) {
  if (address == 0 || !admits(address)) return kNoNode;
  NodeIndex index = size();
  if (free_.empty()) {
    nodes_.emplace_back();
  } else {
    index = free_.front();
    free_.pop_front();
    nodes_[index] = {};
  }
  nodes_[index].info.address = address;
  by_address_.emplace(address, index);
  return index;
}

void NodeTable::release(NodeIndex index) {
  by_address_.erase(nodes_[index].info.address);
  nodes_[index] = {};
  nodes_[index].silent = true;
  free_.push_back(index);
}

Sighting NodeTable::heard(Node& node, Time now) {
  node.last_heard = now;
  if (!node.silent) return Sighting::kKnown;
  node.silent = false;
  return Sighting::kReturned;
}

// Late answers of a replaced process are to pings that were sent before its successor's first.
NodeTable::Speaker NodeTable::speaker(Node& node, uint32_t pid, Time asked) {
  if (node.info.pid == 0) return pid != 0 ? Speaker::kNew : Speaker::kDoubtful;
  if (pid == 0 || pid == node.info.pid) return Speaker::kPresent;
  if (asked == 0) return Speaker::kDoubtful;
  if (pid == node.previous_pid)
    return asked >= node.rival_asked ? Speaker::kNew : Speaker::kDoubtful;
  const bool second = pid == node.rival && asked > node.rival_asked;
  if (node.silent || (second && node.answered < node.rival_asked)) return Speaker::kNew;
  const bool first = pid != node.rival;
  if (first || second) node.rival_asked = asked;
  node.rival = pid;
  if (first) return Speaker::kRival;
  return second && std::exchange(node.shared_with, pid) != pid ? Speaker::kBeside
                                                               : Speaker::kDoubtful;
}

NodeTable::Result NodeTable::observe_control(const pkgdist_ctrl_msg_hdr& header, uint32_t address,
                                             Time asked, Time now) {
  NodeIndex index = find(address);
  const bool first = index == kNoNode;
  if (first && header.pid != 0) index = enter(address);
  if (index == kNoNode) return {};

  Node& node = nodes_[index];
  const Speaker speaker = this->speaker(node, header.pid, asked);
  if (speaker == Speaker::kRival) return {Sighting::kRival, kNoNode};
  if (speaker == Speaker::kBeside) return {Sighting::kShared, index};
  if (speaker == Speaker::kDoubtful) return {};
  const bool started = speaker == Speaker::kNew;
  const bool restarted = started && node.info.pid != 0;
  Sighting sighting = heard(node, now);
  if (started) replace(node, header.pid, asked);
  node.answered = std::max(node.answered, asked);
  if (qidl::has<&pkgdist_ctrl_msg_hdr::node_id>(header)) node.info.node_id = header.node_id;
  if (qidl::has<&pkgdist_ctrl_msg_hdr::card_class>(header))
    node.info.card_class = header.card_class;

  if (restarted) sighting = Sighting::kRestarted;
  if (first || (started && !restarted)) sighting = Sighting::kAppeared;
  return {sighting, index};
}

// One that comes back was never gone: the other one has to show once more that it is alone.
void NodeTable::replace(Node& node, uint32_t pid, Time asked) {
  const bool returns = pid == node.previous_pid;
  if (pid != node.rival) node.rival_asked = asked;
  const uint32_t replaced = std::exchange(node.info.pid, pid);
  node.previous_pid = returns ? 0 : replaced;
  node.rival = returns ? replaced : 0;
  node.answered = 0;
  node.adopted_at = 0;
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
