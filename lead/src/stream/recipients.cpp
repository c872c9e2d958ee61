#include "stream/recipients.h"

namespace pkgdist::lead {

// The asker decides about the lane.
void Recipients::set_asker(Transfer& transfer, NodeIndex asker) {
  const Schedule::Place place = stream_.schedule.leave(transfer);
  stream_.table.set_asker(transfer, asker);
  stream_.schedule.come_back(transfer, place);
}

void Recipients::hand_over(TransferId id, uint64_t tag) {
  Transfer& transfer = *stream_.table.at(id);
  transfer.tag = tag;
  set_asker(transfer, kNoNode);
}

void Recipients::leave_to_guests(TransferId id) {
  Transfer& transfer = *stream_.table.at(id);
  const auto guest = std::find_if(
      transfer.nodes.begin(), transfer.nodes.end(),
      [](const TransferNode& node) { return node.state == TransferNode::State::kOpen; });
  const auto node = static_cast<NodeIndex>(guest - transfer.nodes.begin());
  transfer.tag = kRequestedTag;
  if (guest == transfer.nodes.end() || !stream_.table.free_for(node))
    return stream_.settling.close(transfer);
  set_asker(transfer, node);
}

void Recipients::admit(Transfer& transfer, NodeIndex node, bool guest, Time now) {
  transfer.set_guest(node, guest);
  transfer.set_state(node, TransferNode::State::kOpen);
  transfer.node(node).hear(now);
  stream_.arrival.joins(node, stream_.window.position());
}

void Recipients::join(TransferId id, NodeIndex node, bool guest, Time now) {
  Transfer* const transfer = stream_.table.at(id);
  if (transfer == nullptr) return;
  using Stage = Transfer::Stage;
  admit(*transfer, node, guest, now);
  if (!inform_again(*transfer, now)) return;
  if (guest && transfer->lane() == Lane::kPush) return stream_.settling.hurry(*transfer, now);
  if (transfer->stage == Stage::kStreaming)
    transfer->turn.extend();
  else
    stream_.settling.stream_again(*transfer);
}

// False when that is all there is to do for a node that joins.
bool Recipients::inform_again(Transfer& transfer, Time now) {
  using Stage = Transfer::Stage;
  if (transfer.stage == Stage::kQueued) return false;
  // Several nodes ask at the same moment: one information serves them all.
  constexpr Time kInfoHoldoff = 2 * kMillisecond;
  if (elapsed(now, transfer.info_sent) >= std::max(kInfoHoldoff, stream_.window.round_trip()))
    stream_.output.info(transfer, now);
  if (transfer.stage == Stage::kAnnounced) return false;
  if (transfer.status != 0) stream_.settling.begin(transfer, now);
  return transfer.status == 0;
}

// Once per round trip: what was sent for the first question is on its way. A node that has asked
// for segments has most of the file.
void Recipients::join_asking(TransferId id, NodeIndex node, bool guest, Time now) {
  Transfer* const transfer = stream_.table.at(id);
  if (transfer == nullptr) return;
  stream_.contact.asked(node);
  const TransferNode before = transfer->node(node);
  const bool is_open = before.state == TransferNode::State::kOpen;
  if (is_open && elapsed(now, before.heard) < stream_.window.round_trip()) return;
  if (!before.has_info) return join(id, node, is_open ? before.guest : guest, now);
  admit(*transfer, node, is_open ? before.guest : guest, now);
  if (inform_again(*transfer, now)) stream_.settling.hurry(*transfer, now);
}

void Recipients::drop(NodeIndex node) {
  stream_.contact.forget(node);
  stream_.arrival.forget(node);
  for (const TransferId id : stream_.table.ids()) {
    Transfer* const transfer = stream_.table.at(id);
    if (transfer == nullptr || node >= transfer->nodes.size()) continue;
    transfer->set_state(node, TransferNode::State::kAbsent);
    stream_.settling.close_if_ended(*transfer);
  }
}

void Recipients::forget(NodeIndex node) {
  stream_.contact.forget(node);
  stream_.arrival.forget(node);
  stream_.table.each([&](Transfer& transfer) {
    if (node >= transfer.nodes.size()) return;
    transfer.set_state(node, TransferNode::State::kAbsent);
    transfer.nodes[node] = {};
    stream_.settling.forget(transfer.id, node);
  });
}

}  // namespace pkgdist::lead
