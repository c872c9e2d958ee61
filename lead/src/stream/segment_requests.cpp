#include "stream/segment_requests.h"

namespace pkgdist::lead {

// Whether the node has only now found out that it lacks the run: what the stream has just sent, or
// a small file of which it has not asked for anything yet. Others come from its time-outs.
bool SegmentRequests::is_first_request(const Transfer& transfer, NodeIndex node, uint32_t first,
                                       uint32_t num) const {
  if (!transfer.first_turn && transfer.segments > kFirstInformedAgain) return false;
  if (transfer.segments <= kFirstInformedAgain) return !transfer.nodes[node].has_info;
  const uint64_t recent = 2 * stream_.window.size() / segment_bytes_ + 2 * kFirstInformedAgain;
  return uint64_t{first} + num + recent >= transfer.turn.done();
}

// The latest segments of the file that the node may not have come to yet, if the run goes up to the
// file's end.
uint64_t SegmentRequests::on_the_way(const Transfer& transfer, NodeIndex node, uint32_t first,
                                     uint32_t num) const {
  if (!transfer.turn.has_last(first, num)) return 0;
  const uint64_t bytes = stream_.window.unhandled(node, transfer.stream_end);
  return (bytes + segment_bytes_ - 1) / segment_bytes_;
}

Transfer* SegmentRequests::file_of(uint32_t file_id, uint32_t first, uint32_t num) {
  Transfer* const transfer = stream_.table.at(file_id);
  if (transfer == nullptr) {
    ++counters_.foreign_datagrams;
    return nullptr;
  }
  if (first < transfer->segments && num != 0 && transfer->status == 0) return transfer;
  ++counters_.bad_datagrams;
  return nullptr;
}

// Returns how many of the run are repaired.
uint32_t SegmentRequests::enter(Transfer& transfer, NodeIndex node, uint32_t first, uint32_t num,
                                Time now) {
  uint32_t gone = 0;
  transfer.repairs.set_holdoff(2 * stream_.window.round_trip());
  const uint64_t coming = on_the_way(transfer, node, first, num);
  transfer.turn.behind(first, num, coming, [&](uint32_t from, uint32_t count) {
    transfer.repairs.request(from, count, now);
    transfer.node(node).parts |= transfer.repairs.parts_of(from, count);
    gone += count;
  });
  return gone;
}

uint32_t SegmentRequests::on_request(NodeIndex node, uint32_t file_id, uint32_t first, uint32_t num,
                                     Time now) {
  Transfer* const transfer = file_of(file_id, first, num);
  if (transfer == nullptr) return 0;
  num = std::min(num, transfer->segments);
  transfer->start_search.asked(node, first, num);
  // A node that is not known to want the file is served, but not waited for: it may be forged.
  TransferNode& state = transfer->node(node);
  if (state.has_info)
    stream_.contact.asked(node);
  else
    stream_.contact.answered(node);  // the information has reached it
  const uint32_t gone = enter(*transfer, node, first, num, now);
  if (state.state == TransferNode::State::kOpen) {
    const bool paced = stream_.table.busy().contains(node);
    if (paced && is_first_request(*transfer, node, first, num)) stream_.window.lost(node, gone);
    stream_.settling.on_request(*transfer, node, gone, now);
  }
  state.asked = state.has_info = true;
  state.hear(now);
  transfer->last_request = now;
  transfer->progress();
  counters_.segments_requested += gone;
  stream_.arrival.lacks(node, uint64_t{gone} * segment_bytes_);
  stream_.loss.lost(static_cast<double>(gone) / std::max<double>(1, transfer->open));
  stream_.repairs.enter(*transfer);
  return gone;
}

}  // namespace pkgdist::lead
